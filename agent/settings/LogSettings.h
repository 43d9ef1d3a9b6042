// How the bundled log writes. The host calls `configure` before any other thread writes; until then
// records go to standard error as text.

#pragma once

#include <chrono>
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

/// How much a record matters. A failure is a warning also where the library calls it information,
/// as it does with nearly all that it says.
enum class Severity { info, warning, error };

/// Where records go and in which form.
struct LogSettings {
  enum class Format {
    text,  ///< one line per record: time, level, source, operation, line, message
    json,  ///< one JSON object per line
  };
  enum class Target {
    syslog,    ///< syslog(3), which on macOS reaches the unified log
    journald,  ///< the journal of systemd, in builds that know it
  };
  enum class StandardError {
    otherwise,  ///< when there is neither file nor target
    always,     ///< besides these
    never,
  };
  Format format = Format::text;
  /// A rotating log file, mode 0600; none when empty.
  std::string file{};
  /// The system's log. Its records carry their severity as their priority; a long message is cut as
  /// with `maxMessage`, since such a log loses or cuts long ones.
  std::optional<Target> target{};
  StandardError standardError = StandardError::otherwise;
  /// How long whoever reads standard error is waited for, in all and not for each record, when a
  /// terminal has been stopped or a pipe is full; further records are left out until one is taken
  /// again, before which it is said how many. A host's requests wait as long. It is whole again
  /// when a record has not had to wait.
  std::chrono::milliseconds standardErrorWait{60'000};
  /// Writes nothing to standard error, whatever else is said.
  bool quiet = false;
  /// What matters less is not written.
  Severity least = Severity::info;
  /// A message that is longer by more than a few words is cut: so much of it is kept, the words at
  /// its end, and how much was left out. Without a value messages are whole.
  std::optional<std::uint64_t> maxMessage{};
  /// Sees every record after it was written, also with `quiet` and whatever its severity, on the
  /// writing thread. May be empty; must not throw.
  std::function<void(const Record&)> observer{};

  /// Whether records are written to standard error.
  [[nodiscard]] bool writesToStandardError() const {
    if (quiet || standardError == StandardError::never) return false;
    return standardError == StandardError::always || (file.empty() && !target);
  }
};

/// Takes over `settings`. Throws `std::runtime_error` when the log file can't be opened, and
/// `std::invalid_argument` when this build does not know the target; then all is as it was.
VARN_EXPORT void configure(LogSettings settings);

}  // namespace AgentLog
