// The checksum validator on OpenSSL's digests. A file is read in pieces, so its size costs no
// memory. No state; any thread. Nothing throws.
//
// The digests' own functions are called, not the provider interface above them: that one allocates
// some thousand blocks at its first use and crashes when one of them is refused, and a verdict on a
// script must not hang on either.

// OpenSSL 3 would rather see its provider interface used; see above.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <fcntl.h>
#include <openssl/md5.h>
#include <openssl/sha.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include "AgentSettings.h"
#include "AgentUtils.h"
#include "DigestName.h"
#include "FileDescriptor.h"

namespace AgentUtils {
namespace {

// Large enough that the calls do not show beside the digest, small enough for the cache.
constexpr std::size_t kLargestPiece = std::size_t{256} << 10;
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

/// The next bytes of the file: their number, 0 at its end, or a negative number on an error.
ssize_t readPiece(const FileDescriptor& file, unsigned char* to, std::size_t size) {
  ssize_t count = 0;
  do {
    count = read(file.get(), to, size);
  } while (count < 0 && errno == EINTR);
  return count;
}

/// The digest of the rest of `file`, which has about `size` bytes; nothing on an error.
template <class Algorithm>
std::optional<std::string> digestWith(const FileDescriptor& file, std::size_t size) {
  Algorithm algorithm;
  const std::size_t pieceSize = std::clamp(size, kSmallestPiece, kLargestPiece);
  const auto piece = std::make_unique_for_overwrite<unsigned char[]>(pieceSize);
  while (true) {
    const ssize_t count = readPiece(file, piece.get(), pieceSize);
    if (count < 0) return std::nullopt;
    if (count == 0) return algorithm.value();
    algorithm.update(piece.get(), static_cast<std::size_t>(count));
  }
}

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

bool hasChecksum(const std::string& path, const std::string& type, const std::string& checksum) {
  // A name with a NUL would open the file that its beginning names.
  if (path.find('\0') != std::string::npos) return false;
  const std::optional<Digest> digest = digestOfName(type);
  if (!digest) return false;
  const std::optional<std::string> expected = digestBytes(*digest, checksum);
  if (!expected) return false;
  if (settings().beforeFileUse) settings().beforeFileUse(path);
  // Not blocking, or a FIFO at that path would be waited for.
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file.isOpen() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  return digestOfFile(*digest, file, static_cast<std::size_t>(status.st_size)) == expected;
}

}  // namespace

bool VyCryptography::validateCheckSumForFile(const std::string& path, const std::string& Type,
                                             const std::string& Checksum) {
  try {
    return hasChecksum(path, Type, Checksum);
  } catch (...) {
    // Out of memory: what can't be verified is not valid.
    return false;
  }
}

}  // namespace AgentUtils
