// URLs: joining a server path to the server's URL, and telling from one what it is and where it
// leads. Pure functions; any thread. Where libcurl has to be loaded for it, `DownloadFailure` is
// thrown when that can't be done.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace AgentUtils {

/// The URL of `serverPath` on the server `serverURL`, with exactly one slash between the two.
///
/// Bytes of the path that a URL's path can't hold are percent-encoded, `?`, `#` and a `%` that
/// begins no escape among them; an escape ("%20") is left alone. The server URL stands as it is:
///
///     urlOfServerPath("https://host/repo/", "/a b/50%.sh") == "https://host/repo/a%20b/50%25.sh"
[[nodiscard]] std::string urlOfServerPath(std::string_view serverURL, std::string_view serverPath);

/// Whether the URL's scheme is `scheme` ("file"), in either case.
[[nodiscard]] bool hasScheme(std::string_view url, std::string_view scheme);

/// Whether both URLs have the same scheme, host and port.
[[nodiscard]] bool isSameServer(std::string_view a, std::string_view b);

/// Whether the URL's host is this computer, by its name or address: "localhost", 127.0.0.1, ::1.
[[nodiscard]] bool isOnThisComputer(std::string_view url);

/// The URL's host, without its port: "host", "[::1]".
[[nodiscard]] std::string hostOf(std::string_view url);

/// What keeps an http:// or https:// URL from being one, or nothing: also where libcurl, which
/// alone knows, can't be loaded.
[[nodiscard]] std::optional<std::string> complaintAboutURL(std::string_view url);

/// The URL for the log: without user name, password, query and fragment. What has an `@` anywhere
/// before its query is taken to have a password before it.
[[nodiscard]] std::string withoutSecrets(std::string_view url);

/// Whether a server may send a download on from one URL to another: never to anything but HTTP or
/// HTTPS, and never from HTTPS to less.
[[nodiscard]] bool mayRedirect(std::string_view from, std::string_view to);

/// The text with its percent escapes decoded; a `%` that begins no escape stays.
[[nodiscard]] std::string percentDecoded(std::string_view text);

/// The path that a file:// URL names, escapes decoded. Nothing when its host is another than the
/// empty one or "localhost", or when the path holds a NUL.
[[nodiscard]] std::optional<std::string> pathOfFileURL(std::string_view url);

/// Whether one of the path's components, separated by slashes, is "..".
[[nodiscard]] bool hasParentComponent(std::string_view path);

}  // namespace AgentUtils
