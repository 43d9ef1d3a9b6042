#include "ParsedToml.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <string_view>

#include "ExitStatus.h"
#include "StandardStreams.h"

namespace VarnScripts {
namespace {

/// Out of memory, the parser throws from inside functions that may not throw, which terminates the
/// process. For as long as this lives, that is an ordered end.
class OrderlyEnd {
 public:
  OrderlyEnd() : before_(std::set_terminate(&end)) {}
  ~OrderlyEnd() { std::set_terminate(before_); }
  OrderlyEnd(const OrderlyEnd&) = delete;
  OrderlyEnd& operator=(const OrderlyEnd&) = delete;

 private:
  [[noreturn]] static void end() noexcept {
    writeOutOfMemory();
    ::_exit(kExitNotRun);
  }

  const std::terminate_handler before_;
};

// What stands in these files is nested twice at most.
constexpr std::size_t kMostKeyParts = 16;

// Where the text that opens with the quotation mark at `start` ends: behind its closing marks, or
// where the line or the document ends it.
std::size_t endOfQuoted(std::string_view toml, std::size_t start) {
  const char mark = toml[start];
  const std::string three(3, mark);
  const bool severalLines = toml.substr(start, 3) == three;
  for (std::size_t at = start + (severalLines ? 3 : 1); at < toml.size(); ++at) {
    if (toml[at] == '\\' && mark == '"') {
      ++at;
    } else if (!severalLines && (toml[at] == mark || toml[at] == '\n')) {
      return toml[at] == mark ? at + 1 : at;
    } else if (severalLines && toml.substr(at, 3) == three) {
      at += 3;
      // Up to two marks of the text itself may stand before the closing ones.
      for (int more = 0; more < 2 && toml.substr(at, 1) == three.substr(0, 1); ++more) ++at;
      return at;
    }
  }
  return toml.size();
}

// Each part of a dotted key is a table in a table, and the parser needs stack for each: the parts
// are counted before it sees them. In what is no TOML, the count is right up to the parser's error.
void refuseDeepKeys(std::string_view toml) {
  toml::source_index line = 1;
  std::size_t parts = 1;
  for (std::size_t at = 0; at < toml.size();) {
    const std::size_t start = at++;
    switch (toml[start]) {
      case '"':
      case '\'':
        at = endOfQuoted(toml, start);
        for (const char c : toml.substr(start, at - start)) line += c == '\n' ? 1U : 0U;
        break;
      case '#':
        at = std::min(toml.find('\n', start), toml.size());
        break;
      case '.':
        if (++parts > kMostKeyParts) {
          throw toml::parse_error("a key has more than 16 parts", toml::source_position{line, 1});
        }
        break;
      case '\n':
        ++line;
        [[fallthrough]];
      case '=':
      case ',':
      case '[':
      case ']':
      case '{':
      case '}':
        parts = 1;
        break;
      default:
        break;
    }
  }
}

}  // namespace

toml::table parsedToml(const std::string& text, const std::string& file) {
  const OrderlyEnd orderlyEnd;
  refuseDeepKeys(text);
  return toml::parse(text, file);
}

}  // namespace VarnScripts
