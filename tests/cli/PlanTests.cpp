// A plan as people and programs read it.

#include <gtest/gtest.h>

#include "PlanText.h"

namespace VarnScripts {
namespace {

RequestPlan downloadPlan() {
  RequestPlan plan;
  plan.scriptID = "42";
  plan.entry.emplace();
  plan.entry->scriptName = "Clean";
  plan.entry->scriptID = "42";
  plan.entry->fileID = "f42";
  plan.entry->modifiedTime = "2";
  plan.entry->scriptPathMapping = {{"/data/42.xml"}};
  plan.localVersion = "1";
  plan.step = RequestPlan::Step::download;
  plan.reason = "the versions differ";
  plan.downloads = {"/data/42.xml", "files/clean.sh"};
  plan.scriptFile = "/base/clean.sh";
  plan.interpreter = "/bin/sh";
  plan.arguments = {"-a", "two words", ""};
  plan.acceptedCodes = {"0", "3"};
  return plan;
}

TEST(Plan, IsALineForEachThing) {
  EXPECT_EQ(planText(downloadPlan()),
            "script:         42\n"
            "name:           Clean\n"
            "server version: 2\n"
            "local version:  1\n"
            "step:           download: the versions differ\n"
            "fetch:          /data/42.xml\n"
            "fetch:          files/clean.sh\n"
            "script file:    /base/clean.sh\n"
            "interpreter:    /bin/sh\n"
            "arguments:      [\"-a\",\"two words\",\"\"]\n"
            "accepted codes: [\"0\",\"3\"]\n");
}

TEST(Plan, TellsWhoHasSignedTheList) {
  RequestPlan plan;
  plan.scriptID = "42";
  plan.list = {"", {"293CBC668E52E64C", "CCC333B19BA09674"}, 7, "2026-12-22T11:30:00Z"};
  EXPECT_EQ(planText(plan),
            "script:         42\n"
            "list:           signed by 293CBC668E52E64C and CCC333B19BA09674, serial 7, until "
            "2026-12-22T11:30:00Z\n");
  EXPECT_TRUE(planJson(plan).starts_with(
      "{\"script_id\":\"42\",\"signed_by\":[\"293CBC668E52E64C\",\"CCC333B19BA09674\"],"
      "\"serial\":7,\"entry\":null,"))
      << planJson(plan);
}

TEST(Plan, OfNothingToFetchSaysSo) {
  RequestPlan plan = downloadPlan();
  plan.step = RequestPlan::Step::upToDate;
  plan.reason = "";
  plan.downloads = {};
  plan.arguments.emplace();
  EXPECT_EQ(planText(plan),
            "script:         42\n"
            "name:           Clean\n"
            "server version: 2\n"
            "local version:  1\n"
            "step:           up to date\n"
            "script file:    /base/clean.sh\n"
            "interpreter:    /bin/sh\n"
            "arguments:      []\n"
            "accepted codes: [\"0\",\"3\"]\n");
}

TEST(Plan, OfNoRunSaysWhy) {
  RequestPlan plan;
  plan.scriptID = "4\n2";
  plan.problem = {ReasonCode::listUnavailable, "The server's list can't be fetched"};
  EXPECT_EQ(planText(plan),
            "script:         4\\n2\n"
            "not run:        The server's list can't be fetched\n");
  EXPECT_EQ(planJson(plan),
            "{\"script_id\":\"4\\n2\",\"entry\":null,\"local_version\":null,\"step\":null,"
            "\"reason\":null,\"downloads\":[],\"script_file\":null,\"interpreter\":null,"
            "\"arguments\":null,\"accepted_codes\":null,"
            "\"waits_for\":null,\"problem\":\"The server's list can't be fetched\","
            "\"reason_code\":\"list_unavailable\"}\n");
}

TEST(Plan, IsOneJsonObject) {
  EXPECT_EQ(planJson(downloadPlan()),
            "{\"script_id\":\"42\","
            "\"entry\":{\"script_name\":\"Clean\",\"script_id\":\"42\",\"file_id\":\"f42\","
            "\"modified_time\":\"2\",\"ScriptPathMapping\":[{\"filepath\":\"/data/42.xml\"}]},"
            "\"local_version\":\"1\",\"step\":\"download\",\"reason\":\"the versions differ\","
            "\"downloads\":[\"/data/42.xml\",\"files/clean.sh\"],"
            "\"script_file\":\"/base/clean.sh\",\"interpreter\":\"/bin/sh\","
            "\"arguments\":[\"-a\",\"two words\",\"\"],\"accepted_codes\":[\"0\",\"3\"],"
            "\"waits_for\":null,\"problem\":null,\"reason_code\":null}\n");
}

TEST(Plan, SaysForWhomItWouldWait) {
  RequestPlan plan;
  plan.scriptID = "42";
  plan.waitsFor = {ReasonCode::lockedOut, "Script 42 is in use by process 7"};
  EXPECT_EQ(planText(plan),
            "script:         42\n"
            "waits:          Script 42 is in use by process 7 (with --no-wait it is not run)\n");
  EXPECT_NE(planJson(plan).find("\"waits_for\":{\"reason\":\"Script 42 is in use by process 7\","
                                "\"reason_code\":\"locked_out\"},\"problem\":null"),
            std::string::npos)
      << planJson(plan);
}

}  // namespace
}  // namespace VarnScripts
