// A list that is left in a directory to be signed on another computer.

#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include "signing/SignedComment.h"

namespace VarnScripts::publishing {

/// The command that signs the list, run in the directory in which it was left.
[[nodiscard]] std::string signingCommand();

/// Leaves in `directory`, which is made when it is missing, the list, the comment that is to be
/// signed with it ("trusted-comment.txt") and a text that says how ("sign.txt"), each whole and on
/// the disk. What is there of an earlier list is replaced. After an error `path` says where.
void leaveForSigning(const std::string& directory, std::string_view list,
                     const AgentUtils::signing::SignedComment& comment, std::error_code& error,
                     std::string& path);

}  // namespace VarnScripts::publishing
