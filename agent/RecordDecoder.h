// Fills records while a document streams by: what becomes of elements, attributes and character
// data under a record's schema. Knows nothing of the parser that reads the document.
//
// One decoder serves one document, from one thread. Its memory grows with the depth of records in
// the schema and with the longest text, not with the depth of the document: an element that no
// field names is skipped with everything in it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MarkupParser.h"

namespace MarkupParser {

/// Fills a record while a document is read, from its parser's events.
class RecordDecoder {
 public:
  /// Decodes into `record`, whose fields name top elements. `trimming` and `ignoreNamespaces` are
  /// those of `XML::parse`; `trimming` may be null and must outlive the decoder. No record may have
  /// more than 64 fields.
  RecordDecoder(const RecordSchema& schema, void* record, const CharacterSet* trimming,
                bool ignoreNamespaces);

  /// An element begins; `attributes` are its names and values in turn, `count` of them together.
  /// False when the document can't become the record any more.
  [[nodiscard]] bool begin(const char* name, const char** attributes, std::size_t count);

  /// The element that began last and has not ended ends. False as above.
  [[nodiscard]] bool end();

  /// A piece of character data of the element that is open.
  void characters(std::string_view piece) {
    if (textField_ != nullptr && skipped_ == 0) text_ += piece;
  }

  /// The document ends. Whether the record is complete.
  [[nodiscard]] bool finish() const { return frames_.size() == 1 && isComplete(frames_.front()); }

  /// Whether any element of the document has been one of the record's.
  [[nodiscard]] bool isOfRecord() const { return isOfRecord_; }

 private:
  /// A record whose element is open, and which of its fields have been seen, one bit each.
  struct Frame {
    const RecordSchema* schema;
    void* record;
    std::uint64_t asElement = 0;
    std::uint64_t asAttribute = 0;
    std::size_t expected = 0;  ///< the field after the one found last: documents keep an order
  };

  [[nodiscard]] static bool isComplete(const Frame& frame);
  [[nodiscard]] static const RecordField* find(Frame& frame, std::string_view name);
  [[nodiscard]] static std::uint64_t bit(const Frame& frame, const RecordField& field);

  void open(const RecordSchema& schema, void* record, const char** attributes, std::size_t count);
  [[nodiscard]] std::string_view localName(std::string_view name) const;
  [[nodiscard]] bool isNamespaceDeclaration(std::string_view name) const;
  [[nodiscard]] std::string trimmed(std::string_view text) const;

  std::vector<Frame> frames_;
  const RecordField* textField_ = nullptr;  ///< the text whose element is open
  std::string text_;
  std::uint64_t skipped_ = 0;  ///< open elements from the one that is skipped inwards
  const CharacterSet* trimming_;
  bool ignoreNamespaces_;
  bool isOfRecord_ = false;
};

}  // namespace MarkupParser
