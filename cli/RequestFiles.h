// The files that one request replaces, as its host looks after them: no data document stays that
// belongs to another version than the record, and no script file that nobody may run.
//
// The library leaves both as they are after a failure, on purpose. Used on the thread that makes
// the request, between the taking of the turn and its end.

#pragma once

#include <string>
#include <system_error>

#include "DocumentMark.h"
#include "VarnScriptRepository/ScriptRepositoryHost.h"

namespace VarnScripts {

/// What is wrong when the mark of a data document that is about to be replaced can't be made.
[[nodiscard]] std::string markNotMade(const DocumentMark& mark);

/// The files of the script `scriptID`, whose turn `turn` has.
class RequestFiles {
 public:
  RequestFiles(const std::string& scriptID, VarnScriptRepository::ScriptTurn& turn);
  RequestFiles(const RequestFiles&) = delete;
  RequestFiles& operator=(const RequestFiles&) = delete;

  [[nodiscard]] const DocumentMark& mark() const { return mark_; }

  /// Before the request: removes a data document whose version an earlier request did not record,
  /// so that this one fetches it. After a failure `error` tells why, and nothing may be run.
  void begin(std::error_code& error);

  /// Marks the data document, or holds the script file, that is about to be replaced or tested.
  /// Throws `std::system_error` when that fails.
  void beforeFileUse(const std::string& path);

  /// The script file that could not be held because another request, or a removal, has it; empty
  /// when there is none.
  [[nodiscard]] const std::string& heldElsewhere() const { return heldElsewhere_; }

  /// Takes the outcome of the checksum test of a script file.
  void afterChecksumTest(const std::string& path, bool isValid);

  /// Takes note of the record of this script having been written: with its checksum accepted, it
  /// is the version that was recorded.
  void afterRowWrite(const std::string& key);

  /// After the request: removes a script file whose checksum was not accepted, and one that the
  /// record has named before and nothing names any more.
  void end() noexcept;

 private:
  void removeOutgrown();
  void removeScriptFile(const std::string& path) const;

  const std::string scriptID_;
  const std::string documentPath_;
  const DocumentMark mark_;
  VarnScriptRepository::ScriptTurn& turn_;
  std::string recordedPath_;    // what the record named before this request; empty when unknown
  std::string unverifiedPath_;  // the script file whose checksum was not accepted, or not yet
  std::string verifiedPath_;    // the one whose checksum was accepted last
  std::string heldElsewhere_;
};

}  // namespace VarnScripts
