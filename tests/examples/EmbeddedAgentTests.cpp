// The example agent under what the library allows: requests for different IDs on several threads.

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

#include "ScriptRepositoryRecords.h"
#include "publish/XMLDocument.h"

// The agent is one source; its own entry point is not the tests'.
#define main agentMain
#include "embed/agent.cpp"
#undef main

namespace {

using namespace VarnScriptRepository;

constexpr int kThreads = 8;

void write(const fs::path& path, const string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

/// Script `id`, whose file prints "ran".
ScriptItem itemOf(const string& id) {
  ScriptItem item;
  item.scriptRepo.resize(1);
  item.scriptRepo[0].scriptID = id;
  item.scriptRepo[0].scriptName = id + ".sh";
  item.scriptRepo[0].exitCode = "0";
  item.checksumValues.resize(1);
  item.checksumValues[0].checksumType = "sha256";
  item.checksumValues[0].checksumVal =
      "d8ecb96e2f3b73959d421f403777145a239248b6ecd24f315da4f64100194727";
  item.files.resize(1);
  item.files[0].fileName = item.files[0].fileSystemLocation = id + ".sh";
  item.files[0].csToVyFiles.resize(1);
  return item;
}

TEST(EmbeddedAgent, RunsRequestsForDifferentIDsOnSeveralThreads) {
  const fs::path directory = fs::path(testing::TempDir()) / "varn-embedded-agent";
  fs::remove_all(directory);
  serverDirectory = directory / "server";
  const fs::path documents = directory / "server/client-data/acme/scriptrepo";
  ScriptsRepoMetaRoot list{{{}}};
  for (int number = 0; number < kThreads; ++number) {
    const string id = std::to_string(number);
    ScriptRepositoryMeta& entry = list.scriptsMeta[0].scriptRepo.emplace_back();
    entry.scriptID = id;
    entry.scriptPathMapping = {{"client-data/acme/scriptrepo/" + id + ".xml"}};
    write(documents / (id + ".xml"),
          VarnScripts::publishing::xmlDocument(ScriptRoot{{itemOf(id)}}));
    write(directory / "server" / (id + ".sh"), "echo ran\n");
  }
  write(documents / "scripts-meta.xml", VarnScripts::publishing::xmlDocument(list));
  const AgentUtils::GlobalVariables settings{directory / "base", "acme", std::nullopt};
  AgentUtils::gv_globvars = &settings;
  // The first request loads the list; from then on requests may run together.
  ASSERT_EQ(ScriptRepositoryProcessor("0").processScript(), ProcessingResult(true, "ran\n"));

  std::array<ProcessingResult, kThreads> results;
  std::vector<std::thread> threads;
  for (std::size_t number = 0; number < kThreads; ++number) {
    threads.emplace_back([&results, number] {
      results[number] = ScriptRepositoryProcessor(std::to_string(number)).processScript();
    });
  }
  for (std::thread& thread : threads) thread.join();

  for (const ProcessingResult& result : results) EXPECT_EQ(result, ProcessingResult(true, "ran\n"));
  fs::remove_all(directory);
}

}  // namespace
