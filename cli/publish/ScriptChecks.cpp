#include "publish/ScriptChecks.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "AgentDirectories.h"
#include "ScriptRules.h"
#include "publish/ModuleNames.h"
#include "publish/Names.h"
#include "support/Text.h"

namespace VarnScripts::publishing {
namespace {

using VarnScriptRepository::codesIn;
using VarnScriptRepository::interpreterFor;
using VarnScriptRepository::splitWithQuotes;
using VarnScriptRepository::text::foldedName;

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
// What a compiled AppleScript begins with; it is no text.
constexpr std::string_view kCompiledScript = "FasdUAS";

std::string inLowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::size_t lineAt(std::string_view bytes, std::size_t position) {
  const auto before = bytes.substr(0, position);
  return 1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
}

// Why no exit status is ever written like this, or nothing for 0 to 255.
std::optional<std::string> complaintAboutCode(std::string_view code) {
  if (code.empty()) return "is empty";
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  if (!std::all_of(code.begin(), code.end(), isDigit)) {
    if (code.find_first_of(" \t\r\n") != code.npos) return "contains a blank";
    if (code.front() == '+') return "has a plus sign";
    if (code.front() == '-') return "is negative";
    return "is no number";
  }
  if (code.size() > 1 && code.front() == '0') return "has a leading zero";
  if (code.size() > 3 || (code.size() == 3 && code > "255")) return "is larger than 255";
  return std::nullopt;
}

// Refuses what computers take for a file that is still arriving, or was left by a download that was
// killed, and then remove.
bool refuseAsDownload(const std::string& what, const ManifestText& name,
                      const std::string& manifest, const std::string& remedy, Findings& findings) {
  const std::string prefix(AgentUtils::kDownloadPrefix);
  if (!name.value.starts_with(prefix)) return false;
  findings.refuse({manifest, name.line},
                  "the " + what + " " + quoted(name.value) + " begins with " + quoted(prefix) +
                      ", and computers remove such files",
                  remedy);
  return true;
}

}  // namespace

std::optional<std::string> interpreterExtension(const std::string& fileName) {
  const auto* const interpreter = interpreterFor(fileName);
  if (interpreter == nullptr) return std::nullopt;
  return std::string(interpreter->extension);
}

bool checkID(const ManifestText& id, const std::string& manifest, Findings& findings) {
  const std::string remedy = "use letters, digits, \"-\", \"_\" and \".\"";
  if (const auto complaint = complaintAboutName(id.value)) {
    findings.refuse({manifest, id.line}, "the ID " + quoted(id.value) + " " + *complaint, remedy);
    return false;
  }
  if (id.value.starts_with('-')) {
    findings.refuse({manifest, id.line},
                    "the ID " + quoted(id.value) +
                        " begins with \"-\", and the command would take it for an option",
                    "give the script another ID");
    return false;
  }
  // The data document has a name that begins in the same way.
  if (refuseAsDownload("ID", id, manifest, "give the script another ID", findings)) return false;
  // A client keeps the data document of an ID beside the list, as ID.xml.
  if (foldedName(id.value) == "scripts-meta") {
    findings.refuse({manifest, id.line},
                    "the ID " + quoted(id.value) +
                        " would put the script's document in the place of the list on clients",
                    "give the script another ID");
    return false;
  }
  return true;
}

bool checkFileName(const ManifestText& file, const std::string& manifest, Findings& findings) {
  const Place place{manifest, file.line};
  if (const auto complaint = complaintAboutName(file.value)) {
    findings.refuse(place, "the file name " + quoted(file.value) + " " + *complaint,
                    "put the file beside the manifest and give its bare name");
    return false;
  }
  if (refuseAsDownload("file name", file, manifest, "give the script's file another name",
                       findings)) {
    return false;
  }
  if (const auto language = libraryWithModule(file.value)) {
    findings.warn(place,
                  "the file name " + quoted(file.value) + " is that of a module of " +
                      std::string(*language) +
                      "'s standard library, and other scripts may load the file in its place",
                  "give the script's file another name");
  }
  if (interpreterExtension(file.value)) return true;
  if (const auto meant = interpreterExtension(inLowerCase(file.value))) {
    findings.refuse(place,
                    "the extension of " + quoted(file.value) +
                        " has no interpreter, because its letter case counts",
                    "end the name in ." + *meant);
    return false;
  }
  findings.refuse(place, "the extension of " + quoted(file.value) + " has no interpreter",
                  "end the name in .py, .sh, .pl or .scpt");
  return false;
}

void checkTexts(const ManifestScript& script, const std::string& manifest, Findings& findings) {
  const struct {
    const char* key;
    const ManifestText& text;
  } texts[] = {
      {"arguments", script.arguments}, {"accepted_codes", script.acceptedCodes},
      {"name", script.name},           {"description", script.description},
      {"platform", script.platform},
  };
  for (const auto& [key, text] : texts) {
    const auto unfit = firstUnfitForXML(text.value);
    if (!unfit) continue;
    findings.refuse({manifest, text.line},
                    std::string(key) + " contains " + *unfit + ", which the documents can't carry",
                    "take that character out");
  }
}

void checkAcceptedCodes(const ManifestText& codes, const std::string& manifest,
                        Findings& findings) {
  for (const std::string& code : codesIn(codes.value)) {
    const auto complaint = complaintAboutCode(code);
    if (!complaint) continue;
    findings.warn({manifest, codes.line},
                  "no run matches the accepted code " + quoted(code) + ", because it " + *complaint,
                  "write whole numbers from 0 to 255 with nothing but a comma between them");
  }
}

void checkArguments(const ManifestText& arguments, const std::string& manifest,
                    Findings& findings) {
  // After a line break one more word is one more argument, but not inside quotation marks.
  const bool open =
      splitWithQuotes(arguments.value + "\nword").size() == splitWithQuotes(arguments.value).size();
  if (!open) return;
  findings.warn({manifest, arguments.line},
                "the arguments open a quotation mark that is never closed",
                "close it, or all that follows it is one argument");
}

void checkScriptText(const std::string& path, std::string_view extension, std::string_view bytes,
                     Findings& findings) {
  if (extension == "sh" && bytes.starts_with(kByteOrderMark)) {
    findings.warn({path, 1},
                  "the script begins with a byte-order mark, which the shell takes for a part of "
                  "the first line",
                  "save the file without it");
  }
  const std::size_t lineEnd = extension == "sh" ? bytes.find("\r\n") : bytes.npos;
  if (lineEnd != bytes.npos) {
    findings.warn({path, lineAt(bytes, lineEnd)},
                  "the line ends in CR LF, and the shell takes the CR for a part of the line",
                  "save the file with LF at the ends of its lines");
  }
  if (bytes.starts_with(kCompiledScript)) return;
  if (const auto position = firstByteThatIsNotUTF8(bytes)) {
    findings.warn({path, lineAt(bytes, *position)}, "the line is not UTF-8",
                  "save the file as UTF-8");
  }
}

}  // namespace VarnScripts::publishing
