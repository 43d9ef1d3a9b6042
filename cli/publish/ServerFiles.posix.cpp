#include "publish/ServerFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

#include "StandardStreams.h"
#include "platform/FileDescriptor.h"
#include "publish/Documents.h"
#include "publish/RegularFile.h"
#include "publish/SyncFiles.h"

namespace VarnScripts::publishing {
namespace {

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
constexpr mode_t kDirectoryMode = S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH;

// Only the holder of the lock makes files of such names, so one that is found is a leftover.
constexpr std::string_view kTemporaryName = ".publishing-";

constexpr const char* kContentParts[] = {"data", "files"};

using VarnScriptRepository::platform::FileDescriptor;
using VarnScriptRepository::platform::retryOnInterrupt;

std::error_code lastError() { return {errno, std::generic_category()}; }

// The names in a directory; empty with `error` set when it can't be read.
std::vector<std::string> namesIn(const std::string& path, std::error_code& error) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), &::closedir);
  if (!directory) {
    error = lastError();
    return {};
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* const item = ::readdir(directory.get())) names.emplace_back(item->d_name);
  if (errno != 0) error = lastError();
  return names;
}

std::string parentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

ServerFiles::~ServerFiles() {
  for (const Pending& pending : pending_) ::unlink(pending.temporary.c_str());
  if (lock_ >= 0) ::close(lock_);
}

std::string ServerFiles::pathOf(const std::string& name) const { return directory_ + "/" + name; }

void ServerFiles::fail(const std::string& path, std::error_code& error) {
  error = lastError();
  failedPath_ = path;
}

void ServerFiles::open(const std::string& outputDirectory, const std::string& repository,
                       std::error_code& error) {
  error.clear();
  directory_ = outputDirectory + "/" + repository;
  createDirectories(directory_, error);
  if (error) return;
  lock(error);
  if (error) return;
  for (const char* const part : kContentParts) {
    createDirectories(pathOf(part), error);
    if (error) return;
  }
}

// The missing directories on the way to `path`, and `path` itself.
void ServerFiles::createDirectories(const std::string& path, std::error_code& error) {
  for (auto slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string directory = path.substr(0, slash);
    struct stat status {};
    const bool exists = ::stat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    if (!exists) {
      // Another publishing may have created it by now.
      const bool created = ::mkdir(directory.c_str(), kDirectoryMode) == 0;
      if (!created && errno != EEXIST) return fail(directory, error);
      if (created && ::chmod(directory.c_str(), kDirectoryMode) != 0) return fail(directory, error);
      if (created) syncDirectory(parentOf(directory), error);
      if (error) return;
    }
    if (slash == std::string::npos) return;
  }
}

void ServerFiles::lock(std::error_code& error) {
  // The directory itself is the lock, so no file is needed for it in a tree that is served.
  lock_ = ::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (lock_ < 0) return fail(directory_, error);
  if (retryOnInterrupt([this] { return ::flock(lock_, LOCK_EX); }) != 0) fail(directory_, error);
}

std::string ServerFiles::read(const std::string& name, std::error_code& error) {
  RegularFile file = readRegularFile(pathOf(name), LastLink::refuse, error);
  const bool none = error == std::errc::no_such_file_or_directory ||
                    error == std::errc::too_many_symbolic_link_levels ||
                    error == std::errc::invalid_argument;
  if (none) error.clear();
  if (error) failedPath_ = pathOf(name);
  return std::move(file.bytes);
}

void ServerFiles::add(const std::string& name, std::string_view bytes, std::error_code& error) {
  error.clear();
  if (!added_.insert(name).second) return;
  const std::string path = pathOf(name);
  std::error_code unreadable;
  const RegularFile old = readRegularFile(path, LastLink::refuse, unreadable);
  if (!unreadable && old.permissions == kFileMode && old.bytes == bytes) return;
  const std::string temporary =
      parentOf(path) + "/" + std::string(kTemporaryName) + std::to_string(serial_++);
  pending_.push_back({temporary, name});
  writeTemporary(temporary, bytes, error);
}

void ServerFiles::writeTemporary(const std::string& path, std::string_view bytes,
                                 std::error_code& error) {
  ::unlink(path.c_str());
  const FileDescriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!file || ::fchmod(file.get(), kFileMode) != 0) return fail(path, error);
  writeAll(file.get(), bytes, error);
  if (error) failedPath_ = path;
}

void ServerFiles::commit(std::error_code& error) {
  error.clear();
  std::vector<std::string> temporaries;
  for (const Pending& pending : pending_) temporaries.push_back(pending.temporary);
  failedPath_ = syncFiles(temporaries, lock_, error);
  if (error) return;
  std::set<std::string> directories;
  for (const Pending& pending : pending_) {
    const std::string path = pathOf(pending.name);
    if (::rename(pending.temporary.c_str(), path.c_str()) != 0) return fail(path, error);
    directories.insert(parentOf(path));
  }
  written_ += pending_.size();
  pending_.clear();
  for (const std::string& directory : directories) {
    syncDirectory(directory, error);
    if (error) return;
  }
}

void ServerFiles::syncDirectory(const std::string& path, std::error_code& error) {
  syncPath(path, error);
  if (error) failedPath_ = path;
}

void ServerFiles::removeCompressedCopies(const std::string& name, std::error_code& error) {
  error.clear();
  for (const char* const suffix : {".gz", ".br", ".zst"}) {
    const std::string path = pathOf(name) + suffix;
    if (::unlink(path.c_str()) == 0) {
      ++copiesRemoved_;
    } else if (errno != ENOENT) {
      return fail(path, error);
    }
  }
  if (copiesRemoved_ > 0) syncDirectory(directory_, error);
}

void ServerFiles::removeContentBut(const ContentNames& named, std::error_code& error) {
  error.clear();
  removeIn("", named, error);
  for (const char* const part : kContentParts) {
    if (!error) removeIn(std::string(part) + "/", named, error);
  }
}

// Removes what is unneeded among the files of `part`, which is empty or ends in a slash.
void ServerFiles::removeIn(const std::string& part, const ContentNames& named,
                           std::error_code& error) {
  const std::string directory = part.empty() ? directory_ : parentOf(pathOf(part));
  const auto names = namesIn(directory, error);
  if (error) {
    failedPath_ = directory;
    return;
  }
  for (const std::string& base : names) {
    const std::string name = part + base;
    const bool leftover = base.starts_with(kTemporaryName);
    if (!leftover && (!isContentName(name) || named.contains(name))) continue;
    if (::unlink(pathOf(name).c_str()) != 0 && errno != ENOENT) return fail(pathOf(name), error);
    ++removed_;
  }
}

}  // namespace VarnScripts::publishing
