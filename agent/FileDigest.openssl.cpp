// The digests of OpenSSL.
//
// Their own functions are called, not the provider interface above them: that one allocates some
// thousand blocks at its first use and crashes when one of them is refused, and a verdict on a
// script must not hang on either.

// OpenSSL 3 would rather see its provider interface used; see above.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "FileDigest.h"

#include <openssl/md5.h>
#include <openssl/sha.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

namespace AgentUtils {
namespace {

// Large enough that the calls do not show beside the digest, small enough for the cache and for
// memory that is at hand.
constexpr std::size_t kLargestPiece = std::size_t{64} << 10;
constexpr std::size_t kSmallestPiece = std::size_t{4} << 10;

/// One digest through the functions of its own algorithm.
template <class Context, int (*start)(Context*), int (*add)(Context*, const void*, std::size_t),
          int (*finish)(unsigned char*, Context*), std::size_t length>
class Algorithm {
 public:
  Algorithm() { start(&context_); }
  void update(const void* bytes, std::size_t count) { add(&context_, bytes, count); }
  std::string value() {
    std::array<unsigned char, length> result;
    finish(result.data(), &context_);
    return {result.begin(), result.end()};
  }

 private:
  Context context_;
};

using Md5 = Algorithm<MD5_CTX, MD5_Init, MD5_Update, MD5_Final, MD5_DIGEST_LENGTH>;
using Sha1 = Algorithm<SHA_CTX, SHA1_Init, SHA1_Update, SHA1_Final, SHA_DIGEST_LENGTH>;
using Sha224 =
    Algorithm<SHA256_CTX, SHA224_Init, SHA224_Update, SHA224_Final, SHA224_DIGEST_LENGTH>;
using Sha256 =
    Algorithm<SHA256_CTX, SHA256_Init, SHA256_Update, SHA256_Final, SHA256_DIGEST_LENGTH>;
using Sha384 =
    Algorithm<SHA512_CTX, SHA384_Init, SHA384_Update, SHA384_Final, SHA384_DIGEST_LENGTH>;
using Sha512 =
    Algorithm<SHA512_CTX, SHA512_Init, SHA512_Update, SHA512_Final, SHA512_DIGEST_LENGTH>;

/// The bytes of the file from `offset` on: their number, 0 at its end, or a negative number on an
/// error.
ssize_t readPiece(const FileDescriptor& file, off_t offset, unsigned char* to, std::size_t size) {
  ssize_t count = 0;
  do {
    count = pread(file.get(), to, size, offset);
  } while (count < 0 && errno == EINTR);
  return count;
}

/// The digest of `file`, which has about `size` bytes; nothing on an error.
template <class Algorithm>
std::optional<std::string> digestWith(const FileDescriptor& file, std::size_t size) {
  Algorithm algorithm;
  const std::size_t pieceSize = std::clamp(size, kSmallestPiece, kLargestPiece);
  const auto piece = std::make_unique_for_overwrite<unsigned char[]>(pieceSize);
  off_t offset = 0;
  while (true) {
    const ssize_t count = readPiece(file, offset, piece.get(), pieceSize);
    if (count < 0) return std::nullopt;
    if (count == 0) return algorithm.value();
    algorithm.update(piece.get(), static_cast<std::size_t>(count));
    offset += count;
  }
}

}  // namespace

std::optional<std::string> digestOfFile(Digest digest, const FileDescriptor& file,
                                        std::size_t size) {
  switch (digest) {
    case Digest::md5:
      return digestWith<Md5>(file, size);
    case Digest::sha1:
      return digestWith<Sha1>(file, size);
    case Digest::sha224:
      return digestWith<Sha224>(file, size);
    case Digest::sha256:
      return digestWith<Sha256>(file, size);
    case Digest::sha384:
      return digestWith<Sha384>(file, size);
    case Digest::sha512:
      return digestWith<Sha512>(file, size);
  }
  return std::nullopt;
}

}  // namespace AgentUtils
