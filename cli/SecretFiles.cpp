#include "SecretFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "RequestHeaders.h"
#include "WholeFiles.h"

namespace VarnScripts {
namespace {

// Servers take less than this in one request.
constexpr std::uint64_t kLargestFile = std::uint64_t{64} << 10;
constexpr mode_t kForOthers = S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

SettingsError errorAbout(const std::string& key, const std::string& path, const std::string& what) {
  return {key + " (" + flagOf(key) + ", " + variableOf(key) + ") " + path + what};
}

// Reads the file that is given for the setting `key` into `text`.
std::optional<SettingsError> readSecret(const std::string& key, const std::string& path,
                                        std::string& text) {
  std::error_code error;
  posix::RegularFile file =
      posix::readRegularFile(path, posix::LastLink::follow, error, kLargestFile);
  if (error == std::errc::file_too_large) {
    return errorAbout(key, path, " can't be used: it is larger than 64 KiB");
  }
  if (error) return errorAbout(key, path, " can't be read: " + posix::whyNotRead(error));
  // Of what was opened, whatever the name leads to by now.
  if (file.owner != ::geteuid() && file.owner != 0) {
    return errorAbout(key, path, " is refused: it belongs to user " + std::to_string(file.owner));
  }
  if ((file.permissions & kForOthers) != 0) {
    return errorAbout(key, path,
                      " is refused: other users may read or write it; chmod 600 keeps them out");
  }
  text = std::move(file.bytes);
  return std::nullopt;
}

std::optional<SettingsError> takeHeaders(const std::string& path,
                                         std::vector<std::string>& headers) {
  const std::string key = "header_file";
  std::string text;
  if (auto error = readSecret(key, path, text)) return error;
  std::size_t number = 0;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    std::string line = text.substr(start, end - start);
    start = end + 1;
    ++number;
    if (line.empty() || line.front() == '#') continue;
    if (const auto complaint = AgentUtils::complaintAboutRequestHeader(line)) {
      return errorAbout(key, path, ", line " + std::to_string(number) + ": " + *complaint);
    }
    headers.push_back(std::move(line));
  }
  return std::nullopt;
}

}  // namespace

std::optional<SettingsError> takeSecretFiles(const Settings& settings,
                                             AgentUtils::AgentSettings& agent) {
  if (!settings.headerFile.empty()) {
    if (auto error = takeHeaders(settings.headerFile, agent.requestHeaders)) return error;
  }
  if (agent.netrcFile.empty()) return std::nullopt;
  std::string ignored;
  return readSecret("netrc_file", agent.netrcFile, ignored);
}

}  // namespace VarnScripts
