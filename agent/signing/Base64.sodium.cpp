#include "signing/Base64.h"

#include <sodium.h>

namespace AgentUtils::signing {

std::string base64Text(std::span<const unsigned char> bytes) {
  constexpr int kVariant = sodium_base64_VARIANT_ORIGINAL;
  // With room for the NUL that is written behind it.
  std::string text(sodium_base64_encoded_len(bytes.size(), kVariant), '\0');
  sodium_bin2base64(text.data(), text.size(), bytes.data(), bytes.size(), kVariant);
  text.pop_back();
  return text;
}

bool decodeBase64(std::string_view text, std::span<unsigned char> bytes) {
  std::size_t count = 0;
  return sodium_base642bin(bytes.data(), bytes.size(), text.data(), text.size(), nullptr, &count,
                           nullptr, sodium_base64_VARIANT_ORIGINAL) == 0 &&
         count == bytes.size();
}

}  // namespace AgentUtils::signing
