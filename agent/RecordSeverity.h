// How much a record of the log matters, told from its source and its text: the library writes its
// failures as information. Pure functions.

#pragma once

#include <string_view>

#include "LogSettings.h"

namespace AgentLog {

/// Whether `source` is a unit of the library, whose texts stay as they are.
[[nodiscard]] bool isUnitOfLibrary(std::string_view source);

/// The severity of `record`. The bundled modules and the command speak up only when something is
/// amiss, so that whatever they say is a warning at least; but for whose lists are taken.
[[nodiscard]] Severity severityOf(const Record& record);

}  // namespace AgentLog
