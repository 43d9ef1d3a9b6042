// The agent's XML parser, as the library sees it: a document decodes into a record, led by the
// record's schema. A schema is plain data, so a parser fills records while it reads and needs no
// tree of the document.

#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace MarkupParser {

struct RecordSchema;

/// One field of a record: its key in the document and the way to its member. `void*` is the record
/// that the schema belongs to.
struct RecordField {
  enum class Kind {
    text,  ///< one value: a child element's character data, or an attribute
    list,  ///< records: every child element of that name, in document order
  };

  /// The exact, case-sensitive name of the element or attribute.
  std::string_view key;
  Kind kind;
  /// Whether a record without this key fails to decode. A list without elements is empty, and
  /// never missing.
  bool required;

  // Of a text.
  void (*setText)(void* record, std::string text);
  /// The value, or null when it is absent.
  const std::string* (*text)(const void* record);

  // Of a list.
  const RecordSchema& (*elementSchema)();
  /// Appends an empty record and gives its address, which is good until the next append.
  void* (*append)(void* record);
  /// How many records the list holds; 0 when it is absent.
  std::size_t (*count)(const void* record);
  const void* (*element)(const void* record, std::size_t index);
};

/// The fields of one record type, in declaration order. Lives as long as the process.
struct RecordSchema {
  std::span<const RecordField> fields;
};

/// A record type that a document decodes into.
template <class Record>
concept KeyedRecord = std::default_initializable<Record> && requires {
  { Record::schema() } -> std::same_as<const RecordSchema&>;
};

/// A set of characters (code points).
struct CharacterSet {
  std::u32string characters;
};

/// The parser. All operations may be called from any thread.
class XML {
 public:
  /// A parsed document. It stands above the top element: a root record's key names the top element
  /// itself.
  class Accessor {
   public:
    /// The document as a list of one `Record`, or nothing when it is not one well-formed document
    /// or a required key is missing anywhere in it.
    ///
    /// A text field takes the first child element of its name, or else the attribute of that name;
    /// an element that itself has child elements does not decode as a text. Elements and attributes
    /// that no field names are skipped.
    template <KeyedRecord Record>
    [[nodiscard]] std::optional<std::vector<Record>> toStruct() const {
      std::optional<std::vector<Record>> roots(std::in_place, 1);
      if (!decode(Record::schema(), &roots->front())) roots.reset();
      return roots;
    }

   private:
    friend class XML;
    struct Document;

    explicit Accessor(std::shared_ptr<const Document> document);
    [[nodiscard]] bool decode(const RecordSchema& schema, void* record) const;

    std::shared_ptr<const Document> document_;
  };

  /// An accessor over the document in `data`. `trimming` names the characters to take off both
  /// ends of every text; nothing is trimmed when it is absent. With `ignoreNamespaces` the prefixes
  /// of names are taken off before they are compared with keys. Whether the document is well formed
  /// shows when it is decoded.
  [[nodiscard]] static Accessor parse(std::string data, std::optional<CharacterSet> trimming,
                                      bool ignoreNamespaces);
};

}  // namespace MarkupParser
