#include "signing/TrustStateFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "AgentUtils.h"
#include "Calls.h"
#include "WholeFiles.h"

namespace AgentUtils::signing {
namespace {

using posix::FileDescriptor;
using posix::retryOnInterrupt;

constexpr mode_t kFileMode = S_IRUSR | S_IWUSR;

// Why the open file is not one that this user alone decides about; empty when it is.
std::string complaintAboutFile(const FileDescriptor& file) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return posix::lastError().message();
  if (!S_ISREG(status.st_mode)) return "it is not a regular file";
  if (status.st_uid != ::geteuid()) {
    return "it belongs to user " + std::to_string(status.st_uid);
  }
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "others may write to it";
  if (status.st_nlink > 1) return "it has a second name";
  return {};
}

// Gives the lock on a file up. The end of its descriptor is not enough while there is a copy of it,
// such as that of a process that is just being started.
struct Unlock {
  const FileDescriptor& file;
  ~Unlock() { ::flock(file.get(), LOCK_UN); }
};

// An error of opening in words.
std::string whyNotOpened() {
  return errno == ELOOP ? "it is a symbolic link" : posix::lastError().message();
}

}  // namespace

TrustStateFile::TrustStateFile(std::string path, std::string customer)
    : path_(std::move(path)), customer_(std::move(customer)) {}

Refusal TrustStateFile::refusal(const std::string& why) const {
  return {"the record of accepted lists " + path_ + ' ' + why};
}

std::variant<TrustState, Refusal> TrustStateFile::read() const {
  // Without waiting: a FIFO would hold whoever opens it.
  const FileDescriptor file(retryOnInterrupt(
      [&] { return ::open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
  if (!file) {
    if (errno == ENOENT) return TrustState{customer_, {}};
    return refusal("can't be read: " + whyNotOpened());
  }
  const std::string complaint = complaintAboutFile(file);
  if (!complaint.empty()) return refusal("is not used: " + complaint);
  std::error_code error;
  const std::string text = posix::readAll(file.get(), kLargestTrustState, error);
  if (error) return refusal("can't be read: " + error.message());
  auto state = parseTrustState(text, customer_);
  if (auto* const why = std::get_if<Refusal>(&state)) {
    return Refusal{why->sentence + " (" + path_ + ')'};
  }
  return state;
}

Judgement TrustStateFile::accept(const ListInHand& list,
                                 const std::vector<std::string>& signatureFiles,
                                 const TrustPolicy& policy, UTCTime clock,
                                 const std::function<void()>& use) const {
  return judged(
      [&](const TrustState& state) {
        return judgeList(list, signatureFiles, policy, state, clock);
      },
      use);
}

Judgement TrustStateFile::acceptKept(const std::string& digest, const TrustPolicy& policy,
                                     UTCTime clock, const std::function<void()>& use) const {
  return judged(
      [&](const TrustState& state) { return judgeKeptList(digest, policy, state, clock); }, use);
}

Judgement TrustStateFile::judged(const std::function<Judgement(const TrustState&)>& judge,
                                 const std::function<void()>& use) const {
  // A parent that can't be made shows when the lock can't.
  static_cast<void>(FileUtils().createDirectory(posix::directoryOf(path_), true));
  const std::string lockPath = lockOfTrustState(path_);
  const FileDescriptor lock(retryOnInterrupt([&] {
    return ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                  kFileMode);
  }));
  if (!lock) return refusal("can't be locked: " + lockPath + ": " + whyNotOpened());
  const std::string complaint = complaintAboutFile(lock);
  if (!complaint.empty()) return refusal("can't be locked: " + lockPath + ": " + complaint);
  // Held to the end: what another request remembers meanwhile is not lost.
  if (retryOnInterrupt([&] { return ::flock(lock.get(), LOCK_EX); }) != 0) {
    return refusal("can't be locked: " + lockPath + ": " + posix::lastError().message());
  }
  const Unlock unlock{lock};
  const auto remembered = read();
  if (const auto* const why = std::get_if<Refusal>(&remembered)) return *why;
  const auto& state = std::get<TrustState>(remembered);
  Judgement judgement = judge(state);
  const auto* const accepted = std::get_if<Acceptance>(&judgement);
  if (accepted == nullptr) return judgement;
  if (accepted->state != state) {
    if (auto why = write(accepted->state)) return std::move(*why);
  }
  if (use) use();
  return judgement;
}

std::optional<Refusal> TrustStateFile::write(const TrustState& state) const {
  const std::string text = trustStateText(state);
  if (text.size() > kLargestTrustState) return refusal("would be too large: it has too many keys");
  std::error_code error;
  posix::replaceFile(path_, text, kFileMode, error);
  if (error) return refusal("can't be written: " + error.message());
  return std::nullopt;
}

std::string trustStatePath(const std::string& dataPath) {
  return dataPath + "/Configuration-Framework/AcceptedLists";
}

std::string lockOfTrustState(const std::string& path) { return path + ".lock"; }

}  // namespace AgentUtils::signing
