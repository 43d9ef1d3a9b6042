// Names as file systems see them. Pure; any thread.

#pragma once

#include <string>
#include <string_view>

namespace VarnScripts {

/// A key that two names share exactly when a file system that folds letter case and Unicode
/// normalisation keeps them in one file. A name that is not UTF-8 is its own key.
[[nodiscard]] std::string foldedName(std::string_view name);

}  // namespace VarnScripts
