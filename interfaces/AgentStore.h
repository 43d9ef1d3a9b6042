// The agent's key-value store, as the library sees it: tables of records that encode themselves by
// keys. A table is reached through a `KeyValueStorage`; which file or service stands behind it is
// the agent's business (see `AgentUtils::RootAccessKeyValueStorage`).

#pragma once

#include <concepts>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

namespace AgentStore {

/// Takes a record's fields, one call for each present field, in the record's own order.
class KeyedEncoder {
 public:
  virtual ~KeyedEncoder() = default;

  /// Adds `value` under `forKey`. May throw when the value can't be stored.
  virtual void encode(const std::string& value, const std::string& forKey) = 0;
};

/// Gives a record's fields by key.
class KeyedDecoder {
 public:
  virtual ~KeyedDecoder() = default;

  /// The text under `forKey`, or nothing when that key is missing. Throws when an element of that
  /// key is present but is not a text.
  virtual std::optional<std::string> decodeIfPresent(const std::string& forKey) const = 0;
};

/// The record protocol: a type that writes its fields to a `KeyedEncoder` and is constructed from
/// a `KeyedDecoder`. Conformance is structural, so a record needs no base class.
template <class Record>
concept SQLiteValue = requires(const Record& record, KeyedEncoder& to, const KeyedDecoder& from) {
  { record.encode(to) } -> std::same_as<void>;
  Record(from);
};

/// One table of the store: rows of key and record.
///
/// The operations throw (any exception) on a storage failure, unless said otherwise. They may be
/// called from several threads at once: requests for different keys may run together, and all of
/// them use the one table. Two calls for the same key come together only when the host lets
/// requests for the same ID, or a removal of it, run together.
class KeyValueStorage {
 public:
  KeyValueStorage() = default;
  KeyValueStorage(const KeyValueStorage&) = delete;
  KeyValueStorage& operator=(const KeyValueStorage&) = delete;
  virtual ~KeyValueStorage() = default;

  /// The record in the row of `forKey`, decoded as the type that `as` names
  /// (`std::type_identity<ScriptLocalData>{}`), or null when that key has no row. Throws also when
  /// the row does not decode.
  template <SQLiteValue Record>
  std::shared_ptr<Record> fetchValue(const std::string& forKey,
                                     [[maybe_unused]] std::type_identity<Record> as) {
    std::shared_ptr<Record> record;
    fetchRow(forKey,
             [&record](const KeyedDecoder& from) { record = std::make_shared<Record>(from); });
    return record;
  }

  /// Inserts or replaces the row of `forKey` with `value`. A null value removes the row.
  template <SQLiteValue Record>
  void updateValue(const Record* value, const std::string& forKey) {
    if (value == nullptr) {
      deleteValue(forKey);
      return;
    }
    updateRow(forKey, [value](KeyedEncoder& to) { value->encode(to); });
  }

  /// Removes the row of `forKey`. A key without a row is not an error.
  virtual void deleteValue(const std::string& forKey) = 0;

  /// Every row of the table: its key and its value in the store's own form. Never throws; a table
  /// that can't be read gives an empty map.
  virtual std::map<std::string, std::string> fetchTableAsDictionary() noexcept = 0;

 protected:
  /// Calls `decode` once with the row of `forKey`, or not at all when that key has no row.
  virtual void fetchRow(const std::string& forKey,
                        const std::function<void(const KeyedDecoder&)>& decode) = 0;

  /// Calls `encode` once and makes what it wrote the row of `forKey`, inserting or replacing.
  virtual void updateRow(const std::string& forKey,
                         const std::function<void(KeyedEncoder&)>& encode) = 0;
};

}  // namespace AgentStore
