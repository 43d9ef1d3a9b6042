#include "publish/Digest.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "DigestAlgorithms.openssl.h"

namespace VarnScripts::publishing {
namespace {

template <class Algorithm>
std::string digestWith(std::string_view bytes) {
  Algorithm algorithm;
  algorithm.update(bytes.data(), bytes.size());
  return algorithm.value();
}

struct Known {
  DigestKind kind;
  std::string (*digest)(std::string_view bytes);
};

constexpr Known kKnown[] = {
    {{"md5", true}, digestWith<AgentUtils::Md5>},
    {{"sha1", true}, digestWith<AgentUtils::Sha1>},
    {{"sha224", false}, digestWith<AgentUtils::Sha224>},
    {{"sha256", false}, digestWith<AgentUtils::Sha256>},
    {{"sha384", false}, digestWith<AgentUtils::Sha384>},
    {{"sha512", false}, digestWith<AgentUtils::Sha512>},
};

}  // namespace

std::optional<DigestKind> digestKind(std::string_view name) {
  std::string plain;
  for (const char c : name) {
    if (c == '-' || c == '_' || c == ' ') continue;
    plain += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  if (plain == "sha") plain = "sha1";
  for (const Known& known : kKnown) {
    if (plain == known.kind.name) return known.kind;
  }
  return std::nullopt;
}

std::string hexDigest(std::string_view kind, std::string_view bytes) {
  const auto* const known =
      std::find_if(std::begin(kKnown), std::end(kKnown),
                   [kind](const Known& each) { return each.kind.name == kind; });
  if (known == std::end(kKnown)) throw std::invalid_argument("no digest " + std::string(kind));
  constexpr std::string_view digits = "0123456789abcdef";
  std::string hex;
  for (const char c : known->digest(bytes)) {
    const auto byte = static_cast<unsigned char>(c);
    hex += digits[byte >> 4];
    hex += digits[byte & 0xf];
  }
  return hex;
}

}  // namespace VarnScripts::publishing
