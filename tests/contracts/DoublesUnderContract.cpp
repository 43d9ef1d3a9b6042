// The doubles that the units' tests stand on.

#include "AgentFixture.h"
#include "Contract.h"

namespace {

class Doubles final : public contracts::Agent {
 public:
  Doubles() {
    doubles::Journal::shared().reset();
    doubles::Downloads::shared().reset();
    for (auto& [name, rows] : doubles::Store::shared().tables) rows.clear();
  }

  std::string directory() const override { return directory_.path(); }

  void serve(const std::string& path, const std::string& content) override {
    doubles::Downloads::shared().serve(path, content);
  }

  Checksum checksumOfABC() const override { return {"T", "3"}; }

  bool putElementThatIsNoText(const std::string&, const std::string& key,
                              const std::string& element) override {
    doubles::Store::shared().rows[key] = {{element, std::nullopt}};
    return true;
  }

  std::optional<std::vector<std::string>> log() const override {
    std::vector<std::string> lines;
    for (const doubles::LogRecord& record : doubles::Journal::shared().records()) {
      lines.push_back(record.level + " " + record.source + " " + record.operation + " " +
                      std::to_string(record.line) + " " + record.message);
    }
    return lines;
  }

  std::string text(const std::string& name, const std::string& value) const override {
    return name + "<" + value + ">";
  }
  std::string element(const std::string& name, const std::string& children) const override {
    return name + "(" + children + ")\n";
  }

 private:
  TemporaryDirectory directory_;
};

}  // namespace

std::unique_ptr<contracts::Agent> contracts::makeAgent() { return std::make_unique<Doubles>(); }
