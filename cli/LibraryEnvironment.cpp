#include "LibraryEnvironment.h"

#include <unistd.h>

#include <algorithm>
#include <string_view>

// The system's, which no header declares everywhere.
extern "C" char** environ;

namespace VarnScripts {
namespace {

// They name modules to load into this process, settings for all of its connections, and a file for
// the keys of these. The settings of the system stay in force.
constexpr std::string_view kHiddenVariables[] = {
    "OPENSSL_CONF=",    "OPENSSL_CONF_INCLUDE=", "OPENSSL_ENGINES=",
    "OPENSSL_MODULES=", "SSLKEYLOGFILE=",        "GNUTLS_NO_IMPLICIT_INIT="};

// libcurl brings this TLS library along for protocols that nobody asks it for, and it would set
// itself up as soon as it is loaded. A libcurl that needs it for HTTPS asks it to.
char kIdleLibrary[] = "GNUTLS_NO_IMPLICIT_INIT=1";

}  // namespace

// Another list in the place of the system's, so that nothing is lost when memory is out.
LibraryEnvironment::LibraryEnvironment() : all_(environ) {
  visible_.push_back(kIdleLibrary);
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    const auto isThis = [&](std::string_view name) {
      return std::string_view(*variable).starts_with(name);
    };
    if (std::ranges::none_of(kHiddenVariables, isThis)) visible_.push_back(*variable);
  }
  visible_.push_back(nullptr);
  environ = visible_.data();
}

LibraryEnvironment::~LibraryEnvironment() { environ = all_; }

}  // namespace VarnScripts
