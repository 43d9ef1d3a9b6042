// Whose scripts a record is about: one that two customers share gives the one's requests the
// versions of the other, and the one's removal the other's scripts.

#pragma once

#include <optional>
#include <string>

#include "Settings.h"

namespace VarnScripts {

/// Why requests with `settings` can't use the record in the store at `path`, which may be a copy:
/// it names a script in another customer's directory. Nothing without such a script, and without a
/// store or with one that can't be read, which a request takes for an empty one.
[[nodiscard]] std::optional<std::string> complaintAboutRecord(const std::string& path,
                                                              const Settings& settings);

}  // namespace VarnScripts
