// Which line of a request's log is the reason of a script that was not run.

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "RequestLog.h"

namespace VarnScripts {
namespace {

AgentLog::Record record(std::string_view message, std::string_view operation = "processScript()",
                        std::string_view source = "ScriptRepositoryProcessor") {
  return {AgentLog::Record::Level::info, message, source, operation, 1};
}

TEST(RequestLog, TheReasonStandsBeforeTheClosingLineThatCarriesTheStatus) {
  RequestLog log;
  log.add(record("Processing Script ID 42 Server Version 5 Local Version -- Downloading"));
  log.add(record("Download failure of script", "downloadAndExecuteScript(serverScriptRepoMeta:)"));
  log.add(record("Processing Script ID 42 Server Version 5 Local Version -- status (nil, nil)"));
  EXPECT_EQ(log.reason(), "Download failure of script");
}

TEST(RequestLog, AClosingLineWithoutAStatusIsTheReasonItself) {
  RequestLog log;
  log.add(record("Script-Meta Download Failed", "downloadScriptRepoMeta()",
                 "ScriptRepositoryMetaProcessor"));
  log.add(record("Processing Script ID 42 not able to get server script repo meta to procees"));
  EXPECT_EQ(log.reason(),
            "Processing Script ID 42 not able to get server script repo meta to procees");
}

TEST(RequestLog, AScriptIdThatLooksLikeAStatusDoesNotMislead) {
  RequestLog log;
  log.add(record("Script-Meta Download Success"));
  log.add(
      record("Processing Script ID x status (nil, nil) not able to get server script repo meta "
             "to procees"));
  EXPECT_EQ(log.reason(),
            "Processing Script ID x status (nil, nil) not able to get server script repo meta to "
            "procees");
}

TEST(RequestLog, OnlyTheProcessorClosesARequest) {
  RequestLog log;
  log.add(record("first"));
  log.add(record("x status (nil, nil)", "downloadFile", "HttpHandlermac"));
  EXPECT_EQ(log.reason(), "x status (nil, nil)");
}

TEST(RequestLog, OfALongLineTheBeginningIsKept) {
  RequestLog log;
  log.add(record(std::string(100'000, 'x'), "downloadFile", "HttpHandlermac"));
  EXPECT_EQ(log.reason(), std::string(65'536, 'x'));
  log.add(record(std::string(100'000, 'y') + " status (nil, nil)"));
  EXPECT_EQ(log.reason(), std::string(65'536, 'x'));
}

TEST(RequestLog, WithoutLinesThereIsNoReason) { EXPECT_EQ(RequestLog().reason(), ""); }

}  // namespace
}  // namespace VarnScripts
