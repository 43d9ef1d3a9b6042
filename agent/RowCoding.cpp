#include "RowCoding.h"

#include <cstddef>
#include <stdexcept>
#include <utility>

namespace AgentStore {
namespace {

using Elements = std::map<std::string, std::optional<std::string>>;

/// Takes the elements of the object that a document is; deeper ones are passed over. The last one
/// of a key counts.
class ElementReader : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit ElementReader(Elements& elements) : elements_(elements) {}

  bool null() override { return take(std::nullopt); }
  bool boolean(bool) override { return take(std::nullopt); }
  bool number_integer(number_integer_t) override { return take(std::nullopt); }
  bool number_unsigned(number_unsigned_t) override { return take(std::nullopt); }
  bool number_float(number_float_t, const string_t&) override { return take(std::nullopt); }
  bool string(string_t& text) override { return take(std::move(text)); }
  bool binary(binary_t&) override { return take(std::nullopt); }

  bool start_object(std::size_t) override {
    isObject_ = isObject_ || depth_ == 0;
    return open();
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(); }
  bool end_array() override { return close(); }

  bool key(string_t& name) override {
    if (depth_ == 1) key_ = std::move(name);
    return true;
  }

  bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception&) override {
    return false;
  }

  [[nodiscard]] bool isObject() const { return isObject_; }

 private:
  bool take(std::optional<std::string> value) {
    if (depth_ == 1 && isObject_) elements_[key_] = std::move(value);
    return true;
  }

  bool open() {
    take(std::nullopt);
    ++depth_;
    return true;
  }

  bool close() {
    --depth_;
    return true;
  }

  Elements& elements_;
  std::string key_;
  std::size_t depth_ = 0;
  bool isObject_ = false;
};

}  // namespace

void RowEncoder::encode(const std::string& value, const std::string& forKey) {
  object_.add(forKey, jsonText(value, NotUTF8::thrown));
}

RowDecoder::RowDecoder(const std::string& row) {
  ElementReader reader(elements_);
  if (!nlohmann::json::sax_parse(row, &reader) || !reader.isObject()) {
    throw std::runtime_error("the row is not an object");
  }
}

std::optional<std::string> RowDecoder::decodeIfPresent(const std::string& forKey) const {
  const auto found = elements_.find(forKey);
  if (found == elements_.end()) return std::nullopt;
  if (!found->second) throw std::runtime_error("an element of the row is not a text: " + forKey);
  return found->second;
}

void requireUTF8(const std::string& text) { static_cast<void>(jsonText(text, NotUTF8::thrown)); }

}  // namespace AgentStore
