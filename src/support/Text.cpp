#include "support/Text.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "platform/Memory.h"

namespace VarnScriptRepository::text {
namespace {

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

struct CodePoint {
  utf8proc_int32_t value;  ///< -1 for a byte that is no part of a UTF-8 sequence
  std::size_t length;      ///< in bytes
};

/// The code point that `text`, which is not empty, begins with.
CodePoint firstCodePoint(std::string_view text) {
  utf8proc_int32_t value = -1;
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const utf8proc_ssize_t length =
      utf8proc_iterate(bytes, static_cast<utf8proc_ssize_t>(text.size()), &value);
  if (length <= 0) return {-1, 1};
  return {value, static_cast<std::size_t>(length)};
}

/// The text in canonical decomposition and as `more` asks for, or nothing when it is not UTF-8.
std::optional<std::string> decomposed(std::string_view text, int more = 0) {
  utf8proc_uint8_t* result = nullptr;
  const utf8proc_ssize_t length =
      utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                   static_cast<utf8proc_ssize_t>(text.size()), &result,
                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_DECOMPOSE | more));
  const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(result, &std::free);
  if (length == UTF8PROC_ERROR_NOMEM) throw std::bad_alloc();
  if (length < 0) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(result), static_cast<std::size_t>(length));
}

}  // namespace

bool equal(std::string_view a, std::string_view b) {
  if (a == b) return true;
  if (isASCII(a) && isASCII(b)) return false;
  return equalityKey(a) == equalityKey(b);
}

std::string equalityKey(std::string_view text) {
  if (isASCII(text)) return std::string(text);
  return decomposed(text).value_or(std::string(text));
}

std::string foldedName(std::string_view name) {
  if (isASCII(name)) {
    // Of these nothing but the letters has another form.
    std::string folded(name);
    for (char& c : folded) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return folded;
  }
  return decomposed(name, UTF8PROC_CASEFOLD).value_or(std::string(name));
}

Characters::Characters(std::string_view text) : rest_(text), ascii_(isASCII(text)) {}

std::optional<std::string_view> Characters::next() {
  if (rest_.empty()) return std::nullopt;
  std::size_t length = 1;
  if (ascii_) {
    // CR LF is the one character of two ASCII code points.
    if (rest_.starts_with("\r\n")) length = 2;
  } else {
    CodePoint current = firstCodePoint(rest_);
    length = current.length;
    utf8proc_int32_t state = 0;
    while (length < rest_.size() && current.value >= 0) {
      const CodePoint following = firstCodePoint(rest_.substr(length));
      if (following.value < 0) break;
      if (utf8proc_grapheme_break_stateful(current.value, following.value, &state)) break;
      length += following.length;
      current = following;
    }
  }
  const std::string_view character = rest_.substr(0, length);
  rest_.remove_prefix(length);
  return character;
}

bool isWhitespace(std::string_view character) {
  if (character.empty()) return false;
  const utf8proc_int32_t value = firstCodePoint(character).value;
  if (value < 0) return false;
  if (value < 0x80) return value == ' ' || (value >= '\t' && value <= '\r');
  constexpr utf8proc_int32_t nextLine = 0x85;
  if (value == nextLine) return true;
  const utf8proc_category_t category = utf8proc_category(value);
  return category == UTF8PROC_CATEGORY_ZS || category == UTF8PROC_CATEGORY_ZL ||
         category == UTF8PROC_CATEGORY_ZP;
}

std::string_view trimmed(std::string_view text) {
  std::optional<std::size_t> begin;
  std::size_t end = 0;
  std::size_t position = 0;
  Characters characters(text);
  while (const auto character = characters.next()) {
    const std::size_t following = position + character->size();
    if (!isWhitespace(*character)) {
      if (!begin) begin = position;
      end = following;
    }
    position = following;
  }
  return begin ? text.substr(*begin, end - *begin) : std::string_view{};
}

std::string_view pathExtension(std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  if (const std::size_t slash = path.rfind('/'); slash != path.npos) path.remove_prefix(slash + 1);
  const std::size_t dot = path.rfind('.');
  return dot == path.npos ? std::string_view{} : path.substr(dot + 1);
}

std::vector<std::string> pieces(std::string_view text, char separator) {
  std::vector<std::string> list;
  std::size_t end = text.find(separator);
  while (end != text.npos) {
    list.emplace_back(text.substr(0, end));
    text.remove_prefix(end + 1);
    end = text.find(separator);
  }
  list.emplace_back(text);
  return list;
}

std::string replacingAll(std::string_view text, std::string_view from, std::string_view to) {
  std::string replaced;
  replaced.reserve(text.size());
  std::size_t found = text.find(from);
  while (found != text.npos) {
    replaced.append(text.substr(0, found)).append(to);
    text.remove_prefix(found + from.size());
    found = text.find(from);
  }
  return replaced.append(text);
}

std::string joined(std::initializer_list<std::string_view> texts) {
  std::size_t size = 0;
  for (const std::string_view text : texts) size += text.size();
  std::string all;
  all.reserve(size);
  // A script's whole output may be one of them.
  platform::useLargePages(all.data(), all.capacity());
  for (const std::string_view text : texts) all += text;
  return all;
}

std::string listText(const std::vector<std::string>& elements) {
  std::string list = "[";
  for (const std::string& element : elements) {
    if (list.size() > 1) list += ", ";
    list += '"';
    for (const char byte : element) {
      if (byte == '"' || byte == '\\') list += '\\';
      list += byte;
    }
    list += '"';
  }
  return list += ']';
}

}  // namespace VarnScriptRepository::text
