// Writes a long text to standard output and ends at once:
//
//     varn-write-text ascii|characters BYTES BYTES_PER_WRITE [STATUS]
//
// The text is a line again and again, the whole lines that BYTES hold. With a number of bytes per
// write that is no multiple of the line's length, writes end anywhere in it; the line "characters"
// has characters of one to four bytes.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <string_view>

int main(int count, char** arguments) {
  if (count < 4) return 1;
  const std::string_view line =
      std::string_view(arguments[1]) == "ascii"
          ? "sixty-four characters to a line, the line's end is one of them.\n"
          : "Gr\u00fc\u00dfe, caf\u00e9 \u20ac \U0001F600 \u65e5\u672c\n";
  const std::size_t most = std::strtoull(arguments[2], nullptr, 10);
  const std::size_t perWrite = std::strtoull(arguments[3], nullptr, 10);
  std::string lines;
  while (lines.size() < perWrite + line.size()) lines += line;

  const std::size_t total = most - most % line.size();
  for (std::size_t at = 0; at < total;) {
    const ssize_t written =
        ::write(STDOUT_FILENO, lines.data() + at % line.size(), std::min(perWrite, total - at));
    if (written < 0 && errno != EINTR) return 1;
    if (written > 0) at += static_cast<std::size_t>(written);
  }
  return count > 4 ? std::atoi(arguments[4]) : 0;
}
