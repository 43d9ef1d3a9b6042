// Where the turns of `ScriptTurn` lie in the lock file, for whoever looks at that file.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace VarnScriptRepository {

/// Where in the lock file a script ID is locked: the same in every build and on every computer,
/// and far enough from the largest offset for a range of one byte. Any thread.
[[nodiscard]] std::int64_t lockOffset(std::string_view scriptID);

/// Where in the lock file the script file `fileName` is locked, which is its path from the scripts
/// directory: the same for each way to write it ("a.sh", "./a.sh"), and for two names that some
/// file system keeps in one file ("A.sh"). Where the directory lies does not matter: it may be
/// reached by several paths. Any thread.
[[nodiscard]] std::int64_t fileLockOffset(std::string_view fileName);

/// The file whose ranges are locked, of this process's customer. Any thread.
[[nodiscard]] std::string requestLockPath();

/// The process that has the turn of `scriptID` now; 0 when the system does not say which, nothing
/// when nobody has it or that can't be found out. Takes and makes nothing. For a process that has
/// no turn itself: that would end with it.
[[nodiscard]] std::optional<int> turnHolder(std::string_view scriptID);

}  // namespace VarnScriptRepository
