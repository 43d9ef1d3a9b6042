// Tells the host's observer. Whatever it throws ends here.

#pragma once

#include <string_view>
#include <utility>

#include "VarnScriptRepository/ScriptRunObserver.h"
#include "support/Guard.h"

namespace VarnScriptRepository {

/// The observer that the host has set, or null.
[[nodiscard]] ScriptRunObserver* scriptRunObserver() noexcept;

/// Tells the event `operation` with its arguments: `tell(&ScriptRunObserver::outputTaken, piece)`.
template <class Operation, class... Arguments>
void tell(Operation operation, Arguments&&... arguments) noexcept {
  ScriptRunObserver* const observer = scriptRunObserver();
  if (observer == nullptr) return;
  guarded([&] { (observer->*operation)(std::forward<Arguments>(arguments)...); });
}

/// Tells that a step failed, see `FailedStep`.
inline void tellFailure(RequestStep step, std::string_view subject,
                        std::string_view cause = {}) noexcept {
  tell(&ScriptRunObserver::stepFailed, FailedStep{step, subject, cause});
}

}  // namespace VarnScriptRepository
