#include "Validators.h"

#include <algorithm>
#include <chrono>

namespace AgentUtils {
namespace {

constexpr std::size_t kLongestEntityTag = 256;

// Most servers make both validators of the file's time, in whole seconds, and of its size. A file
// that is replaced twice within a second by one of the same size has the same ones, so those of a
// file that is younger than this are no proof. A minute leaves room for a file system whose clock
// is not the server's.
constexpr std::int64_t kSettledSeconds = 60;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

/// Whether the text has the form: `a` stands for a letter, `0` for a digit, all else for itself.
bool hasForm(std::string_view text, std::string_view form) {
  return std::ranges::equal(text, form, [](char c, char expected) {
    if (expected == 'a') return isLetter(c);
    return expected == '0' ? isDigit(c) : c == expected;
  });
}

int number(std::string_view digits) {
  int value = 0;
  for (const char c : digits) value = value * 10 + (c - '0');
  return value;
}

/// 1 to 12, or 0 for what is no month.
unsigned monthOf(std::string_view name) {
  constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  const std::size_t at = kMonths.find(name);
  return at == kMonths.npos || at % 3 != 0 ? 0 : static_cast<unsigned>(at / 3 + 1);
}

}  // namespace

bool isEntityTag(std::string_view text) {
  if (text.size() > kLongestEntityTag) return false;
  if (text.starts_with("W/")) text.remove_prefix(2);
  if (text.size() < 3 || text.front() != '"' || text.back() != '"') return false;
  text = text.substr(1, text.size() - 2);
  return std::ranges::all_of(text, [](char c) { return c > ' ' && c < '\x7F' && c != '"'; });
}

std::optional<std::int64_t> secondsOfHTTPDate(std::string_view text) {
  if (!hasForm(text, "aaa, 00 aaa 0000 00:00:00 GMT")) return std::nullopt;
  const std::chrono::year_month_day day{
      std::chrono::year(number(text.substr(12, 4))), std::chrono::month(monthOf(text.substr(8, 3))),
      std::chrono::day(static_cast<unsigned>(number(text.substr(5, 2))))};
  const int hours = number(text.substr(17, 2));
  const int minutes = number(text.substr(20, 2));
  const int seconds = number(text.substr(23, 2));
  // There are leap seconds.
  if (!day.ok() || hours > 23 || minutes > 59 || seconds > 60) return std::nullopt;
  const std::int64_t days = std::chrono::sys_days(day).time_since_epoch().count();
  return ((days * 24 + hours) * 60 + minutes) * 60 + seconds;
}

std::string conditionalHeader(const Validators& validators) {
  if (!validators.entityTag.empty()) return "If-None-Match: " + validators.entityTag;
  if (!validators.lastModified.empty()) return "If-Modified-Since: " + validators.lastModified;
  return {};
}

void AnswerValidators::Header::take(std::string_view text) {
  ++count;
  value = text;
}

void AnswerValidators::take(std::string_view name, std::string_view value) {
  if (name == "etag") entityTag_.take(value);
  if (name == "last-modified") lastModified_.take(value);
  if (name == "date") date_.take(value);
}

Validators AnswerValidators::sent() const {
  Validators validators{entityTag_.single(), lastModified_.single()};
  if (!isEntityTag(validators.entityTag)) validators.entityTag.clear();
  if (!secondsOfHTTPDate(validators.lastModified)) validators.lastModified.clear();
  return validators;
}

Validators AnswerValidators::lasting() const {
  // A tag without a date of the change is made of something else than that date.
  if (lastModified_.count == 0) return sent();
  const auto changed = secondsOfHTTPDate(lastModified_.single());
  const auto now = secondsOfHTTPDate(date_.single());
  if (!changed || !now || *now - *changed < kSettledSeconds) return {};
  return sent();
}

}  // namespace AgentUtils
