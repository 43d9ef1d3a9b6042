// The one ordered record of what the library did to its surroundings: log lines, downloads,
// checksum tests, store operations, directories, runs. Every double writes here, so a test compares
// the whole sequence of effects with literals.
//
// Also the place where a test orders a fault: each operation of a double counts as one call, and
// the call with the chosen number, or every call with the chosen name, throws. May be used from any
// thread.

#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace doubles {

/// What a double throws when a fault was ordered: either kind must stay inside the library.
enum class Thrown { exception, somethingElse };

/// One log record as the agent's log received it.
struct LogRecord {
  std::string level;  ///< "info" or "error"
  std::string source;
  std::string operation;
  int line = 0;
  std::string message;
};

class Journal {
 public:
  /// The journal of this process.
  static Journal& shared();

  /// Forgets all that was written, and every fault that was ordered.
  void reset();

  /// Writes `path` as `name` wherever an entry holds it, so that literals can stand for paths that
  /// differ from run to run.
  void abbreviate(const std::string& path, const std::string& name);

  /// Adds one effect.
  void write(const std::string& entry);

  /// Adds one log record.
  void writeLog(const LogRecord& record);

  /// All effects, log lines included, in order. A log line reads
  /// "info ScriptRepositoryProcessor processScript(): message".
  std::vector<std::string> entries() const;

  /// The log lines alone, in order.
  std::vector<std::string> log() const;

  /// All effects but the log lines, in order.
  std::vector<std::string> effects() const;

  /// The log records alone, in order.
  std::vector<LogRecord> records() const;

  /// The threads on which anything was written or marked.
  std::set<std::thread::id> threads() const;

  /// Calls `listener` with each log record, after it was written.
  void onLog(std::function<void(const LogRecord&)> listener);

  /// Marks one call of a double's operation, such as "download". Throws when a fault was ordered
  /// for it.
  void called(const std::string& operation);

  /// Orders that call number `number` (from 1) throws.
  void throwAtCall(std::size_t number, Thrown what = Thrown::exception);

  /// Orders that every call of `operation` throws.
  void throwAlways(const std::string& operation, Thrown what = Thrown::exception);

  /// How many calls were marked since the last reset.
  std::size_t calls() const;

 private:
  struct Entry {
    bool isLog = false;
    std::string text;
  };

  std::vector<std::string> collect(bool withLog, bool withEffects) const;

  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  std::vector<LogRecord> records_;
  std::vector<std::pair<std::string, std::string>> abbreviations_;
  std::function<void(const LogRecord&)> listener_;
  std::set<std::thread::id> threads_;
  std::size_t calls_ = 0;
  std::size_t throwingCall_ = 0;
  std::vector<std::string> throwingOperations_;
  Thrown thrown_ = Thrown::exception;
};

}  // namespace doubles
