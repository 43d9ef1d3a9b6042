// The checksum validator. What it finds wrong the downloader asks for whole. No state of its own;
// any thread; nothing throws.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "AgentSettings.h"
#include "AgentUtils.h"
#include "ChecksumTest.h"
#include "Digest.h"
#include "FileDescriptor.h"
#include "KeptCopy.h"

namespace AgentUtils {
namespace {

using posix::FileDescriptor;

}  // namespace

const char* complaintAboutFile(const std::string& path, const std::string& type,
                               const std::string& checksum) {
  // A name with a NUL would open the file that its beginning names.
  if (path.find('\0') != std::string::npos) return "its name holds a NUL";
  const DigestKind* const kind = digestKind(type);
  if (kind == nullptr) return "the checksum's type is not known";
  if (settings().beforeFileUse) settings().beforeFileUse(path);
  // Not blocking, or a FIFO at that path would be waited for.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return errno == ENOENT ? "it is missing" : "it can't be opened";
  struct stat status {};
  if (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return "it is not a file";
  const auto digest = hexDigest(*kind, file, static_cast<std::size_t>(status.st_size));
  if (!digest) return "it can't be read";
  return isDigest(checksum, *digest) ? nullptr : "its content is another";
}

bool VyCryptography::validateCheckSumForFile(const std::string& path, const std::string& Type,
                                             const std::string& Checksum) {
  try {
    const char* const wrong = complaintAboutFile(path, Type, Checksum);
    const bool isValid = wrong == nullptr;
    // Were it asked for conditionally again, a damaged answer, or a server that takes its new file
    // for the old one, would keep it wrong for ever.
    if (!isValid) distrustFile(path);
    if (settings().afterChecksumTest) settings().afterChecksumTest(path, isValid);
    if (!isValid && settings().onFailure) settings().onFailure(path, wrong);
    return isValid;
  } catch (...) {
    // Out of memory: what can't be verified is not valid.
    return false;
  }
}

}  // namespace AgentUtils
