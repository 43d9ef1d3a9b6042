// macOS: linked, since the system's libraries lie loaded in one place there, and cost no time.

#include "LibCurl.h"

namespace AgentUtils {

const LibCurl& libCurl() {
#define VARN_NAME(name) &::curl_##name,
  static constexpr LibCurl functions{VARN_CURL_FUNCTIONS(VARN_NAME)};
#undef VARN_NAME
  return functions;
}

}  // namespace AgentUtils
