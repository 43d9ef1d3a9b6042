// Takes a fuzzer's bytes apart into the texts and choices that a target needs.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace fuzz {

/// Stops the run: the input in hand has broken a promise.
#define FUZZ_REQUIRE(condition)         \
  do {                                  \
    if (!(condition)) __builtin_trap(); \
  } while (false)

/// Texts are separated by 0xFF, a byte that UTF-8 never holds, so that a corpus file can be read
/// and edited as text.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  /// Everything up to the next separator or the end.
  std::string text() {
    const std::size_t end = rest_.find('\xFF');
    const std::string taken(rest_.substr(0, end));
    rest_.remove_prefix(end == rest_.npos ? rest_.size() : end + 1);
    return taken;
  }

  /// The next byte; 0 at the end.
  std::uint8_t byte() {
    if (rest_.empty()) return 0;
    const auto taken = static_cast<std::uint8_t>(rest_.front());
    rest_.remove_prefix(1);
    return taken;
  }

  /// Everything that is left.
  std::string remaining() {
    const std::string taken(rest_);
    rest_ = {};
    return taken;
  }

 private:
  std::string_view rest_;
};

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
