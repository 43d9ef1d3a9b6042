#include "publish/Publish.h"

#include <algorithm>
#include <exception>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "CommandLine.h"
#include "Directories.h"
#include "ExitStatus.h"
#include "ScriptRepositoryRecords.h"
#include "StandardStreams.h"
#include "publish/Documents.h"
#include "publish/ServerFiles.h"
#include "publish/Source.h"
#include "publish/XMLDocument.h"

namespace VarnScripts {
namespace {

using MarkupParser::XML;
using VarnScriptRepository::ScriptRepoAllMetaData;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::ScriptsRepoMetaRoot;
using namespace publishing;

std::string counted(std::size_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

// A list and everything it names.
struct PublishedState {
  ScriptsRepoMetaRoot list;
  ContentNames content;
};

class Publisher {
 public:
  Publisher(const PublishOptions& options, const Settings& settings)
      : options_(options),
        customer_(settings.agent.customerID),
        largestScript_(settings.agent.maxDownload) {}

  int publish() {
    if (const auto complaint = complaintAboutCustomer(customer_)) {
      writeErrorLine("varn-scripts: the customer " + quoted(customer_) + " " + *complaint +
                     "; no server tree can have a directory of this name");
      return kExitUsage;
    }
    Source source;
    if (!look(source)) return kExitUsage;
    if (options_.check) return reportCheck(source);

    std::error_code error;
    files_.open(options_.outputDirectory, repositoryDirectory(customer_), error);
    if (error) return reportFailure(error);
    // Looked at again with the lock held: whoever had it before may have published an older look.
    if (!look(source)) return kExitUsage;
    return write(source);
  }

 private:
  // Reads and checks the source. False when it is refused, which has been reported then.
  bool look(Source& source) {
    Findings findings;
    source = readSource(
        {options_.sourceDirectory, options_.digest, options_.allowRemoval, largestScript_},
        findings);
    const bool refused = findings.refusals() > 0 || (options_.strict && findings.warnings() > 0);
    // What was reported at the first look is not reported again.
    if (refused || !told_) tell(findings);
    told_ = true;
    warnings_ = findings.warnings();
    if (!refused) return true;
    std::string line = "varn-scripts: nothing is published: " +
                       counted(findings.refusals(), "refusal", "refusals");
    if (warnings_ > 0) line += " and " + counted(warnings_, "warning", "warnings");
    if (findings.refusals() == 0) line += ", refused by --strict";
    writeErrorLine(line);
    return false;
  }

  void tell(const Findings& findings) const {
    const std::string manifest = options_.sourceDirectory + "/" + kManifestName;
    std::vector<Finding> ordered = findings.all();
    // In the order of the manifest's lines, and then what is in the scripts.
    std::stable_sort(ordered.begin(), ordered.end(), [&](const Finding& a, const Finding& b) {
      const bool aInScript = a.place.file != manifest;
      const bool bInScript = b.place.file != manifest;
      if (aInScript != bInScript) return bInScript;
      return !aInScript && a.place.line < b.place.line;
    });
    for (const Finding& finding : ordered) writeErrorLine(textOf(finding));
  }

  [[nodiscard]] int reportCheck(const Source& source) const {
    const bool written = writeOutput(
        "Checked " + counted(source.scripts.size(), "script", "scripts") + ": " +
        (warnings_ == 0 ? "nothing to say" : counted(warnings_, "warning", "warnings")) + ".\n");
    return written ? kExitSuccess : kExitNotRun;
  }

  [[nodiscard]] int reportFailure(const std::error_code& error) const {
    writeErrorLine("varn-scripts: " + files_.failedPath() +
                   " can't be written: " + error.message());
    return kExitNotRun;
  }

  int write(const Source& source) {
    std::error_code error;
    const std::string oldList = files_.read(VarnScriptRepository::kListName, error);
    if (error) return reportFailure(error);
    PublishedState current;
    const auto trouble = addContent(source, current);
    if (trouble) return *trouble;

    const std::string document = xmlDocument(current.list);
    if (!decodesTo(document, current.list)) return reportRoundTrip(VarnScriptRepository::kListName);
    files_.commit(error);
    if (error) return reportFailure(error);
    const std::size_t content = files_.written();
    const ContentNames dropped = droppedContent(oldList, current);
    files_.add(VarnScriptRepository::kListName, document, error);
    if (error) return reportFailure(error);
    const bool replaces = files_.pending() > 0;
    if (replaces) replaceList(dropped, error);
    if (!error) removeContent(replaces, dropped, std::move(current.content), error);
    if (error) return reportFailure(error);
    return report(source, content, replaces);
  }

  // Last: what the list names is all there.
  void replaceList(const ContentNames& dropped, std::error_code& error) {
    // Before they have dropped out: an interruption must not shorten their grace.
    files_.noteDropped(dropped, error);
    // Servers send a compressed copy that lies beside a file without comparing the two. It goes
    // first: an interruption must not leave the old list's copy beside the new list.
    if (!error) files_.removeCompressedCopies(VarnScriptRepository::kListName, error);
    if (!error) files_.commit(error);
  }

  // A computer that has fetched the list that was replaced just now fetches what that one names.
  void removeContent(bool replaced, const ContentNames& dropped, ContentNames named,
                     std::error_code& error) {
    if (!replaced && !options_.keepFor) return files_.removeLeftovers(error);
    if (replaced) named.insert(dropped.begin(), dropped.end());
    files_.removeContentBut(named, options_.keepFor.value_or(std::chrono::seconds(0)), error);
  }

  // Adds every script's file and data document; an exit status when that went wrong.
  std::optional<int> addContent(const Source& source, PublishedState& state) {
    ScriptRepoAllMetaData& all = state.list.scriptsMeta.emplace_back();
    all.scriptRepo.reserve(source.scripts.size());
    for (const SourceScript& script : source.scripts) {
      std::error_code error;
      const std::string& file = script.entry.file.value;
      const std::string bytes =
          readScriptFile(options_.sourceDirectory, file, error, largestScript_);
      if (error || AgentUtils::hexDigest(AgentUtils::usualDigest(), bytes) != script.sha256) {
        writeErrorLine("varn-scripts: " + options_.sourceDirectory + "/" + file +
                       " has changed while it was published; publish again");
        return kExitUsage;
      }
      const ScriptRoot root = documentOf(script, source.digest, customer_);
      const std::string document = xmlDocument(root);
      const std::string name = documentName(document);
      if (!decodesTo(document, root)) return reportRoundTrip(name);

      files_.add(scriptFileName(script), bytes, error);
      if (!error) files_.add(name, document, error);
      if (error) return reportFailure(error);
      state.content.insert({scriptFileName(script), name});
      all.scriptRepo.push_back(entryOf(script, name, customer_));
    }
    return std::nullopt;
  }

  // Clients decode what is encoded here; a text that does not survive that must not be published.
  template <class Root>
  static bool decodesTo(const std::string& document, const Root& root) {
    const auto decoded = XML::parse(document, std::nullopt, false).toStruct<Root>();
    return decoded && decoded->size() == 1 && decoded->front() == root;
  }

  static int reportRoundTrip(const std::string& name) {
    writeErrorLine("varn-scripts: " + name + " would not decode to what is to be published");
    return kExitNotRun;
  }

  // What the list so far names and the new one does not.
  [[nodiscard]] ContentNames droppedContent(const std::string& oldList,
                                            const PublishedState& current) {
    const auto decoded = XML::parse(oldList, std::nullopt, false).toStruct<ScriptsRepoMetaRoot>();
    if (!decoded) return {};
    return contentOf(decoded->front(), current.content);
  }

  // What a list names and `current` does not: its data documents, and the script files that these
  // name in turn.
  [[nodiscard]] ContentNames contentOf(const ScriptsRepoMetaRoot& list,
                                       const ContentNames& current) {
    ContentNames content;
    for (const auto& all : list.scriptsMeta) {
      for (const auto& entry : all.scriptRepo) {
        if (!entry.scriptPathMapping) continue;
        for (const auto& mapping : *entry.scriptPathMapping) {
          addContentAt(mapping.filepath, current, content);
        }
      }
    }
    return content;
  }

  void addContentAt(const std::string& filepath, const ContentNames& current,
                    ContentNames& content) {
    const std::string directory = repositoryDirectory(customer_);
    const auto document = contentNameIn(filepath, directory);
    // The script file of a document that stays is that of the new list too.
    if (!document || current.contains(*document)) return;
    content.insert(*document);
    // A damaged document tells nothing of its script, and no client can take it either.
    std::error_code ignored;
    const auto roots =
        XML::parse(files_.read(*document, ignored), std::nullopt, false).toStruct<ScriptRoot>();
    if (!roots) return;
    for (const auto& item : roots->front().script) {
      for (const auto& file : item.files) {
        const auto name = contentNameIn(file.fileSystemLocation, directory);
        if (name && !current.contains(*name)) content.insert(*name);
      }
    }
  }

  [[nodiscard]] int report(const Source& source, std::size_t content, bool listWritten) const {
    std::string text = "Published " + counted(source.scripts.size(), "script", "scripts") +
                       " for customer " + customer_ + ": ";
    if (content == 0 && !listWritten && files_.removed() == 0) {
      text += "nothing has changed";
    } else {
      text += counted(content, "file", "files") + " written, " +
              (listWritten ? "the list replaced" : "the list unchanged") +
              (files_.copiesRemoved() > 0 ? " and its compressed copy removed, " : ", ") +
              counted(files_.removed(), "file", "files") + " removed";
    }
    return writeOutput(text + ".\n") ? kExitSuccess : kExitNotRun;
  }

  const PublishOptions& options_;
  const std::string customer_;
  const std::uint64_t largestScript_;
  ServerFiles files_;
  bool told_ = false;
  std::size_t warnings_ = 0;
};

}  // namespace

int publish(const CommandLine& line, const Settings& settings) {
  try {
    return Publisher(line.publish, settings).publish();
  } catch (const std::exception& error) {
    writeErrorLine("varn-scripts: nothing could be published: " + std::string(error.what()));
    return kExitNotRun;
  }
}

}  // namespace VarnScripts
