// An agent for the fuzzers: a server, a store and a validator without network or database, and a
// runner that starts nothing but checks what it is asked to start. Files are real, because the
// library reads them itself.

#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>

namespace fuzz {

struct InMemoryAgent {
  static InMemoryAgent& shared();

  /// Forgets everything and empties the directories.
  void reset();

  std::string dataDirectory;     ///< where documents lie
  std::string scriptsDirectory;  ///< where scripts lie

  /// What the next downloads deliver, in order; an absent one, and one past the end, fails. A
  /// failed download may leave `leftBehind` at its target.
  std::deque<std::optional<std::string>> downloads;
  std::optional<std::string> leftBehind;

  /// A row of the store: field and value, which is absent when it is not a text.
  using Row = std::map<std::string, std::optional<std::string>>;
  /// Tables by name, each with its rows by key.
  std::map<std::string, std::map<std::string, Row>> tables;
  /// Those of the library's table.
  std::map<std::string, Row>& rows() { return tables["ScriptToMeta"]; }

  /// Whether the file at the start of a run had been verified, byte for byte, by the last checksum
  /// test, and lay in the scripts directory.
  bool onlyVerifiedRuns = true;
  int runs = 0;
  std::string lastServerPath;
};

}  // namespace fuzz
