// The rules about one script: which version counts, where its file lies on the server, which
// checksum is its, what runs it with which arguments, and which exit codes are accepted. Each
// stands here alone, for requests, plans and publishing. Pure functions; any thread. Out of memory
// they throw `std::bad_alloc`.

#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ScriptRepositoryRecords.h"

namespace VarnScriptRepository {

/// A kind of scripts, and what runs them.
struct Interpreter {
  std::string_view extension;   ///< of the script's name: "sh"
  std::string_view launchPath;  ///< "/bin/sh"
  std::string_view mediaType;   ///< what data documents call it: "text/x-shellscript"
};

/// All there are.
[[nodiscard]] std::span<const Interpreter> interpreters() noexcept;

/// The interpreter for a file name, or null for an unknown extension. White space around the
/// extension does not count.
[[nodiscard]] const Interpreter* interpreterFor(const std::string& fileName);

/// The launch path of the interpreter for a file name, or nothing for an unknown extension.
[[nodiscard]] std::optional<std::string> getLaunchPath(const std::string& fileName);

/// The arguments in an argument text: separated by white space, or between double quotes.
[[nodiscard]] std::vector<std::string> splitWithQuotes(const std::string& text);

/// The codes in a list with commas between them, exactly as they stand.
[[nodiscard]] std::vector<std::string> codesIn(const std::string& list);

/// The server path of a file, from the server's own notation of its location.
[[nodiscard]] std::string serverPath(const std::string& fileSystemLocation);

/// The server's notation of a server path without a leading slash.
[[nodiscard]] std::string fileSystemLocation(const std::string& serverPath);

/// The checksum among `all` that the file names, or null when it names none or one that is not
/// there. Points into `all`.
[[nodiscard]] const ChecksumValue* checksumOf(const VyFile& file,
                                              const std::vector<ChecksumValue>& all);

/// Whether the recorded version is the one that the server has now; an absent one is none.
[[nodiscard]] bool isSameVersion(const std::optional<std::string>& recorded,
                                 const std::string& onServer);

}  // namespace VarnScriptRepository
