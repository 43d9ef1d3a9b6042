// The mark that a script's data document was replaced and its version is not recorded yet. Document
// and record are two files, which no single step changes: what is between them after a crash, or
// after a request that failed half-way, shows by the mark.

#pragma once

#include <string>
#include <system_error>

namespace VarnScripts {

/// The mark of one script ID: a file beside the lock file, of a name that every ID can have. Made
/// and removed by whoever has the turn of that ID.
class DocumentMark {
 public:
  explicit DocumentMark(const std::string& scriptID);

  [[nodiscard]] const std::string& path() const { return path_; }

  /// Whether the mark is there, or may be: what can't be found out counts as marked.
  [[nodiscard]] bool isThere() const;

  /// Makes the mark (0600), which must not be there, and returns when it is on the disk.
  /// `recordedPath` is what the record of the script names before the document is replaced; may be
  /// empty.
  void make(const std::string& recordedPath, std::error_code& error) const;

  /// The path that `make` was given; empty when the making was interrupted.
  [[nodiscard]] std::string recordedPath() const;

  /// Removes the mark. One that is not there is no error. A crash may bring it back.
  void remove(std::error_code& error) const;

 private:
  const std::string path_;
};

}  // namespace VarnScripts
