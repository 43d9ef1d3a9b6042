// Writes much output and nothing else: `write_output ascii|multibyte BYTES`. The lines of
// `multibyte` have characters of one to four bytes.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::string_view line =
      std::string_view(argv[1]) == "ascii"
          ? "A line of plain text, as long as those of a log are.........\n"
          : "Größe naïve Ελληνικά русский 漢字かな交じり文 🙂 café\n";
  std::string text;
  while (text.size() < std::size_t{128} << 10) text += line;
  std::size_t left = std::strtoull(argv[2], nullptr, 10);
  while (left >= text.size()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    // A blocking pipe takes all of it.
    if (written != static_cast<ssize_t>(text.size())) return 1;
    left -= text.size();
  }
  // The rest is plain, so that it ends with a whole character whatever its length.
  const std::string rest(left, '.');
  return ::write(STDOUT_FILENO, rest.data(), rest.size()) == static_cast<ssize_t>(rest.size()) ? 0
                                                                                               : 1;
}
