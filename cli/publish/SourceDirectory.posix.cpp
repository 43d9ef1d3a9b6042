#include "publish/SourceDirectory.h"

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "Calls.h"
#include "WholeFiles.h"

namespace VarnScripts::publishing {
namespace {

// The path with every symbolic link followed.
std::string resolved(const std::string& path, std::error_code& error) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr),
                                                         &std::free);
  if (real) return real.get();
  error = posix::lastError();
  return {};
}

}  // namespace

std::string SourceDirectory::read(const std::string& name, std::error_code& error,
                                  std::uint64_t mostBytes) {
  // A name without a slash leads out of the directory through a link alone.
  posix::RegularFile file =
      posix::readRegularFile(path_ + "/" + name, posix::LastLink::refuse, error, mostBytes);
  if (error != std::errc::too_many_symbolic_link_levels) return std::move(file.bytes);
  error.clear();
  const std::string path = resolvedLink(name, error);
  if (error) return {};
  return posix::readRegularFile(path, posix::LastLink::refuse, error, mostBytes).bytes;
}

std::string SourceDirectory::resolvedLink(const std::string& name, std::error_code& error) {
  const std::scoped_lock lock(links_);
  if (root_.empty()) root_ = resolved(path_, error);
  if (error) return {};
  std::string path = resolved(path_ + "/" + name, error);
  if (error) return {};
  const std::string beginning = root_ == "/" ? root_ : root_ + "/";
  if (!path.starts_with(beginning)) {
    error = std::make_error_code(std::errc::operation_not_permitted);
    return {};
  }
  linked_.insert(path.substr(beginning.size()));
  return path;
}

std::vector<std::string> SourceDirectory::files() const {
  namespace fs = std::filesystem;
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator item(path_, error), end; !error && item != end;
       item.increment(error)) {
    std::error_code unknown;
    std::string name = item->path().filename().string();
    if (item->is_regular_file(unknown) && !linked_.contains(name)) names.push_back(std::move(name));
  }
  return names;
}

}  // namespace VarnScripts::publishing
