// Names and values of checksums: whatever the server sends, a match means that the digest of the
// file really is that value.

#include <cctype>
#include <filesystem>
#include <fstream>
#include <string>

#include "AgentUtils.h"
#include "Input.h"

namespace {

constexpr const char* kDigests[] = {
    "0cc175b9c0f1b6a831c399e269772661",                                  // md5 of "a"
    "86f7e437faa5a7fce15d1ddcb9eaeaea377667b8",                          // sha1
    "abd37534c7d9a2efb9465de931cd7055ffdb8879563ae98078d6d6d5",          // sha224
    "ca978112ca1bbdcafac231b39a23dc4da786eff8147c4e72b9807785afee48bb",  // sha256
    "54a59b9f22b0b80880d8427e548b7c23abd873486e1f035dce9cd697e85175033caa88e6d57bc35efae0b5afd3145f"
    "31",
    "1f40fc92da241694750979ee6cf582f2d5d7d28e18335de05abc54d0560e0f53"
    "02860c652bf08d560252aa5e74210546f369fbbbce8c12cfc7957b2652fe9a75",
};

std::string makeFile() {
  const auto path = std::filesystem::temp_directory_path() / "varn-fuzz-checksum";
  std::ofstream(path) << "a";
  return path.string();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = makeFile();
  fuzz::Input input(data, size);
  const std::string type = input.text();
  std::string value = input.text();
  if (!AgentUtils::VyCryptography::validateCheckSumForFile(path, type, value)) return 0;
  for (char& digit : value)
    digit = static_cast<char>(std::tolower(static_cast<unsigned char>(digit)));
  bool known = false;
  for (const char* const digest : kDigests) known = known || value == digest;
  FUZZ_REQUIRE(known);
  return 0;
}
