#include "platform/Image.h"

#include <dlfcn.h>
#include <link.h>

namespace VarnScriptRepository::platform {

void keepImageOf(const void* address) noexcept {
  Dl_info image{};
  void* map = nullptr;
  if (::dladdr1(address, &image, &map, RTLD_DL_LINKMAP) == 0) return;
  const char* const name = static_cast<const link_map*>(map)->l_name;
  // The main program stays anyway. It has no name here, and its first argument, which stands in for
  // one elsewhere, may be anything.
  if (*name == '\0') return;
  // The handle is never closed.
  static_cast<void>(::dlopen(name, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE));
}

}  // namespace VarnScriptRepository::platform
