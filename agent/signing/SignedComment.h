// What the trusted comment of a list's signature says, which is signed with the list: fields of the
// form `name:value` with a tab between them, each of the four once, in any order.
//
//     customer:acme	serial:7	published:2026-11-22T11:30:00Z	expires:2026-12-22T11:30:00Z
//
// Pure functions; any thread.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "signing/Refusal.h"
#include "signing/UTCTime.h"

namespace AgentUtils::signing {

struct SignedComment {
  std::string customer;      ///< whose scripts the list is about; not empty
  std::uint64_t serial = 0;  ///< grows with every publication
  UTCTime published;
  UTCTime expires;  ///< later than `published`; from then on the signature counts no more

  bool operator==(const SignedComment&) const = default;
};

/// Takes the comment apart. Whatever is missing, twice, not known here or not of its form is
/// refused: a field that is not understood may be one that matters.
[[nodiscard]] std::variant<SignedComment, Refusal> parseSignedComment(std::string_view text);

/// The one text of `comment` that is written here.
[[nodiscard]] std::string signedCommentText(const SignedComment& comment);

/// What `text` says when it is a whole number that 64 bits hold, without a sign and without zeros
/// before it; nothing for any other.
[[nodiscard]] std::optional<std::uint64_t> serialFrom(std::string_view text);

/// Whether a signature can name `customer`: it has a text without control characters.
[[nodiscard]] bool canBeSigned(std::string_view customer);

}  // namespace AgentUtils::signing
