#include "FileDigest.h"

#include <algorithm>
#include <memory>

#include "Calls.h"
#include "DigestAlgorithms.openssl.h"

namespace AgentUtils {
namespace {

// Large enough that the calls do not show beside the digest, small enough for the cache and for
// memory that is at hand.
constexpr std::size_t kLargestPiece = std::size_t{64} << 10;
constexpr std::size_t kSmallestPiece = std::size_t{4} << 10;

/// The bytes of the file from `offset` on: their number, 0 at its end, or a negative number on an
/// error.
ssize_t readPiece(const FileDescriptor& file, off_t offset, unsigned char* to, std::size_t size) {
  return posix::retryOnInterrupt([&] { return pread(file.get(), to, size, offset); });
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
