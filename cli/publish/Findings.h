// What is wrong with a directory of scripts: refusals and warnings, each with the file and the line
// it is about and what to do. One line of text per finding. Any thread.

#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace VarnScripts::publishing {

/// Where a finding is: "scripts/scripts.toml", line 12. Line 0 means the file as a whole.
struct Place {
  std::string file;
  std::size_t line = 0;
};

struct Finding {
  enum class Kind {
    refusal,  ///< nothing is published
    warning,  ///< published unless warnings are refused
  };

  Kind kind;
  Place place;
  std::string what;
  std::string remedy;
};

/// The finding as people read it: "scripts/scripts.toml:12: warning: WHAT; REMEDY".
[[nodiscard]] std::string textOf(const Finding& finding);

/// `text` between quotation marks, made printable, so that a message is one line whatever the text
/// holds.
[[nodiscard]] std::string quoted(std::string_view text);

/// Findings in the order in which they were made.
class Findings {
 public:
  void refuse(Place place, std::string what, std::string remedy);
  void warn(Place place, std::string what, std::string remedy);

  /// Takes what somebody else found, behind what is here.
  void append(Findings more);

  [[nodiscard]] const std::vector<Finding>& all() const { return all_; }
  [[nodiscard]] std::size_t refusals() const { return refusals_; }
  [[nodiscard]] std::size_t warnings() const { return all_.size() - refusals_; }

 private:
  std::vector<Finding> all_;
  std::size_t refusals_ = 0;
};

}  // namespace VarnScripts::publishing
