// Small record types for the parser's tests.

#pragma once

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "MarkupParser.h"
#include "support/KeyedCoding.h"

struct Part {
  std::string path;

  static constexpr auto fields() {
    return std::tuple{VarnScriptRepository::field("path", &Part::path)};
  }
  static const MarkupParser::RecordSchema& schema() {
    return VarnScriptRepository::recordSchema<Part>();
  }
  bool operator==(const Part&) const = default;
};

struct Item {
  std::string id;
  std::optional<std::string> note;
  std::optional<std::vector<Part>> parts;

  static constexpr auto fields() {
    return std::tuple{VarnScriptRepository::field("id", &Item::id),
                      VarnScriptRepository::field("note", &Item::note),
                      VarnScriptRepository::field("part", &Item::parts)};
  }
  static const MarkupParser::RecordSchema& schema() {
    return VarnScriptRepository::recordSchema<Item>();
  }
  bool operator==(const Item&) const = default;
};

struct Box {
  std::vector<Item> items;

  static constexpr auto fields() {
    return std::tuple{VarnScriptRepository::field("item", &Box::items)};
  }
  static const MarkupParser::RecordSchema& schema() {
    return VarnScriptRepository::recordSchema<Box>();
  }
  bool operator==(const Box&) const = default;
};

/// The document: its top element is a `box`.
struct Root {
  std::vector<Box> boxes;

  static constexpr auto fields() {
    return std::tuple{VarnScriptRepository::field("box", &Root::boxes)};
  }
  static const MarkupParser::RecordSchema& schema() {
    return VarnScriptRepository::recordSchema<Root>();
  }
  bool operator==(const Root&) const = default;
};

/// The items of the document's box; nothing when it does not decode or has no box.
inline std::optional<std::vector<Item>> decodedItems(
    const std::string& document, std::optional<MarkupParser::CharacterSet> trimming = std::nullopt,
    bool ignoreNamespaces = false) {
  const auto roots =
      MarkupParser::XML::parse(document, std::move(trimming), ignoreNamespaces).toStruct<Root>();
  if (!roots || roots->size() != 1 || roots->front().boxes.empty()) return std::nullopt;
  return roots->front().boxes.front().items;
}

/// The `id` of the only item of a box with `content`; "(absent)" when the document does not decode.
inline std::string decodedID(const std::string& content) {
  const auto items = decodedItems("<box><item>" + content + "</item></box>");
  if (!items || items->size() != 1) return "(absent)";
  return items->front().id;
}
