#include "publish/Findings.h"

#include <utility>

namespace VarnScripts::publishing {

std::string textOf(const Finding& finding) {
  std::string text = finding.place.file;
  if (finding.place.line > 0) text += ":" + std::to_string(finding.place.line);
  text += ": ";
  if (finding.kind == Finding::Kind::warning) text += "warning: ";
  return text + finding.what + "; " + finding.remedy;
}

std::string quoted(std::string_view text) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string result = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) {
      result += "\\x";
      result += digits[byte >> 4];
      result += digits[byte & 0xf];
    } else {
      result += c;
    }
  }
  return result += '"';
}

void Findings::refuse(Place place, std::string what, std::string remedy) {
  all_.push_back({Finding::Kind::refusal, std::move(place), std::move(what), std::move(remedy)});
  ++refusals_;
}

void Findings::warn(Place place, std::string what, std::string remedy) {
  all_.push_back({Finding::Kind::warning, std::move(place), std::move(what), std::move(remedy)});
}

}  // namespace VarnScripts::publishing
