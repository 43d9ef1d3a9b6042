#include "RequestHeaders.h"

#include <algorithm>

namespace AgentUtils {
namespace {

char lowerASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// What RFC 9110 allows in a name.
bool isTokenCharacter(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return c != '\0' && std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isControl(char c) { return (static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7F; }

/// Whether the header says which file is wanted and how it is to come, or is about the connection
/// and what is on the way to the server.
bool isOwn(std::string_view name) {
  constexpr std::string_view kOwn[] = {
      "accept-encoding", "connection", "content-encoding", "content-length",
      "expect",          "host",       "http2-settings",   "keep-alive",
      "range",           "te",         "trailer",          "transfer-encoding",
      "upgrade"};
  std::string lower(name);
  std::ranges::transform(lower, lower.begin(), lowerASCII);
  return lower.starts_with("if-") || lower.starts_with("proxy-") ||
         std::ranges::find(kOwn, lower) != std::end(kOwn);
}

}  // namespace

std::optional<std::string> complaintAboutRequestHeader(std::string_view header) {
  const std::size_t colon = header.find(':');
  const std::string_view name = header.substr(0, colon);
  if (colon == header.npos || name.empty() || !std::ranges::all_of(name, isTokenCharacter)) {
    return "it is no header, which is a name, a colon and a value";
  }
  if (isOwn(name)) return "the header " + std::string(name) + " is the downloader's own";
  const std::string_view value = header.substr(colon + 1);
  if (std::ranges::any_of(value, isControl)) return "its value has a control character in it";
  if (value.find_first_not_of(" \t") == value.npos) return "its value is empty";
  return std::nullopt;
}

}  // namespace AgentUtils
