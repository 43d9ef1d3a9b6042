#include "signing/ListSignature.h"

#include <sodium.h>

#include <algorithm>
#include <optional>

#include "signing/Base64.h"
#include "signing/Sodium.h"

namespace AgentUtils::signing {
namespace {

constexpr std::string_view kTrustedComment = "trusted comment: ";
constexpr std::array<unsigned char, 2> kHashed = {'E', 'D'};
constexpr std::array<unsigned char, 2> kWhole = {'E', 'd'};
constexpr std::size_t kLines = 4;

/// Algorithm, key number, signature.
using Packed = std::array<unsigned char, 2 + 8 + 64>;
static_assert(sizeof(ListSignature::overList) == crypto_sign_BYTES);

using Lines = std::array<std::string_view, kLines>;

Refusal refusal(const std::string& why) { return {"the signature file " + why}; }

std::optional<Refusal> takeLines(std::string_view text, Lines& lines) {
  if (text.empty()) return refusal("is empty");
  if (text.size() > kLongestSignatureFile) {
    return refusal("is longer than " + std::to_string(kLongestSignatureFile) + " bytes");
  }
  if (text.find('\r') != text.npos) return refusal("has carriage returns in it");
  if (text.ends_with('\n')) text.remove_suffix(1);
  const auto breaks = static_cast<std::size_t>(std::ranges::count(text, '\n'));
  if (breaks + 1 < kLines) {
    return refusal("is cut: it has " + std::to_string(breaks + 1) + " of four lines");
  }
  if (breaks + 1 > kLines) return refusal("has more than four lines");
  for (std::string_view& line : lines) {
    line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
  return std::nullopt;
}

bool hasAlgorithm(const Packed& packed, const std::array<unsigned char, 2>& algorithm) {
  return std::equal(algorithm.begin(), algorithm.end(), packed.begin());
}

bool isOver(const std::array<unsigned char, 64>& signature, const void* bytes, std::size_t size,
            const PublicKey& key) {
  return crypto_sign_verify_detached(signature.data(), static_cast<const unsigned char*>(bytes),
                                     size, key.point.data()) == 0;
}

}  // namespace

ListHash hashOfList(std::string_view list) {
  startSodium();
  ListHash hash;
  crypto_generichash(hash.data(), hash.size(), reinterpret_cast<const unsigned char*>(list.data()),
                     list.size(), nullptr, 0);
  return hash;
}

std::variant<ListSignature, Refusal> parseSignature(std::string_view text) {
  Lines lines;
  if (auto trouble = takeLines(text, lines)) return *trouble;
  if (!lines[0].starts_with(kUntrustedComment)) {
    return refusal("does not begin with \"untrusted comment: \"");
  }
  Packed packed;
  if (!decodeBase64(lines[1], packed)) return refusal("has no signature in its second line");
  if (hasAlgorithm(packed, kWhole)) {
    return refusal("is of the algorithm Ed, which does not hash the list first; ED is wanted");
  }
  if (!hasAlgorithm(packed, kHashed)) return refusal("is of an unknown algorithm");
  if (!lines[2].starts_with(kTrustedComment)) {
    return refusal("does not begin its third line with \"trusted comment: \"");
  }
  ListSignature signature;
  if (!decodeBase64(lines[3], signature.overComment)) {
    return refusal("has no signature in its fourth line");
  }
  std::copy_n(packed.begin() + 2, signature.key.size(), signature.key.begin());
  std::copy_n(packed.begin() + 10, signature.overList.size(), signature.overList.begin());
  signature.comment = lines[2].substr(kTrustedComment.size());
  return signature;
}

std::string signatureFile(const ListSignature& signature) {
  Packed packed;
  unsigned char* next = std::copy(kHashed.begin(), kHashed.end(), packed.data());
  next = std::copy(signature.key.begin(), signature.key.end(), next);
  std::copy(signature.overList.begin(), signature.overList.end(), next);
  return std::string(kUntrustedComment) + "signature from minisign secret key\n" +
         base64Text(packed) + '\n' + std::string(kTrustedComment) + signature.comment + '\n' +
         base64Text(signature.overComment) + '\n';
}

std::vector<std::string> signatureNames(const std::string& digest,
                                        const std::vector<PublicKey>& keys) {
  const std::string start = "signatures/" + digest;
  std::vector<std::string> names = {start + ".minisig"};
  for (const PublicKey& key : keys) names.push_back(start + '.' + keyName(key.number) + ".minisig");
  return names;
}

Verdict verify(const ListSignature& signature, const PublicKey& key, const ListHash& list) {
  startSodium();
  if (!isOver(signature.overList, list.data(), list.size(), key)) return Verdict::otherList;
  const std::string commented = signedWithComment(signature);
  const bool holds = isOver(signature.overComment, commented.data(), commented.size(), key);
  return holds ? Verdict::valid : Verdict::otherComment;
}

std::string signedWithComment(const ListSignature& signature) {
  std::string bytes(signature.overList.begin(), signature.overList.end());
  return bytes += signature.comment;
}

}  // namespace AgentUtils::signing
