// Who else decides what lies at a path: every component from the root directory down is looked at,
// its owner and its mode, symbolic links and what they name included.
//
// What has passed stays what it was. A name can be given to something else only by who may write to
// the directory that it is in, or by its own owner where that directory is sticky, and each of them
// was looked at. Access control lists are not looked at.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "FileDescriptor.h"

namespace VarnScripts {

/// What a path leads to, and so what is asked of its last component.
enum class PathEnd {
  directory,  ///< files of the command lie in it: nobody else may add one, sticky or not
  ownFile,    ///< the command keeps it: it has no second name
  givenFile,  ///< only read, and named by somebody
};

/// What becomes of a missing directory whose name anybody may take, since its parent is open to
/// all.
enum class MissingDirectory {
  made,  ///< it is made, with mode 0700, before anybody else does
  left,  ///< nothing is made
};

/// What was found on a path.
struct PathVerdict {
  /// "/srv/agent belongs to user 4242": the first thing that is not to be trusted; empty when all
  /// is.
  std::string refusal;
  /// What may be written to by its group, in the path's order.
  std::vector<std::string> writableByGroup;
};

/// Looks at the components of `path`, absolute or of the current directory. Trusted is what belongs
/// to `user` or to root and may not be written to by all; a directory on the way may, when it is
/// sticky. A component that is missing ends the walk: whoever could make it was looked at. Files,
/// links and directories are judged as they are opened, one below the other, so that nobody can
/// swap what was seen. Any thread.
[[nodiscard]] PathVerdict examinePath(const std::string& path, PathEnd end, uid_t user,
                                      MissingDirectory missing = MissingDirectory::left);

/// Looks at paths one after the other, each as `examinePath` does. What a path has in common with
/// the one before it is walked once: its directories are open from then on.
class PathExaminer {
 public:
  explicit PathExaminer(uid_t user, MissingDirectory missing = MissingDirectory::left)
      : user_(user), missing_(missing) {}

  [[nodiscard]] PathVerdict examine(const std::string& path, PathEnd end);

  /// A directory to which every step was trusted.
  struct Place {
    std::string path;  ///< "/srv/agent", and empty for the root directory
    posix::FileDescriptor directory;
    bool openToAll = false;  ///< whether all may write to it
  };

 private:
  const uid_t user_;
  const MissingDirectory missing_;
  std::vector<Place> way_;  ///< those of the last path, the root directory first; without a link
};

}  // namespace VarnScripts
