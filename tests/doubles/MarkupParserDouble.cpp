#include "MarkupParserDouble.h"

#include <utility>

#include "Journal.h"
#include "MarkupParser.h"

namespace doubles {

ParserCalls& ParserCalls::shared() {
  static ParserCalls& instance = *new ParserCalls;
  return instance;
}

namespace {

struct Node {
  std::string name;
  std::optional<std::string> text;
  std::vector<Node> children;
};

class Reader {
 public:
  explicit Reader(const std::string& data) : data_(data) {}

  std::optional<std::vector<Node>> document() {
    std::optional<std::vector<Node>> nodes = siblings();
    if (at_ != data_.size() || !nodes || nodes->empty()) return std::nullopt;
    return nodes;
  }

 private:
  std::optional<std::vector<Node>> siblings() {
    std::vector<Node> nodes;
    for (skipBlanks(); at_ < data_.size() && data_[at_] != ')'; skipBlanks()) {
      std::optional<Node> one = node();
      if (!one) return std::nullopt;
      nodes.push_back(std::move(*one));
    }
    return nodes;
  }

  std::optional<Node> node() {
    const std::size_t nameEnd = data_.find_first_of("<()>", at_);
    if (nameEnd == std::string::npos || nameEnd == at_) return std::nullopt;
    Node read{data_.substr(at_, nameEnd - at_), std::nullopt, {}};
    at_ = nameEnd + 1;
    if (data_[nameEnd] == '<') return textOf(std::move(read));
    if (data_[nameEnd] != '(') return std::nullopt;
    std::optional<std::vector<Node>> children = siblings();
    if (!children || at_ >= data_.size()) return std::nullopt;
    ++at_;
    read.children = std::move(*children);
    return read;
  }

  std::optional<Node> textOf(Node read) {
    const std::size_t end = data_.find('>', at_);
    if (end == std::string::npos) return std::nullopt;
    read.text = data_.substr(at_, end - at_);
    at_ = end + 1;
    return read;
  }

  void skipBlanks() {
    while (at_ < data_.size() && (data_[at_] == ' ' || data_[at_] == '\n')) ++at_;
  }

  const std::string& data_;
  std::size_t at_ = 0;
};

using MarkupParser::RecordField;
using MarkupParser::RecordSchema;

bool decodeChildren(const std::vector<Node>& children, const RecordSchema& schema, void* record);

bool decodeField(const std::vector<Node>& children, const RecordField& field, void* record) {
  bool found = false;
  for (const Node& child : children) {
    if (child.name != field.key) continue;
    if (field.kind == RecordField::Kind::list) {
      if (!decodeChildren(child.children, field.elementSchema(), field.append(record)))
        return false;
    } else if (!found) {
      if (!child.text) return false;
      field.setText(record, *child.text);
    }
    found = true;
  }
  return found || field.kind == RecordField::Kind::list || !field.required;
}

bool decodeChildren(const std::vector<Node>& children, const RecordSchema& schema, void* record) {
  for (const RecordField& field : schema.fields) {
    if (!decodeField(children, field, record)) return false;
  }
  return true;
}

}  // namespace

std::string encoded(const RecordSchema& schema, const void* record) {
  std::string written;
  const auto separate = [&written] {
    if (!written.empty()) written += ' ';
  };
  for (const RecordField& field : schema.fields) {
    const std::string key(field.key);
    if (field.kind == RecordField::Kind::text) {
      const std::string* const text = field.text(record);
      if (text == nullptr) continue;
      separate();
      written += key + "<" + *text + ">";
      continue;
    }
    for (std::size_t index = 0; index < field.count(record); ++index) {
      separate();
      written += key + "(" + encoded(field.elementSchema(), field.element(record, index)) + ")";
    }
  }
  return written;
}

}  // namespace doubles

namespace MarkupParser {

struct XML::Accessor::Document {
  std::optional<std::vector<doubles::Node>> top;
};

XML::Accessor::Accessor(std::shared_ptr<const Document> document)
    : document_(std::move(document)) {}

XML::Accessor XML::parse(std::string data, std::optional<CharacterSet> trimming,
                         bool ignoreNamespaces) {
  doubles::ParserCalls::shared().calls.push_back({data, trimming.has_value(), ignoreNamespaces});
  doubles::Journal::shared().called("parse");
  return Accessor(
      std::make_shared<Accessor::Document>(Accessor::Document{doubles::Reader(data).document()}));
}

bool XML::Accessor::decode(const RecordSchema& schema, void* record) const {
  doubles::Journal::shared().called("decode");
  return document_->top && doubles::decodeChildren(*document_->top, schema, record);
}

}  // namespace MarkupParser
