// The stored form of a row: a JSON object of texts, its fields in the record's own order, such as
// {"version":"5","scriptPath":"/opt/agent/clean.sh"}. No database here.

#pragma once

#include <map>
#include <optional>
#include <string>

#include "AgentStore.h"
#include "JsonText.h"

namespace AgentStore {

/// Collects a record's fields and gives them as a row.
class RowEncoder final : public KeyedEncoder {
 public:
  /// Throws when the key or the value is not UTF-8.
  void encode(const std::string& value, const std::string& forKey) override;

  [[nodiscard]] std::string row() const { return object_.text(); }

 private:
  JsonObjectText object_;
};

/// Gives the fields of a row. Elements that nobody asks for do not matter.
class RowDecoder final : public KeyedDecoder {
 public:
  /// Throws when `row` is not a JSON object.
  explicit RowDecoder(const std::string& row);

  [[nodiscard]] std::optional<std::string> decodeIfPresent(
      const std::string& forKey) const override;

 private:
  /// The elements by key; nothing for one that is not a text.
  std::map<std::string, std::optional<std::string>> elements_;
};

/// Throws when `text` is not UTF-8.
void requireUTF8(const std::string& text);

}  // namespace AgentStore
