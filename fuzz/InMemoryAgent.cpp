#include "InMemoryAgent.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "AgentLog.h"
#include "AgentStore.h"
#include "AgentUtils.h"
#include "Input.h"
#include "ScriptRepositoryUtil.h"

namespace fuzz {
namespace {

struct Verified {
  std::string path;
  std::string content;
};
std::optional<Verified> lastVerified;

std::optional<std::string> contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool write(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  return static_cast<bool>(file << content);
}

/// A target that a downloader may write: directly in one of the two directories.
bool isAllowed(const std::string& path) {
  const auto& agent = InMemoryAgent::shared();
  for (const std::string& directory : {agent.dataDirectory, agent.scriptsDirectory}) {
    const std::string name =
        path.starts_with(directory + "/") ? path.substr(directory.size() + 1) : "";
    if (!name.empty() && name != "." && name != ".." && name.find('/') == name.npos) return true;
  }
  return false;
}

AgentUtils::GlobalVariables makeGlobals() {
  std::string base = (std::filesystem::temp_directory_path() / "varn-fuzz-XXXXXX").string();
  FUZZ_REQUIRE(::mkdtemp(base.data()) != nullptr);
  return {base, "7", base};
}

const AgentUtils::GlobalVariables& globals() {
  static const auto& made = *new AgentUtils::GlobalVariables(makeGlobals());
  return made;
}

}  // namespace

InMemoryAgent& InMemoryAgent::shared() {
  static auto& agent = *new InMemoryAgent;
  return agent;
}

void InMemoryAgent::reset() {
  const std::string customer = globals().vyagentBasePath + "/client-data/7";
  *this = {};
  dataDirectory = customer + "/scripts-repository-data";
  scriptsDirectory = customer + "/scripts-repository";
  std::filesystem::remove_all(customer);
  std::filesystem::create_directories(dataDirectory);
  std::filesystem::create_directories(scriptsDirectory);
  lastVerified.reset();
  AgentUtils::gv_globvars = &globals();
}

}  // namespace fuzz

// ---- The agent's modules ---------------------------------------------------------------------

void AgentLog::logInfo(const std::string&, const std::string&, const std::string&, int) {}
void AgentLog::logError(const std::string&, const std::string&, const std::string&, int) {}

namespace AgentUtils {

const GlobalVariables* gv_globvars = nullptr;

bool FileUtils::isFileExists(const std::string& atPath) const {
  std::error_code error;
  return std::filesystem::exists(atPath, error);
}

bool FileUtils::createDirectory(const std::string& atPath, bool withIntermediateDirectories) const {
  std::error_code error;
  if (!withIntermediateDirectories) return std::filesystem::create_directory(atPath, error);
  std::filesystem::create_directories(atPath, error);
  return std::filesystem::is_directory(atPath, error);
}

HttpHandlermac HttpHandlermac::initWithServerInfo() { return {}; }

bool HttpHandlermac::downloadFileWithRootPermission(const std::string& fromURL,
                                                    const std::string& toPath) {
  auto& agent = fuzz::InMemoryAgent::shared();
  agent.lastServerPath = fromURL;
  if (!fuzz::isAllowed(toPath)) return false;
  const auto content = agent.downloads.empty() ? std::nullopt : agent.downloads.front();
  if (!agent.downloads.empty()) agent.downloads.pop_front();
  if (content) return fuzz::write(toPath, *content);
  if (agent.leftBehind) fuzz::write(toPath, *agent.leftBehind);
  return false;
}

// A checksum is the last digit of the length: so short that a fuzzer finds matches by itself. The
// one algorithm has the name that the corpora have.
bool VyCryptography::validateCheckSumForFile(const std::string& path, const std::string& Type,
                                             const std::string& Checksum) {
  fuzz::lastVerified.reset();
  if (Type != "SHA-256") return false;
  const auto content = fuzz::contentOf(path);
  if (!content) return false;
  if (std::to_string(content->size() % 10) != Checksum) return false;
  fuzz::lastVerified = {path, *content};
  return true;
}

struct RootAccessKeyValueStorage::Table {
  std::string name;
  auto& rows() { return fuzz::InMemoryAgent::shared().tables[name]; }
};

RootAccessKeyValueStorage::RootAccessKeyValueStorage(const std::string&,
                                                     const std::string& container)
    : table_(new Table{container}) {}
RootAccessKeyValueStorage::~RootAccessKeyValueStorage() = default;

void RootAccessKeyValueStorage::deleteValue(const std::string& forKey) {
  table_->rows().erase(forKey);
}

std::map<std::string, std::string> RootAccessKeyValueStorage::fetchTableAsDictionary() noexcept {
  std::map<std::string, std::string> table;
  for (const auto& [key, row] : table_->rows()) table[key] = "";
  return table;
}

void RootAccessKeyValueStorage::fetchRow(
    const std::string& forKey, const std::function<void(const AgentStore::KeyedDecoder&)>& decode) {
  using Row = fuzz::InMemoryAgent::Row;
  class Decoder : public AgentStore::KeyedDecoder {
   public:
    explicit Decoder(const Row& row) : row_(row) {}
    std::optional<std::string> decodeIfPresent(const std::string& key) const override {
      const auto found = row_.find(key);
      if (found == row_.end()) return std::nullopt;
      return found->second.value();  // throws when it is not a text
    }

   private:
    const Row& row_;
  };
  const auto& rows = table_->rows();
  if (const auto found = rows.find(forKey); found != rows.end()) decode(Decoder(found->second));
}

void RootAccessKeyValueStorage::updateRow(
    const std::string& forKey, const std::function<void(AgentStore::KeyedEncoder&)>& encode) {
  class Encoder : public AgentStore::KeyedEncoder {
   public:
    void encode(const std::string& value, const std::string& key) override { row[key] = value; }
    fuzz::InMemoryAgent::Row row;
  };
  Encoder encoder;
  encode(encoder);
  table_->rows()[forKey] = encoder.row;
}

}  // namespace AgentUtils

// ---- The runner ------------------------------------------------------------------------------

std::pair<std::optional<std::int32_t>, std::optional<std::string>> VarnScriptRepository::shell(
    const std::string& launchPath, const std::string& commandPath, const std::vector<std::string>&,
    const std::string& executeInDirectory, std::int64_t timeoutIn) {
  auto& agent = fuzz::InMemoryAgent::shared();
  ++agent.runs;
  const bool verified = fuzz::lastVerified && fuzz::lastVerified->path == commandPath &&
                        fuzz::contentOf(commandPath) == fuzz::lastVerified->content;
  const bool interpreter = launchPath == "/bin/sh" || launchPath == "/usr/bin/python3" ||
                           launchPath == "/usr/bin/perl" || launchPath == "/usr/bin/osascript";
  if (!verified || !interpreter || executeInDirectory != agent.scriptsDirectory ||
      timeoutIn != 600) {
    agent.onlyVerifiedRuns = false;
  }
  return {0, "done"};
}
