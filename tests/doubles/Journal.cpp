#include "Journal.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace doubles {

Journal& Journal::shared() {
  // Never destroyed: a double may write while the process ends.
  static Journal& instance = *new Journal;
  return instance;
}

void Journal::reset() {
  const std::lock_guard lock(mutex_);
  entries_.clear();
  records_.clear();
  listener_ = nullptr;
  threads_.clear();
  calls_ = 0;
  throwingCall_ = 0;
  throwingOperations_.clear();
}

void Journal::abbreviate(const std::string& path, const std::string& name) {
  const std::lock_guard lock(mutex_);
  abbreviations_.emplace_back(path, name);
}

void Journal::write(const std::string& entry) {
  const std::lock_guard lock(mutex_);
  threads_.insert(std::this_thread::get_id());
  entries_.push_back({false, entry});
}

void Journal::writeLog(const LogRecord& record) {
  std::function<void(const LogRecord&)> listener;
  {
    const std::lock_guard lock(mutex_);
    threads_.insert(std::this_thread::get_id());
    entries_.push_back({true, record.level + " " + record.source + " " + record.operation + ": " +
                                  record.message});
    records_.push_back(record);
    listener = listener_;
  }
  if (listener) listener(record);
}

std::vector<std::string> Journal::collect(bool withLog, bool withEffects) const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> collected;
  for (const Entry& entry : entries_) {
    if (entry.isLog ? !withLog : !withEffects) continue;
    std::string text = entry.text;
    for (const auto& [path, name] : abbreviations_) {
      for (auto at = text.find(path); at != std::string::npos; at = text.find(path, at)) {
        text.replace(at, path.size(), name);
        at += name.size();
      }
    }
    collected.push_back(std::move(text));
  }
  return collected;
}

std::vector<std::string> Journal::entries() const { return collect(true, true); }
std::vector<std::string> Journal::log() const { return collect(true, false); }
std::vector<std::string> Journal::effects() const { return collect(false, true); }

std::vector<LogRecord> Journal::records() const {
  const std::lock_guard lock(mutex_);
  return records_;
}

std::set<std::thread::id> Journal::threads() const {
  const std::lock_guard lock(mutex_);
  return threads_;
}

void Journal::onLog(std::function<void(const LogRecord&)> listener) {
  const std::lock_guard lock(mutex_);
  listener_ = std::move(listener);
}

void Journal::called(const std::string& operation) {
  const std::lock_guard lock(mutex_);
  threads_.insert(std::this_thread::get_id());
  ++calls_;
  const bool throws =
      calls_ == throwingCall_ || std::find(throwingOperations_.begin(), throwingOperations_.end(),
                                           operation) != throwingOperations_.end();
  if (!throws) return;
  if (thrown_ == Thrown::somethingElse) throw 42;
  throw std::runtime_error("fault in " + operation);
}

void Journal::throwAtCall(std::size_t number, Thrown what) {
  const std::lock_guard lock(mutex_);
  throwingCall_ = number;
  thrown_ = what;
}

void Journal::throwAlways(const std::string& operation, Thrown what) {
  const std::lock_guard lock(mutex_);
  throwingOperations_.push_back(operation);
  thrown_ = what;
}

std::size_t Journal::calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

}  // namespace doubles
