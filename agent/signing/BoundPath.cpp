#include "signing/BoundPath.h"

#include <algorithm>
#include <cstddef>

namespace AgentUtils::signing {
namespace {

constexpr std::size_t kDigits = 64;

bool isLowerHexadecimal(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

}  // namespace

std::optional<std::string_view> digestInPath(std::string_view serverPath) {
  const std::string_view name = serverPath.substr(serverPath.rfind('/') + 1);
  const std::string_view digest = name.substr(0, kDigits);
  const std::string_view rest = name.substr(digest.size());
  const bool isBound = digest.size() == kDigits &&
                       std::ranges::all_of(digest, isLowerHexadecimal) &&
                       (rest.empty() || rest.front() == '.');
  if (!isBound) return std::nullopt;
  return digest;
}

std::optional<Refusal> complaintAboutContent(std::string_view serverPath, std::string_view digest) {
  const auto expected = digestInPath(serverPath);
  if (!expected) {
    return Refusal{std::string(serverPath) +
                   " is not bound to the signed list: its name has no SHA-256 of its content"};
  }
  if (digest == *expected) return std::nullopt;
  return Refusal{"what came for " + std::string(serverPath) +
                 " is not what the signed list names: its SHA-256 is " + std::string(digest)};
}

}  // namespace AgentUtils::signing
