#include "key/CoreDumps.h"

#include <sys/resource.h>

namespace VarnScripts::keys {

void forbidCoreDumps() noexcept {
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
}

}  // namespace VarnScripts::keys
