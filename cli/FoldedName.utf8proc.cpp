#include "FoldedName.h"

#include <utf8proc.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace VarnScripts {

std::string foldedName(std::string_view name) {
  constexpr auto options =
      static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE | UTF8PROC_CASEFOLD);
  utf8proc_uint8_t* result = nullptr;
  const utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                   static_cast<utf8proc_ssize_t>(name.size()), &result, options);
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(result, &std::free);
  if (length == UTF8PROC_ERROR_NOMEM) throw std::bad_alloc();
  if (length < 0) return std::string(name);
  return {reinterpret_cast<const char*>(result), static_cast<std::size_t>(length)};
}

}  // namespace VarnScripts
