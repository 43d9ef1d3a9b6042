#include "key/CoreDumps.h"

#include <sys/prctl.h>
#include <sys/resource.h>

namespace VarnScripts::keys {

void forbidCoreDumps() noexcept {
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  // A program that the system hands core dumps to gets them whatever the limit is.
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
}

}  // namespace VarnScripts::keys
