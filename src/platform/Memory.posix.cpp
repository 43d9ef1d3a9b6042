#include "platform/Memory.h"

#include <sys/mman.h>

#include <cerrno>
#include <memory>

namespace VarnScriptRepository::platform {

#ifdef MADV_HUGEPAGE
void useLargePages(void* begin, std::size_t size) noexcept {
  // Less than this holds no large page. It is a multiple of all sizes of small pages, to whose
  // boundaries the call is bound.
  constexpr std::size_t largePage = std::size_t{2} << 20;
  const int before = errno;
  if (std::align(largePage, largePage, begin, size) != nullptr) {
    // A system that has no large pages, or none left, goes on with small ones.
    static_cast<void>(::madvise(begin, size - size % largePage, MADV_HUGEPAGE));
  }
  errno = before;
}
#else
// The system chooses by itself.
void useLargePages(void* /*begin*/, std::size_t /*size*/) noexcept {}
#endif

}  // namespace VarnScriptRepository::platform
