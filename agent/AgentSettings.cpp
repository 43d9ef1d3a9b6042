#include "AgentSettings.h"

#include <algorithm>
#include <cstddef>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>

#include "signing/PublicKey.h"
#include "signing/SignedComment.h"

namespace AgentUtils {

const GlobalVariables* gv_globvars = nullptr;

namespace {

/// The settings, and the view of them that the library reads.
struct Configuration {
  AgentSettings settings;
  GlobalVariables variables;
};

Configuration& configuration() {
  // Never destroyed: `gv_globvars` points into it for as long as the process lives.
  static Configuration& instance = *new Configuration;
  return instance;
}

[[noreturn]] void refuse(const std::string& member, const std::string& why) {
  throw std::invalid_argument("AgentSettings::" + member + " " + why);
}

void requireDirectory(const std::string& member, const std::string& path) {
  if (path.find('\0') != std::string::npos) refuse(member, "contains a NUL byte");
  if (!path.starts_with('/')) refuse(member, "is relative: " + path);
}

/// Refuses what no list could ever meet, and what would let every list through.
void requireTrust(const AgentSettings& settings) {
  std::vector<signing::PublicKey> given;
  for (const std::string& line : settings.trustedKeys) {
    const auto key = signing::parsePublicKey(line);
    if (const auto* const why = std::get_if<signing::Refusal>(&key)) {
      refuse("trustedKeys", "has one that is none: " + why->sentence);
    }
    given.push_back(std::get<signing::PublicKey>(key));
  }
  if (const auto why = signing::complaintAboutNumbers(given)) {
    refuse("trustedKeys", "has one twice: " + why->sentence);
  }
  const std::set<signing::PublicKey> keys(given.begin(), given.end());
  const std::size_t most = std::max<std::size_t>(keys.size(), 1);
  if (settings.signaturesNeeded == 0 || settings.signaturesNeeded > most) {
    refuse("signaturesNeeded", "is not a number from 1 to that of the trusted keys: " +
                                   std::to_string(settings.signaturesNeeded));
  }
  // Without a customer nothing is downloaded.
  const std::string& customer = settings.customerID;
  if (!keys.empty() && !customer.empty() && !signing::canBeSigned(customer)) {
    refuse("customerID", "is none that a signature can name");
  }
}

/// Refuses what would put directories, files or the store where the host did not mean, and fills in
/// what has a meaning by itself.
void complete(AgentSettings& settings) {
  if (settings.basePath.empty()) refuse("basePath", "is not given");
  requireDirectory("basePath", settings.basePath);
  const std::string& customer = settings.customerID;
  if (customer == "." || customer == ".." || customer.find('/') != std::string::npos ||
      customer.find('\0') != std::string::npos) {
    refuse("customerID", "is no one component of a path: " + customer);
  }
  if (settings.dataPath.empty()) {
    const std::string& base = settings.basePath;
    settings.dataPath = base + (base.ends_with('/') ? "data" : "/data");
    if (!customer.empty()) settings.dataPath += "/" + customer;
  }
  requireDirectory("dataPath", settings.dataPath);
  requireTrust(settings);
}

}  // namespace

void configure(AgentSettings settings) {
  complete(settings);
  Configuration& current = configuration();
  current.settings = std::move(settings);
  const AgentSettings& given = current.settings;
  current.variables = {given.basePath, given.customerID, given.dataPath};
  gv_globvars = &current.variables;
}

const AgentSettings& settings() { return configuration().settings; }

}  // namespace AgentUtils
