// Whether the local data document of a script is the one that the list names, as far as a host
// has said how that is told. Any thread.

#pragma once

#include <string>

#include "ScriptRepositoryRecords.h"

namespace VarnScriptRepository {

/// Whether the document at `path` may be used for `entry`, by the host's test; always without one.
[[nodiscard]] bool isDocumentOf(const ScriptRepositoryMeta& entry, const std::string& path);

}  // namespace VarnScriptRepository
