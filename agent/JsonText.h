// JSON written piece by piece. The library's own objects are not used for it: their destructors
// allocate, and an exhausted memory would then end the process.

#pragma once

#include <nlohmann/json.hpp>
#include <string>

/// What becomes of bytes that are not UTF-8.
enum class NotUTF8 {
  replaced,  ///< by U+FFFD
  thrown,    ///< as an exception
};

/// `text` as a JSON text, with its quotation marks.
[[nodiscard]] inline std::string jsonText(const std::string& text, NotUTF8 notUTF8) {
  using Handler = nlohmann::json::error_handler_t;
  return nlohmann::json(text).dump(
      -1, ' ', false, notUTF8 == NotUTF8::replaced ? Handler::replace : Handler::strict);
}

/// A JSON object, its members in the order in which they are added.
class JsonObjectText {
 public:
  /// Adds a member whose value is JSON already.
  void add(const std::string& key, const std::string& json) {
    if (object_.size() > 1) object_ += ',';
    object_ += jsonText(key, NotUTF8::thrown);
    object_ += ':';
    object_ += json;
  }

  /// The object with the members added so far.
  [[nodiscard]] std::string text() const { return object_ + '}'; }

 private:
  std::string object_ = "{";
};
