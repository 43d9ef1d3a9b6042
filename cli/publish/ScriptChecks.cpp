#include "publish/ScriptChecks.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "AgentDirectories.h"
#include "ScriptRules.h"
#include "publish/ModuleNames.h"
#include "publish/Names.h"
#include "publish/ShellCommands.h"
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

// The words of a line, which blanks separate.
std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  while (true) {
    const std::size_t start = line.find_first_not_of(" \t\r");
    if (start == line.npos) return words;
    line.remove_prefix(start);
    words.push_back(line.substr(0, line.find_first_of(" \t\r")));
    line.remove_prefix(words.back().size());
  }
}

std::string_view baseName(std::string_view path) { return path.substr(path.rfind('/') + 1); }

// What a script's first line asks to be started with.
struct FirstLine {
  std::string_view program;  ///< "/bin/bash", or "python3" of "/usr/bin/env python3"
  std::string_view option;   ///< the first one, "-e"; empty without any
};

// Nothing when the first line does not begin with "#!" and a program.
std::optional<FirstLine> firstLineOf(std::string_view bytes) {
  if (!bytes.starts_with("#!")) return std::nullopt;
  const auto words = wordsOf(bytes.substr(2, bytes.find('\n') - 2));
  auto word = words.begin();
  if (word != words.end() && baseName(*word) == "env") {
    ++word;
    while (word != words.end() && (word->starts_with('-') || word->find('=') != word->npos)) ++word;
  }
  if (word == words.end()) return std::nullopt;
  FirstLine line{*word, {}};
  // "-" and "--" only say that no options follow.
  if (++word != words.end() && word->starts_with('-') && *word != "-" && *word != "--") {
    line.option = *word;
  }
  return line;
}

// Whether computers that start `launchPath` start what the line names.
bool isStarted(std::string_view program, std::string_view launchPath) {
  const std::string_view name = baseName(program);
  const std::string_view started = baseName(launchPath);
  const bool isPython = name == "python" && started == "python3";
  if (name != started && !isPython) return false;
  const std::string_view directory = program.substr(0, program.size() - name.size());
  return directory.empty() || directory == "/bin/" || directory == "/usr/bin/";
}

void checkFirstLine(const std::string& path, std::string_view extension, std::string_view bytes,
                    Findings& findings) {
  const auto line = firstLineOf(bytes);
  const auto* const interpreter = interpreterFor("." + std::string(extension));
  if (!line || interpreter == nullptr) return;
  const std::string launchPath(interpreter->launchPath);
  if (!isStarted(line->program, launchPath)) {
    findings.warn({path, 1},
                  "the first line names " + quoted(line->program) +
                      ", but computers start the script with " + launchPath,
                  "write it for " + launchPath + ", and name that in the first line");
    return;
  }
  // Perl reads its options from there itself.
  if (line->option.empty() || extension == "pl") return;
  findings.warn({path, 1},
                "the first line has the option " + quoted(line->option) +
                    ", but computers start the script with " + launchPath + " alone",
                extension == "sh" ? "write it with set into a line of its own, such as \"set -e\""
                                  : "do without it");
}

// Whether there are blank lines and comments alone.
bool isWithoutCode(std::string_view extension, std::string_view bytes) {
  const bool hasComments = extension != "scpt";
  while (!bytes.empty()) {
    const std::string_view line = bytes.substr(0, bytes.find('\n'));
    bytes.remove_prefix(std::min(line.size() + 1, bytes.size()));
    const std::size_t start = line.find_first_not_of(" \t\r\f\v");
    if (start != line.npos && (line[start] != '#' || !hasComments)) return false;
  }
  return true;
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
  if (const auto meant = interpreterExtension(foldedName(file.value))) {
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
  checkFirstLine(path, extension, bytes, findings);
  if (isWithoutCode(extension, bytes)) {
    findings.warn({path}, "there is nothing to run in the script",
                  "write it, or take its entry out of the manifest");
  }
  if (const auto position = firstByteThatIsNotUTF8(bytes)) {
    findings.warn({path, lineAt(bytes, *position)}, "the line is not UTF-8",
                  "save the file as UTF-8");
  }
}

void checkCommands(const std::string& path, std::string_view extension, std::string_view platform,
                   std::string_view bytes, Findings& findings) {
  if (extension != "sh" || !foldedName(platform).starts_with("mac")) return;
  for (const ShellCommand& command : commandsThatMacOSLacks(bytes)) {
    findings.warn(
        {path, command.line},
        "macOS has no " + command.name + ", and the script's platform is " + quoted(platform),
        "use what macOS has, or name the platform that the script is for");
  }
}

}  // namespace VarnScripts::publishing
