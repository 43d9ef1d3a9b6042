#include "TrustedPath.h"

#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <deque>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include "FileDescriptor.h"

namespace VarnScripts {
namespace {

using posix::FileDescriptor;
using Place = PathExaminer::Place;

// A directory needs to be searched, not read.
#if defined(O_PATH)
constexpr int kSearch = O_PATH;
#elif defined(O_SEARCH)
constexpr int kSearch = O_SEARCH;
#else
constexpr int kSearch = O_RDONLY;
#endif
constexpr int kOpenDirectory = kSearch | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
// As many links as the systems follow themselves.
constexpr int kMostDetours = 40;
// How many directories of one path are kept open.
constexpr std::size_t kMostPlaces = 32;

std::string userText(uid_t user) {
  const std::string number = "user " + std::to_string(user);
  // The host looks at paths on one thread.
  const passwd* const entry = ::getpwuid(user);
  return entry == nullptr ? number : number + " (" + entry->pw_name + ")";
}

class PathWalk {
 public:
  // Begins at the last place of `way` that `path` leads through, and leaves there which places it
  // came through itself.
  PathWalk(PathEnd end, uid_t user, MissingDirectory missing, std::vector<Place>& way)
      : end_(end), user_(user), missing_(missing), way_(way) {}

  PathVerdict walk(const std::string& path) {
    begin(path);
    while (verdict_.refusal.empty() && !steps_.empty()) {
      const Step step = std::move(steps_.front());
      steps_.pop_front();
      if (!take(step)) break;
    }
    if (!verdict_.refusal.empty() || detours_ > 0) way_.clear();
    return std::move(verdict_);
  }

 private:
  struct Step {
    std::string name;
    std::string shown;  ///< how it is reported
  };

  void begin(const std::string& path) {
    while (!way_.empty() && !leadsThrough(path, way_.back())) way_.pop_back();
    if (!way_.empty()) expect(path.substr(way_.back().path.size()), way_.back().path);
    // How the last component is judged depends on what the path ends with.
    if (!steps_.empty()) return;
    std::error_code ignored;
    const bool absolute = path.starts_with('/');
    expect(absolute ? path : std::filesystem::current_path(ignored).string() + '/' + path, "");
    enterRoot();
  }

  static bool leadsThrough(const std::string& path, const Place& place) {
    return path.starts_with(place.path) && path[place.path.size()] == '/';
  }

  // The components of `path`, which begins at `directory`, come next.
  void expect(const std::string& path, const std::string& directory) {
    std::deque<Step> steps;
    std::string shown = directory;
    for (std::size_t start = 0; start < path.size();) {
      const std::size_t slash = std::min(path.find('/', start), path.size());
      const std::string name = path.substr(start, slash - start);
      start = slash + 1;
      if (name.empty() || name == ".") continue;
      shown += '/' + name;
      steps.push_back({name, shown});
    }
    steps_.insert(steps_.begin(), steps.begin(), steps.end());
  }

  void enterRoot() {
    way_.clear();
    enter(FileDescriptor(::open("/", kOpenDirectory)), {"", "/"});
  }

  // True when there is more to look at.
  bool take(const Step& step) {
    if (isDirectoryNext()) {
      FileDescriptor directory(::openat(here(), step.name.c_str(), kOpenDirectory));
      if (directory) return enter(std::move(directory), step);
    }
    struct stat status {};
    if (::fstatat(here(), step.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno == ENOENT) return takeMissing(step);
      // What this process can't reach or name, it can't use either.
      if (errno == EACCES || errno == ENOTDIR || errno == ENAMETOOLONG) return false;
      return refuseUnseen(step);
    }
    if (S_ISLNK(status.st_mode)) return takeLink(step, status);
    if (S_ISDIR(status.st_mode)) {
      return enter(FileDescriptor(::openat(here(), step.name.c_str(), kOpenDirectory)), step);
    }
    judgeFile(step, status);
    return false;
  }

  bool takeMissing(const Step& step) {
    if (!way_.back().openToAll) return false;
    if (end_ == PathEnd::givenFile) {
      return refuse(step, "is missing, and any user may make it");
    }
    if (!isDirectoryNext() || missing_ == MissingDirectory::left) return false;
    if (::mkdirat(here(), step.name.c_str(), S_IRWXU) != 0) {
      if (errno != EEXIST || ++detours_ > kMostDetours) {
        return refuse(step, "can't be made: " + std::generic_category().message(errno));
      }
      // Whoever was faster is looked at.
      steps_.push_front(step);
      return true;
    }
    FileDescriptor made(
        ::openat(here(), step.name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    // The umask may have taken away more than it should.
    if (made) static_cast<void>(::fchmod(made.get(), S_IRWXU));
    return enter(std::move(made), step);
  }

  bool takeLink(const Step& step, const struct stat& status) {
    if (!isTrusted(status.st_uid)) {
      return refuse(step, "is a symbolic link of " + userText(status.st_uid));
    }
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlinkat(here(), step.name.c_str(), target.data(), target.size());
    if (length < 0) return refuseUnseen(step);
    if (++detours_ > kMostDetours) return refuse(step, "leads through too many symbolic links");
    const std::string path(target.data(), static_cast<std::size_t>(length));
    if (path.starts_with('/')) {
      expect(path, "");
      enterRoot();
    } else {
      expect(path, step.shown.substr(0, step.shown.rfind('/')));
    }
    return true;
  }

  bool enter(FileDescriptor directory, const Step& step) {
    struct stat status {};
    if (!directory || ::fstat(directory.get(), &status) != 0) return refuseUnseen(step);
    judgeDirectory(step, status);
    if (way_.size() == kMostPlaces || detours_ > 0) way_.clear();
    way_.push_back({step.name.empty() ? "" : step.shown, std::move(directory),
                    (status.st_mode & S_IWOTH) != 0});
    return true;
  }

  void judgeDirectory(const Step& step, const struct stat& status) {
    const bool sticky = (status.st_mode & S_ISVTX) != 0;
    const bool holdsFiles = steps_.empty() && end_ == PathEnd::directory;
    judge(step, status, sticky && !holdsFiles);
  }

  void judgeFile(const Step& step, const struct stat& status) {
    // What is written to a terminal or to the null device is not what is read from it.
    judge(step, status, S_ISCHR(status.st_mode));
    if (end_ == PathEnd::ownFile && S_ISREG(status.st_mode) && status.st_nlink > 1) {
      refuse(step, "has " + std::to_string(status.st_nlink) + " names (hard links)");
    }
  }

  void judge(const Step& step, const struct stat& status, bool anyMode) {
    if (!isTrusted(status.st_uid)) {
      refuse(step, "belongs to " + userText(status.st_uid));
    } else if (!anyMode && (status.st_mode & S_IWOTH) != 0) {
      refuse(step, "may be written to by all users");
    } else if (!anyMode && (status.st_mode & S_IWGRP) != 0) {
      verdict_.writableByGroup.push_back(step.shown);
    }
  }

  // Whether the step that is being taken has to lead to a directory.
  [[nodiscard]] bool isDirectoryNext() const {
    return !steps_.empty() || end_ == PathEnd::directory;
  }

  // Where it begins.
  [[nodiscard]] int here() const { return way_.back().directory.get(); }

  [[nodiscard]] bool isTrusted(uid_t owner) const { return owner == user_ || owner == 0; }

  bool refuse(const Step& step, const std::string& why) {
    if (verdict_.refusal.empty()) verdict_.refusal = step.shown + ' ' + why;
    return false;
  }

  bool refuseUnseen(const Step& step) {
    return refuse(step, "can't be looked at: " + std::generic_category().message(errno));
  }

  const PathEnd end_;
  const uid_t user_;
  const MissingDirectory missing_;
  std::deque<Step> steps_;  ///< what is still to be looked at
  std::vector<Place>& way_;
  int detours_ = 0;
  PathVerdict verdict_;
};

}  // namespace

PathVerdict examinePath(const std::string& path, PathEnd end, uid_t user,
                        MissingDirectory missing) {
  return PathExaminer(user, missing).examine(path, end);
}

PathVerdict PathExaminer::examine(const std::string& path, PathEnd end) {
  return PathWalk(end, user_, missing_, way_).walk(path);
}

}  // namespace VarnScripts
