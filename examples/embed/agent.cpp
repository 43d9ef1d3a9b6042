// A whole agent around the library, with agent modules of its own: its log, a store in memory, a
// downloader that copies from a directory, checksums by OpenSSL. The XML parser is the bundled one.
//     agent SERVER_DIRECTORY BASE_DIRECTORY CUSTOMER SCRIPT_ID
// `AgentUnderContract.cpp` runs the library's tests of such modules on these.
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>

#include "AgentLog.h"
#include "AgentUtils.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

using std::string;
namespace fs = std::filesystem;

static string serverDirectory;

void AgentLog::logInfo(const string& message, const string&, const string&, int) {
  std::cerr << "agent: info: " + message + '\n';
}

void AgentLog::logError(const string& message, const string&, const string&, int) {
  std::cerr << "agent: error: " + message + '\n';
}

namespace AgentUtils {

const GlobalVariables* gv_globvars = nullptr;

// A row of the store. The store ends with the agent, so each agent fetches a script anew.
struct Row : AgentStore::KeyedEncoder, AgentStore::KeyedDecoder {
  std::map<string, string> fields;
  void encode(const string& value, const string& forKey) override { fields[forKey] = value; }
  std::optional<string> decodeIfPresent(const string& forKey) const override {
    return fields.contains(forKey) ? std::optional(fields.at(forKey)) : std::nullopt;
  }
};

// Requests for different IDs may run on different threads, and all of them use the one table; so
// does whoever opens it again.
struct KeptTable {
  std::mutex mutex;
  std::map<string, Row> rows;
};

struct RootAccessKeyValueStorage::Table {
  std::mutex& mutex;
  std::map<string, Row>& rows;
};

RootAccessKeyValueStorage::RootAccessKeyValueStorage(const string& storagePath,
                                                     const string& container) {
  static std::mutex opening;
  static std::map<std::pair<string, string>, KeptTable> tables;
  const std::lock_guard lock(opening);
  KeptTable& kept = tables[{storagePath, container}];
  table_.reset(new Table{kept.mutex, kept.rows});
}

RootAccessKeyValueStorage::~RootAccessKeyValueStorage() = default;
void RootAccessKeyValueStorage::deleteValue(const string& forKey) {
  const std::lock_guard lock(table_->mutex);
  table_->rows.erase(forKey);
}

std::map<string, string> RootAccessKeyValueStorage::fetchTableAsDictionary() noexcept {
  const std::lock_guard lock(table_->mutex);
  std::map<string, string> keys;
  for (const auto& [key, row] : table_->rows) keys[key];
  return keys;
}

void RootAccessKeyValueStorage::fetchRow(
    const string& forKey, const std::function<void(const AgentStore::KeyedDecoder&)>& decode) {
  const std::lock_guard lock(table_->mutex);
  if (table_->rows.contains(forKey)) decode(table_->rows.at(forKey));
}

void RootAccessKeyValueStorage::updateRow(
    const string& forKey, const std::function<void(AgentStore::KeyedEncoder&)>& encode) {
  const std::lock_guard lock(table_->mutex);
  Row row;
  encode(row);
  table_->rows[forKey] = row;
}

bool FileUtils::isFileExists(const string& atPath) const {
  std::error_code ignored;
  return fs::exists(atPath, ignored);
}

bool FileUtils::createDirectory(const string& atPath, bool withIntermediateDirectories) const {
  std::error_code error;
  if (!withIntermediateDirectories) return fs::create_directory(atPath, error);
  fs::create_directories(atPath, error);
  return fs::is_directory(atPath, error);
}

HttpHandlermac HttpHandlermac::initWithServerInfo() { return {}; }

bool HttpHandlermac::downloadFileWithRootPermission(const string& fromURL, const string& toPath) {
  // The file takes its place in one step, so that a failure leaves what stood there.
  const auto replace = fs::copy_options::overwrite_existing;
  const string partial = toPath + ".partial";
  std::error_code error, ignored;
  fs::copy_file(serverDirectory + "/" + fromURL, partial, replace, error);
  if (!error) fs::rename(partial, toPath, error);
  if (error) fs::remove(partial, ignored);
  return !error;
}

bool VyCryptography::validateCheckSumForFile(const string& path, const string& Type,
                                             const string& Checksum) {
  std::error_code ignored;
  if (!fs::is_regular_file(path, ignored)) return false;
  std::ifstream file(path, std::ios::binary);
  const string bytes(std::istreambuf_iterator<char>(file), {});
  unsigned char digest[EVP_MAX_MD_SIZE], wanted[EVP_MAX_MD_SIZE];
  std::size_t size = 0, wantedSize = 0;
  return file &&
         EVP_Q_digest(nullptr, Type.c_str(), nullptr, bytes.data(), bytes.size(), digest, &size) &&
         OPENSSL_hexstr2buf_ex(wanted, sizeof wanted, &wantedSize, Checksum.c_str(), '\0') &&
         std::equal(digest, digest + size, wanted, wanted + wantedSize);
}

}  // namespace AgentUtils

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: agent SERVER_DIRECTORY BASE_DIRECTORY CUSTOMER SCRIPT_ID\n";
    return 2;
  }
  serverDirectory = argv[1];
  const AgentUtils::GlobalVariables settings{fs::absolute(argv[2]), argv[3], std::nullopt};
  AgentUtils::gv_globvars = &settings;

  const auto [accepted, output] =
      VarnScriptRepository::ScriptRepositoryProcessor(argv[4]).processScript();
  if (!accepted) return 3;
  std::cout << *output;
  return *accepted ? 0 : 1;
}
