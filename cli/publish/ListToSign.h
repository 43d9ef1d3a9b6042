// A list that is left in a directory to be signed on another computer.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "signing/PublicKey.h"
#include "signing/SignedComment.h"

namespace VarnScripts::publishing {

/// The commands that sign the list, one for each key, run in the directory in which it was left.
/// Several have files of their own, so that none takes another's place.
[[nodiscard]] std::vector<std::string> signingCommands(
    const std::vector<AgentUtils::signing::KeyNumber>& keys);

/// Makes `directory` where it is missing, for a list of the source at `source` whose tree is at
/// `output`, with its list in `repository`. Gives why nothing can be left there: it lies in the
/// tree, where the list would be published, it is the source, or another user could exchange what
/// is signed there. After an error nothing is known of it.
[[nodiscard]] std::optional<std::string> makePlaceForSigning(const std::string& directory,
                                                             const std::string& source,
                                                             const std::string& output,
                                                             const std::string& repository,
                                                             std::error_code& error);

/// Leaves in `directory`, which is there, the list, the comment that is to be signed with it
/// ("trusted-comment.txt") and a text that says how ("sign.txt"), each whole and on the disk. What
/// is there of an earlier list is replaced. After an error `path` says where.
void leaveForSigning(const std::string& directory, std::string_view list,
                     const AgentUtils::signing::SignedComment& comment,
                     const std::vector<AgentUtils::signing::KeyNumber>& keys,
                     std::error_code& error, std::string& path);

}  // namespace VarnScripts::publishing
