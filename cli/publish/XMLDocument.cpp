#include "publish/XMLDocument.h"

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string_view>

namespace VarnScripts::publishing {
namespace {

using MarkupParser::RecordField;
using MarkupParser::RecordSchema;

[[noreturn]] void throwNotXML() {
  throw std::invalid_argument("a text holds what an XML document can't carry");
}

// The length of the UTF-8 sequence at the beginning of `text`, which begins beyond ASCII. Throws
// when there is none, or when its character is not one of XML's.
std::size_t sequenceLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) throwNotXML();
  char32_t point = lead & (0x7FU >> length);
  for (const char c : text.substr(1, length - 1)) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0U) != 0x80U) throwNotXML();
    point = (point << 6) | (byte & 0x3FU);
  }
  const bool isOverlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
  const bool isSurrogate = point >= 0xD800 && point <= 0xDFFF;
  if (isOverlong || isSurrogate || point == 0xFFFE || point == 0xFFFF || point > 0x10FFFF) {
    throwNotXML();
  }
  return length;
}

// Which bytes stand for themselves, on their own.
constexpr auto kPlain = [] {
  std::array<bool, 256> plain{};
  for (unsigned char byte = 0x20; byte < 0x80; ++byte) plain[byte] = true;
  plain['\t'] = plain['\n'] = true;
  plain['&'] = plain['<'] = plain['>'] = false;
  return plain;
}();

bool isPlain(char c) { return kPlain[static_cast<unsigned char>(c)]; }

// What stands for the ASCII character `c`, which is not plain.
std::string_view referenceTo(char c) {
  switch (c) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '\r':
      // As a plain byte it would be read back as a line feed.
      return "&#13;";
    default:
      // XML has no way to write other control characters, not even as a reference.
      throwNotXML();
  }
}

void appendText(std::string& document, std::string_view text) {
  while (!text.empty()) {
    std::size_t length = 0;
    while (length < text.size() && isPlain(text[length])) ++length;
    if (length > 0) {
      document += text.substr(0, length);
    } else if (static_cast<unsigned char>(text.front()) < 0x80) {
      length = 1;
      document += referenceTo(text.front());
    } else {
      length = sequenceLength(text);
      document += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
}

void appendFields(std::string& document, const RecordSchema& schema, const void* record,
                  std::size_t depth);

void appendTextField(std::string& document, const RecordField& field, const void* record,
                     std::size_t depth) {
  const std::string* const text = field.text(record);
  if (text == nullptr) return;
  document.append(depth * 2, ' ').append("<").append(field.key).append(">");
  appendText(document, *text);
  document.append("</").append(field.key).append(">\n");
}

void appendListField(std::string& document, const RecordField& field, const void* record,
                     std::size_t depth) {
  const std::size_t count = field.count(record);
  for (std::size_t index = 0; index < count; ++index) {
    document.append(depth * 2, ' ').append("<").append(field.key).append(">\n");
    appendFields(document, field.elementSchema(), field.element(record, index), depth + 1);
    document.append(depth * 2, ' ').append("</").append(field.key).append(">\n");
  }
}

void appendFields(std::string& document, const RecordSchema& schema, const void* record,
                  std::size_t depth) {
  for (const RecordField& field : schema.fields) {
    if (field.kind == RecordField::Kind::text) {
      appendTextField(document, field, record, depth);
    } else {
      appendListField(document, field, record, depth);
    }
  }
}

}  // namespace

std::string encodedRecord(const RecordSchema& schema, const void* record) {
  std::string document;
  // That of a script takes less as a rule.
  document.reserve(4096);
  document += "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
  appendFields(document, schema, record, 0);
  return document;
}

}  // namespace VarnScripts::publishing
