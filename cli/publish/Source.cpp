#include "publish/Source.h"

#include <algorithm>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "WholeFiles.h"
#include "publish/Names.h"
#include "publish/Parallel.h"
#include "publish/ScriptChecks.h"
#include "publish/SourceDirectory.h"
#include "support/Text.h"

namespace VarnScripts::publishing {
namespace {

using AgentUtils::DigestKind;
using VarnScriptRepository::text::foldedName;

// The first use of each name, so that a second one can name the line of the first.
class FirstUses {
 public:
  struct Use {
    std::string value;
    std::size_t line;
  };

  void reserve(std::size_t count) { uses_.reserve(count); }

  // The earlier use with the same `key`, or null; then this one is remembered.
  const Use* earlier(const std::string& key, const ManifestText& text) {
    const auto [found, added] = uses_.try_emplace(key, Use{text.value, text.line});
    return added ? nullptr : &found->second;
  }

 private:
  std::unordered_map<std::string, Use> uses_;
};

// Of more it is enough to know how many there are.
constexpr std::size_t kMostUnnamedFiles = 10;

// Whether a file of this name beside the manifest is known to be for people and their tools.
bool isNoScriptsPart(const std::string& name) {
  if (name == kManifestName || name.starts_with('.') || name.ends_with(".md")) return true;
  const std::string stem = name.substr(0, name.find('.'));
  const auto known = {"README",    "LICENSE",    "COPYING", "NOTICE",
                      "CHANGELOG", "CODEOWNERS", "Makefile"};
  return std::find(known.begin(), known.end(), stem) != known.end();
}

class SourceReader {
 public:
  SourceReader(const SourceOptions& options, Findings& findings)
      : options_(options),
        manifestPath_(options.directory + "/" + kManifestName),
        directory_(options.directory),
        findings_(findings) {}

  Source read() {
    std::error_code error;
    const std::string text =
        posix::readRegularFile(manifestPath_, posix::LastLink::follow, error).bytes;
    if (error) {
      findings_.refuse({manifestPath_}, "the manifest can't be read: " + posix::whyNotRead(error),
                       "publish takes a directory with a manifest of this name");
      return {};
    }
    Manifest manifest = parseManifest(text, manifestPath_, findings_);
    Source source;
    source.digest = takeDigest(manifest.digest);
    // Also what is left of a manifest whose writing was interrupted.
    if (manifest.scripts.empty() && findings_.refusals() == 0 && !options_.allowRemoval) {
      findings_.refuse(
          {manifestPath_},
          "the manifest lists no script, and every computer would remove all that it has",
          "list at least one, or give --allow-removal");
    }
    takeScripts(manifest.scripts, source);
    // Of a manifest that can't be taken nobody knows what it would name.
    if (findings_.refusals() == 0) checkUnnamedFiles(source);
    return source;
  }

 private:
  const DigestKind& takeDigest(const ManifestText& ofManifest) {
    const Place place = options_.digest ? Place{"--digest"} : Place{manifestPath_, ofManifest.line};
    std::string name = options_.digest.value_or(ofManifest.value);
    // A manifest that gives none has no line for it either.
    if (!options_.digest && ofManifest.line == 0) name = AgentUtils::usualDigest().name;
    const DigestKind* const kind = AgentUtils::digestKind(name);
    if (kind == nullptr) {
      findings_.refuse(place, "unknown digest " + quoted(name),
                       "use sha256, or one of sha224, sha384, sha512, sha1 and md5");
      return AgentUtils::usualDigest();
    }
    if (kind->forgeable) {
      findings_.warn(
          place, "another script with the same " + std::string(kind->name) + " digest can be made",
          "use sha256");
    }
    return *kind;
  }

  // What is found in an entry and in its script's file, and the script when it can be published.
  struct Look {
    Findings findings;
    bool hasUsableName = false;
    std::optional<SourceScript> script;
  };

  void takeScripts(std::vector<ManifestScript>& scripts, Source& source) {
    ids_.reserve(scripts.size());
    files_.reserve(scripts.size());
    std::vector<Look> looks(scripts.size());
    for (std::size_t index = 0; index < scripts.size(); ++index) {
      looks[index].hasUsableName = checkEntry(scripts[index], looks[index].findings);
    }
    forEachIndex(scripts.size(), [&](std::size_t index) {
      if (looks[index].hasUsableName) lookAtFile(scripts[index], source.digest, looks[index]);
    });
    source.scripts.reserve(looks.size());
    for (Look& look : looks) {
      findings_.append(std::move(look.findings));
      if (look.script) source.scripts.push_back(std::move(*look.script));
    }
  }

  // Whether its file has a name that can be looked for.
  bool checkEntry(const ManifestScript& script, Findings& findings) {
    const bool usableID = checkID(script.id, manifestPath_, findings);
    if (usableID) checkUniqueID(script.id, findings);
    const bool usableName = checkFileName(script.file, manifestPath_, findings);
    checkTexts(script, manifestPath_, findings);
    checkAcceptedCodes(script.acceptedCodes, manifestPath_, findings);
    checkArguments(script.arguments, manifestPath_, findings);
    if (usableName) checkUniqueFile(script.file, findings);
    return usableName;
  }

  void checkUniqueID(const ManifestText& id, Findings& findings) {
    const auto* const earlier = ids_.earlier(foldedName(id.value), id);
    if (earlier == nullptr) return;
    const std::string line = "line " + std::to_string(earlier->line);
    if (VarnScriptRepository::text::equalityKey(earlier->value) ==
        VarnScriptRepository::text::equalityKey(id.value)) {
      findings.refuse({manifestPath_, id.line},
                      "the ID " + quoted(id.value) + " is already that of the script in " + line,
                      "give each script an ID of its own");
      return;
    }
    findings.refuse({manifestPath_, id.line},
                    "the ID " + quoted(id.value) + " differs from " + quoted(earlier->value) +
                        " in " + line +
                        " in letter case only, and clients keep both documents in one file",
                    "give the script another ID");
  }

  void checkUniqueFile(const ManifestText& file, Findings& findings) {
    const auto* const earlier = files_.earlier(foldedName(file.value), file);
    if (earlier == nullptr) return;
    const std::string line = "line " + std::to_string(earlier->line);
    if (VarnScriptRepository::text::equalityKey(earlier->value) ==
        VarnScriptRepository::text::equalityKey(file.value)) {
      findings.refuse({manifestPath_, file.line},
                      "the file " + quoted(file.value) + " is already that of the script in " +
                          line + ", and clients keep all scripts in one directory",
                      "give each script a file of its own");
      return;
    }
    findings.refuse({manifestPath_, file.line},
                    "the file " + quoted(file.value) + " differs from " + quoted(earlier->value) +
                        " in " + line +
                        " in letter case only, and clients keep all scripts in one directory",
                    "give the script's file another name");
  }

  // Takes the entry when its script can be published. Several scripts at the same time.
  void lookAtFile(ManifestScript& script, const DigestKind& digest, Look& look) {
    std::error_code error;
    const std::string bytes = directory_.read(script.file.value, error, options_.largestScript);
    if (error) return refuseScriptFile(script.file, error, look.findings);
    const std::string extension = interpreterExtension(script.file.value).value_or("");
    const std::string path = options_.directory + "/" + script.file.value;
    checkScriptText(path, extension, bytes, look.findings);
    checkCommands(path, extension, script.platform.value, bytes, look.findings);
    const DigestKind& usual = AgentUtils::usualDigest();
    const std::string sha256 = hexDigest(usual, bytes);
    look.script = {std::move(script), extension, bytes.size(), sha256,
                   digest.name == usual.name ? sha256 : hexDigest(digest, bytes)};
  }

  void refuseScriptFile(const ManifestText& file, const std::error_code& error,
                        Findings& findings) const {
    const Place place{manifestPath_, file.line};
    const std::string subject = "the file " + quoted(file.value);
    if (error == std::errc::no_such_file_or_directory) {
      findings.refuse(place, subject + " is not in " + options_.directory,
                      "put it there, or correct the name");
    } else if (error == std::errc::operation_not_permitted) {
      findings.refuse(place,
                      subject + " is a symbolic link that leads out of " + options_.directory,
                      "put the script itself there");
    } else if (error == std::errc::invalid_argument) {
      findings.refuse(place, subject + " is not a regular file", "put the script itself there");
    } else if (error == std::errc::file_too_large) {
      findings.refuse(place,
                      subject + " has more than " + std::to_string(options_.largestScript) +
                          " bytes, which is the most that computers take",
                      "make it smaller, or give --max-download as the computers have it");
    } else {
      findings.refuse(place, subject + " can't be read: " + error.message(),
                      "make it readable for the user who publishes");
    }
  }

  // What a script looks for beside itself has to be published as well.
  void checkUnnamedFiles(const Source& source) {
    std::unordered_set<std::string_view> named;
    for (const SourceScript& script : source.scripts) named.insert(script.entry.file.value);
    auto unnamed = directory_.files();
    std::erase_if(unnamed, [&named](const std::string& name) {
      return named.contains(name) || isNoScriptsPart(name);
    });
    std::sort(unnamed.begin(), unnamed.end());
    const std::string remedy = "give it an entry, or move it out of the directory";
    std::size_t reported = 0;
    for (const std::string& name : unnamed) {
      if (++reported > kMostUnnamedFiles) break;
      findings_.warn({options_.directory + "/" + name},
                     "no entry of the manifest names the file, so it is not published", remedy);
    }
    if (unnamed.size() <= kMostUnnamedFiles) return;
    findings_.warn({options_.directory},
                   "no entry of the manifest names " +
                       std::to_string(unnamed.size() - kMostUnnamedFiles) + " more files",
                   "give them entries, or move them out of the directory");
  }

  const SourceOptions& options_;
  const std::string manifestPath_;
  SourceDirectory directory_;
  Findings& findings_;
  FirstUses ids_;
  FirstUses files_;
};

}  // namespace

Source readSource(const SourceOptions& options, Findings& findings) {
  return SourceReader(options, findings).read();
}

std::optional<std::string> complaintAboutCustomer(const std::string& customer) {
  if (auto complaint = complaintAboutName(customer)) return complaint;
  // Locations on the server have backslashes between their parts, and an escape of a URL in a path
  // is taken for what it stands for.
  if (customer.find('\\') != std::string::npos) return "contains a backslash";
  if (customer.find('%') != std::string::npos) return "contains a percent sign";
  return std::nullopt;
}

}  // namespace VarnScripts::publishing
