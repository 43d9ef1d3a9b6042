// What a test tells the doubles of the agent's utilities, and asks them afterwards.
//
// FileUtils works on the real file system. The downloader answers from a script of replies per
// server path and writes real files. The fake validator knows one algorithm, "T", whose checksum is
// the file's length in decimal. The store keeps its tables in memory, for the life of the process.

#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace doubles {

/// The downloader's script.
struct Downloads {
  static Downloads& shared();

  /// Answers every download of `fromURL` from now on with `content`.
  void serve(const std::string& fromURL, const std::string& content);
  /// Answers the next downloads of `fromURL` with `contents` in turn (an absent one is a failure),
  /// and stays with the last one.
  void serveInTurn(const std::string& fromURL, std::deque<std::optional<std::string>> contents);
  /// Downloads of `fromURL` fail, as those of every path that nothing was said of.
  void refuse(const std::string& fromURL);
  void reset();

  /// By server path, without its leading slash.
  std::map<std::string, std::deque<std::optional<std::string>>> replies;
  /// Called within each download, before it is answered, with what it asks for.
  std::function<void(const std::string& fromURL)> meanwhile;
  /// Whether a download may write to a path, for those whose paths are not their own; empty: to
  /// any.
  std::function<bool(const std::string& toPath)> mayWrite;
  /// What a download that fails leaves at its target.
  std::optional<std::string> leftBehind;
  /// How many downloaders were made.
  std::size_t made = 0;
};

/// The checksum validator's script: answers in turn, then another rule when there is one, then the
/// real comparison.
struct Checksums {
  static Checksums& shared();
  std::deque<bool> answers;
  std::function<bool(const std::string& path, const std::string& type, const std::string& checksum)>
      rule;
};

/// Whether directories can't be made; nothing tells why then.
bool& refusesDirectories();

/// The store's tables.
struct Store {
  static Store& shared();

  /// A value of a row: a text, or nothing for an element that is not a text.
  using Row = std::vector<std::pair<std::string, std::optional<std::string>>>;

  /// Tables by name, each with its rows by key.
  std::map<std::string, std::map<std::string, Row>> tables;
  /// Those of the library's table.
  std::map<std::string, Row>& rows = tables["ScriptToMeta"];

  /// The row of `key` as text, "version=5 scriptPath=/x"; "(none)" without such a row.
  std::string row(const std::string& key) const;
};

}  // namespace doubles
