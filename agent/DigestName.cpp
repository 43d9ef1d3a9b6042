#include "DigestName.h"

#include <utility>

#include "HexDigit.h"

namespace AgentUtils {
namespace {

constexpr std::pair<std::string_view, Digest> kNames[] = {
    {"md5", Digest::md5},       {"sha", Digest::sha1},      {"sha1", Digest::sha1},
    {"sha224", Digest::sha224}, {"sha256", Digest::sha256}, {"sha384", Digest::sha384},
    {"sha512", Digest::sha512},
};

}  // namespace

std::optional<Digest> digestOfName(std::string_view checksumType) {
  std::string plain;
  for (const char c : checksumType) {
    if (c == '-' || c == '_' || c == ' ') continue;
    plain += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  for (const auto& [name, digest] : kNames) {
    if (name == plain) return digest;
  }
  return std::nullopt;
}

std::optional<std::string> digestBytes(Digest digest, std::string_view checksum) {
  const auto length = static_cast<std::size_t>(digest);
  if (checksum.size() != 2 * length) return std::nullopt;
  std::string bytes;
  for (std::size_t at = 0; at < checksum.size(); at += 2) {
    const int high = hexValue(checksum[at]);
    const int low = hexValue(checksum[at + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

}  // namespace AgentUtils
