// The checksum validator. What it finds wrong the downloader asks for whole. No state of its own;
// any thread; nothing throws.

#include <fcntl.h>
#include <sys/stat.h>

#include "AgentSettings.h"
#include "AgentUtils.h"
#include "DigestName.h"
#include "FileDescriptor.h"
#include "FileDigest.h"
#include "KeptCopy.h"

namespace AgentUtils {
namespace {

using posix::FileDescriptor;

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
  if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  return digestOfFile(*digest, file, static_cast<std::size_t>(status.st_size)) == expected;
}

}  // namespace

bool VyCryptography::validateCheckSumForFile(const std::string& path, const std::string& Type,
                                             const std::string& Checksum) {
  try {
    const bool isValid = hasChecksum(path, Type, Checksum);
    // Were it asked for conditionally again, a damaged answer, or a server that takes its new file
    // for the old one, would keep it wrong for ever.
    if (!isValid) distrustFile(path);
    if (settings().afterChecksumTest) settings().afterChecksumTest(path, isValid);
    return isValid;
  } catch (...) {
    // Out of memory: what can't be verified is not valid.
    return false;
  }
}

}  // namespace AgentUtils
