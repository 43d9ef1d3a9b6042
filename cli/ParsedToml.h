// The TOML parser, for whatever the command reads in that language.

#pragma once

// What the parser asserts does not hold for every file that is no TOML: it goes on to its message
// all the same. With NDEBUG some compilers would take the assertions for facts.
#pragma push_macro("NDEBUG")
#undef NDEBUG
#define TOML_ASSERT(expr) static_assert(true)
#include <toml++/toml.h>
#pragma pop_macro("NDEBUG")

#include <string>

namespace VarnScripts {

/// The document in `text`, UTF-8; `file` is the name that its positions carry. Throws
/// `toml::parse_error`, also when a key has more than 16 parts, as in "a.b.c". Without memory for
/// it the process says so and ends with `kExitNotRun`, so it is called before anything is done. One
/// thread at a time.
[[nodiscard]] toml::table parsedToml(const std::string& text, const std::string& file);

}  // namespace VarnScripts
