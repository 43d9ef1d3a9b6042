// A whole request on a hostile server and a hostile disk. The promise that must hold: nothing runs
// whose bytes the last checksum test did not accept.

#include <fstream>
#include <string>

#include "InMemoryAgent.h"
#include "Input.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "ScriptRepositoryProcessorRequest.h"

namespace {

using namespace VarnScriptRepository;

void put(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  auto& agent = fuzz::InMemoryAgent::shared();
  agent.reset();
  auto& metaProcessor = ScriptRepositoryMetaProcessor::shared();
  metaProcessor.setScriptRepoMetaData(std::nullopt);
  metaProcessor.setScriptRepoAllMetaData(std::nullopt);

  // One byte of choices, then the documents and scripts that the server gives in turn.
  const std::uint8_t choices = input.byte();
  const std::string metadata = input.text();
  const std::string document = input.text();
  const std::string script = input.text();
  const std::string secondScript = input.text();
  agent.replies.push_back(metadata);
  if ((choices & 1) != 0) {
    // A local copy of the document and a recorded version, so that the request may be up to date.
    put(agent.dataDirectory + "/42.xml", document);
    agent.store.rows["42"] = {{"version", "5"}};
  }
  if ((choices & 2) != 0) put(agent.scriptsDirectory + "/clean.sh", secondScript);
  if ((choices & 4) == 0) agent.replies.push_back(document);
  if ((choices & 8) == 0) agent.replies.push_back(script);
  agent.replies.push_back(secondScript);
  if ((choices & 16) != 0) agent.downloads.leftBehind = script;

  ScriptRepositoryProcessor processor("42");
  if ((choices & 32) != 0) processor.overrideExpectedReturnCode = {"0"};
  const auto [accepted, output] = processor.processScript();
  FUZZ_REQUIRE(agent.onlyVerifiedRuns);
  FUZZ_REQUIRE(agent.runs <= 1);
  FUZZ_REQUIRE(accepted.has_value() == output.has_value());
  FUZZ_REQUIRE(accepted.has_value() == (agent.runs == 1));

  if ((choices & 64) != 0 && metaProcessor.scriptRepoMetaData()) {
    metaProcessor.setScriptRepoAllMetaData(
        ScriptRepoAllMetaData{*metaProcessor.scriptRepoMetaData()});
    ScriptRepositoryProcessor::removeServerRemovedScripts();
    const bool listed = metaProcessor.getScriptRepoForID("42").has_value();
    FUZZ_REQUIRE(listed || !agent.store.rows.contains("42"));
  }
  return 0;
}
