#include "platform/Image.h"

#include <dlfcn.h>

namespace VarnScriptRepository::platform {

void keepImageOf(const void* address) noexcept {
  Dl_info image{};
  if (::dladdr(address, &image) == 0) return;
  // The handle is never closed. The main program has none, and stays anyway.
  static_cast<void>(::dlopen(image.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE));
}

}  // namespace VarnScriptRepository::platform
