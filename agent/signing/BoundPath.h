// What a signed list binds: everything below it is named by its content. A server path that carries
// the SHA-256 of what it leads to can't be given anything else, whoever holds the server. Pure
// functions; any thread.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "signing/Refusal.h"

namespace AgentUtils::signing {

/// The digest in the name that `serverPath` ends with, "/data/DIGEST.xml": 64 lower-case
/// hexadecimal digits, and then the end or a dot. Nothing in any other name.
[[nodiscard]] std::optional<std::string_view> digestInPath(std::string_view serverPath);

/// Why what has the SHA-256 `digest` must not take the place of what `serverPath` names; nothing
/// when it is that.
[[nodiscard]] std::optional<Refusal> complaintAboutContent(std::string_view serverPath,
                                                           std::string_view digest);

}  // namespace AgentUtils::signing
