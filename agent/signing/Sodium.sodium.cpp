#include "signing/Sodium.h"

#include <sodium.h>

#include <stdexcept>

namespace AgentUtils::signing {

void startSodium() {
  static const bool ready = sodium_init() >= 0;
  if (!ready) throw std::runtime_error("libsodium can't be used here");
}

}  // namespace AgentUtils::signing
