// The turns of script IDs and script files: record locks between processes, and a set between the
// threads of this one.

#include "ScriptTurn.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <thread>
#include <utility>

#include "AgentUtils.h"
#include "Calls.h"
#include "Directories.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"
#include "support/Guard.h"
#include "support/Text.h"

namespace VarnScriptRepository {
namespace {

using posix::lastError;
using posix::retryOnInterrupt;
using namespace std::chrono_literals;

/// How long a wait lasts until it is reported, and how long a look at a lock takes.
constexpr auto kUnreported = 1000ms;
constexpr auto kPause = 50ms;

/// One spelling for all that name one file: without empty steps, `.` and `..`, each name folded,
/// since a file system may take names that differ in case, or in how a character is composed, for
/// one.
std::string canonicalPath(std::string_view path) {
  std::vector<std::string> steps;
  for (const std::string& step : text::pieces(path, '/')) {
    if (step.empty() || step == ".") continue;
    if (step != "..") {
      // By itself, so that a name that is no UTF-8 leaves the others as they are.
      steps.push_back(text::foldedName(step));
    } else if (!steps.empty()) {
      steps.pop_back();
    }
  }
  std::string canonical;
  for (const std::string& step : steps) canonical.append("/").append(step);
  return canonical;
}

// ---- The lock file ---------------------------------------------------------------------------

/// The lock file, open in this process. The system gives its locks to the process: they keep out
/// none of its threads, and all of them go when any descriptor of the file is closed. So there is
/// one for all turns.
struct LockFile {
  posix::FileDescriptor descriptor;
  std::size_t users = 0;
};

/// What the threads of this process have.
struct Turns {
  std::mutex mutex;
  std::condition_variable changed;
  std::set<std::int64_t> taken;
  /// One, but for a file that was put in the place of one in use.
  std::list<LockFile> files;
};

Turns& turnsOfProcess() {
  // Never destroyed: other threads may have turns while the process ends.
  static Turns& turns = *new Turns;
  return turns;
}

posix::FileDescriptor openFile(const std::string& path, std::error_code& error) {
  errno = 0;
  if (!AgentUtils::FileUtils().createDirectory(posix::directoryOf(path), true)) {
    // Not every agent's module leaves the system's error there.
    error = errno != 0 ? lastError() : std::make_error_code(std::errc::io_error);
    return {};
  }
  posix::FileDescriptor file(retryOnInterrupt([&path] {
    return ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
  }));
  if (!file) {
    error = lastError();
    return {};
  }
  // The umask may have taken away more than it should. A file of somebody else's, or one with
  // another name besides, stays as it is.
  struct stat status {};
  if (::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
      status.st_uid == ::geteuid()) {
    static_cast<void>(::fchmod(file.get(), S_IRUSR | S_IWUSR));
  }
  return file;
}

/// The lock file with one more user, opened when this process has not; null with `error`.
LockFile* useFile(const std::string& path, std::error_code& error) {
  Turns& turns = turnsOfProcess();
  const std::lock_guard lock(turns.mutex);
  auto found = std::ranges::find_if(
      turns.files, [&path](const LockFile& file) { return posix::hasName(file.descriptor, path); });
  if (found == turns.files.end()) {
    posix::FileDescriptor file = openFile(path, error);
    if (!file) return nullptr;
    found = turns.files.insert(found, LockFile{std::move(file), 0});
  }
  ++found->users;
  return &*found;
}

int lockByte(const LockFile& file, std::int64_t offset, int command, struct flock& range) {
  range.l_whence = SEEK_SET;
  range.l_start = static_cast<off_t>(offset);
  range.l_len = 1;
  return retryOnInterrupt([&] { return ::fcntl(file.descriptor.get(), command, &range); });
}

int lockByte(const LockFile& file, std::int64_t offset, int command, short type = F_WRLCK) {
  struct flock range {};
  range.l_type = type;
  return lockByte(file, offset, command, range);
}

/// The process that keeps others from the byte, 0 when the system does not say which; nothing when
/// none does.
std::optional<int> holderOf(const LockFile& file, std::int64_t offset) {
  struct flock range {};
  range.l_type = F_WRLCK;
  if (lockByte(file, offset, F_GETLK, range) != 0 || range.l_type == F_UNLCK) return std::nullopt;
  return std::max(static_cast<int>(range.l_pid), 0);
}

bool isHeld(int error) { return error == EAGAIN || error == EACCES; }

}  // namespace

// ---- Places in it ----------------------------------------------------------------------------

std::int64_t lockOffset(std::string_view scriptID) {
  // FNV-1a, cut to 62 bits.
  std::uint64_t hash = 14695981039346656037U;
  for (const char c : scriptID) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211U;
  }
  return static_cast<std::int64_t>(hash >> 2);
}

std::int64_t fileLockOffset(std::string_view fileName) {
  // Files are locked in the upper half of the offsets, script IDs in the lower one.
  constexpr std::int64_t upperHalf = std::int64_t{1} << 62;
  return upperHalf + lockOffset(canonicalPath(fileName));
}

std::string requestLockPath() {
  return customerDirectory(basePath(), customerID()) + "/varn-scripts.lock";
}

std::optional<int> turnHolder(std::string_view scriptID) {
  // Without waiting: a FIFO would hold whoever opens it.
  const int opened =
      ::open(requestLockPath().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  const LockFile file{posix::FileDescriptor(opened), 0};
  return file.descriptor ? holderOf(file, lockOffset(scriptID)) : std::nullopt;
}

// ---- One turn --------------------------------------------------------------------------------

struct HeldTurns {
  explicit HeldTurns(ScriptTurn::Wait given) : wait(std::move(given)) {}

  const ScriptTurn::Wait wait;
  LockFile* file = nullptr;
  std::set<std::int64_t> offsets;
  int holder = 0;

  void take(std::int64_t offset, bool mayWait, std::error_code& error);
  void leave(std::int64_t offset) noexcept;
  void leaveAll() noexcept;

 private:
  bool takeAmongThreads(std::int64_t offset, bool mayWait);
  void leaveAmongThreads(std::int64_t offset) noexcept;
  int takeAmongProcesses(std::int64_t offset, bool mayWait);
  void report(int processID);
};

void HeldTurns::take(std::int64_t offset, bool mayWait, std::error_code& error) {
  error.clear();
  if (file == nullptr) {
    error = std::make_error_code(std::errc::operation_not_permitted);
    return;
  }
  if (offsets.contains(offset)) return;
  if (!takeAmongThreads(offset, mayWait)) {
    error = std::make_error_code(std::errc::resource_unavailable_try_again);
    return;
  }
  const int failure = takeAmongProcesses(offset, mayWait);
  if (failure == 0) return;
  leaveAmongThreads(offset);
  error.assign(isHeld(failure) ? EAGAIN : failure, std::generic_category());
}

/// Takes the byte from the other threads of this process; false when one of them has it.
bool HeldTurns::takeAmongThreads(std::int64_t offset, bool mayWait) {
  Turns& turns = turnsOfProcess();
  std::unique_lock lock(turns.mutex);
  const auto isFree = [&] { return !turns.taken.contains(offset); };
  if (!isFree()) {
    if (!mayWait) {
      holder = ::getpid();
      return false;
    }
    if (!turns.changed.wait_for(lock, kUnreported, isFree)) {
      lock.unlock();
      report(::getpid());
      lock.lock();
      turns.changed.wait(lock, isFree);
    }
  }
  offsets.insert(offset);
  try {
    turns.taken.insert(offset);
  } catch (...) {
    offsets.erase(offset);
    throw;
  }
  return true;
}

void HeldTurns::leaveAmongThreads(std::int64_t offset) noexcept {
  Turns& turns = turnsOfProcess();
  const std::lock_guard lock(turns.mutex);
  turns.taken.erase(offset);
  offsets.erase(offset);
  turns.changed.notify_all();
}

/// Takes the byte from other processes; why it can't, or 0.
int HeldTurns::takeAmongProcesses(std::int64_t offset, bool mayWait) {
  for (auto waited = 0ms; waited < kUnreported; waited += kPause) {
    if (lockByte(*file, offset, F_SETLK) == 0) return 0;
    if (!isHeld(errno)) return errno;
    if (!mayWait) break;
    std::this_thread::sleep_for(kPause);
  }
  holder = holderOf(*file, offset).value_or(0);
  if (!mayWait) return EAGAIN;
  report(holder);
  if (lockByte(*file, offset, F_SETLKW) == 0) return 0;
  // To the system all threads of a process are one, so that two that wait for one another's
  // neighbours look like a circle to it. There is none: everybody takes turns in the same order.
  while (errno == EDEADLK || isHeld(errno)) {
    std::this_thread::sleep_for(kPause);
    if (lockByte(*file, offset, F_SETLK) == 0) return 0;
  }
  return errno;
}

void HeldTurns::report(int processID) {
  holder = processID;
  guarded([&] {
    if (wait.reported) wait.reported(processID);
  });
}

void HeldTurns::leave(std::int64_t offset) noexcept {
  if (!offsets.contains(offset)) return;
  static_cast<void>(lockByte(*file, offset, F_SETLK, F_UNLCK));
  leaveAmongThreads(offset);
}

void HeldTurns::leaveAll() noexcept {
  while (!offsets.empty()) leave(*offsets.begin());
  if (file == nullptr) return;
  Turns& turns = turnsOfProcess();
  const std::lock_guard lock(turns.mutex);
  // Closed while nobody else can open it: that would end what they have.
  if (--file->users == 0) {
    turns.files.remove_if([this](const LockFile& one) { return &one == file; });
  }
  file = nullptr;
}

// ---- The class -------------------------------------------------------------------------------

ScriptTurn::ScriptTurn() noexcept : ScriptTurn(Wait{}) {}

ScriptTurn::ScriptTurn(Wait wait) noexcept
    : held_(guarded(std::unique_ptr<HeldTurns>{},
                    [&wait] { return std::make_unique<HeldTurns>(std::move(wait)); })) {}

ScriptTurn::~ScriptTurn() {
  if (held_) held_->leaveAll();
}

namespace {

/// Calls `call`; `error` tells that there was no memory for it, or what else it threw.
template <class Call>
void withError(std::error_code& error, Call&& call) noexcept {
  try {
    call();
  } catch (const std::system_error& failure) {
    error = failure.code();
  } catch (...) {
    error = std::make_error_code(std::errc::not_enough_memory);
  }
}

}  // namespace

void ScriptTurn::take(const std::vector<std::string>& scriptIDs, std::error_code& error) noexcept {
  withError(error, [&] {
    if (!held_) throw std::bad_alloc();
    held_->leaveAll();
    error.clear();
    held_->file = useFile(requestLockPath(), error);
    if (error) return;
    // In an order that is the same for everybody.
    std::set<std::int64_t> offsets;
    for (const std::string& scriptID : scriptIDs) offsets.insert(lockOffset(scriptID));
    for (auto offset = offsets.begin(); offset != offsets.end() && !error; ++offset) {
      held_->take(*offset, held_->wait.mayWait, error);
    }
  });
  if (error && held_) held_->leaveAll();
}

void ScriptTurn::takeFile(const std::string& fileName, std::error_code& error) noexcept {
  withError(error, [&] {
    if (!held_) throw std::bad_alloc();
    held_->take(fileLockOffset(fileName), held_->wait.mayWait, error);
  });
}

bool ScriptTurn::tryTakeFile(const std::string& fileName) noexcept {
  std::error_code error;
  withError(error, [&] {
    if (!held_) throw std::bad_alloc();
    held_->take(fileLockOffset(fileName), false, error);
  });
  return !error;
}

void ScriptTurn::leaveFile(const std::string& fileName) noexcept {
  guarded([&] {
    if (held_) held_->leave(fileLockOffset(fileName));
  });
}

int ScriptTurn::holder() const noexcept { return held_ ? held_->holder : 0; }

}  // namespace VarnScriptRepository
