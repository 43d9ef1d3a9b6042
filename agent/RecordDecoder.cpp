#include "RecordDecoder.h"

#include <algorithm>
#include <cassert>

namespace MarkupParser {
namespace {

[[maybe_unused]] constexpr std::size_t kMostFields = 64;

bool isContinuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

/// The code point of one well-formed UTF-8 sequence.
char32_t codePoint(std::string_view sequence) {
  const auto lead = static_cast<unsigned char>(sequence.front());
  if (sequence.size() == 1) return lead;
  char32_t point = lead & (0x7FU >> sequence.size());
  for (const char c : sequence.substr(1)) {
    point = (point << 6) | (static_cast<unsigned char>(c) & 0x3FU);
  }
  return point;
}

std::size_t firstLength(std::string_view text) {
  std::size_t length = 1;
  while (length < text.size() && isContinuation(text[length])) ++length;
  return length;
}

std::size_t lastLength(std::string_view text) {
  std::size_t length = 1;
  while (length < text.size() && isContinuation(text[text.size() - length])) ++length;
  return length;
}

}  // namespace

RecordDecoder::RecordDecoder(const RecordSchema& schema, void* record, const CharacterSet* trimming,
                             bool ignoreNamespaces)
    : trimming_(trimming), ignoreNamespaces_(ignoreNamespaces) {
  open(schema, record, nullptr, 0);
}

bool RecordDecoder::begin(const char* name, const char** attributes, std::size_t count) {
  if (skipped_ > 0) {
    ++skipped_;
    return true;
  }
  // A text has no child elements.
  if (textField_ != nullptr) return false;
  Frame& frame = frames_.back();
  const RecordField* const field = find(frame, localName(name));
  if (field == nullptr) {
    skipped_ = 1;
    return true;
  }
  isOfRecord_ = true;
  if (field->kind == RecordField::Kind::list) {
    open(field->elementSchema(), field->append(frame.record), attributes, count);
    return true;
  }
  // The first of repeated texts counts; what the later ones hold does not matter.
  if ((frame.asElement & bit(frame, *field)) != 0) {
    skipped_ = 1;
    return true;
  }
  textField_ = field;
  text_.clear();
  return true;
}

bool RecordDecoder::end() {
  if (skipped_ > 0) {
    --skipped_;
    return true;
  }
  if (textField_ != nullptr) {
    Frame& frame = frames_.back();
    frame.asElement |= bit(frame, *textField_);
    textField_->setText(frame.record, trimmed(text_));
    textField_ = nullptr;
    return true;
  }
  const bool complete = isComplete(frames_.back());
  frames_.pop_back();
  return complete;
}

void RecordDecoder::open(const RecordSchema& schema, void* record, const char** attributes,
                         std::size_t count) {
  assert(schema.fields.size() <= kMostFields);
  Frame& frame = frames_.emplace_back();
  frame.schema = &schema;
  frame.record = record;
  for (std::size_t at = 0; at + 1 < count; at += 2) {
    if (isNamespaceDeclaration(attributes[at])) continue;
    const RecordField* const field = find(frame, localName(attributes[at]));
    if (field == nullptr || field->kind != RecordField::Kind::text) continue;
    if ((frame.asAttribute & bit(frame, *field)) != 0) continue;
    frame.asAttribute |= bit(frame, *field);
    field->setText(record, trimmed(attributes[at + 1]));
  }
  frame.expected = 0;
}

bool RecordDecoder::isComplete(const Frame& frame) {
  return std::ranges::all_of(frame.schema->fields, [&frame](const RecordField& field) {
    if (!field.required || field.kind != RecordField::Kind::text) return true;
    return ((frame.asElement | frame.asAttribute) & bit(frame, field)) != 0;
  });
}

const RecordField* RecordDecoder::find(Frame& frame, std::string_view name) {
  // Beginning at the field after the one found last, which in a document that keeps the order of
  // the schema is the one that is looked for.
  const std::size_t count = frame.schema->fields.size();
  std::size_t at = frame.expected < count ? frame.expected : 0;
  for (std::size_t tried = 0; tried < count; ++tried) {
    const RecordField& field = frame.schema->fields[at];
    if (field.key == name) {
      // A list's element is likely to be followed by the next one.
      frame.expected = field.kind == RecordField::Kind::list ? at : at + 1;
      return &field;
    }
    if (++at == count) at = 0;
  }
  return nullptr;
}

std::uint64_t RecordDecoder::bit(const Frame& frame, const RecordField& field) {
  return std::uint64_t{1} << (&field - frame.schema->fields.data());
}

std::string_view RecordDecoder::localName(std::string_view name) const {
  if (!ignoreNamespaces_) return name;
  const std::size_t colon = name.find(':');
  return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

bool RecordDecoder::isNamespaceDeclaration(std::string_view name) const {
  return ignoreNamespaces_ && (name == "xmlns" || name.starts_with("xmlns:"));
}

std::string RecordDecoder::trimmed(std::string_view text) const {
  if (trimming_ == nullptr) return std::string(text);
  const auto isTrimmed = [this](std::string_view sequence) {
    return trimming_->characters.find(codePoint(sequence)) != std::u32string::npos;
  };
  while (!text.empty() && isTrimmed(text.substr(0, firstLength(text)))) {
    text.remove_prefix(firstLength(text));
  }
  while (!text.empty() && isTrimmed(text.substr(text.size() - lastLength(text)))) {
    text.remove_suffix(lastLength(text));
  }
  return std::string(text);
}

}  // namespace MarkupParser
