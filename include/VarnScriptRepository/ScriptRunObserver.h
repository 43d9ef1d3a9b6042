// What a host may watch while requests run: the step that kept a script from being run, and the
// script itself from its start to its end.
//
//     class Watch : public VarnScriptRepository::ScriptRunObserver {
//       void scriptStarted(int processID) override { … }
//     };
//     static Watch watch;
//     VarnScriptRepository::setScriptRunObserver(&watch);
//
// Each event is reported on the thread of its request, which waits for the observer's return.
// Nothing that an observer does or throws changes a request. Events of requests on different
// threads come at the same time; those of one request in the order of the declarations below.

#pragma once

#include <chrono>
#include <cstdint>
#include <string_view>

#include "VarnExport.h"

namespace VarnScriptRepository {

/// The steps of a request before a script is started, each with what `FailedStep::subject` is then.
enum class RequestStep {
  listDownload,      ///< the server's list could not be fetched; its server path
  listRead,          ///< the fetched list could not be read from the disk; its path
  listDecode,        ///< it is no list; its path
  listLookUp,        ///< it has no such script; the script's ID
  documentLookUp,    ///< its entry names no data document; the script's ID
  documentDownload,  ///< the data document could not be fetched; its server path
  documentRead,      ///< it could not be read from the disk; its path
  documentDecode,    ///< it is no data document; its path
  fileLookUp,        ///< it has no file of the entry's file ID; that ID
  fileDownload,      ///< the script file could not be fetched; its server path
  checksumLookUp,    ///< the data document has no checksum for the file; the file's path
  checksumTest,      ///< the file is not what the checksum says; the file's path
  definitionLookUp,  ///< the data document does not define the script; the script's ID
  interpreterLookUp  ///< the script's name tells no interpreter; that name
};

/// A step that failed. The request may go on: a script file that fails its checksum is fetched once
/// more. The last failed step of a request that starts nothing is the one that kept it from it. The
/// texts last as long as the call.
struct FailedStep {
  RequestStep step;
  std::string_view subject;
  /// The system's words, for the steps that read from the disk; otherwise empty.
  std::string_view cause;
};

/// A script that is about to be started. The texts last as long as the call.
struct ScriptStart {
  std::string_view launchPath;  ///< the interpreter
  std::string_view scriptPath;
  std::string_view directory;  ///< the working directory
  std::chrono::seconds limit;  ///< after which it is asked to end; zero or less: never
};

/// What became of a script that was to be started.
struct ScriptEnd {
  enum class How {
    exited,
    signalled,          ///< ended by a signal
    statusLost,         ///< it ran, and somebody else in this process took its status
    launchPathMissing,  ///< not started: nothing is at its launch path
    launchFailed,       ///< not started: the system refused
  };
  How how;
  /// The exit code, or the number of the signal; 0 for the others.
  std::int32_t code = 0;
  /// Why the system refused to start it; otherwise empty. Lasts as long as the call.
  std::string_view cause{};
  /// Whether the limit came, and the script was asked to end.
  bool limitReached = false;
  /// From just before the start to the end, without the time in which the computer slept.
  std::chrono::nanoseconds duration{0};
  /// The bytes of output that the request's result has.
  std::uint64_t outputBytes = 0;
  /// The bytes that were dropped because their chunk was not UTF-8.
  std::uint64_t droppedBytes = 0;
  /// The bytes that were lost because there was no memory for them.
  std::uint64_t lostBytes = 0;
};

/// What is reported. Each operation does nothing unless it is overridden.
class VARN_EXPORT ScriptRunObserver {
 public:
  ScriptRunObserver() = default;
  ScriptRunObserver(const ScriptRunObserver&) = delete;
  ScriptRunObserver& operator=(const ScriptRunObserver&) = delete;
  virtual ~ScriptRunObserver();

  virtual void stepFailed(const FailedStep& step);

  /// A script is about to be started. Until this has returned it is not.
  virtual void scriptStarts(const ScriptStart& start);
  /// It runs, as the process `processID`, which leads a process group of its own. Not called when
  /// it can't be started.
  virtual void scriptStarted(int processID);
  /// A piece of its output, UTF-8, which ends at the end of a character. All pieces together are
  /// the output that the request's result has. Lasts as long as the call.
  virtual void outputTaken(std::string_view output);
  /// The process has ended. When this has returned its process ID is given back, and nothing must
  /// be sent to it any more.
  virtual void processEnded();
  /// All is known of the script. Called after every `scriptStarts`.
  virtual void scriptEnded(const ScriptEnd& end);
};

/// Has all requests of this process watched by `observer`, or by nobody when it is null. Called
/// before the first request; the observer lives as long as the process makes requests.
VARN_EXPORT void setScriptRunObserver(ScriptRunObserver* observer) noexcept;

}  // namespace VarnScriptRepository
