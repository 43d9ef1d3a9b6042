// The doubles of the agent's modules, set up for the fuzzers: a server that gives what it has in
// order, a validator whose checksums a fuzzer finds by itself, and a runner that starts nothing but
// checks what it is asked to start. Files are real, because the library reads them itself.

#pragma once

#include <deque>
#include <optional>
#include <string>

#include "AgentUtilsDouble.h"

namespace fuzz {

struct InMemoryAgent {
  static InMemoryAgent& shared();

  /// Forgets everything and empties the directories.
  void reset();

  std::string dataDirectory;     ///< where documents lie
  std::string scriptsDirectory;  ///< where scripts lie

  /// What the next downloads deliver, in order and whatever is asked for; an absent one, and one
  /// past the end, fails.
  std::deque<std::optional<std::string>> replies;
  doubles::Downloads& downloads = doubles::Downloads::shared();
  doubles::Store& store = doubles::Store::shared();

  /// Whether the file at the start of a run had been verified, byte for byte, by the last checksum
  /// test, and lay in the scripts directory.
  bool onlyVerifiedRuns = true;
  int runs = 0;
  std::string lastServerPath;
};

}  // namespace fuzz
