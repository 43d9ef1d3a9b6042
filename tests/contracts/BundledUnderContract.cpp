// The bundled modules, with a directory for a server.

#include <sqlite3.h>

#include <filesystem>
#include <mutex>

#include "AgentSettings.h"
#include "Contract.h"
#include "LogSettings.h"
#include "support/Files.h"
#include "support/TemporaryDirectory.h"

namespace {

class Bundled final : public contracts::Agent {
 public:
  Bundled() {
    AgentUtils::AgentSettings agent;
    agent.basePath = directory_.path();
    agent.dataPath = directory_.path();
    agent.customerID = "7";
    agent.serverURL = "file://" + repository_.path();
    AgentUtils::configure(agent);
    AgentLog::LogSettings log;
    log.quiet = true;
    log.observer = [this](const AgentLog::Record& record) {
      const std::lock_guard lock(mutex_);
      log_.push_back((record.level == AgentLog::Record::Level::error ? "error " : "info ") +
                     std::string(record.source) + " " + std::string(record.operation) + " " +
                     std::to_string(record.line) + " " + std::string(record.message));
    };
    AgentLog::configure(log);
  }
  ~Bundled() override { AgentLog::configure({}); }

  std::string directory() const override { return directory_.path(); }

  void serve(const std::string& path, const std::string& content) override {
    const std::filesystem::path file = repository_ / path;
    std::filesystem::create_directories(file.parent_path());
    writeFile(file, content);
  }

  bool putElementThatIsNoText(const std::string& storagePath, const std::string& key,
                              const std::string& element) override {
    sqlite3* database = nullptr;
    EXPECT_EQ(sqlite3_open_v2(storagePath.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr),
              SQLITE_OK);
    const std::string row = "('" + key + "', '{\"" + element + "\":5}')";
    EXPECT_EQ(sqlite3_exec(database, ("INSERT INTO ScriptToMeta VALUES " + row).c_str(), nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(database);
    return true;
  }

  std::optional<std::vector<std::string>> log() const override {
    const std::lock_guard lock(mutex_);
    return log_;
  }

 private:
  const TemporaryDirectory directory_;
  const TemporaryDirectory repository_;
  mutable std::mutex mutex_;
  std::vector<std::string> log_;
};

}  // namespace

std::unique_ptr<contracts::Agent> contracts::makeAgent() { return std::make_unique<Bundled>(); }
