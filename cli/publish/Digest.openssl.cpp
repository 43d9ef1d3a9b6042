#include "publish/Digest.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>

namespace VarnScripts::publishing {
namespace {

constexpr DigestKind kKinds[] = {
    {"md5", true},     {"sha1", true},    {"sha224", false},
    {"sha256", false}, {"sha384", false}, {"sha512", false},
};

}  // namespace

std::optional<DigestKind> digestKind(std::string_view name) {
  std::string plain;
  for (const char c : name) {
    if (c == '-' || c == '_' || c == ' ') continue;
    plain += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  if (plain == "sha") plain = "sha1";
  for (const DigestKind& kind : kKinds) {
    if (plain == kind.name) return kind;
  }
  return std::nullopt;
}

std::string hexDigest(std::string_view kind, std::string_view bytes) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  const EVP_MD* const algorithm = EVP_get_digestbyname(std::string(kind).c_str());
  if (algorithm == nullptr ||
      EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, algorithm, nullptr) != 1) {
    throw std::runtime_error("the digest " + std::string(kind) + " is not available here");
  }
  constexpr std::string_view digits = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) {
    hex += digits[digest[i] >> 4];
    hex += digits[digest[i] & 0xf];
  }
  return hex;
}

}  // namespace VarnScripts::publishing
