// The TOML parser, for whatever the command reads in that language.

#pragma once

#include <toml++/toml.h>

#include <string>

namespace VarnScripts {

/// The document in `text`, UTF-8; `file` is the name that its positions carry. Throws
/// `toml::parse_error`, also when a key has more than 16 parts, as in "a.b.c". Without memory for
/// it the process says so and ends with `kExitNotRun`, so it is called before anything is done. One
/// thread at a time.
[[nodiscard]] toml::table parsedToml(const std::string& text, const std::string& file);

}  // namespace VarnScripts
