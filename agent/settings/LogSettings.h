// How the bundled log writes. The host calls `configure` before any other thread writes; until then
// records go to standard error as text.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "AgentLog.h"
#include "VarnExport.h"

namespace AgentLog {

/// One record, as it is handed to an observer: its texts are there for as long as the call lasts.
struct Record {
  enum class Level { info, error };
  Level level;
  std::string_view message;
  std::string_view source;
  std::string_view operation;
  int line;
};

/// Where records go and in which form.
struct LogSettings {
  enum class Format {
    text,  ///< one line per record: time, level, source, operation, line, message
    json,  ///< one JSON object per line
  };
  Format format = Format::text;
  /// A rotating log file, mode 0600; standard error when empty.
  std::string file{};
  /// Writes nothing to standard error.
  bool quiet = false;
  /// A message that is longer by more than a few words is cut: so much of it is kept, the words at
  /// its end, and how much was left out. Without a value messages are whole.
  std::optional<std::uint64_t> maxMessage{};
  /// Sees every record after it was written, also with `quiet`, on the writing thread. May be
  /// empty; must not throw.
  std::function<void(const Record&)> observer{};
};

/// Takes over `settings`. Throws `std::runtime_error` when the log file can't be opened.
VARN_EXPORT void configure(LogSettings settings);

}  // namespace AgentLog
