// The children of this process, as the operating system sees them. One file per system.

#pragma once

#include <sys/types.h>

#include <vector>

namespace VarnScripts {

/// The direct children of this process, in no particular order. A child that ended but was not
/// waited for may be among them. Any thread.
[[nodiscard]] std::vector<pid_t> children();

}  // namespace VarnScripts
