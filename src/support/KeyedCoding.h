// Keyed coding: a record names its fields once, in a `fields()` table, and every coder runs from
// that table. `recordSchema` turns the table into the parser's form; `encodeFields` and
// `decodeFields` run it against the store's coders.
//
//     static constexpr auto fields() {
//       return std::tuple{field("file_id", &VyFile::fileID), field("CSToVyFiles",
//       &VyFile::csToVyFiles)};
//     }
//
// The member's type decides: a `std::optional` may be missing, a `std::vector` is a list of
// records.

#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "MarkupParser.h"

namespace VarnScriptRepository {

/// One field of a record: its key in the document and its member.
template <class Record, class Member>
struct Field {
  std::string_view key;
  Member Record::*member;
};

template <class Record, class Member>
constexpr Field<Record, Member> field(std::string_view key, Member Record::*member) {
  return {key, member};
}

namespace keyed {

/// Whether a member may be absent, and what it holds when it is not.
template <class Member>
struct MemberTraits {
  static constexpr bool isOptional = false;
  using Value = Member;
};

/// A member that may be absent.
template <class T>
struct MemberTraits<std::optional<T>> {
  static constexpr bool isOptional = true;
  using Value = T;
};

/// Appends an empty element. A full list grows fourfold: records take long to move, and memory that
/// is not touched yet costs next to nothing.
template <class Element>
Element& appendTo(std::vector<Element>& list) {
  if (list.size() == list.capacity()) list.reserve(4 * list.size());
  return list.emplace_back();
}

/// The functions through which a coder reaches field number `index` of `Record`.
template <class Record, std::size_t index>
struct FieldAccess {
  static constexpr auto field = std::get<index>(Record::fields());
  using Member = std::remove_reference_t<decltype(std::declval<Record>().*field.member)>;
  using Traits = MemberTraits<Member>;
  using Value = typename Traits::Value;

  static Member& member(void* record) { return static_cast<Record*>(record)->*field.member; }

  /// The value, or null when it is absent.
  static const Value* value(const void* record) {
    const Member& member = static_cast<const Record*>(record)->*field.member;
    if constexpr (Traits::isOptional) {
      return member ? &*member : nullptr;
    } else {
      return &member;
    }
  }

  // NOLINTNEXTLINE(performance-unnecessary-value-param): it is moved from.
  static void setText(void* record, std::string text) { member(record) = std::move(text); }

  static const MarkupParser::RecordSchema& elementSchema() { return Value::value_type::schema(); }

  static void* append(void* record) {
    if constexpr (Traits::isOptional) {
      Member& list = member(record);
      if (!list) list.emplace();
      return &appendTo(*list);
    } else {
      return &appendTo(member(record));
    }
  }

  static std::size_t count(const void* record) {
    const Value* const list = value(record);
    if constexpr (Traits::isOptional) {
      if (list == nullptr) return 0;
    }
    return list->size();
  }

  static const void* element(const void* record, std::size_t at) { return &(*value(record))[at]; }

  static constexpr MarkupParser::RecordField describe() {
    using MarkupParser::RecordField;
    RecordField described{};
    described.key = field.key;
    described.required = !Traits::isOptional;
    if constexpr (std::is_same_v<Value, std::string>) {
      described.kind = RecordField::Kind::text;
      described.setText = setText;
      described.text = value;
    } else {
      described.kind = RecordField::Kind::list;
      described.elementSchema = elementSchema;
      described.append = append;
      described.count = count;
      described.element = element;
    }
    return described;
  }
};

template <class Record, std::size_t... indices>
constexpr auto describeFields(std::index_sequence<indices...>) {
  return std::array{FieldAccess<Record, indices>::describe()...};
}

}  // namespace keyed

/// The parser's schema of `Record`, made from its `fields()` table at compile time.
template <class Record>
const MarkupParser::RecordSchema& recordSchema() {
  constexpr std::size_t count = std::tuple_size_v<decltype(Record::fields())>;
  static constexpr auto fields = keyed::describeFields<Record>(std::make_index_sequence<count>());
  static constexpr MarkupParser::RecordSchema schema{fields};
  return schema;
}

/// Gives `encoder` the present fields of `record` in the table's order. All fields are optional
/// texts.
template <class Record, class Fields, class Encoder>
void encodeFields(const Record& record, const Fields& fields, Encoder& encoder) {
  const auto encodeOne = [&](const auto& field) {
    if (const auto& value = record.*field.member) encoder.encode(*value, std::string(field.key));
  };
  std::apply([&](const auto&... field) { (encodeOne(field), ...); }, fields);
}

/// Fills the fields of `record` from `decoder`; a missing key leaves its field absent. All fields
/// are optional texts.
template <class Record, class Fields, class Decoder>
void decodeFields(Record& record, const Fields& fields, const Decoder& decoder) {
  const auto decodeOne = [&](const auto& field) {
    record.*field.member = decoder.decodeIfPresent(std::string(field.key));
  };
  std::apply([&](const auto&... field) { (decodeOne(field), ...); }, fields);
}

}  // namespace VarnScriptRepository
