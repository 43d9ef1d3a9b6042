// The headers that a host adds to the requests to its server. They are secrets as a rule: nothing
// here repeats a value. Pure; any thread.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace AgentUtils {

/// What is wrong with `header`, which should be "Name: value", or nothing: it is of another form,
/// holds what would end it or begin another one, or belongs to the downloader or to the connection
/// ("the header Range is the downloader's own").
[[nodiscard]] std::optional<std::string> complaintAboutRequestHeader(std::string_view header);

}  // namespace AgentUtils
