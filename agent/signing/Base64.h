// Base64 as the files of keys and signatures have it: padded, on one line, nothing in between. Any
// thread.

#pragma once

#include <span>
#include <string>
#include <string_view>

namespace AgentUtils::signing {

/// The bytes as text.
[[nodiscard]] std::string base64Text(std::span<const unsigned char> bytes);

/// Fills all of `bytes` with what `text` says. False, with anything in `bytes`, when the text is
/// not the one text of exactly so many bytes.
[[nodiscard]] bool decodeBase64(std::string_view text, std::span<unsigned char> bytes);

}  // namespace AgentUtils::signing
