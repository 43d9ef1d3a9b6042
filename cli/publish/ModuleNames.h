// File names that interpreters look for on their own. Python looks for each module first in the
// directory of the script that imports it, and there all scripts of a customer lie.
//
// A table, since the Python that publishes is not that of the computers. Any thread.

#pragma once

#include <optional>
#include <string_view>

namespace VarnScripts::publishing {

/// The language of whose standard library a file of this name would stand for a module: "Python"
/// for "json.py"; or nothing.
[[nodiscard]] std::optional<std::string_view> libraryWithModule(std::string_view fileName);

}  // namespace VarnScripts::publishing
