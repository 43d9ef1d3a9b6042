// OpenSSL's own functions for each algorithm are called, not the provider interface above them:
// that one allocates some thousand blocks at its first use and crashes when one of them is refused,
// and no request must hang on either.

// OpenSSL 3 would rather see its provider interface used; see above.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "Digest.h"

#include <openssl/md5.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <memory>
#include <utility>

#include "Calls.h"

namespace AgentUtils {
namespace {

using posix::FileDescriptor;

// Large enough that the calls do not show beside the digest, small enough for the cache and for
// memory that is at hand.
constexpr std::size_t kLargestPiece = std::size_t{64} << 10;
constexpr std::size_t kSmallestPiece = std::size_t{4} << 10;

char lowerASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// Gives the next piece of what is digested until it is empty.
using NextPiece = std::function<std::string_view()>;

template <class Context, int (*start)(Context*), int (*add)(Context*, const void*, std::size_t),
          int (*finish)(unsigned char*, Context*), std::size_t length>
std::string digestWith(const NextPiece& next) {
  Context context;
  start(&context);
  for (std::string_view piece = next(); !piece.empty(); piece = next()) {
    add(&context, piece.data(), piece.size());
  }
  std::array<unsigned char, length> bytes;
  finish(bytes.data(), &context);
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex(2 * length, '0');
  for (std::size_t at = 0; at < length; ++at) {
    hex[2 * at] = kDigits[bytes[at] >> 4];
    hex[2 * at + 1] = kDigits[bytes[at] & 0x0F];
  }
  return hex;
}

struct Known {
  DigestKind kind;
  std::string (*digest)(const NextPiece& next);
};

constexpr Known kKnown[] = {
    {{"md5", true}, digestWith<MD5_CTX, MD5_Init, MD5_Update, MD5_Final, MD5_DIGEST_LENGTH>},
    {{"sha1", true}, digestWith<SHA_CTX, SHA1_Init, SHA1_Update, SHA1_Final, SHA_DIGEST_LENGTH>},
    {{"sha224", false},
     digestWith<SHA256_CTX, SHA224_Init, SHA224_Update, SHA224_Final, SHA224_DIGEST_LENGTH>},
    {{"sha256", false},
     digestWith<SHA256_CTX, SHA256_Init, SHA256_Update, SHA256_Final, SHA256_DIGEST_LENGTH>},
    {{"sha384", false},
     digestWith<SHA512_CTX, SHA384_Init, SHA384_Update, SHA384_Final, SHA384_DIGEST_LENGTH>},
    {{"sha512", false},
     digestWith<SHA512_CTX, SHA512_Init, SHA512_Update, SHA512_Final, SHA512_DIGEST_LENGTH>},
};

const Known* knownOf(std::string_view name) {
  const auto* const known =
      std::ranges::find(kKnown, name, [](const Known& each) { return each.kind.name; });
  return known == std::end(kKnown) ? nullptr : known;
}

}  // namespace

const DigestKind* digestKind(std::string_view name) {
  std::string plain;
  for (const char c : name) {
    if (c != '-' && c != '_' && c != ' ') plain += lowerASCII(c);
  }
  const Known* const known = knownOf(plain == "sha" ? "sha1" : plain);
  return known == nullptr ? nullptr : &known->kind;
}

const DigestKind& usualDigest() { return knownOf("sha256")->kind; }

std::string hexDigest(const DigestKind& kind, std::string_view bytes) {
  return knownOf(kind.name)->digest([&bytes] { return std::exchange(bytes, {}); });
}

std::optional<std::string> hexDigest(const DigestKind& kind, const FileDescriptor& file,
                                     std::size_t size) {
  const std::size_t pieceSize = std::clamp(size, kSmallestPiece, kLargestPiece);
  const auto piece = std::make_unique_for_overwrite<char[]>(pieceSize);
  off_t offset = 0;
  bool failed = false;
  const auto next = [&]() -> std::string_view {
    const ssize_t count = posix::retryOnInterrupt(
        [&] { return ::pread(file.get(), piece.get(), pieceSize, offset); });
    failed = count < 0;
    if (count <= 0) return {};
    offset += count;
    return {piece.get(), static_cast<std::size_t>(count)};
  };
  std::string digest = knownOf(kind.name)->digest(std::ref(next));
  if (failed) return std::nullopt;
  return digest;
}

bool isDigest(std::string_view checksum, std::string_view hexDigest) {
  return std::ranges::equal(checksum, hexDigest, {}, lowerASCII);
}

}  // namespace AgentUtils
