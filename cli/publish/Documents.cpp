#include "publish/Documents.h"

#include <algorithm>

#include "Directories.h"
#include "ScriptRules.h"

namespace VarnScripts::publishing {
namespace {

using VarnScriptRepository::ChecksumValue;
using VarnScriptRepository::CSToVyFile;
using VarnScriptRepository::fileSystemLocation;
using VarnScriptRepository::interpreterFor;
using VarnScriptRepository::interpreters;
using VarnScriptRepository::ScriptItem;
using VarnScriptRepository::ScriptRepo;
using VarnScriptRepository::ScriptRepoPath;
using VarnScriptRepository::ScriptRepositoryMeta;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::serverPath;
using VarnScriptRepository::VyFile;

// A required time of which nothing is known. A real one would change with every publishing.
constexpr const char* kNoTime = "0";

// A data document has one checksum.
constexpr const char* kChecksumID = "1";

constexpr std::size_t kDigestLength = 64;
constexpr std::size_t kStampLength = 32;

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

bool isUpperHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

// A text with its length before it, so that no two lists of texts look the same when joined.
std::string framed(const std::string& text) { return std::to_string(text.size()) + ":" + text; }

ScriptRepo definitionOf(const SourceScript& script, const std::string& customer) {
  ScriptRepo repo;
  repo.scriptID = script.entry.id.value;
  repo.scriptName = script.entry.file.value;
  repo.fileID = script.entry.id.value;
  repo.dbUpdatedTime = kNoTime;
  repo.customerID = customer;
  repo.scriptType = script.extension;
  repo.description = script.entry.description.value;
  repo.osPlatform = script.entry.platform.value;
  repo.createdTime = kNoTime;
  repo.scriptFile = script.entry.file.value;
  repo.scriptArgs = script.entry.arguments.value;
  repo.exitCode = script.entry.acceptedCodes.value;
  repo.modifiedTime = versionStamp(script);
  return repo;
}

VyFile fileOf(const SourceScript& script, const std::string& customer, const std::string& path) {
  VyFile file;
  file.contentType = interpreterFor("." + script.extension)->mediaType;
  file.fileID = script.entry.id.value;
  file.moduleName = "script-repository";
  file.customerID = customer;
  file.contentLength = std::to_string(script.size);
  file.fileSystemLocation = fileSystemLocation(path);
  file.fileName = script.entry.file.value;
  file.expiryTime = kNoTime;
  file.fileStatus = "available";
  file.csToVyFiles = {CSToVyFile{kChecksumID}};
  return file;
}

}  // namespace

std::string repositoryDirectory(const std::string& customer) {
  return VarnScriptRepository::serverDirectory(customer).substr(1);
}

bool isContentName(std::string_view name) {
  const bool document = name.starts_with("data/");
  if (!document && !name.starts_with("files/")) return false;
  name.remove_prefix(name.find('/') + 1);
  if (name.size() <= kDigestLength + 1) return false;
  const std::string_view digest = name.substr(0, kDigestLength);
  if (!std::all_of(digest.begin(), digest.end(), isHexDigit)) return false;
  const std::string_view rest = name.substr(kDigestLength);
  if (document) return rest == ".xml";
  return std::ranges::any_of(interpreters(), [rest](const auto& interpreter) {
    return rest.starts_with('.') && rest.substr(1) == interpreter.extension;
  });
}

std::optional<std::string> signedListIn(std::string_view name) {
  constexpr std::string_view kBeginning = "signatures/";
  constexpr std::string_view kEnd = ".minisig";
  constexpr std::size_t kNumberLength = 16;
  if (!name.starts_with(kBeginning) || !name.ends_with(kEnd)) return std::nullopt;
  name.remove_prefix(kBeginning.size());
  const std::string_view digest = name.substr(0, kDigestLength);
  if (digest.size() != kDigestLength || !std::ranges::all_of(digest, isHexDigit)) {
    return std::nullopt;
  }
  const std::string_view rest = name.substr(kDigestLength);
  if (rest == kEnd) return std::string(digest);
  const std::string_view number = rest.substr(0, rest.size() - kEnd.size());
  const bool isNumber = number.size() == kNumberLength + 1 && number.front() == '.' &&
                        std::ranges::all_of(number.substr(1), isUpperHexDigit);
  return isNumber ? std::optional(std::string(digest)) : std::nullopt;
}

std::string_view digestIn(std::string_view name) {
  return name.substr(name.find('/') + 1, kDigestLength);
}

std::string scriptFileName(const SourceScript& script) {
  return "files/" + script.sha256 + "." + script.extension;
}

std::string documentName(std::string_view document) {
  return "data/" + AgentUtils::hexDigest(AgentUtils::usualDigest(), document) + ".xml";
}

std::optional<std::string> contentNameIn(std::string_view location, std::string_view directory) {
  std::string path = serverPath(std::string(location));
  if (path.starts_with('/')) path.erase(0, 1);
  const std::string beginning = std::string(directory) + "/";
  if (!path.starts_with(beginning)) return std::nullopt;
  std::string name = path.substr(beginning.size());
  if (!isContentName(name)) return std::nullopt;
  return name;
}

std::string versionStamp(const SourceScript& script) {
  const std::string run = framed(script.sha256) + framed(script.entry.file.value) +
                          framed(script.entry.arguments.value) +
                          framed(script.entry.acceptedCodes.value);
  return AgentUtils::hexDigest(AgentUtils::usualDigest(), run).substr(0, kStampLength);
}

ScriptRoot documentOf(const SourceScript& script, const AgentUtils::DigestKind& digest,
                      const std::string& customer) {
  const std::string path = repositoryDirectory(customer) + "/" + scriptFileName(script);
  ChecksumValue checksum;
  checksum.checksumID = kChecksumID;
  checksum.checksumType = digest.name;
  checksum.downloadURL = "/" + path;
  checksum.checksumVal = script.checksum;

  ScriptItem item;
  item.scriptRepo = {definitionOf(script, customer)};
  item.checksumValues = {std::move(checksum)};
  item.files = {fileOf(script, customer, path)};
  return ScriptRoot{{std::move(item)}};
}

ScriptRepositoryMeta entryOf(const SourceScript& script, const std::string& document,
                             const std::string& customer) {
  ScriptRepositoryMeta entry;
  entry.scriptName = script.entry.name.value;
  entry.description = script.entry.description.value;
  entry.scriptID = script.entry.id.value;
  entry.scriptFile = script.entry.file.value;
  entry.fileID = script.entry.id.value;
  entry.customerID = customer;
  entry.osPlatform = script.entry.platform.value;
  entry.modifiedTime = versionStamp(script);
  entry.scriptPathMapping = {ScriptRepoPath{"/" + repositoryDirectory(customer) + "/" + document}};
  return entry;
}

}  // namespace VarnScripts::publishing
