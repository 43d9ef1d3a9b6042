// What a server says of a file so that a client can ask later whether it is still the same. It
// comes from the network and goes into requests, so only what has the exact form is taken.
// Pure functions and values.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace AgentUtils {

/// An entity tag (`"5f-61a"`, `W/"5f-61a"`), a date of the last change, both, or neither.
struct Validators {
  std::string entityTag;
  std::string lastModified;

  [[nodiscard]] bool isEmpty() const { return entityTag.empty() && lastModified.empty(); }
  bool operator==(const Validators&) const = default;
};

/// Whether the text is an entity tag as HTTP spells it, of ASCII and at most 256 bytes.
[[nodiscard]] bool isEntityTag(std::string_view text);

/// The seconds since 1970 of a date such as "Sun, 06 Nov 1994 08:49:37 GMT". Nothing for any other
/// form.
[[nodiscard]] std::optional<std::int64_t> secondsOfHTTPDate(std::string_view text);

/// The header of the request that asks for the file only when it is another one:
/// `If-None-Match: "5f-61a"`. The date counts only without a tag, which says more. Empty when there
/// is nothing to ask with.
[[nodiscard]] std::string conditionalHeader(const Validators& validators);

/// Takes the headers of one answer and tells its validators.
class AnswerValidators {
 public:
  /// `name` is in lower case, `value` without blanks around it.
  void take(std::string_view name, std::string_view value);

  /// The validators as the server sent them; what came twice or malformed is left out.
  [[nodiscard]] Validators sent() const;

  /// The validators to remember: none when the file was changed so shortly before that it may
  /// change again and keep them.
  [[nodiscard]] Validators lasting() const;

 private:
  struct Header {
    std::string value;
    int count = 0;

    void take(std::string_view text);
    [[nodiscard]] std::string single() const { return count == 1 ? value : std::string(); }
  };

  Header entityTag_;
  Header lastModified_;
  Header date_;
};

}  // namespace AgentUtils
