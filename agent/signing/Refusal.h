// Why something that was signed, or a key, does not count.

#pragma once

#include <string>

namespace AgentUtils::signing {

/// One sentence without its full stop, for the log and for people: "the signature file is empty".
/// It may hold texts of others and is made printable where it is shown.
struct Refusal {
  std::string sentence;

  bool operator==(const Refusal&) const = default;
};

}  // namespace AgentUtils::signing
