#include "ServerURL.h"

#include <algorithm>
#include <memory>
#include <new>

#include "DownloadTarget.h"
#include "LibCurl.h"

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

/// A URL as curl reads it, which is what connects. Throws `std::bad_alloc`, and `DownloadFailure`
/// without curl.
class ParsedURL {
 public:
  explicit ParsedURL(std::string_view url) : handle_(libCurl().url(), libCurl().url_cleanup) {
    if (!handle_) throw std::bad_alloc();
    result_ = libCurl().url_set(handle_.get(), CURLUPART_URL, std::string(url).c_str(), 0);
    if (result_ == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  }

  /// What is wrong with it; `CURLUE_OK` when nothing is.
  [[nodiscard]] CURLUcode result() const { return result_; }

  /// One of its parts; empty when it has none.
  [[nodiscard]] std::string part(CURLUPart part, unsigned int flags = 0) const {
    char* text = nullptr;
    const CURLUcode result = libCurl().url_get(handle_.get(), part, &text, flags);
    if (result == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
    const std::unique_ptr<char, decltype(LibCurl::free)> owner(text, libCurl().free);
    return text == nullptr ? "" : text;
  }

  [[nodiscard]] std::string host() const { return part(CURLUPART_HOST); }

 private:
  std::unique_ptr<CURLU, decltype(LibCurl::url_cleanup)> handle_;
  CURLUcode result_;
};

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
  const ParsedURL first(a);
  const ParsedURL second(b);
  if (first.result() != CURLUE_OK || second.result() != CURLUE_OK) return false;
  const auto isSame = [&](CURLUPart part, unsigned int flags = 0) {
    return equalIgnoringCase(first.part(part, flags), second.part(part, flags));
  };
  return isSame(CURLUPART_SCHEME) && isSame(CURLUPART_HOST) && isSame(CURLUPART_USER) &&
         isSame(CURLUPART_PORT, CURLU_DEFAULT_PORT);
}

std::string hostOf(std::string_view url) { return ParsedURL(url).host(); }

bool isOnThisComputer(std::string_view url) {
  const std::string host = hostOf(url);
  if (equalIgnoringCase(host, "localhost") || host == "[::1]") return true;
  return host.starts_with("127.") && host.find_first_not_of("0123456789.") == host.npos;
}

std::optional<std::string> complaintAboutURL(std::string_view url) {
  try {
    const CURLUcode result = ParsedURL(url).result();
    if (result == CURLUE_OK) return std::nullopt;
    return libCurl().url_strerror(result);
  } catch (const DownloadFailure&) {
    // Nothing comes from that URL either, and the download says why.
    return std::nullopt;
  }
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
