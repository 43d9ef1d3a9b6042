// The checksum of a file, `checksum library FILE SHA256`, beside what it can't do without:
// `checksum memory FILE` is the digest alone over the same bytes in memory, `checksum file FILE`
// open, read and digest with everything made beforehand that can be.

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <iterator>
#include <string_view>

#include "AgentUtils.h"
#include "Contestant.h"

namespace {

int library(const std::string& path, const std::string& checksum) {
  return bench::serve([&] {
    if (!AgentUtils::VyCryptography::validateCheckSumForFile(path, "sha256", checksum)) {
      bench::fail("the checksum does not match");
    }
    return 1;
  });
}

using Digest = std::array<unsigned char, EVP_MAX_MD_SIZE>;

int memory(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  std::string bytes(static_cast<std::size_t>(file.tellg()), '\0');
  file.seekg(0).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return bench::serve([&] {
    Digest digest{};
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
    return digest[0];
  });
}

int fromFile(const std::string& path) {
  std::vector<char> piece(std::size_t{256} << 10);
  EVP_MD_CTX* const context = EVP_MD_CTX_new();
  const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return bench::serve([&] {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EVP_DigestInit_ex2(context, algorithm, nullptr);
    while (true) {
      const ssize_t got = ::read(fd, piece.data(), piece.size());
      if (got <= 0) break;
      EVP_DigestUpdate(context, piece.data(), static_cast<std::size_t>(got));
    }
    ::close(fd);
    Digest digest{};
    EVP_DigestFinal_ex(context, digest.data(), nullptr);
    return digest[0];
  });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "library" && argc == 4) return library(argv[2], argv[3]);
  if (mode == "memory" && argc == 3) return memory(argv[2]);
  if (mode == "file" && argc == 3) return fromFile(argv[2]);
  bench::fail("usage: checksum library FILE SHA256 | checksum memory FILE | checksum file FILE");
}
