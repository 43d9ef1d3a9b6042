#include "publish/ListChanges.h"

#include <unordered_map>
#include <unordered_set>

#include "PrintableText.h"
#include "ScriptRules.h"
#include "publish/Documents.h"
#include "publish/Findings.h"

namespace VarnScripts::publishing {
namespace {

using VarnScriptRepository::ScriptRepositoryMeta;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::ScriptsRepoMetaRoot;

using Text = std::optional<std::string>;

// What an administrator has decided about a script, as far as its documents tell.
struct Published {
  Text script;  ///< the digest of its file
  Text file;
  Text arguments;
  Text acceptedCodes;
  Text name;
  Text description;
  Text platform;
  Text digest;
};

// In the order of the manifest's keys, behind the script itself.
constexpr struct {
  const char* shown;
  Text Published::*member;
} kParts[] = {
    {"script", &Published::script},       {"file", &Published::file},
    {"arguments", &Published::arguments}, {"accepted codes", &Published::acceptedCodes},
    {"name", &Published::name},           {"description", &Published::description},
    {"platform", &Published::platform},   {"digest", &Published::digest},
};

Published published(const ScriptRepositoryMeta& entry, const std::optional<ScriptRoot>& document) {
  Published is;
  is.file = entry.scriptFile;
  is.name = entry.scriptName;
  is.description = entry.description;
  is.platform = entry.osPlatform;
  if (!document || document->script.empty()) return is;
  const auto& item = document->script.front();
  if (!item.scriptRepo.empty()) {
    is.arguments = item.scriptRepo.front().scriptArgs;
    is.acceptedCodes = item.scriptRepo.front().exitCode;
  }
  if (!item.checksumValues.empty()) is.digest = item.checksumValues.front().checksumType;
  if (!item.files.empty()) {
    const std::string path =
        VarnScriptRepository::serverPath(item.files.front().fileSystemLocation);
    const std::string name = path.substr(path.rfind('/') + 1);
    is.script = name.substr(0, name.find('.'));
  }
  return is;
}

std::string differences(const Published& a, const Published& b) {
  std::string text;
  for (const auto& part : kParts) {
    const Text& before = a.*part.member;
    const Text& after = b.*part.member;
    if (!before || !after || *before == *after) continue;
    text += (text.empty() ? "" : ", ") + std::string(part.shown);
  }
  // Somebody else wrote the old documents, or they can't be read any more.
  return text.empty() ? "documents" : text;
}

template <class Visit>
void forEachEntry(const ScriptsRepoMetaRoot& list, const Visit& visit) {
  for (const auto& all : list.scriptsMeta) {
    for (const auto& entry : all.scriptRepo) visit(entry);
  }
}

}  // namespace

bool ListChanges::dropsMany() const {
  constexpr std::size_t kFewest = 10;
  if (dropped == 0) return false;
  return dropped == before || (before >= kFewest && dropped > before / 3);
}

ListChanges listChanges(const ScriptsRepoMetaRoot& before, const ScriptsRepoMetaRoot& after,
                        const DocumentOfEntry& documentBefore,
                        const DocumentOfEntry& documentAfter) {
  // The first entry of an ID counts for clients.
  std::unordered_map<std::string_view, const ScriptRepositoryMeta*> old;
  forEachEntry(before, [&](const auto& entry) { old.try_emplace(entry.scriptID, &entry); });

  ListChanges changes;
  changes.before = old.size();
  std::unordered_set<std::string_view> kept;
  forEachEntry(after, [&](const auto& entry) {
    const auto found = old.find(entry.scriptID);
    if (found == old.end()) {
      changes.lines += "+ " + printable(entry.scriptID) + "\n";
      return;
    }
    kept.insert(found->first);
    if (*found->second == entry) return;
    const std::string what = differences(published(*found->second, documentBefore(*found->second)),
                                         published(entry, documentAfter(entry)));
    changes.lines += "~ " + printable(entry.scriptID) + " (" + what + ")\n";
  });
  changes.dropped = changes.before - kept.size();
  forEachEntry(before, [&](const auto& entry) {
    // Of several entries with one ID the first one tells.
    const bool isTold = kept.contains(entry.scriptID) || old.at(entry.scriptID) != &entry;
    if (!isTold) changes.lines += "- " + printable(entry.scriptID) + "\n";
  });
  return changes;
}

std::optional<std::string> complaintAboutList(const ScriptsRepoMetaRoot& list,
                                              std::string_view directory) {
  // Elements of other names are passed over.
  if (list.scriptsMeta.size() != 1) return "its top element is not scripts-meta";
  std::optional<std::string> complaint;
  forEachEntry(list, [&](const ScriptRepositoryMeta& entry) {
    if (complaint) return;
    const bool isMapped = entry.scriptPathMapping && !entry.scriptPathMapping->empty();
    if (!isMapped) {
      complaint = "the entry of " + quoted(entry.scriptID) + " names no data document";
      return;
    }
    const std::string& path = entry.scriptPathMapping->front().filepath;
    const auto name = contentNameIn(path, directory);
    if (name && name->starts_with("data/")) return;
    complaint =
        "the entry of " + quoted(entry.scriptID) + " names the data document " + quoted(path);
  });
  return complaint;
}

}  // namespace VarnScripts::publishing
