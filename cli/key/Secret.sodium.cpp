#include "key/Secret.h"

#include <sodium.h>

namespace VarnScripts::keys {

void wipe(void* bytes, std::size_t count) noexcept { sodium_memzero(bytes, count); }

}  // namespace VarnScripts::keys
