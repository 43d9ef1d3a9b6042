// What a host does around its requests: it has the server's list loaded anew, removes what the
// server dropped, takes the turn of a script ID, and has local documents held against the list.
//
//     using namespace VarnScriptRepository;
//     reloadServerList();  // without success requests go on with the list that they have
//     ScriptTurn turn;
//     std::error_code error;
//     turn.take({"42"}, error);
//     if (error) return;
//     const auto [accepted, output] = ScriptRepositoryProcessor("42").processScript();
//     const ScriptRemoval removal = removeDroppedScripts(turn);
//
// The library by itself fetches the list once in a process, and removes nothing. A host that lives
// for longer than one request calls this, from any thread, also while requests run on others. None
// of it is called from within the library: from an observer, or from a module of the agent. The
// agent sets `AgentUtils::gv_globvars` before the first use. Nothing here throws.

#pragma once

#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "VarnExport.h"

namespace VarnScriptRepository {

/// Fetches the server's list, and has it used by all requests that begin from now on. Creates the
/// data and scripts directories when they are missing.
///
/// True when the list was fetched and is one. Otherwise requests go on with the list that they
/// have, or fetch it themselves when there is none; the log tells why, and so does the observer
/// that `setScriptRunObserver` took. A request that is under way stays with the entry that it has
/// found. Blocks through the download; two calls at the same time fetch one after the other.
///
/// The list is also what `ScriptRepositoryProcessor::removeServerRemovedScripts` goes by from then
/// on, by whatever way it is called.
VARN_EXPORT bool reloadServerList() noexcept;

/// Tells whether the data document at `path` on this computer is the one that the list names as
/// `serverPath`, which is empty when the list names none. May be called by several threads at the
/// same time; when it throws, it is not.
using DocumentTest = bool (*)(const std::string& path, const std::string& serverPath);

/// Has the local data document of every script held against the list from now on: one that `test`
/// says no to is not used but fetched anew, as though it were not there. Null, as it is to begin
/// with: whatever is there is used while its version is the list's. The library with the bundled
/// modules begins with `AgentUtils::isBoundDocument`. Called before the first request.
VARN_EXPORT void setDocumentTest(DocumentTest test) noexcept;

struct HeldTurns;

/// Who may use the files and the record of a script: one at a time, among all threads of this
/// process and all processes whose base path and customer are the same. The command `varn-scripts`
/// takes turns, too.
///
/// A turn is advisory: the library itself takes none, so each request that is made without one can
/// meet another of the same script. It ends with the object, and with the process.
///
/// The turns are locks in the file BASE/client-data/CUSTOMER/varn-scripts.lock, which is created
/// (0600, directories 0700) when it is missing. A host neither opens that file itself nor makes
/// requests in a process that it has forked. One object is used by one thread at a time, and one
/// thread waits with one object at a time.
class VARN_EXPORT ScriptTurn {
 public:
  /// What becomes of a wait for whoever has the turn.
  struct Wait {
    /// Whether there is one; otherwise a turn that somebody else has is the error
    /// `std::errc::resource_unavailable_try_again`.
    bool mayWait = true;
    /// Called when a wait has lasted for a second, with the process that has the turn, which may be
    /// this one; 0 when that is not known. On the waiting thread; may be empty; what it throws is
    /// of no consequence.
    std::function<void(int processID)> reported = {};
  };

  ScriptTurn() noexcept;
  explicit ScriptTurn(Wait wait) noexcept;
  ScriptTurn(const ScriptTurn&) = delete;
  ScriptTurn& operator=(const ScriptTurn&) = delete;
  /// Lets go of all that it has.
  ~ScriptTurn();

  /// Lets go of all that it has, then waits until nobody has the turn of any of `scriptIDs`
  /// ({"42"}), and takes them all. After a failure `error` tells why, and it has nothing; on
  /// success it is cleared.
  void take(const std::vector<std::string>& scriptIDs, std::error_code& error) noexcept;

  /// After `take`, waits until nobody has the script file `fileName` ("clean.sh", its path from the
  /// scripts directory), and takes it too. Several scripts may have one file, which must not be
  /// replaced between the test of its checksum and the end of its run. A request takes one file,
  /// and no ID after it, so that nobody waits in a circle. After a failure `error` tells why, and
  /// what the turn has already it keeps; on success it is cleared.
  void takeFile(const std::string& fileName, std::error_code& error) noexcept;

  /// As `takeFile`, but without a wait: false when somebody else has the file.
  [[nodiscard]] bool tryTakeFile(const std::string& fileName) noexcept;

  /// Lets go of the script file.
  void leaveFile(const std::string& fileName) noexcept;

  /// The process that had what could not be taken, or was waited for last; 0 when that is not
  /// known.
  [[nodiscard]] int holder() const noexcept;

 private:
  std::unique_ptr<HeldTurns> held_;
};

/// What became of a removal.
struct ScriptRemoval {
  /// The IDs of the scripts that the list lacks and whose records are gone, sorted. The log tells
  /// of a file of theirs that could not be removed.
  std::vector<std::string> scriptIDs;
  /// Why nothing was removed, a sentence; otherwise empty.
  std::string reason;
  /// Whether the reason is a turn that could not be taken.
  bool isLockedOut = false;
};

/// Removes the script files, data documents and records of all scripts that the list lacks, which
/// `reloadServerList` loaded last; removes nothing before. Waits for the turns of these scripts
/// with `turn`, which has them when this returns, so that a host can remove what it keeps of them
/// itself. What a record leads to outside of the data and scripts directories stays, and is a line
/// in the log. Otherwise the log has the lines of
/// `ScriptRepositoryProcessor::removeServerRemovedScripts`, which this calls.
[[nodiscard]] VARN_EXPORT ScriptRemoval removeDroppedScripts(ScriptTurn& turn) noexcept;

}  // namespace VarnScriptRepository
