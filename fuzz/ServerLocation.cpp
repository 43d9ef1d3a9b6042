// The rewriting of a file's location on the server, through the request's own download step,
// against a plain byte-by-byte version.

#include <string>

#include "InMemoryAgent.h"
#include "Input.h"
#include "ScriptRepositoryProcessorRequest.h"

namespace {

std::string plainServerPath(const std::string& location) {
  const std::string prefix = "..\\webapps\\Quillandermoor\\";
  std::string path;
  std::size_t at = 0;
  while (at < location.size()) {
    if (location.compare(at, prefix.size(), prefix) == 0) {
      at += prefix.size();
      continue;
    }
    path += location[at] == '\\' ? '/' : location[at];
    ++at;
  }
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string location = input.remaining();
  auto& agent = fuzz::InMemoryAgent::shared();
  agent.reset();
  agent.replies = {"content"};
  VarnScriptRepository::ScriptRequest request("1");
  FUZZ_REQUIRE(request.downloadScript(location, "a.sh"));
  FUZZ_REQUIRE(agent.lastServerPath == plainServerPath(location));
  return 0;
}
