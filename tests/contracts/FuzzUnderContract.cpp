// The fuzz targets' agent. Its server gives what it has in order, whatever is asked for.

#include "Contract.h"
#include "InMemoryAgent.h"

namespace {

class Fuzz final : public contracts::Agent {
 public:
  Fuzz() { agent_.reset(); }

  std::string directory() const override { return agent_.scriptsDirectory; }

  void serve(const std::string&, const std::string& content) override {
    agent_.downloads.push_back(content);
  }

  Checksum checksumOfABC() const override { return {"SHA-256", "3"}; }

  void putElementThatIsNoText(const std::string&, const std::string& key,
                              const std::string& element) override {
    agent_.tables["ScriptToMeta"][key] = {{element, std::nullopt}};
  }

  // It keeps no log, and its parser is the bundled one.
  std::vector<std::string> log() const override { return {}; }
  std::string text(const std::string&, const std::string&) const override { return {}; }
  std::string element(const std::string&, const std::string&) const override { return {}; }

 private:
  fuzz::InMemoryAgent& agent_ = fuzz::InMemoryAgent::shared();
};

}  // namespace

std::unique_ptr<contracts::Agent> contracts::makeAgent() { return std::make_unique<Fuzz>(); }
