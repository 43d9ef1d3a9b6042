// Makes two invocations for the same script ID on one base path take turns, and two for different
// IDs whose scripts have one file name. The library does not coordinate requests; this host does.

#pragma once

#include <fcntl.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace VarnScripts {

/// Where in the lock file a script ID is locked: the same in every build and on every computer,
/// and far enough from the largest offset for a range of one byte.
[[nodiscard]] std::int64_t lockOffset(std::string_view scriptID);

/// Where in the lock file the script file `fileName` is locked, which is its path from the scripts
/// directory: the same for each way to write it (`a.sh`, `./a.sh`), and for two names that some
/// file system keeps in one file (`A.sh`). Where the directory lies does not matter: it may be
/// reached by several paths.
[[nodiscard]] std::int64_t fileLockOffset(std::string_view fileName);

/// The file whose ranges requests lock.
[[nodiscard]] std::string requestLockPath(const std::string& basePath, const std::string& customer);

/// The process that has the turn of `scriptID` now, by the lock file at `lockPath`; 0 when the
/// system does not say which, nothing when nobody has it or that can't be found out. Takes and
/// makes nothing.
[[nodiscard]] std::optional<int> turnHolder(const std::string& lockPath, std::string_view scriptID);

/// "process 12", or "another process" where the system does not say which.
[[nodiscard]] std::string processText(int processID);

/// What becomes of a wait for another process.
struct LockWait {
  /// Whether there is one at all; otherwise a lock that another process holds is the error
  /// `std::errc::resource_unavailable_try_again`.
  bool mayWait = true;
  /// Called when a wait has lasted for a second, with the process that holds the lock; may be
  /// empty.
  std::function<void(int processID)> reported;
};

/// Holds the advisory locks of script IDs from `acquire` until it is destroyed. The system lets
/// go of it as well when the process ends in any way.
class RequestLock {
 public:
  RequestLock() = default;
  explicit RequestLock(LockWait wait) : wait_(std::move(wait)) {}
  RequestLock(const RequestLock&) = delete;
  RequestLock& operator=(const RequestLock&) = delete;
  ~RequestLock();

  /// Waits until no other process holds the lock of any of `scriptIDs` in the file
  /// `requestLockPath(basePath, customer)`, and takes them, in an order that is the same for
  /// everybody. Creates the file (0600) and
  /// missing directories (0700). After a failure `error` tells why and nothing is held.
  void acquire(const std::string& basePath, const std::string& customer,
               const std::vector<std::string>& scriptIDs, std::error_code& error);

  /// After `acquire`, waits until no other process holds the script file `fileName`, and takes it.
  /// Between the test of its checksum and the end of its run, nobody else may replace a script. A
  /// request takes one file, and after its ID, so that requests can't wait for each other in a
  /// circle. Throws `std::system_error` when the lock can't be had.
  void holdFile(std::string_view fileName);

  /// After `acquire`, takes the script file unless another process holds it; false when it does.
  [[nodiscard]] bool tryHoldFile(std::string_view fileName);

  /// Lets go of the script file.
  void releaseFile(std::string_view fileName);

  /// The process that held what could not be taken; 0 when that is not known.
  [[nodiscard]] int holder() const { return holder_; }

  /// The lock file's path; empty before `acquire`.
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  LockWait wait_;
  std::string path_;
  int descriptor_ = -1;
  int holder_ = 0;

  /// Takes the byte, after a wait when there may be one. As `fcntl`.
  int takeByte(std::int64_t offset);
  [[nodiscard]] int lockByte(std::int64_t offset, int command, short type = F_WRLCK) const;
};

}  // namespace VarnScripts
