#include "NamedFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

#include "TrustedKeys.h"
#include "TrustedPath.h"
#include "WholeFiles.h"

namespace VarnScripts {
namespace {

struct NamedFile {
  std::string name;  ///< how a complaint begins
  const std::string& path;
  PathEnd end;
};

NamedFile settingsFile(const std::string& path) {
  return {"settings file " + path + " (given by --config or VARN_CONFIG)", path,
          PathEnd::givenFile};
}

NamedFile fileOf(const std::string& key, const std::string& path, PathEnd end) {
  return {key + " (" + flagOf(key) + ", " + variableOf(key) + ")", path, end};
}

std::optional<SettingsError> complaintAbout(const NamedFile& file,
                                            std::vector<std::string>& writableByGroup) {
  if (file.path.empty()) return std::nullopt;
  const PathVerdict verdict = examinePath(file.path, file.end, ::geteuid());
  writableByGroup.insert(writableByGroup.end(), verdict.writableByGroup.begin(),
                         verdict.writableByGroup.end());
  if (verdict.refusal.empty()) return std::nullopt;
  return SettingsError{file.name + " is refused: " + verdict.refusal};
}

// What is wrong with a directory that a setting names: it may be missing, since it is made, and
// nothing else can be made in its place.
std::optional<SettingsError> complaintAboutDirectory(const std::string& key,
                                                     const std::string& path) {
  if (path.empty()) return std::nullopt;
  struct stat status {};
  const bool isThere = ::stat(path.c_str(), &status) == 0;
  if (isThere ? S_ISDIR(status.st_mode) : errno != ENOTDIR) return std::nullopt;
  return SettingsError{fileOf(key, path, PathEnd::directory).name + " is no directory: " + path +
                       (isThere ? "" : ": " + std::generic_category().message(ENOTDIR))};
}

// The TLS library would ask a person for the passphrase. A file that can't be read is reported
// where it is used.
std::optional<SettingsError> complaintAboutKey(const Settings& settings) {
  constexpr std::uint64_t kLargestKey = std::uint64_t{1} << 20;
  const bool isInCertificate = settings.agent.clientKey.empty();
  const std::string& path = isInCertificate ? settings.agent.clientCert : settings.agent.clientKey;
  if (path.empty()) return std::nullopt;
  std::error_code ignored;
  const std::string text =
      posix::readRegularFile(path, posix::LastLink::follow, ignored, kLargestKey).bytes;
  if (text.find("BEGIN ENCRYPTED PRIVATE KEY") == text.npos &&
      text.find("Proc-Type: 4,ENCRYPTED") == text.npos) {
    return std::nullopt;
  }
  return SettingsError{
      fileOf(isInCertificate ? "client_cert" : "client_key", path, PathEnd::givenFile).name +
      " holds an encrypted key, and nobody is here to give the passphrase: store the key without "
      "one, mode 0600"};
}

}  // namespace

std::optional<SettingsError> complaintAboutSettingsFile(const std::string& path) {
  std::vector<std::string> ignored;
  return complaintAbout(settingsFile(path), ignored);
}

std::optional<SettingsError> complaintAboutNamedFiles(const Settings& settings,
                                                      std::vector<std::string>& writableByGroup) {
  const AgentUtils::AgentSettings& agent = settings.agent;
  if (auto complaint = complaintAboutDirectory("base_path", agent.basePath)) return complaint;
  // One that nobody gave is a matter of the base path's content.
  if (agent.dataPath != ownDataPath(agent.basePath, agent.customerID)) {
    if (auto complaint = complaintAboutDirectory("data_path", agent.dataPath)) return complaint;
  }
  const std::vector<std::string> keys = filesOfTrustedKeys(settings);
  for (const std::string& path : keys) {
    const NamedFile file = fileOf("trusted_keys", path, PathEnd::givenFile);
    if (auto complaint = complaintAbout(file, writableByGroup)) return complaint;
  }
  for (const NamedFile& file :
       {settingsFile(settings.settingsFile),
        fileOf("log_file", settings.log.file, PathEnd::ownFile),
        fileOf("ca_file", settings.agent.caFile, PathEnd::givenFile),
        fileOf("client_cert", settings.agent.clientCert, PathEnd::givenFile),
        fileOf("client_key", settings.agent.clientKey, PathEnd::givenFile),
        fileOf("header_file", settings.headerFile, PathEnd::givenFile),
        fileOf("netrc_file", settings.agent.netrcFile, PathEnd::givenFile)}) {
    if (auto complaint = complaintAbout(file, writableByGroup)) return complaint;
  }
  return complaintAboutKey(settings);
}

}  // namespace VarnScripts
