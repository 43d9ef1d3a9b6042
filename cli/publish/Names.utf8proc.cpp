#include "publish/Names.h"

#include <utf8proc.h>

#include <array>
#include <cstdio>

namespace VarnScripts::publishing {
namespace {

// The longest name that leaves room for the suffixes under which a client keeps a file while it
// arrives; file systems take 255 bytes.
constexpr std::size_t kLongestName = 200;

const utf8proc_uint8_t* bytesOf(std::string_view text) {
  return reinterpret_cast<const utf8proc_uint8_t*>(text.data());
}

bool fitsXML(utf8proc_int32_t codePoint) {
  if (codePoint < 0x20) return codePoint == '\t' || codePoint == '\n' || codePoint == '\r';
  return codePoint != 0xfffe && codePoint != 0xffff;
}

bool isControl(utf8proc_int32_t codePoint) {
  const utf8proc_category_t category = utf8proc_category(codePoint);
  return category == UTF8PROC_CATEGORY_CC || category == UTF8PROC_CATEGORY_ZL ||
         category == UTF8PROC_CATEGORY_ZP;
}

// Calls `look` with each code point until it answers true; gives the position where it did. A byte
// that is no part of UTF-8 text is the code point -1.
template <class Look>
std::optional<std::size_t> firstWhere(std::string_view text, const Look& look) {
  std::size_t position = 0;
  while (position < text.size()) {
    utf8proc_int32_t codePoint = -1;
    const utf8proc_ssize_t length =
        utf8proc_iterate(bytesOf(text) + position,
                         static_cast<utf8proc_ssize_t>(text.size() - position), &codePoint);
    if (look(length > 0 ? codePoint : -1)) return position;
    position += length > 0 ? static_cast<std::size_t>(length) : 1;
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::size_t> firstByteThatIsNotUTF8(std::string_view bytes) {
  return firstWhere(bytes, [](utf8proc_int32_t codePoint) { return codePoint < 0; });
}

std::optional<std::string> firstUnfitForXML(std::string_view text) {
  std::optional<std::string> name;
  firstWhere(text, [&name](utf8proc_int32_t codePoint) {
    if (fitsXML(codePoint)) return false;
    std::array<char, 16> written{};
    std::snprintf(written.data(), written.size(), "U+%04X", static_cast<unsigned>(codePoint));
    name = written.data();
    return true;
  });
  return name;
}

std::optional<std::string> complaintAboutName(std::string_view name) {
  if (name.empty()) return "is empty";
  if (firstByteThatIsNotUTF8(name)) return "is not UTF-8";
  if (name.find('/') != std::string_view::npos) return "contains a slash";
  if (name == ".") return "is that of a directory";
  if (name.find("..") != std::string_view::npos) return "contains \"..\"";
  if (firstWhere(name, isControl)) return "contains a control character";
  if (const auto unfit = firstUnfitForXML(name)) {
    return "contains " + *unfit + ", which the documents can't carry";
  }
  if (name.size() > kLongestName) {
    return "is longer than " + std::to_string(kLongestName) + " bytes";
  }
  return std::nullopt;
}

}  // namespace VarnScripts::publishing
