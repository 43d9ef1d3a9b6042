// Linux: loaded by the name that all its versions since 2006 have.

#include "LibCurl.h"

#include <dlfcn.h>

#include <string>

#include "DownloadTarget.h"

namespace AgentUtils {
namespace {

constexpr const char* kLibrary = "libcurl.so.4";

[[noreturn]] void fail() {
  const char* const cause = ::dlerror();
  throw DownloadFailure("libcurl can't be loaded: " +
                        std::string(cause == nullptr ? kLibrary : cause));
}

template <class Function>
void find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  if (function == nullptr) fail();
}

LibCurl load() {
  // At once: what one of its libraries lacks would end the process when it is called.
  void* const library = ::dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) fail();
  LibCurl functions{};
#define VARN_FIND(name) find(library, "curl_" #name, functions.name);
  VARN_CURL_FUNCTIONS(VARN_FIND)
#undef VARN_FIND
  return functions;
}

}  // namespace

const LibCurl& libCurl() {
  static const LibCurl functions = load();
  return functions;
}

}  // namespace AgentUtils
