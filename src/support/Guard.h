// The border at which exceptions end: the agent's modules and the allocator may throw, the
// library's operations do not.

#pragma once

#include <utility>

namespace VarnScriptRepository {

/// The result of `call()`, or `fallback` when it throws.
template <class Result, class Call>
Result guarded(Result fallback, Call&& call) noexcept {
  try {
    return std::forward<Call>(call)();
  } catch (...) {
    return fallback;
  }
}

/// Calls `call()` and drops what it throws.
template <class Call>
void guarded(Call&& call) noexcept {
  try {
    std::forward<Call>(call)();
  } catch (...) {
    // The operations that come here are documented to drop their failures.
  }
}

}  // namespace VarnScriptRepository
