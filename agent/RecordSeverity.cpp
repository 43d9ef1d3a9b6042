#include "RecordSeverity.h"

#include <algorithm>

namespace AgentLog {
namespace {

constexpr std::string_view kUnits[] = {"ScriptRepositoryProcessor", "ScriptRepositoryMetaProcessor",
                                       "ScriptRepositoryLocalMeta", "ScriptRepositoryUtil"};

// What the library's failures begin with. Nothing that a script writes does: its output stands
// behind "Script Output: ".
constexpr std::string_view kBeginnings[] = {
    "Checksum mismatch ID ",
    "Download failure of ",
    "Error while ",
    "Launch failed: ",
    "Launch path not available: ",
    "Not able ",
    "Removing File Error ",
    "Removing Local Scripts, Script Repo Meta Data Not available",
    "Script Return Code did not match ",
    "Script-Meta Download Failed",
    "Unable to get ",
    "shell: ",
};

constexpr std::string_view kNoOutput = "Script Output: No Output Exit Code: nil";

// What they end with that begin like other lines.
constexpr std::string_view kEnds[] = {" not able to get server script repo meta to procees",
                                      " status (nil, nil)"};

bool isFailure(std::string_view message) {
  return message == kNoOutput ||
         std::ranges::any_of(kBeginnings, [&](auto text) { return message.starts_with(text); }) ||
         std::ranges::any_of(kEnds, [&](auto text) { return message.ends_with(text); });
}

}  // namespace

bool isUnitOfLibrary(std::string_view source) {
  return std::ranges::find(kUnits, source) != std::end(kUnits);
}

Severity severityOf(const Record& record) {
  if (record.level == Record::Level::error) return Severity::error;
  // What the downloader's unit of this name says is said when all is well.
  const bool isPlain = record.source == "DownloadTrust" ||
                       (isUnitOfLibrary(record.source) && !isFailure(record.message));
  return isPlain ? Severity::info : Severity::warning;
}

}  // namespace AgentLog
