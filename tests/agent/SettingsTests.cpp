// What the host's settings become.

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

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

TEST(AgentSettings, WithoutADataPathHaveOneBelowTheBasePath) {
  AgentUtils::configure({.basePath = "/base", .customerID = "7"});
  ASSERT_NE(AgentUtils::gv_globvars, nullptr);
  EXPECT_EQ(AgentUtils::gv_globvars->vyagentDataDictPath, "/base/data/7");
  EXPECT_EQ(AgentUtils::settings().dataPath, "/base/data/7");
  AgentUtils::configure({.basePath = "/base"});
  EXPECT_EQ(AgentUtils::gv_globvars->vyagentDataDictPath, "/base/data");
  AgentUtils::configure({.basePath = "/", .customerID = "7"});
  EXPECT_EQ(AgentUtils::gv_globvars->vyagentDataDictPath, "/data/7");
}

TEST(AgentSettings, ThatWouldLandElsewhereAreRefusedByTheNameOfTheMember) {
  struct Row {
    AgentUtils::AgentSettings settings;
    const char* complaint;
  };
  const std::string nul("/a\0b", 4);
  const Row rows[] = {
      {{}, "AgentSettings::basePath is not given"},
      {{.dataPath = "/data", .customerID = "7"}, "AgentSettings::basePath is not given"},
      {{.basePath = "agent"}, "AgentSettings::basePath is relative: agent"},
      {{.basePath = "../agent"}, "AgentSettings::basePath is relative: ../agent"},
      {{.basePath = nul}, "AgentSettings::basePath contains a NUL byte"},
      {{.basePath = "/base", .dataPath = "data"}, "AgentSettings::dataPath is relative: data"},
      {{.basePath = "/base", .customerID = ".."},
       "AgentSettings::customerID is no one component of a path: .."},
      {{.basePath = "/base", .customerID = "../../7"},
       "AgentSettings::customerID is no one component of a path: ../../7"},
  };
  AgentUtils::configure({.basePath = "/base", .dataPath = "/data", .customerID = "7"});
  for (const Row& row : rows) {
    try {
      AgentUtils::configure(row.settings);
      ADD_FAILURE() << "taken over, not: " << row.complaint;
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), row.complaint);
    }
    EXPECT_EQ(AgentUtils::gv_globvars->vyagentBasePath, "/base");
    EXPECT_EQ(AgentUtils::settings().dataPath, "/data");
  }
}

}  // namespace
