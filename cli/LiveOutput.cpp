#include "LiveOutput.h"

#include <new>
#include <utility>

#include "Pieces.h"
#include "StandardStreams.h"

namespace VarnScripts {

LiveOutput::LiveOutput(bool enabled, std::optional<std::uint64_t> most)
    : isOpen_(enabled), left_(most.value_or(UINT64_MAX)) {
  if (!enabled) return;
  try {
    writer_ = std::thread([this] { writeTaken(); });
  } catch (const std::system_error&) {
    // The system has no thread left: the output comes at the end.
    isOpen_ = false;
  }
}

LiveOutput::~LiveOutput() {
  std::error_code ignored;
  static_cast<void>(finish(ignored));
}

void LiveOutput::take(std::string_view piece) noexcept {
  const std::lock_guard lock(mutex_);
  if (!isOpen_) return;
  const std::string_view part = beginningOf(piece, left_);
  // What comes behind a part that was left out is left out as well.
  isOpen_ = part.size() == piece.size() && held_.size() + part.size() <= kMostHeld;
  if (held_.size() + part.size() > kMostHeld) return;
  try {
    held_ += part;
  } catch (const std::bad_alloc&) {
    isOpen_ = false;
    return;
  }
  left_ -= part.size();
  taken_ += part.size();
  changed_.notify_all();
}

std::uint64_t LiveOutput::finish(std::error_code& error) {
  {
    const std::lock_guard lock(mutex_);
    isOpen_ = false;
    done_ = true;
  }
  changed_.notify_all();
  if (writer_.joinable()) writer_.join();
  error = error_;
  return taken_;
}

void LiveOutput::writeTaken() {
  std::string text;
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return done_ || !held_.empty(); });
    if (held_.empty()) return;
    text.clear();
    std::swap(text, held_);
    lock.unlock();
    std::error_code error;
    writeOutput(text, error);
    lock.lock();
    if (!error) continue;
    error_ = error;
    isOpen_ = false;
    held_.clear();
    return;
  }
}

}  // namespace VarnScripts
