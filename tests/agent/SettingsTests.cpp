// What the host's settings become.

#include <gtest/gtest.h>

#include "AgentSettings.h"

namespace {

TEST(AgentSettings, AreNothingUntilTheHostGivesThem) {
  EXPECT_EQ(AgentUtils::gv_globvars, nullptr);
  EXPECT_EQ(AgentUtils::settings().serverURL, "");
  EXPECT_EQ(AgentUtils::settings().maxDownload, 1073741824u);
  EXPECT_EQ(AgentUtils::settings().retries, 2u);
}

TEST(AgentSettings, BecomeTheGlobalVariables) {
  AgentUtils::AgentSettings settings;
  settings.basePath = "/base";
  settings.dataPath = "/data";
  settings.customerID = "7";
  AgentUtils::configure(settings);
  ASSERT_NE(AgentUtils::gv_globvars, nullptr);
  EXPECT_EQ(AgentUtils::gv_globvars->vyagentBasePath, "/base");
  EXPECT_EQ(AgentUtils::gv_globvars->vyCustomerID, "7");
  EXPECT_EQ(AgentUtils::gv_globvars->vyagentDataDictPath, "/data");
  EXPECT_EQ(AgentUtils::settings().basePath, "/base");
}

TEST(AgentSettings, WithoutADataPathLeaveItAbsent) {
  AgentUtils::AgentSettings settings;
  settings.basePath = "/base";
  AgentUtils::configure(settings);
  ASSERT_NE(AgentUtils::gv_globvars, nullptr);
  EXPECT_EQ(AgentUtils::gv_globvars->vyagentDataDictPath, std::nullopt);
}

}  // namespace
