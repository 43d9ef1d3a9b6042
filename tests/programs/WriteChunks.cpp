// Writes its arguments, given in hexadecimal, to standard output, one write each, and waits after
// each write until the reader has emptied the pipe. The argument "pause" is a pause of one second
// in place of a write.

#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>

namespace {

std::string fromHexadecimal(std::string_view digits) {
  std::string bytes;
  for (std::size_t at = 0; at + 1 < digits.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(std::string(digits.substr(at, 2)), nullptr, 16));
  }
  return bytes;
}

bool writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool waitUntilEmpty() {
  for (int held = 1; held > 0; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
    if (::ioctl(STDOUT_FILENO, FIONREAD, &held) != 0) return false;
  }
  return true;
}

}  // namespace

int main(int count, char** arguments) {
  for (int index = 1; index < count; ++index) {
    const std::string_view argument = arguments[index];
    if (argument == "pause") {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      continue;
    }
    if (!writeAll(fromHexadecimal(argument)) || !waitUntilEmpty()) return 1;
  }
  return 0;
}
