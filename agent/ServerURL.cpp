#include "ServerURL.h"

#include <algorithm>

namespace AgentUtils {
namespace {

constexpr std::string_view kSchemeEnd = "://";
constexpr char kHexDigits[] = "0123456789ABCDEF";

/// The value of a hexadecimal digit of either case, or -1 for any other character.
int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

bool isEscapeAt(std::string_view text, std::size_t at) {
  return text[at] == '%' && text.size() - at > 2 && hexValue(text[at + 1]) >= 0 &&
         hexValue(text[at + 2]) >= 0;
}

/// What RFC 3986 allows in a path as it is: unreserved, sub-delims, ':', '@' and the slash.
bool isAllowedInPath(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return c != '\0' && std::string_view("-._~!$&'()*+,;=:@/").find(c) != std::string_view::npos;
}

char lowerASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, lowerASCII, lowerASCII);
}

/// What stands between the scheme and the path, without `defaultPort` at its end.
std::string_view authorityOf(std::string_view url, std::string_view defaultPort) {
  const std::size_t scheme = url.find(kSchemeEnd);
  if (scheme == url.npos) return {};
  url.remove_prefix(scheme + kSchemeEnd.size());
  url = url.substr(0, url.find_first_of("/?#"));
  if (url.ends_with(defaultPort)) url.remove_suffix(defaultPort.size());
  return url;
}

}  // namespace

std::string urlOfServerPath(std::string_view serverURL, std::string_view serverPath) {
  // The slashes of the scheme stay: the root directory's URL is "file:///".
  while (serverURL.ends_with('/') && !serverURL.ends_with(kSchemeEnd)) serverURL.remove_suffix(1);
  while (serverPath.starts_with('/')) serverPath.remove_prefix(1);
  std::string url = std::string(serverURL) + '/';
  for (std::size_t at = 0; at < serverPath.size(); ++at) {
    const char c = serverPath[at];
    if (isAllowedInPath(c) || isEscapeAt(serverPath, at)) {
      url += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    url += '%';
    url += kHexDigits[byte >> 4];
    url += kHexDigits[byte & 0xF];
  }
  return url;
}

bool hasScheme(std::string_view url, std::string_view scheme) {
  const std::size_t end = url.find(kSchemeEnd);
  return end != std::string_view::npos && equalIgnoringCase(url.substr(0, end), scheme);
}

bool isSameServer(std::string_view a, std::string_view b) {
  for (const std::string_view scheme : {"https", "http"}) {
    if (!hasScheme(a, scheme) || !hasScheme(b, scheme)) continue;
    const std::string_view port = scheme == "https" ? ":443" : ":80";
    return equalIgnoringCase(authorityOf(a, port), authorityOf(b, port));
  }
  return false;
}

std::string_view hostOf(std::string_view url) {
  const std::string_view authority = authorityOf(url, {});
  if (authority.starts_with('[')) return authority.substr(0, authority.find(']') + 1);
  return authority.substr(0, authority.find(':'));
}

bool isOnThisComputer(std::string_view url) {
  const std::string_view host = hostOf(url);
  if (equalIgnoringCase(host, "localhost") || host == "[::1]") return true;
  return host.starts_with("127.") && host.find_first_not_of("0123456789.") == host.npos;
}

std::string withoutSecrets(std::string_view url) {
  url = url.substr(0, url.find_first_of("?#"));
  const std::size_t at = url.rfind('@');
  if (at == url.npos) return std::string(url);
  const std::size_t scheme = url.find(kSchemeEnd);
  const std::size_t start = scheme < at ? scheme + kSchemeEnd.size() : 0;
  return std::string(url.substr(0, start)).append(url.substr(at + 1));
}

bool mayRedirect(std::string_view from, std::string_view to) {
  if (hasScheme(to, "https")) return true;
  return hasScheme(to, "http") && hasScheme(from, "http");
}

std::string percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (!isEscapeAt(text, at)) {
      decoded += text[at];
      continue;
    }
    decoded += static_cast<char>(hexValue(text[at + 1]) * 16 + hexValue(text[at + 2]));
    at += 2;
  }
  return decoded;
}

std::optional<std::string> pathOfFileURL(std::string_view url) {
  if (!hasScheme(url, "file")) return std::nullopt;
  url.remove_prefix(url.find(kSchemeEnd) + kSchemeEnd.size());
  const std::size_t pathStart = url.find('/');
  if (pathStart == std::string_view::npos) return std::nullopt;
  const std::string_view host = url.substr(0, pathStart);
  if (!host.empty() && !equalIgnoringCase(host, "localhost")) return std::nullopt;
  std::string path = percentDecoded(url.substr(pathStart));
  if (path.find('\0') != std::string::npos) return std::nullopt;
  return path;
}

bool hasParentComponent(std::string_view path) {
  while (true) {
    const std::size_t slash = path.find('/');
    if (path.substr(0, slash) == "..") return true;
    if (slash == std::string_view::npos) return false;
    path.remove_prefix(slash + 1);
  }
}

}  // namespace AgentUtils
