#include "signing/UTCTime.h"

#include <algorithm>
#include <cstddef>

namespace AgentUtils::signing {
namespace {

using std::chrono::sys_days;

constexpr std::string_view kForm = "0000-00-00T00:00:00Z";
constexpr UTCTime kFirst = sys_days(std::chrono::year(0) / 1 / 1);
constexpr UTCTime kLast = sys_days(std::chrono::year(10000) / 1 / 1) - std::chrono::seconds(1);

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool hasForm(std::string_view text) {
  return text.size() == kForm.size() &&
         std::equal(text.begin(), text.end(), kForm.begin(),
                    [](char c, char form) { return form == '0' ? isDigit(c) : c == form; });
}

int number(std::string_view text, std::size_t from, std::size_t count) {
  int value = 0;
  for (const char c : text.substr(from, count)) value = value * 10 + (c - '0');
  return value;
}

// Adds the digits of `value`, as many as `count`.
void addNumber(int value, std::size_t count, std::string& to) {
  const std::string digits = std::to_string(value);
  to.append(count - std::min(count, digits.size()), '0').append(digits);
}

}  // namespace

std::optional<UTCTime> utcTimeFrom(std::string_view text) {
  if (!hasForm(text)) return std::nullopt;
  const std::chrono::year_month_day day{
      std::chrono::year(number(text, 0, 4)),
      std::chrono::month(static_cast<unsigned>(number(text, 5, 2))),
      std::chrono::day(static_cast<unsigned>(number(text, 8, 2)))};
  const std::chrono::hours hours(number(text, 11, 2));
  const std::chrono::minutes minutes(number(text, 14, 2));
  const std::chrono::seconds seconds(number(text, 17, 2));
  // Leap seconds are no second of the clock here.
  if (!day.ok() || hours.count() > 23 || minutes.count() > 59 || seconds.count() > 59) {
    return std::nullopt;
  }
  return sys_days(day) + hours + minutes + seconds;
}

std::string utcTimeText(UTCTime time) {
  const UTCTime shown = std::clamp(time, kFirst, kLast);
  const auto midnight = std::chrono::floor<std::chrono::days>(shown);
  const std::chrono::year_month_day day(midnight);
  const std::chrono::hh_mm_ss rest(shown - midnight);
  std::string text;
  addNumber(static_cast<int>(day.year()), 4, text);
  addNumber(static_cast<int>(static_cast<unsigned>(day.month())), 2, text += '-');
  addNumber(static_cast<int>(static_cast<unsigned>(day.day())), 2, text += '-');
  addNumber(static_cast<int>(rest.hours().count()), 2, text += 'T');
  addNumber(static_cast<int>(rest.minutes().count()), 2, text += ':');
  addNumber(static_cast<int>(rest.seconds().count()), 2, text += ':');
  return text += 'Z';
}

}  // namespace AgentUtils::signing
