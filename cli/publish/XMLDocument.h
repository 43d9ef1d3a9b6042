// Records as XML documents, led by the same schema by which clients decode them. Pure functions;
// any thread.

#pragma once

#include <string>

#include "MarkupParser.h"

namespace VarnScripts::publishing {

/// The document of the record that `schema` describes.
[[nodiscard]] std::string encodedRecord(const MarkupParser::RecordSchema& schema,
                                        const void* record);

/// The document of `root`, UTF-8 with its XML declaration: each field of `root` is a top element,
/// texts are child elements, absent fields are left out; two blanks of indentation between elements
/// and none inside a text.
///
/// Decoding it gives an equal record, with these exceptions. A root without a top element, or
/// with more than one, is no document, and decodes to nothing. An optional list without elements
/// comes back as absent. A field that is absent comes back as what a new record has there.
///
/// Throws `std::invalid_argument` for a text that is not UTF-8 or holds a character that XML 1.0
/// has no form for: the control characters but tab, line feed and carriage return, U+FFFE, U+FFFF.
template <MarkupParser::KeyedRecord Record>
[[nodiscard]] std::string xmlDocument(const Record& root) {
  return encodedRecord(Record::schema(), &root);
}

}  // namespace VarnScripts::publishing
