// The process runner as a double: nothing is started; runs are remembered in the journal and
// answered from a script.

#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

namespace doubles {

struct Runs {
  using Result = std::pair<std::optional<std::int32_t>, std::optional<std::string>>;

  static Runs& shared();

  /// The answers in turn; the last one stays. At first: status 0, output "done\n".
  std::deque<Result> answers{{0, "done\n"}};
};

}  // namespace doubles
