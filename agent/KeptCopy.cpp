#include "KeptCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <mutex>
#include <new>
#include <set>
#include <string_view>
#include <utility>

#include "DecodeWatch.h"
#include "Digest.h"
#include "DownloadTarget.h"
#include "FileAttributes.h"

namespace AgentUtils {
namespace {

constexpr char kAttribute[] = "user.varn.download";
// What file systems take that keep a file's attributes in one block.
constexpr std::size_t kLongestAttribute = 3072;
// What a download gives its file; see `DownloadTarget`.
constexpr mode_t kFileMode = 0600;
constexpr mode_t kAllModeBits = 07777;

bool isSameState(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && changeTime(a) == changeTime(b);
}

std::optional<std::string> digestOf(const FileDescriptor& file, const struct stat& status) {
  return hexDigest(usualDigest(), file, static_cast<std::size_t>(status.st_size));
}

std::string digestText(const std::string& digest) {
  return std::string(usualDigest().name) + ':' + digest;
}

/// The attribute's text: digest, URL, entity tag and date, a line each.
std::string attributeText(const std::string& digest, const std::string& url,
                          const Validators& validators) {
  return digest + '\n' + url + '\n' + validators.entityTag + '\n' + validators.lastModified;
}

/// The paths that this process has downloaded to.
class FetchedPaths {
 public:
  static FetchedPaths& shared() {
    // Never destroyed: a download may be under way while static objects go. In room of its own:
    // whoever asks may have no memory, and must not throw.
    alignas(FetchedPaths) static std::byte room[sizeof(FetchedPaths)];
    static FetchedPaths& paths = *::new (room) FetchedPaths;
    return paths;
  }

  void add(const std::string& path) {
    const std::lock_guard lock(mutex_);
    paths_.insert(path);
  }

  [[nodiscard]] bool contains(const std::string& path) {
    const std::lock_guard lock(mutex_);
    return paths_.contains(path);
  }

  /// All of them; there are none afterwards.
  [[nodiscard]] std::set<std::string> takeAll() noexcept {
    const std::lock_guard lock(mutex_);
    return std::exchange(paths_, {});
  }

 private:
  std::mutex mutex_;
  std::set<std::string> paths_;
};

FileDescriptor openedForReading(const std::string& path) {
  // Not blocking, or a FIFO at that path would be waited for.
  return FileDescriptor(
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
}

/// Takes the validators from the file on disk, so that no process asks with them any more.
void forgetValidators(const std::string& path) noexcept {
  const FileDescriptor file = openedForReading(path);
  if (!file || !removeFileAttribute(file, kAttribute)) return;
  // A loss of power must not bring them back.
  static_cast<void>(::fsync(file.get()));
}

void distrustFetchedFiles() noexcept {
  for (const std::string& path : FetchedPaths::shared().takeAll()) forgetValidators(path);
}

/// What an attribute's text says.
struct Kept {
  std::string_view digest;
  std::string_view url;
  Validators validators;
};

/// Nothing when the text is not exactly as `attributeText` makes it: others may have written it.
std::optional<Kept> keptIn(std::string_view text) {
  std::array<std::string_view, 4> lines;
  for (std::size_t line = 0; line < lines.size(); ++line) {
    const std::size_t end = text.find('\n');
    const bool isLast = line + 1 == lines.size();
    if ((end == text.npos) != isLast) return std::nullopt;
    lines[line] = text.substr(0, end);
    if (!isLast) text.remove_prefix(end + 1);
  }
  Kept kept{lines[0], lines[1], {std::string(lines[2]), std::string(lines[3])}};
  const Validators& validators = kept.validators;
  if (!validators.entityTag.empty() && !isEntityTag(validators.entityTag)) return std::nullopt;
  if (!validators.lastModified.empty() && !secondsOfHTTPDate(validators.lastModified)) {
    return std::nullopt;
  }
  if (validators.isEmpty()) return std::nullopt;
  return kept;
}

}  // namespace

std::optional<KeptCopy> KeptCopy::find(const std::string& path, const std::string& url,
                                       std::uint64_t mostBytes) {
  FileDescriptor file = openedForReading(path);
  if (!file) return std::nullopt;
  KeptCopy copy(std::move(file), path);
  struct stat& status = copy.status_;
  if (::fstat(copy.file_.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  // Whoever else may write to it could have written the attribute as well. A whole download makes
  // it what it must be.
  if (status.st_uid != ::geteuid() || (status.st_mode & kAllModeBits) != kFileMode)
    return std::nullopt;
  if (static_cast<std::uint64_t>(status.st_size) > mostBytes) return std::nullopt;
  const std::string text = fileAttribute(copy.file_, kAttribute, kLongestAttribute);
  std::optional<Kept> kept = keptIn(text);
  if (!kept || kept->url != url) return std::nullopt;
  const auto digest = digestOf(copy.file_, status);
  if (!digest || digestText(*digest) != kept->digest) return std::nullopt;
  copy.validators_ = std::move(kept->validators);
  copy.digest_ = *digest;
  return copy;
}

std::chrono::system_clock::time_point KeptCopy::received() const {
  return std::chrono::system_clock::from_time_t(status_.st_mtime);
}

std::string KeptCopy::content() const {
  return wholeContent(file_, static_cast<std::uint64_t>(status_.st_size));
}

bool KeptCopy::isUntouched() const {
  struct stat opened {};
  struct stat named {};
  return ::fstat(file_.get(), &opened) == 0 && ::lstat(path_.c_str(), &named) == 0 &&
         isSameState(opened, status_) && isSameState(named, status_);
}

void noteFetchedFile(const std::string& path) {
  MarkupParser::notifyOfUndecodable(distrustFetchedFiles);
  FetchedPaths::shared().add(path);
}

void distrustFile(const std::string& path) noexcept {
  // A file that was changed here says nothing against those that came from the server.
  if (FetchedPaths::shared().contains(path)) distrustFetchedFiles();
  forgetValidators(path);
}

void keepWithFile(const FileDescriptor& file, const std::string& url,
                  const Validators& validators) noexcept {
  try {
    struct stat status {};
    if (validators.isEmpty() || ::fstat(file.get(), &status) != 0) return;
    const auto digest = digestOf(file, status);
    if (!digest) return;
    const std::string text = attributeText(digestText(*digest), url, validators);
    // What could not be read back as it is.
    if (text.size() > kLongestAttribute || !keptIn(text)) return;
    setFileAttribute(file, kAttribute, text);
  } catch (...) {
    // Out of memory: the next download is a whole one.
  }
}

}  // namespace AgentUtils
