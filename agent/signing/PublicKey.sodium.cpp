#include "signing/PublicKey.h"

#include <sodium.h>

#include <algorithm>
#include <map>

#include "signing/Base64.h"

namespace AgentUtils::signing {
namespace {

constexpr std::array<unsigned char, 2> kAlgorithm = {'E', 'd'};
constexpr std::size_t kSecretKeyLine = 212;

/// Algorithm, number, point.
using Packed = std::array<unsigned char, 2 + 8 + 32>;
static_assert(sizeof(PublicKey::point) == crypto_sign_PUBLICKEYBYTES);

Refusal refusal(const std::string& why) { return {"the public key " + why}; }

std::variant<PublicKey, Refusal> keyOfLine(std::string_view line) {
  if (line.size() == kSecretKeyLine) {
    return refusal("is a secret key, which belongs to whoever signs alone");
  }
  Packed packed;
  if (!decodeBase64(line, packed))
    return refusal("is not a line of 56 letters that begins with RW");
  if (!std::equal(kAlgorithm.begin(), kAlgorithm.end(), packed.begin())) {
    return refusal("is of an unknown algorithm");
  }
  PublicKey key;
  std::copy_n(packed.begin() + 2, key.number.size(), key.number.begin());
  std::copy_n(packed.begin() + 10, key.point.size(), key.point.begin());
  // Under some of the points that are none, a signature can be made without a key.
  if (crypto_core_ed25519_is_valid_point(key.point.data()) != 1) return refusal("is none");
  return key;
}

}  // namespace

std::string keyName(const KeyNumber& number) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string name;
  // The number's lowest byte comes first in the file.
  std::for_each(number.rbegin(), number.rend(), [&](unsigned char byte) {
    name += kDigits[byte >> 4];
    name += kDigits[byte & 0x0F];
  });
  return name;
}

std::optional<Refusal> complaintAboutNumbers(const std::vector<PublicKey>& keys) {
  std::map<decltype(PublicKey::point), KeyNumber> numbers;
  for (const PublicKey& key : keys) {
    const KeyNumber& number = numbers.try_emplace(key.point, key.number).first->second;
    if (number == key.number) continue;
    return Refusal{"the keys " + keyName(number) + " and " + keyName(key.number) +
                   " are one key under two numbers"};
  }
  return std::nullopt;
}

std::variant<PublicKey, Refusal> parsePublicKey(std::string_view text) {
  if (text.empty()) return refusal("is empty");
  if (text.size() > kLongestPublicKeyFile) {
    return refusal("is longer than " + std::to_string(kLongestPublicKeyFile) + " bytes");
  }
  if (text.starts_with(kUntrustedComment)) {
    const std::size_t end = text.find('\n');
    if (end == text.npos) return refusal("is cut: its second line is missing");
    text.remove_prefix(end + 1);
  }
  if (text.ends_with('\n')) text.remove_suffix(1);
  return keyOfLine(text);
}

std::string publicKeyLine(const PublicKey& key) {
  Packed packed;
  unsigned char* next = std::copy(kAlgorithm.begin(), kAlgorithm.end(), packed.data());
  next = std::copy(key.number.begin(), key.number.end(), next);
  std::copy(key.point.begin(), key.point.end(), next);
  return base64Text(packed);
}

std::string publicKeyFile(const PublicKey& key) {
  return std::string(kUntrustedComment) + "minisign public key " + keyName(key.number) + '\n' +
         publicKeyLine(key) + '\n';
}

}  // namespace AgentUtils::signing
