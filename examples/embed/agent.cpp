// A whole agent around the library, with agent modules of its own: its log, a store in memory, a
// downloader that copies from a directory, checksums by OpenSSL. The XML parser is the bundled one,
// an archive of its own that CMakeLists.txt links.
//
//     agent SERVER_DIRECTORY BASE_DIRECTORY CUSTOMER SCRIPT_ID

#include <openssl/evp.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "AgentLog.h"
#include "AgentUtils.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

namespace fs = std::filesystem;

static std::string serverDirectory;

// ---- The log ----------------------------------------------------------------------------------

static void writeLine(const char* level, const std::string& message) {
  std::fprintf(stderr, "agent: %s: %s\n", level, message.c_str());
}

void AgentLog::logInfo(const std::string& message, const std::string&, const std::string&, int) {
  writeLine("info", message);
}

void AgentLog::logError(const std::string& message, const std::string&, const std::string&, int) {
  writeLine("error", message);
}

// ---- The store: it ends with the agent, so each agent fetches a script anew -------------------

namespace AgentUtils {

struct Row : AgentStore::KeyedEncoder, AgentStore::KeyedDecoder {
  std::map<std::string, std::string> fields;

  void encode(const std::string& value, const std::string& forKey) override {
    fields[forKey] = value;
  }
  std::optional<std::string> decodeIfPresent(const std::string& forKey) const override {
    const auto field = fields.find(forKey);
    return field == fields.end() ? std::nullopt : std::optional(field->second);
  }
};

struct RootAccessKeyValueStorage::Table {
  std::map<std::string, Row> rows;
};

RootAccessKeyValueStorage::RootAccessKeyValueStorage(const std::string&, const std::string&)
    : table_(std::make_unique<Table>()) {}

RootAccessKeyValueStorage::~RootAccessKeyValueStorage() = default;

void RootAccessKeyValueStorage::deleteValue(const std::string& forKey) {
  table_->rows.erase(forKey);
}

std::map<std::string, std::string> RootAccessKeyValueStorage::fetchTableAsDictionary() noexcept {
  std::map<std::string, std::string> keys;
  for (const auto& [key, row] : table_->rows) keys[key];
  return keys;
}

void RootAccessKeyValueStorage::fetchRow(
    const std::string& forKey, const std::function<void(const AgentStore::KeyedDecoder&)>& decode) {
  const auto row = table_->rows.find(forKey);
  if (row != table_->rows.end()) decode(row->second);
}

void RootAccessKeyValueStorage::updateRow(
    const std::string& forKey, const std::function<void(AgentStore::KeyedEncoder&)>& encode) {
  Row row;
  encode(row);
  table_->rows[forKey] = row;
}

// ---- Settings, files, downloads, checksums ----------------------------------------------------

const GlobalVariables* gv_globvars = nullptr;

bool FileUtils::isFileExists(const std::string& atPath) const {
  std::error_code none;
  return fs::exists(atPath, none);
}

bool FileUtils::createDirectory(const std::string& atPath, bool withIntermediateDirectories) const {
  std::error_code error;
  if (!withIntermediateDirectories) return fs::create_directory(atPath, error);
  fs::create_directories(atPath, error);
  return !error;
}

HttpHandlermac HttpHandlermac::initWithServerInfo() { return {}; }

bool HttpHandlermac::downloadFileWithRootPermission(const std::string& fromURL,
                                                    const std::string& toPath) {
  // The file takes its place in one step, so that a failure leaves what stood there.
  const std::string partial = toPath + ".partial";
  std::error_code error;
  fs::copy_file(serverDirectory + "/" + fromURL, partial, fs::copy_options::overwrite_existing,
                error);
  if (!error) fs::rename(partial, toPath, error);
  return !error;
}

bool VyCryptography::validateCheckSumForFile(const std::string& path, const std::string& Type,
                                             const std::string& Checksum) {
  std::ifstream file(path, std::ios::binary);
  const std::string content(std::istreambuf_iterator<char>(file), {});
  unsigned char digest[EVP_MAX_MD_SIZE];
  std::size_t size = 0;
  if (!file || EVP_Q_digest(nullptr, Type.c_str(), nullptr, content.data(), content.size(), digest,
                            &size) != 1) {
    return false;
  }
  std::string hexadecimal;
  for (std::size_t i = 0; i < size; ++i) {
    char byte[3];
    std::snprintf(byte, sizeof byte, "%02x", digest[i]);
    hexadecimal += byte;
  }
  return hexadecimal == Checksum;
}

}  // namespace AgentUtils

// ---- The agent --------------------------------------------------------------------------------

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s SERVER_DIRECTORY BASE_DIRECTORY CUSTOMER SCRIPT_ID\n", argv[0]);
    return 2;
  }
  serverDirectory = argv[1];
  const AgentUtils::GlobalVariables settings{argv[2], argv[3], std::nullopt};
  AgentUtils::gv_globvars = &settings;

  VarnScriptRepository::ScriptRepositoryProcessor processor(argv[4]);
  const auto [accepted, output] = processor.processScript();
  if (!accepted) return 3;
  std::fputs(output->c_str(), stdout);
  return *accepted ? 0 : 1;
}
