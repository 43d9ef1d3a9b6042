// What another user could change is not used: the paths of one command, held against `examinePath`.
//
// Before the work, what every request uses is looked at; the files whose names documents tell are
// looked at when their turn comes.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "AgentModules.h"
#include "TrustedPath.h"

namespace VarnScripts {

/// A path that a command uses.
struct UsedPath {
  std::string path;
  PathEnd end;
};

/// The store, with the files that SQLite keeps beside it. The agent modules are configured.
[[nodiscard]] std::vector<UsedPath> pathsOfStore();

/// The store, the lock, the list, and the directories of documents and scripts; with trusted keys
/// also what is remembered of accepted lists.
[[nodiscard]] std::vector<UsedPath> pathsOfRequests();

/// The data document of one script and its mark.
[[nodiscard]] std::vector<UsedPath> pathsOfScript(const std::string& scriptID);

/// Looks at paths, and remembers the first thing that was refused. On the thread of the command.
class PathGuard {
 public:
  explicit PathGuard(MissingDirectory missing) : missing_(missing) {}

  /// True when none of `paths` is refused. What is refused is one line in the log, and so is what
  /// may be written to by its group, once for each.
  [[nodiscard]] bool allows(const std::vector<UsedPath>& paths);

  /// Has the modules' files looked at when their turn comes, before what `observers` does there so
  /// far: a download or a checksum test fails when its file is refused. The guard outlives them.
  void watch(ModuleObservers& observers);

  /// "Refused: /srv/agent belongs to user 4242"; empty when nothing was.
  [[nodiscard]] const std::string& refusal() const { return refusal_; }

 private:
  void require(const UsedPath& path);

  const MissingDirectory missing_;
  std::string refusal_;
};

}  // namespace VarnScripts
