#include "signing/SignedComment.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace AgentUtils::signing {
namespace {

constexpr std::string_view kFields[] = {"customer", "serial", "published", "expires"};
constexpr std::size_t kFieldCount = std::size(kFields);
enum Field : std::size_t { customer, serial, published, expires };

using Values = std::array<std::optional<std::string_view>, kFieldCount>;

Refusal refusal(const std::string& why) { return {"the signed comment " + why}; }

// Sorts the comment's values by their fields.
std::optional<Refusal> takeFields(std::string_view text, Values& values) {
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t end = std::min(text.find('\t', start), text.size());
    const std::string_view part = text.substr(start, end - start);
    start = end + 1;
    const std::string_view name = part.substr(0, part.find(':'));
    const auto* const known = std::ranges::find(kFields, name);
    if (name.size() == part.size() || known == std::end(kFields)) {
      return refusal("holds what is not known here: \"" + std::string(part) + '"');
    }
    auto& value = values[static_cast<std::size_t>(known - std::begin(kFields))];
    if (value) return refusal("has " + std::string(name) + " twice");
    value = part.substr(name.size() + 1);
  }
  return std::nullopt;
}

Refusal noTime(std::string_view field, std::string_view value) {
  return refusal("has " + std::string(field) + " that is no time such as 2026-11-22T11:30:00Z: \"" +
                 std::string(value) + '"');
}

}  // namespace

std::variant<SignedComment, Refusal> parseSignedComment(std::string_view text) {
  Values values;
  if (auto trouble = takeFields(text, values)) return *trouble;
  for (std::size_t field = 0; field < kFieldCount; ++field) {
    if (!values[field]) return refusal("has no " + std::string(kFields[field]));
  }
  if (!canBeSigned(*values[customer])) return refusal("has customer that is no name");
  const auto number = serialFrom(*values[serial]);
  if (!number) {
    return refusal("has serial that is no whole number from 0 to 18446744073709551615: \"" +
                   std::string(*values[serial]) + '"');
  }
  const auto begin = utcTimeFrom(*values[published]);
  if (!begin) return noTime(kFields[published], *values[published]);
  const auto end = utcTimeFrom(*values[expires]);
  if (!end) return noTime(kFields[expires], *values[expires]);
  if (*end <= *begin) return refusal("expires before it was published");
  return SignedComment{std::string(*values[customer]), *number, *begin, *end};
}

std::string signedCommentText(const SignedComment& comment) {
  return "customer:" + comment.customer + "\tserial:" + std::to_string(comment.serial) +
         "\tpublished:" + utcTimeText(comment.published) +
         "\texpires:" + utcTimeText(comment.expires);
}

std::optional<std::uint64_t> serialFrom(std::string_view text) {
  std::uint64_t value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  const bool zeroBefore = text.size() > 1 && text.front() == '0';
  if (error != std::errc() || stop != end || zeroBefore) return std::nullopt;
  return value;
}

bool canBeSigned(std::string_view customer) {
  return !customer.empty() && std::ranges::none_of(customer, [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
  });
}

}  // namespace AgentUtils::signing
