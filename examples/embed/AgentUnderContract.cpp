// The agent's modules under the library's tests of what such modules promise. Built when
// AGENT_CONTRACTS is ON.
#include <random>

#include "Contract.h"

// The agent is one source; its own entry point is not the tests'.
#define main agentMain
#include "agent.cpp"
#undef main

namespace {

// The agent's log has no memory, and its store holds texts alone: what asks for more is left out.
class ExampleAgent final : public contracts::Agent {
 public:
  ExampleAgent() {
    serverDirectory = place_ / "server";
    fs::create_directories(serverDirectory);
    fs::create_directories(directory());
  }
  ~ExampleAgent() override { fs::remove_all(place_); }

  string directory() const override { return place_ / "agent"; }

  void serve(const string& path, const string& content) override {
    const fs::path file = fs::path(serverDirectory) / path;
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
  }

 private:
  const fs::path place_ =
      fs::temp_directory_path() / ("agent-contracts-" + std::to_string(std::random_device{}()));
};

}  // namespace

std::unique_ptr<contracts::Agent> contracts::makeAgent() {
  return std::make_unique<ExampleAgent>();
}
