#include "RequestFiles.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "AgentDirectories.h"
#include "Directories.h"
#include "List.h"
#include "ScriptTurn.h"
#include "WholeFiles.h"
#include "support/Files.h"

namespace VarnScripts {
namespace {

using VarnScriptRepository::fileLockOffset;
using VarnScriptRepository::ScriptTurn;
using VarnScriptRepository::files::nameBelow;
using VarnScriptRepository::files::resolvedDirectory;

const std::string& scriptsDirectory() { return VarnScriptRepository::scriptRepoScriptsDirectory(); }

std::string recordedPathOf(const std::string& scriptID) {
  std::optional<std::string> unreadable;
  const auto record = listedScript(scriptID, unreadable);
  return record ? record->scriptPath.value_or("") : "";
}

}  // namespace

std::string markNotMade(const DocumentMark& mark) { return "can't make " + mark.path(); }

RequestFiles::RequestFiles(const std::string& scriptID, ScriptTurn& turn)
    : scriptID_(scriptID),
      documentPath_(VarnScriptRepository::dataDocumentPath(scriptID)),
      mark_(scriptID),
      turn_(turn) {}

void RequestFiles::begin(std::error_code& error) {
  error.clear();
  if (!mark_.isThere()) return;
  // Gone from the disk before the mark is: what remains is a document that nobody has fetched yet.
  if (::unlink(documentPath_.c_str()) == 0) {
    posix::syncDirectory(documentPath_.substr(0, documentPath_.rfind('/')), error);
  } else if (errno != ENOENT) {
    error.assign(errno, std::generic_category());
  }
  if (error) return;
  recordedPath_ = mark_.recordedPath();
  removeOutgrown();
  mark_.remove(error);
}

void RequestFiles::beforeFileUse(const std::string& path) {
  verifiedPath_.clear();
  if (path == documentPath_) {
    recordedPath_ = recordedPathOf(scriptID_);
    std::error_code error;
    mark_.make(recordedPath_, error);
    if (error) throw std::system_error(error, markNotMade(mark_));
    return;
  }
  // The list is replaced whole and read once; only scripts are held.
  const std::string& scripts = scriptsDirectory();
  if (!path.starts_with(scripts + '/')) return;
  std::error_code error;
  turn_.takeFile(path.substr(scripts.size() + 1), error);
  heldElsewhere_ = error == std::errc::resource_unavailable_try_again ? path : "";
  if (error) throw std::system_error(error, "can't take " + path);
  unverifiedPath_ = path;
  // A script that is up to date is not downloaded, and nobody else would look at its directory.
  AgentUtils::reportOpenDirectory(scripts);
}

void RequestFiles::afterChecksumTest(const std::string& path, bool isValid) {
  verifiedPath_ = isValid ? path : "";
  unverifiedPath_ = isValid ? "" : path;
}

void RequestFiles::afterRowWrite(const std::string& key) {
  // A path is recorded before the test, a version after it.
  if (key != scriptID_ || verifiedPath_.empty()) return;
  if (recordedPath_ != verifiedPath_) removeOutgrown();
  recordedPath_.clear();
  std::error_code ignored;  // a mark that stays costs the next request a download
  mark_.remove(ignored);
}

void RequestFiles::end() noexcept {
  try {
    if (!unverifiedPath_.empty()) removeScriptFile(unverifiedPath_);
    removeOutgrown();
  } catch (...) {
    // Out of memory: what has run has run, and the file stays.
  }
}

void RequestFiles::removeOutgrown() {
  const std::string old = std::exchange(recordedPath_, "");
  if (old.empty() || recordedPathOf(scriptID_) == old) return;
  const std::string name = nameBelow(scriptsDirectory(), old);
  if (name.empty()) return;
  std::optional<std::string> unreadable;
  bool isRecorded = false;
  bool isNamed = false;
  for (const ListedScript& script : listedScripts(unreadable)) {
    if (!script.scriptPath) continue;
    isRecorded = isRecorded || script.scriptID == scriptID_;
    // Two names that some file system takes for one count as one.
    const std::string other = nameBelow(scriptsDirectory(), *script.scriptPath);
    isNamed = isNamed || fileLockOffset(other) == fileLockOffset(name);
  }
  if (isRecorded && !isNamed) removeScriptFile(old);
}

void RequestFiles::removeScriptFile(const std::string& path) const {
  const std::string name = nameBelow(scriptsDirectory(), path);
  // Whoever else holds it has fetched or tested it for an ID of its own.
  if (name.empty() || !turn_.tryTakeFile(name)) return;
  ::unlink((resolvedDirectory(scriptsDirectory()) + name).c_str());
  turn_.leaveFile(name);
}

}  // namespace VarnScripts
