#include "AgentUtilsDouble.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "AgentUtils.h"
#include "Journal.h"

namespace doubles {

namespace {

void mark(const std::string& operation, const std::string& entry) {
  Journal::shared().write(entry);
  Journal::shared().called(operation);
}

/// A server path is the same with and without a leading slash.
std::string withoutSlash(const std::string& fromURL) {
  return fromURL.starts_with('/') ? fromURL.substr(1) : fromURL;
}

std::string text(const Store::Row& row) {
  std::string joined;
  for (const auto& [key, value] : row) {
    if (!joined.empty()) joined += ' ';
    joined += key + "=" + value.value_or("(not a text)");
  }
  return joined;
}

}  // namespace

bool& refusesDirectories() {
  static bool refuses = false;
  return refuses;
}

Downloads& Downloads::shared() {
  static Downloads& instance = *new Downloads;
  return instance;
}

void Downloads::serve(const std::string& fromURL, const std::string& content) {
  replies[withoutSlash(fromURL)] = {content};
}

void Downloads::serveInTurn(const std::string& fromURL,
                            std::deque<std::optional<std::string>> contents) {
  replies[withoutSlash(fromURL)] = std::move(contents);
}

void Downloads::refuse(const std::string& fromURL) { replies.erase(withoutSlash(fromURL)); }

void Downloads::reset() {
  replies.clear();
  meanwhile = nullptr;
  mayWrite = nullptr;
  leftBehind.reset();
  made = 0;
}

Checksums& Checksums::shared() {
  static Checksums& instance = *new Checksums;
  return instance;
}

Store& Store::shared() {
  static Store& instance = *new Store;
  return instance;
}

std::string Store::row(const std::string& key) const {
  const auto found = rows.find(key);
  return found == rows.end() ? "(none)" : text(found->second);
}

}  // namespace doubles

namespace AgentUtils {

using doubles::Checksums;
using doubles::Downloads;
using doubles::Store;

const GlobalVariables* gv_globvars = nullptr;

// ---- Files -----------------------------------------------------------------------------------

bool FileUtils::isFileExists(const std::string& atPath) const {
  doubles::mark("exists", "exists " + atPath);
  std::error_code error;
  return std::filesystem::exists(atPath, error);
}

bool FileUtils::createDirectory(const std::string& atPath, bool withIntermediateDirectories) const {
  doubles::mark("create", "create " + atPath +
                              (withIntermediateDirectories ? " with parents" : " without parents"));
  if (doubles::refusesDirectories()) {
    errno = 0;
    return false;
  }
  std::error_code error;
  if (!withIntermediateDirectories) return std::filesystem::create_directory(atPath, error);
  std::filesystem::create_directories(atPath, error);
  return std::filesystem::is_directory(atPath, error);
}

// ---- Downloads -------------------------------------------------------------------------------

HttpHandlermac HttpHandlermac::initWithServerInfo() {
  ++Downloads::shared().made;
  doubles::Journal::shared().called("make downloader");
  return {};
}

bool HttpHandlermac::downloadFileWithRootPermission(const std::string& fromURL,
                                                    const std::string& toPath) {
  doubles::mark("download", "download " + fromURL + " to " + toPath);
  if (const auto meanwhile = Downloads::shared().meanwhile) meanwhile(fromURL);
  Downloads& downloads = Downloads::shared();
  if (downloads.mayWrite && !downloads.mayWrite(toPath)) return false;
  const auto write = [&toPath](const std::string& content) {
    std::ofstream file(toPath, std::ios::binary | std::ios::trunc);
    file << content;
    return file.good();
  };
  const auto found = downloads.replies.find(doubles::withoutSlash(fromURL));
  std::optional<std::string> content;
  if (found != downloads.replies.end()) {
    content = found->second.front();
    if (found->second.size() > 1) found->second.pop_front();
  }
  if (content) return write(*content);
  if (downloads.leftBehind) write(*downloads.leftBehind);
  return false;
}

// ---- Checksums -------------------------------------------------------------------------------

bool VyCryptography::validateCheckSumForFile(const std::string& path, const std::string& Type,
                                             const std::string& Checksum) {
  doubles::mark("checksum", "checksum " + path + " type " + Type + " value " + Checksum);
  auto& answers = Checksums::shared().answers;
  if (!answers.empty()) {
    const bool answer = answers.front();
    answers.pop_front();
    return answer;
  }
  if (const auto& rule = Checksums::shared().rule) return rule(path, Type, Checksum);
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return !error && Type == "T" && std::to_string(size) == Checksum;
}

// ---- Store -----------------------------------------------------------------------------------

namespace {

class RowEncoder final : public AgentStore::KeyedEncoder {
 public:
  void encode(const std::string& value, const std::string& forKey) override {
    row.emplace_back(forKey, value);
  }
  Store::Row row;
};

class RowDecoder final : public AgentStore::KeyedDecoder {
 public:
  explicit RowDecoder(const Store::Row& row) : row_(row) {}

  std::optional<std::string> decodeIfPresent(const std::string& forKey) const override {
    for (const auto& [key, value] : row_) {
      if (key != forKey) continue;
      if (!value) throw std::invalid_argument("not a text");
      return value;
    }
    return std::nullopt;
  }

 private:
  const Store::Row& row_;
};

}  // namespace

struct RootAccessKeyValueStorage::Table {
  std::map<std::string, Store::Row>& rows;
};

RootAccessKeyValueStorage::RootAccessKeyValueStorage(const std::string& storagePath,
                                                     const std::string& container)
    : table_(new Table{Store::shared().tables[container]}) {
  doubles::mark("open", "open " + storagePath + " table " + container);
}

RootAccessKeyValueStorage::~RootAccessKeyValueStorage() {
  doubles::Journal::shared().write("close store");
}

void RootAccessKeyValueStorage::deleteValue(const std::string& forKey) {
  doubles::mark("delete", "delete " + forKey);
  table_->rows.erase(forKey);
}

std::map<std::string, std::string> RootAccessKeyValueStorage::fetchTableAsDictionary() noexcept {
  doubles::Journal::shared().write("list");
  std::map<std::string, std::string> table;
  for (const auto& [key, row] : table_->rows) table[key] = doubles::text(row);
  return table;
}

void RootAccessKeyValueStorage::fetchRow(
    const std::string& forKey, const std::function<void(const AgentStore::KeyedDecoder&)>& decode) {
  doubles::mark("fetch", "fetch " + forKey);
  const auto found = table_->rows.find(forKey);
  if (found != table_->rows.end()) decode(RowDecoder(found->second));
}

void RootAccessKeyValueStorage::updateRow(
    const std::string& forKey, const std::function<void(AgentStore::KeyedEncoder&)>& encode) {
  RowEncoder encoder;
  encode(encoder);
  doubles::mark("update", "update " + forKey + " " + doubles::text(encoder.row));
  table_->rows[forKey] = encoder.row;
}

}  // namespace AgentUtils
