// What is UTF-8, and what a chunk of it lacks at its end. That long texts are read as short ones
// are is held by the properties.

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>
#include <string>
#include <string_view>

#include "support/Encoding.h"

namespace {

namespace text = VarnScriptRepository::text;

TEST(TextEncoding, IsStrict) {
  for (const char* const good :
       {"", "a", "\u0080", "\u07ff", "\u0800", "\ud7ff", "\ue000", "\uffff", "\U00010000",
        "\U0010ffff", "longer text with \u00e9 in the middle of several words"}) {
    SCOPED_TRACE(good);
    EXPECT_TRUE(text::isUTF8(good));
  }
  for (const char* const bad :
       {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc2", "\xc2\x41", "\xe0\x9f\xbf", "\xe0\xa0",
        "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf0\x90\x80", "\xf4\x90\x80\x80",
        "\xf5\x80\x80\x80", "\xfe", "\xff", "text of more than eight bytes\xff", "\u00e9\xc3",
        "12345678\xe2\x82"}) {
    SCOPED_TRACE(testing::PrintToString(std::string(bad)));
    EXPECT_FALSE(text::isUTF8(bad));
  }
  EXPECT_TRUE(text::isUTF8(std::string_view("a\0b", 3)));
}

/// The UTF-8 of a code point, by the definition.
std::string utf8(char32_t point) {
  const auto byte = [](char32_t bits) { return static_cast<char>(bits); };
  if (point < 0x80) return {byte(point)};
  const char last = byte(0x80 | (point & 0x3F));
  if (point < 0x800) return {byte(0xC0 | (point >> 6)), last};
  const char third = byte(0x80 | ((point >> 6) & 0x3F));
  if (point < 0x10000) return {byte(0xE0 | (point >> 12)), third, last};
  return {byte(0xF0 | (point >> 18)), byte(0x80 | ((point >> 12) & 0x3F)), third, last};
}

TEST(TextEncoding, TakesEveryCodePointAndNoSurrogate) {
  // Long enough to be looked at in blocks.
  constexpr char32_t together = 0x400;
  for (char32_t first = 0; first < 0x110000; first += together) {
    std::string all;
    for (char32_t point = first; point < first + together; ++point) all += utf8(point);
    const bool surrogates = first >= 0xD800 && first < 0xE000;
    ASSERT_EQ(text::isUTF8(all), !surrogates) << "from code point " << static_cast<unsigned>(first);
  }
  std::string beyond;
  for (char32_t point = 0x110000; point < 0x110000 + together; ++point) beyond += utf8(point);
  EXPECT_FALSE(text::isUTF8(beyond));
}

TEST(TextEncoding, TellsHowManyBytesAreMissingAtTheEnd) {
  struct Row {
    const char* bytes;
    std::size_t missing;
  };
  for (const Row& row :
       {Row{"", 0}, Row{"a", 0}, Row{"\u00e9", 0}, Row{"\u20ac", 0}, Row{"\U0001F600", 0},
        Row{"\xc3", 1}, Row{"a\xe2", 2}, Row{"a\xe2\x82", 1}, Row{"\xf0", 3}, Row{"\xf0\x9f", 2},
        Row{"\xf0\x9f\x98", 1},
        // No continuation makes these UTF-8.
        Row{"\x80", 0}, Row{"\xff", 0}, Row{"\xc0", 0}, Row{"\xe0\x80", 0}, Row{"\xed\xa0", 0},
        Row{"\xf4\x90", 0}, Row{"\xf5", 0}, Row{"\xc3\x41", 0}, Row{"\x80\x80\x80\x80", 0}}) {
    SCOPED_TRACE(testing::PrintToString(std::string(row.bytes)));
    EXPECT_EQ(text::missingBytesAtEnd(row.bytes), row.missing);
    // What lies behind the end is not looked at.
    const std::string longer = std::string(row.bytes) + "\xc3";
    EXPECT_EQ(text::missingBytesAtEnd(std::string_view(longer).substr(0, longer.size() - 1)),
              row.missing);
  }
}

/// Memory of which neither the byte before nor the one behind can be read.
class FencedMemory {
 public:
  FencedMemory() {
    void* const begin = ::mmap(nullptr, 3 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (begin == MAP_FAILED) throw std::bad_alloc();
    begin_ = static_cast<char*>(begin);
    if (::mprotect(begin_ + kPage, kPage, PROT_READ | PROT_WRITE) != 0) throw std::bad_alloc();
  }
  FencedMemory(const FencedMemory&) = delete;
  FencedMemory& operator=(const FencedMemory&) = delete;
  ~FencedMemory() { ::munmap(begin_, 3 * kPage); }

  [[nodiscard]] std::string_view atItsBegin(std::string_view bytes) {
    std::ranges::copy(bytes, begin_ + kPage);
    return {begin_ + kPage, bytes.size()};
  }
  [[nodiscard]] std::string_view atItsEnd(std::string_view bytes) {
    char* const at = begin_ + 2 * kPage - bytes.size();
    std::ranges::copy(bytes, at);
    return {at, bytes.size()};
  }

 private:
  static constexpr std::size_t kPage = 65536;  // as large as any processor's
  char* begin_;
};

TEST(TextEncoding, NothingIsReadBeforeATextAndNothingBehindIt) {
  FencedMemory memory;
  for (const std::string character : {"a", "\u00e9", "\u20ac", "\U0001F600"}) {
    std::string bytes;
    while (bytes.size() < 1100) {
      EXPECT_TRUE(text::isUTF8(memory.atItsBegin(bytes))) << bytes.size();
      EXPECT_TRUE(text::isUTF8(memory.atItsEnd(bytes))) << bytes.size();
      EXPECT_FALSE(text::isUTF8(memory.atItsEnd(bytes + '\xC3'))) << bytes.size();
      EXPECT_EQ(text::missingBytesAtEnd(memory.atItsEnd(bytes + '\xF0')), 3U) << bytes.size();
      bytes += character;
    }
  }
}

}  // namespace
