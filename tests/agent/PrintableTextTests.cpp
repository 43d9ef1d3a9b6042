// What people are shown of texts that others have written.

#include <gtest/gtest.h>
#include <utf8proc.h>

#include <array>
#include <nlohmann/json.hpp>
#include <string>

#include "PrintableText.h"

namespace {

using namespace std::string_literals;

std::string utf8(utf8proc_int32_t character) {
  std::array<utf8proc_uint8_t, 4> bytes{};
  const auto length = utf8proc_encode_char(character, bytes.data());
  return {bytes.begin(), bytes.begin() + length};
}

/// Every character that Unicode has.
template <class Visit>
void forEachCharacter(const Visit& visit) {
  for (utf8proc_int32_t character = 0; character <= 0x10ffff; ++character) {
    if (character < 0xd800 || character > 0xdfff) visit(character, utf8(character));
  }
}

// The characters of Unicode's property Bidi_Control.
constexpr std::u32string_view kControlsOfDirection =
    U"\u061c\u200e\u200f\u202a\u202b\u202c\u202d\u202e\u2066\u2067\u2068\u2069";

bool mustNotBeShown(utf8proc_int32_t character) {
  const auto category = utf8proc_category(character);
  return category == UTF8PROC_CATEGORY_CC || category == UTF8PROC_CATEGORY_ZL ||
         category == UTF8PROC_CATEGORY_ZP ||
         kControlsOfDirection.find(static_cast<char32_t>(character)) != std::u32string_view::npos;
}

TEST(PrintableText, HasNoCharacterThatSteersATerminalAndEveryOther) {
  forEachCharacter([](utf8proc_int32_t character, const std::string& text) {
    const std::string shown = !mustNotBeShown(character) ? text
                              : character == '\n'        ? "\\n"
                              : character == '\r'        ? "\\r"
                              : character == '\t'        ? "\\t"
                                                         : "?";
    ASSERT_EQ(printable("a" + text + "b"), "a" + shown + "b") << "U+" << std::hex << character;
  });
}

TEST(PrintableText, IsTheSameWhereverACharacterStands) {
  for (int byte = 0; byte < 0x100; ++byte) {
    const std::string one(1, static_cast<char>(byte));
    for (std::size_t before = 0; before < 20; ++before) {
      const std::string a(before, 'a');
      const std::string b(20 - before, '~');
      ASSERT_EQ(printable(a + one + b), a + printable(one) + b) << byte << " at " << before;
      ASSERT_EQ(printable(a + one + one + b), a + printable(one + one) + b) << byte;
    }
  }
}

TEST(PrintableText, HasAMarkForEachByteThatIsNotUTF8) {
  const struct {
    std::string text, shown;
  } rows[] = {
      {"", ""},
      {"\x9b[2J", "?[2J"},  // a control of a terminal with 8-bit characters
      {"\xff\xfe", "??"},
      {"\xc3", "?"},
      {"\xc3\n", "?\\n"},
      {"\xe2\x80", "??"},
      {"\xe2\x80z", "??z"},
      {"\xed\xa0\x80", "???"},  // a surrogate
      {"\xc0\x9b", "??"},       // ESC, overlong
      {"\xf4\x90\x80\x80", "????"},
      {"\xf0\x9f\x98\x80\x80", "\xf0\x9f\x98\x80?"},
      {"nul\0!"s, "nul?!"},
      {"caf\xc3\xa9 \\x1b", "caf\xc3\xa9 \\x1b"},
  };
  for (const auto& [text, shown] : rows) EXPECT_EQ(printable(text), shown);
}

TEST(PrintableText, OfWhatIsPrintableIsItself) {
  const std::string once = printable("\x1b[31m\u202ecod.sh\n\xff");
  EXPECT_EQ(once, "?[31m?cod.sh\\n?");
  EXPECT_EQ(printable(once), once);
}

TEST(PrintableText, IsAddedInPiecesThatMakeTheWhole) {
  std::string text;
  std::string shown;
  for (int i = 0; i < 400'000; ++i) {
    text += "\xe2\x82\xac\n\x1b";
    shown += "\xe2\x82\xac\\n?";
  }
  EXPECT_EQ(printable(text), shown);
}

TEST(PrintableJSON, HasTheSameValueWithoutACharacterThatSteersATerminal) {
  constexpr std::size_t together = 1000;
  std::string text;
  std::string asItIs;  // what of the text may be shown
  std::size_t count = 0;
  const auto check = [&] {
    const std::string json = nlohmann::json(text).dump();
    const std::string shown = printableJSON(json);
    ASSERT_EQ(nlohmann::json::parse(shown), text);
    ASSERT_EQ(printable(shown), shown);
    const std::string plain = nlohmann::json(asItIs).dump();
    ASSERT_EQ(printableJSON(plain), plain);
    text.clear();
    asItIs.clear();
  };
  forEachCharacter([&](utf8proc_int32_t character, const std::string& each) {
    text += each;
    if (!mustNotBeShown(character)) asItIs += each;
    if (++count % together == 0) check();
  });
  check();
}

}  // namespace
