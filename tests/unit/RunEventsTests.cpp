// What an observer is told of runs and of the steps before them, over the real runner.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ScriptRepositoryUtil.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"
#include "VarnScriptRepository/ScriptRunObserver.h"

namespace {

using namespace VarnScriptRepository;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

using Texts = std::vector<std::string>;

const char* nameOf(RequestStep step) {
  switch (step) {
    case RequestStep::listDownload:
      return "listDownload";
    case RequestStep::listRead:
      return "listRead";
    case RequestStep::listDecode:
      return "listDecode";
    case RequestStep::listLookUp:
      return "listLookUp";
    case RequestStep::documentLookUp:
      return "documentLookUp";
    case RequestStep::documentDownload:
      return "documentDownload";
    case RequestStep::documentRead:
      return "documentRead";
    case RequestStep::documentDecode:
      return "documentDecode";
    case RequestStep::fileLookUp:
      return "fileLookUp";
    case RequestStep::fileDownload:
      return "fileDownload";
    case RequestStep::checksumLookUp:
      return "checksumLookUp";
    case RequestStep::checksumTest:
      return "checksumTest";
    case RequestStep::definitionLookUp:
      return "definitionLookUp";
    case RequestStep::interpreterLookUp:
      return "interpreterLookUp";
  }
  return "?";
}

const char* nameOf(ScriptEnd::How how) {
  switch (how) {
    case ScriptEnd::How::exited:
      return "exited";
    case ScriptEnd::How::signalled:
      return "signalled";
    case ScriptEnd::How::statusLost:
      return "status lost";
    case ScriptEnd::How::launchPathMissing:
      return "launch path missing";
    case ScriptEnd::How::launchFailed:
      return "launch failed";
  }
  return "?";
}

/// Notes each event as a text.
class Notes : public ScriptRunObserver {
 public:
  void stepFailed(const FailedStep& step) override {
    note(nameOf(step.step) + ": "s + std::string(step.subject) +
         (step.cause.empty() ? "" : ": " + std::string(step.cause)));
  }
  void scriptStarts(const ScriptStart& start) override {
    note("starts " + std::string(start.launchPath) + " " + std::string(start.scriptPath) + " in " +
         std::string(start.directory) + " for " + std::to_string(start.limit.count()));
  }
  void scriptStarted(int processID) override {
    process = processID;
    group = ::getpgid(processID);
    note("started");
  }
  void outputTaken(std::string_view output) override { note("output " + std::string(output)); }
  void processEnded() override {
    // Not waited for yet: its ID is nobody else's.
    stillThere = ::kill(process, 0) == 0;
    note("ended");
  }
  void scriptEnded(const ScriptEnd& end) override {
    duration = end.duration;
    note(nameOf(end.how) + " "s + std::to_string(end.code) + " "s + std::string(end.cause) +
         (end.limitReached ? "after its limit" : "") + " output " +
         std::to_string(end.outputBytes) + " dropped " + std::to_string(end.droppedBytes) +
         " lost " + std::to_string(end.lostBytes));
  }

  Texts events;
  bool throws = false;
  int process = 0;
  int group = 0;
  bool stillThere = false;
  std::chrono::nanoseconds duration{-1};
  std::vector<std::thread::id> threads;

 private:
  void note(const std::string& event) {
    events.push_back(event);
    threads.push_back(std::this_thread::get_id());
    if (throws) throw std::runtime_error("an observer's own trouble");
  }
};

using Result = std::pair<std::optional<std::int32_t>, std::optional<std::string>>;

class RunEvents : public doubles::AgentFixture {
 protected:
  RunEvents() { setScriptRunObserver(&notes); }
  ~RunEvents() override { setScriptRunObserver(nullptr); }

  Result run(const std::string& command, std::int64_t limit = 600) {
    return shell("/bin/sh", "-c", {command}, "/", limit);
  }

  /// The events of a run of `command` but its first, which is always the same.
  Texts eventsOf(const std::string& command, std::int64_t limit = 600) {
    run(command, limit);
    EXPECT_FALSE(notes.events.empty());
    EXPECT_EQ(notes.events.front(), "starts /bin/sh -c in / for " + std::to_string(limit));
    return {notes.events.begin() + 1, notes.events.end()};
  }

  Notes notes;
};

TEST_F(RunEvents, OfARunComeInOrderOnItsThread) {
  EXPECT_THAT(eventsOf("echo hello; exit 3"), ElementsAre("started", "output hello\n", "ended",
                                                          "exited 3  output 6 dropped 0 lost 0"));
  EXPECT_THAT(notes.threads, testing::Each(std::this_thread::get_id()));
  EXPECT_GE(notes.duration.count(), 0);
}

TEST_F(RunEvents, NameTheProcessUntilItIsGone) {
  const auto [status, output] = run("echo $$");
  EXPECT_EQ(output, std::to_string(notes.process) + "\n");
  EXPECT_EQ(notes.group, notes.process);
  EXPECT_TRUE(notes.stillThere);
}

TEST_F(RunEvents, TellASignalFromAnExitCode) {
  EXPECT_THAT(eventsOf("kill -9 $$").back(), "signalled 9  output 0 dropped 0 lost 0");
  notes.events.clear();
  EXPECT_THAT(eventsOf("exit 9").back(), "exited 9  output 0 dropped 0 lost 0");
}

TEST_F(RunEvents, TellThatTheLimitCame) {
  EXPECT_THAT(
      eventsOf("exec 2>/dev/null; trap 'exit 5' TERM; while :; do sleep 0.05; done", 1).back(),
      "exited 5 after its limit output 0 dropped 0 lost 0");
  notes.events.clear();
  EXPECT_THAT(eventsOf("exec sleep 600", 1).back(),
              "signalled 15 after its limit output 0 dropped 0 lost 0");
}

TEST_F(RunEvents, CountWhatIsNotUTF8) {
  EXPECT_THAT(eventsOf("printf '\\377\\376\\375'"),
              ElementsAre("started", "ended", "exited 0  output 0 dropped 3 lost 0"));
}

TEST_F(RunEvents, OfWhatCanNotBeStartedNameTheCause) {
  shell("/nowhere/sh", "x", {}, "/", 600);
  EXPECT_THAT(notes.events, ElementsAre("starts /nowhere/sh x in / for 600",
                                        "launch path missing 0  output 0 dropped 0 lost 0"));
  notes.events.clear();
  shell("/bin/sh", "x", {}, "/nowhere", 600);
  EXPECT_THAT(notes.events,
              ElementsAre("starts /bin/sh x in /nowhere for 600",
                          "launch failed 0 No such file or directory output 0 dropped 0 lost 0"));
}

TEST_F(RunEvents, OfAnObserverThatThrowsChangeNothing) {
  notes.throws = true;
  EXPECT_EQ(run("echo a; exit 3"), Result(3, "a\n"));
  EXPECT_EQ(notes.events.size(), 5U);
  EXPECT_EQ(run("kill -9 $$"), Result(9, ""));
  EXPECT_EQ(shell("/nowhere/sh", "x", {}, "/", 600), Result());
}

TEST_F(RunEvents, AreToldToNobodyWithoutAnObserver) {
  setScriptRunObserver(nullptr);
  EXPECT_EQ(run("echo a; exit 3"), Result(3, "a\n"));
  EXPECT_THAT(notes.events, IsEmpty());
}

TEST_F(RunEvents, DoNothingWhereTheyAreNotOverridden) {
  ScriptRunObserver silent;
  setScriptRunObserver(&silent);
  EXPECT_EQ(run("echo a; exit 3"), Result(3, "a\n"));
  EXPECT_EQ(shell("/nowhere/sh", "x", {}, "/", 600), Result());
  EXPECT_EQ(ScriptRepositoryProcessor("42").processScript(), ProcessingResult());
}

// ---- Steps before a start --------------------------------------------------------------------

constexpr const char* kList = "/client-data/7/scriptrepo/scripts-meta.xml";
constexpr const char* kDocument = "/client-data/7/scriptrepo/42.xml";
constexpr const char* kScript = "scripts/42/clean.sh";

/// Requests for script 42, which the server has in order at first; `echo done` is its file.
class FailedSteps : public RunEvents {
 protected:
  FailedSteps() {
    doubles::makeDirectories(dataDirectory);
    doubles::makeDirectories(scriptsDirectory);
    downloads.serve(kList, doubles::metadataDocument(doubles::metadataEntry("42", "5")));
    serve();
    downloads.serve(kScript, "echo done\n");
  }

  void serve() { downloads.serve(kDocument, document.text()); }

  /// Leaves the script as an earlier request would have left it.
  void leaveLocalCopy() {
    store.rows["42"] = {{"version", "5"}, {"scriptPath", scriptPath()}};
    doubles::writeFile(documentPath(), document.text());
    doubles::writeFile(scriptPath(), "echo done\n");
  }

  std::string scriptPath() const { return scriptsDirectory + "/clean.sh"; }
  std::string documentPath() const { return dataDirectory + "/42.xml"; }

  Texts eventsOfRequest(const std::string& scriptID = "42") {
    EXPECT_EQ(ScriptRepositoryProcessor(scriptID).processScript(), ProcessingResult());
    return notes.events;
  }

  doubles::DataDocument document;
};

TEST_F(FailedSteps, OfARequestThatRunsAreNone) {
  EXPECT_EQ(ScriptRepositoryProcessor("42").processScript(), ProcessingResult(true, "done\n"));
  EXPECT_THAT(
      notes.events,
      ElementsAre("starts /bin/sh " + scriptPath() + " in " + scriptsDirectory + " for 600",
                  "started", "output done\n", "ended", "exited 0  output 5 dropped 0 lost 0"));
}

TEST_F(FailedSteps, AListThatCanNotBeFetched) {
  downloads.refuse(kList);
  EXPECT_THAT(eventsOfRequest(), ElementsAre("listDownload: "s + kList));
}

TEST_F(FailedSteps, AListThatIsGoneWhenItIsToBeRead) {
  auto& metadata = ScriptRepositoryMetaProcessor::shared();
  metadata.loadScriptRepoMetaData();
  EXPECT_THAT(notes.events, ElementsAre("listRead: " + dataDirectory +
                                        "/scripts-meta.xml: No such file or directory"));
}

TEST_F(FailedSteps, AListThatIsNone) {
  downloads.serve(kList, "no list");
  EXPECT_THAT(eventsOfRequest(), ElementsAre("listDecode: " + dataDirectory + "/scripts-meta.xml"));
}

TEST_F(FailedSteps, AScriptThatIsNotListed) {
  EXPECT_THAT(eventsOfRequest("43"), ElementsAre("listLookUp: 43"));
}

TEST_F(FailedSteps, AnEntryWithoutADataDocument) {
  std::string entry = doubles::metadataEntry("42", "5");
  entry.erase(entry.find("ScriptPathMapping"), entry.rfind(')') - entry.find("ScriptPathMapping"));
  downloads.serve(kList, doubles::metadataDocument(entry));
  EXPECT_THAT(eventsOfRequest(), ElementsAre("documentLookUp: 42"));
}

TEST_F(FailedSteps, ADataDocumentThatCanNotBeFetched) {
  downloads.refuse(kDocument);
  EXPECT_THAT(eventsOfRequest(), ElementsAre("documentDownload: "s + kDocument));
}

TEST_F(FailedSteps, ADataDocumentThatCanNotBeRead) {
  leaveLocalCopy();
  doubles::removeTree(documentPath());
  doubles::makeDirectories(documentPath());
  EXPECT_THAT(eventsOfRequest(),
              ElementsAre("documentRead: " + documentPath() + ": Is a directory"));
}

TEST_F(FailedSteps, ADataDocumentThatIsNone) {
  downloads.serve(kDocument, "no document");
  EXPECT_THAT(eventsOfRequest(), ElementsAre("documentDecode: " + documentPath()));
}

TEST_F(FailedSteps, ADataDocumentWithoutTheFile) {
  document.fileID = "another";
  serve();
  EXPECT_THAT(eventsOfRequest(), ElementsAre("fileLookUp: f1"));
  notes.events.clear();
  leaveLocalCopy();
  EXPECT_THAT(eventsOfRequest(), ElementsAre("fileLookUp: f1"));
}

TEST_F(FailedSteps, AFileThatCanNotBeFetched) {
  downloads.refuse(kScript);
  EXPECT_THAT(eventsOfRequest(), ElementsAre("fileDownload: "s + kScript));
}

TEST_F(FailedSteps, AFileWithoutAChecksum) {
  document.linkedChecksumID = "another";
  serve();
  EXPECT_THAT(eventsOfRequest(), ElementsAre("checksumLookUp: " + scriptPath()));
}

TEST_F(FailedSteps, AFileThatItsChecksumDoesNotCover) {
  downloads.serve(kScript, "something else\n");
  EXPECT_THAT(eventsOfRequest(), ElementsAre("checksumTest: " + scriptPath()));
}

TEST_F(FailedSteps, AChangedFileIsFetchedAndTestedOnceMore) {
  leaveLocalCopy();
  doubles::writeFile(scriptPath(), "changed\n");
  EXPECT_EQ(ScriptRepositoryProcessor("42").processScript(), ProcessingResult(true, "done\n"));
  EXPECT_EQ(notes.events.front(), "checksumTest: " + scriptPath());
  EXPECT_EQ(notes.events.back(), "exited 0  output 5 dropped 0 lost 0");
  notes.events.clear();
  doubles::writeFile(scriptPath(), "changed\n");
  downloads.refuse(kScript);
  EXPECT_THAT(eventsOfRequest(),
              ElementsAre("checksumTest: " + scriptPath(), "fileDownload: "s + kScript));
}

TEST_F(FailedSteps, ADataDocumentWithoutTheDefinition) {
  document.scriptID = "another";
  serve();
  EXPECT_THAT(eventsOfRequest(), ElementsAre("definitionLookUp: 42"));
  notes.events.clear();
  leaveLocalCopy();
  EXPECT_THAT(eventsOfRequest(), ElementsAre("definitionLookUp: 42"));
}

TEST_F(FailedSteps, ANameThatTellsNoInterpreter) {
  document.scriptName = "clean.rb";
  serve();
  EXPECT_THAT(eventsOfRequest(), ElementsAre("interpreterLookUp: clean.rb"));
}

}  // namespace
