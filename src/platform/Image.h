// What was loaded into the process: programs and libraries, one source file for each system.

#pragma once

namespace VarnScriptRepository::platform {

/// Keeps the image that `address` lies in loaded until the process ends, whoever closes it.
void keepImageOf(const void* address) noexcept;

}  // namespace VarnScriptRepository::platform
