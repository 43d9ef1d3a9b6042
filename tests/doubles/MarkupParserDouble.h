// A parser of a notation that is not XML, so that the units' tests stand on schemas alone:
//
//     script(ScriptRepo(script_id<42> script_name<clean.sh>) VyFiles(file_id<f1>))
//
// A name followed by "<text>" is a text, kept as it stands up to the ">"; a name followed by "(…)"
// holds children. Anything else does not decode. Encoding writes the same notation. Nothing is
// trimmed, and there are no namespaces. Unlike a document, a text may hold several top elements, so
// that tests see what the units make of the second one.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "MarkupParser.h"

namespace doubles {

/// The calls that the parser received.
struct ParserCalls {
  static ParserCalls& shared();

  struct Call {
    std::string data;
    bool trimming = false;
    bool ignoreNamespaces = false;
    bool operator==(const Call&) const = default;
  };
  std::vector<Call> calls;
};

/// The record that `schema` describes in the parser's notation, by the tables' accessors.
std::string encoded(const MarkupParser::RecordSchema& schema, const void* record);

template <MarkupParser::KeyedRecord Record>
std::string document(const Record& root) {
  return encoded(Record::schema(), &root);
}

}  // namespace doubles
