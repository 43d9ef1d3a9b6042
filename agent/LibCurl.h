// The functions of libcurl that are used here. On Linux the library is loaded when the first of
// them is needed: it brings 28 libraries of its own, which take half of a start, and whoever asks
// no server over HTTP does not wait for them. Once loaded it stays. Any thread.

#pragma once

#include <curl/curl.h>

namespace AgentUtils {

/// The one list of them, without the "curl_" that each name begins with.
#define VARN_CURL_FUNCTIONS(DO) \
  DO(easy_cleanup)              \
  DO(easy_getinfo)              \
  DO(easy_init)                 \
  DO(easy_perform)              \
  DO(easy_reset)                \
  DO(easy_setopt)               \
  DO(easy_strerror)             \
  DO(free)                      \
  DO(global_init)               \
  DO(slist_append)              \
  DO(slist_free_all)            \
  DO(url)                       \
  DO(url_cleanup)               \
  DO(url_get)                   \
  DO(url_set)                   \
  DO(url_strerror)

/// Each under its name: `libCurl().easy_init()` is `curl_easy_init()`.
struct LibCurl {
// NOLINTNEXTLINE(bugprone-macro-parentheses): what is declared is a name.
#define VARN_DECLARE(name) decltype(&::curl_##name) name;
  VARN_CURL_FUNCTIONS(VARN_DECLARE)
#undef VARN_DECLARE
};

/// The library, loaded when it is not yet. Throws `DownloadFailure` when that can't be done
/// ("libcurl can't be loaded: libcurl.so.4: cannot open shared object file: No such file or
/// directory"); the next call tries again.
[[nodiscard]] const LibCurl& libCurl();

}  // namespace AgentUtils
