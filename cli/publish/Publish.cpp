#include "publish/Publish.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "Digest.h"
#include "Directories.h"
#include "ExitStatus.h"
#include "Reason.h"
#include "ScriptRepositoryRecords.h"
#include "StandardStreams.h"
#include "publish/Documents.h"
#include "publish/ListChanges.h"
#include "publish/ListToSign.h"
#include "publish/Parallel.h"
#include "publish/PublishedContent.h"
#include "publish/ServerFiles.h"
#include "publish/Signers.h"
#include "publish/Signing.h"
#include "publish/Source.h"
#include "publish/SourceDirectory.h"
#include "publish/Syntax.h"
#include "publish/XMLDocument.h"

namespace VarnScripts {
namespace {

using MarkupParser::XML;
using VarnScriptRepository::ScriptRepositoryMeta;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::ScriptsRepoMetaRoot;
using namespace publishing;

std::string counted(std::size_t count, const std::string& one, const std::string& many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

// The list that the tree has.
struct OldList {
  enum class Kind {
    none,
    known,    ///< made by this command
    foreign,  ///< anything else
  };

  Kind kind = Kind::none;
  std::string bytes;
  std::string complaint;     ///< of a foreign one
  ScriptsRepoMetaRoot list;  ///< empty when it can't be decoded, or is that of the source
};

// The list of the source.
struct NewList {
  ScriptsRepoMetaRoot list;
  std::string bytes;
  std::vector<std::string> documents;  ///< content names, in the order of the scripts
};

// What the tree holds of a script already.
struct Presence {
  bool script = false;
  bool document = false;
};

class Publisher {
 public:
  Publisher(const PublishOptions& options, const Settings& settings)
      : options_(options),
        settings_(settings),
        customer_(settings.agent.customerID),
        largestScript_(settings.agent.maxDownload),
        directory_(options.sourceDirectory),
        published_(files_, repositoryDirectory(customer_)) {}

  int publish() {
    if (const auto complaint = complaintAboutCustomer(customer_)) {
      writeErrorLine("varn-scripts: the customer " + quoted(customer_) + " " + *complaint +
                     "; no server tree can have a directory of this name");
      return kExitUsage;
    }
    if (const auto trouble = takeSigners()) return *trouble;
    const std::string repository = repositoryDirectory(customer_);
    if (options_.signing.renew) return renew(repository);
    if (options_.check || leaves()) {
      files_.look(options_.outputDirectory, repository);
      if (const auto trouble = prepare()) return *trouble;
      return leaves() ? leave() : check();
    }
    // A tree that is there already is taken before the source is looked at: whoever had it before
    // may have published an older look. Another one is made only when there is something for it.
    std::error_code error;
    files_.openPublished(options_.outputDirectory, repository, error);
    if (error) return reportFailure(error);
    const bool wasOpen = files_.isOpen();
    if (const auto trouble = prepare()) return *trouble;
    files_.open(options_.outputDirectory, repository, error);
    if (error) return reportFailure(error);
    if (!wasOpen) {
      if (const auto trouble = prepare()) return *trouble;
    }
    return write();
  }

 private:
  // Reads the keys, when anything is to be signed. An exit status when they can't be had, which has
  // been reported then.
  std::optional<int> takeSigners() {
    if (!options_.signing.any()) return std::nullopt;
    if (!AgentUtils::signing::canBeSigned(customer_)) {
      return refuse("no signature can name the customer " + quoted(customer_));
    }
    auto signers = signersFor(options_.signing);
    if (const auto* const why = std::get_if<NoSigners>(&signers)) {
      writeErrorLine("varn-scripts: " + why->sentence);
      return why->exitStatus;
    }
    signing_.emplace(std::move(std::get<Signers>(signers)), customer_,
                     options_.signing.lifetime.value_or(publishing::kUsualLifetime));
    return std::nullopt;
  }

  // Whether the list is left to be signed elsewhere, and nothing is published.
  [[nodiscard]] bool leaves() const { return !options_.signing.leaveIn.empty(); }

  static UTCTime now() {
    return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  }

  static int refuse(const std::string& sentence) {
    writeErrorLine("varn-scripts: " + sentence);
    return kExitUsage;
  }

  // Looks at the source and at what is published, and compares them. An exit status when nothing
  // can be done, which has been reported then.
  std::optional<int> prepare() {
    if (!look()) return kExitUsage;
    if (const auto trouble = readOldList()) return trouble;
    makeNewList();
    judgeOldList();
    changes_ = {};
    if (old_.bytes != new_.bytes) {
      changes_ = listChanges(
          old_.list, new_.list, [this](const auto& entry) { return published_.documentOf(entry); },
          [this](const auto& entry) { return newDocumentOf(entry); });
    }
    if (const auto trouble = lookAtSignatures()) return trouble;
    if (!allowed()) return kExitUsage;
    if (!signing_ || leaves()) return std::nullopt;
    const auto why = signing_->sign(new_.bytes, now());
    return why ? std::optional(refuse(why->sentence)) : std::nullopt;
  }

  // What the tree has of signatures, whoever made them.
  std::optional<int> lookAtSignatures() {
    std::error_code error;
    if (signing_) signing_->look(files_, error);
    if (!error) oldSignatures_ = signaturesOf(old_.bytes, error);
    return error ? std::optional(reportUnread(error)) : std::nullopt;
  }

  // The names of the tree's signatures over the list.
  ContentNames signaturesOf(const std::string& list, std::error_code& error) {
    ContentNames names;
    const auto all = files_.signatures(error);
    if (all.empty()) return names;
    const std::string digest = AgentUtils::hexDigest(AgentUtils::usualDigest(), list);
    for (const std::string& name : all) {
      if (signedListIn(name) == digest) names.insert(name);
    }
    return names;
  }

  [[nodiscard]] int reportUnread(const std::error_code& error) const {
    writeErrorLine("varn-scripts: " + files_.failedPath() + " can't be read: " + error.message());
    return kExitNotRun;
  }

  // Reads and checks the source. False when it is refused, which has been reported then.
  bool look() {
    Findings findings;
    source_ = readSource(
        {options_.sourceDirectory, options_.digest, options_.allowRemoval, largestScript_},
        findings);
    if (findings.refusals() == 0) {
      lookForScripts();
      lookAtSyntax(findings);
    }
    const bool refused = findings.refusals() > 0 || (options_.strict && findings.warnings() > 0);
    // What was reported at the first look is not reported again.
    if (refused || !told_) tell(findings);
    told_ = true;
    warnings_ = findings.warnings();
    if (refused) reportRefusal(findings);
    return !refused;
  }

  void lookForScripts() {
    isThere_.assign(source_.scripts.size(), {});
    forEachIndex(source_.scripts.size(), [this](std::size_t index) {
      isThere_[index].script = files_.holds(scriptFileName(source_.scripts[index]));
    });
  }

  // What is published already was looked at when it came, and is not again unless somebody wants to
  // know.
  void lookAtSyntax(Findings& findings) {
    const bool isAsked = options_.check || options_.strict;
    std::vector<std::string> paths;
    for (std::size_t index = 0; index < source_.scripts.size(); ++index) {
      const SourceScript& script = source_.scripts[index];
      if (isThere_[index].script && !isAsked) continue;
      if (!read_.insert(scriptFileName(script) + script.entry.file.value).second) continue;
      paths.push_back(options_.sourceDirectory + "/" + script.entry.file.value);
    }
    checkSyntax(paths, findings);
  }

  void reportRefusal(const Findings& findings) const {
    std::string line = "varn-scripts: nothing is published: " +
                       counted(findings.refusals(), "refusal", "refusals");
    if (findings.warnings() > 0) {
      line += " and " + counted(findings.warnings(), "warning", "warnings");
    }
    if (findings.refusals() == 0) line += ", refused by --strict";
    writeErrorLine(line);
  }

  void tell(const Findings& findings) const {
    if (findings.all().empty()) return;
    // In the order of the manifest's lines, and then file by file, its scripts first.
    std::map<std::string, std::size_t> files = {
        {options_.sourceDirectory + "/" + kManifestName, 0}};
    for (const SourceScript& script : source_.scripts) {
      files.try_emplace(options_.sourceDirectory + "/" + script.entry.file.value, files.size());
    }
    std::vector<Finding> ordered = findings.all();
    for (const Finding& finding : ordered) files.try_emplace(finding.place.file, files.size());
    std::stable_sort(ordered.begin(), ordered.end(), [&](const Finding& a, const Finding& b) {
      return std::pair(files[a.place.file], a.place.line) <
             std::pair(files[b.place.file], b.place.line);
    });
    for (const Finding& finding : ordered) writeErrorLine(textOf(finding));
  }

  std::optional<int> readOldList() {
    old_ = {};
    std::error_code error;
    auto bytes = files_.read(VarnScriptRepository::kListName, error);
    if (error == std::errc::invalid_argument || error == std::errc::too_many_symbolic_link_levels) {
      old_.kind = OldList::Kind::foreign;
      old_.complaint = "it is no regular file";
    } else if (error) {
      return reportUnread(error);
    } else if (bytes) {
      old_.kind = OldList::Kind::known;
      old_.bytes = std::move(*bytes);
    }
    return std::nullopt;
  }

  void makeNewList() {
    new_ = {};
    const std::size_t count = source_.scripts.size();
    auto& entries = new_.list.scriptsMeta.emplace_back().scriptRepo;
    entries.resize(count);
    new_.documents.resize(count);
    forEachIndex(count, [&](std::size_t index) {
      const SourceScript& script = source_.scripts[index];
      std::string& name = new_.documents[index];
      name = documentName(xmlDocument(documentOf(script, source_.digest, customer_)));
      entries[index] = entryOf(script, name, customer_);
      isThere_[index].document = files_.holds(name);
    });
    new_.bytes = xmlDocument(new_.list);
  }

  void judgeOldList() {
    // What is equal needs no decoding: nothing is taken from it.
    if (old_.kind != OldList::Kind::known || old_.bytes == new_.bytes) return;
    auto decoded = XML::parse(old_.bytes, std::nullopt, false).toStruct<ScriptsRepoMetaRoot>();
    if (!decoded) {
      old_.complaint = "it can't be decoded";
    } else {
      old_.list = std::move(decoded->front());
      old_.complaint = complaintAboutList(old_.list, repositoryDirectory(customer_)).value_or("");
    }
    if (!old_.complaint.empty()) old_.kind = OldList::Kind::foreign;
  }

  // Whether a signed list would be replaced without a signature, and nobody has asked for that.
  [[nodiscard]] bool lacksKey() const {
    return !signing_ && !options_.signing.withoutSignature && old_.bytes != new_.bytes &&
           !oldSignatures_.empty();
  }

  // Whether the old list may go without being asked for. What is refused has been reported then.
  bool allowed() {
    Findings findings;
    const std::string list = files_.pathOf(VarnScriptRepository::kListName);
    // A check publishes nothing, and whoever checks a change need not have the key.
    if (!options_.check && lacksKey()) {
      findings.refuse({list},
                      "the list there is signed, and computers that trust a key refuse one that is "
                      "not",
                      "give --sign-with, or --unsigned to publish without a signature");
    }
    if (options_.allowRemoval) {
      // Whatever drops out has leave to.
    } else if (old_.kind == OldList::Kind::foreign) {
      findings.refuse({list}, "the list there was not made by publish: " + old_.complaint,
                      "publish to another directory, or give --allow-removal to replace it");
    } else if (changes_.dropsMany()) {
      announce();
      findings.refuse({options_.sourceDirectory + "/" + kManifestName},
                      "the manifest drops " + std::to_string(changes_.dropped) + " of " +
                          counted(changes_.before, "published script", "published scripts") +
                          ", and every computer would remove what it has of them",
                      "list them, or give --allow-removal");
    }
    if (findings.refusals() == 0) return true;
    tell(findings);
    reportRefusal(findings);
    return false;
  }

  // Says what becomes of each ID.
  void announce() { announced_ = changes_.lines.empty() || writeOutput(changes_.lines); }

  // The files of the new list that the server lacks, as far as it has a list.
  [[nodiscard]] std::set<std::string> missingFiles() {
    std::set<std::string> missing;
    if (old_.kind == OldList::Kind::none) return missing;
    for (std::size_t index = 0; index < source_.scripts.size(); ++index) {
      if (!isThere_[index].script) missing.insert(scriptFileName(source_.scripts[index]));
      if (!isThere_[index].document) missing.insert(new_.documents[index]);
    }
    return missing;
  }

  // What would be written, and whether there is any.
  int check() {
    const std::set<std::string> missing = missingFiles();
    const bool replaces = old_.kind != OldList::Kind::none && old_.bytes != new_.bytes;
    const bool signs = old_.kind != OldList::Kind::none && signing_ && !signing_->files().empty();
    const auto expiry = remarkOnTime();
    const bool hasExpired = !replaces && expiry && expiry->hasExpired;
    const bool pending = replaces || signs || hasExpired || !missing.empty();
    if (old_.kind != OldList::Kind::none) announce();
    std::string text =
        "Checked " + counted(source_.scripts.size(), "script", "scripts") + ": " +
        (warnings_ == 0 ? "nothing to say" : counted(warnings_, "warning", "warnings"));
    if (pending) {
      text += "; " + counted(missing.size(), "file", "files") + " to be written, " +
              (replaces ? "the list to be replaced" : "the list unchanged");
      if (signs) {
        text += ", to be signed " + signing_->summary();
      } else if (hasExpired || lacksKey()) {
        text += hasExpired ? ", to be signed anew" : ", to be signed";
      }
    }
    if (!announced_ || !writeOutput(text + ".\n")) return kExitNotRun;
    remarkOnKeys();
    if (!pending || hasExpired) remark();
    return pending ? kExitPending : kExitSuccess;
  }

  [[nodiscard]] int reportFailure(const std::error_code& error) const {
    writeErrorLine("varn-scripts: " + files_.failedPath() +
                   " can't be written: " + error.message());
    return kExitNotRun;
  }

  int write() {
    announce();
    for (std::size_t index = 0; index < source_.scripts.size(); ++index) {
      if (const auto trouble = addContent(index)) return *trouble;
    }
    const bool isNew = old_.bytes != new_.bytes;
    if (isNew && !decodesTo(new_.bytes, new_.list)) {
      return reportRoundTrip(VarnScriptRepository::kListName);
    }
    std::error_code error;
    files_.commit(error);
    if (error) return reportFailure(error);
    const std::size_t content = files_.written();
    addSignatures(error);
    if (error) return reportFailure(error);
    files_.add(VarnScriptRepository::kListName, new_.bytes, error);
    if (error) return reportFailure(error);
    const bool replaces = files_.pending() > 0;
    if (replaces || options_.keepFor) {
      replaceContent(replaces, error);
    } else {
      files_.removeLeftovers(error);
    }
    if (error) return reportFailure(error);
    return report(content, replaces);
  }

  // Before the list: one that is there has its signatures. A list that has been there before may
  // have older ones, which are replaced one by one.
  void addSignatures(std::error_code& error) {
    if (!signing_ || signing_->files().empty()) return;
    files_.makePlaceForSignatures(error);
    for (const SignatureFile& file : signing_->files()) {
      if (!error) files_.removeCompressedCopies(file.name, error);
      if (!error) files_.add(file.name, file.bytes, error);
    }
    if (!error) files_.commit(error);
    signatureCopies_ = files_.copiesRemoved();
  }

  // Signs the published list once more and leaves everything else as it is.
  int renew(const std::string& repository) {
    std::error_code error;
    files_.look(options_.outputDirectory, repository);
    if (!options_.check) files_.openPublished(options_.outputDirectory, repository, error);
    if (error) return reportFailure(error);
    if (const auto trouble = readOldList()) return *trouble;
    if (old_.kind != OldList::Kind::known) {
      return refuse(files_.pathOf(VarnScriptRepository::kListName) + " is no list to be renewed");
    }
    signing_->look(files_, error);
    if (error) return reportUnread(error);
    if (const auto why = signing_->renew(old_.bytes, now())) return refuse(why->sentence);
    if (options_.check) {
      return tellOfRenewal("The list is to be signed ") ? kExitPending : kExitNotRun;
    }
    // A tree that was copied here has no lock yet.
    if (!files_.isOpen()) files_.open(options_.outputDirectory, repository, error);
    if (!error) addSignatures(error);
    if (!error) files_.removeLeftovers(error);
    if (error) return reportFailure(error);
    return tellOfRenewal("Signed ") ? kExitSuccess : kExitNotRun;
  }

  bool tellOfRenewal(const std::string& done) {
    if (!writeOutput(done + signing_->summary() + ".\n")) return false;
    remarkOnKeys();
    return true;
  }

  // Leaves the list where somebody else takes it to be signed; the tree is not touched.
  int leave() {
    if (!decodesTo(new_.bytes, new_.list)) return reportRoundTrip(VarnScriptRepository::kListName);
    const auto comment = signing_->commentFor(new_.bytes, now());
    if (const auto* const why = std::get_if<Refusal>(&comment)) return refuse(why->sentence);
    const auto& said = std::get<SignedComment>(comment);
    std::error_code error;
    std::string path = options_.signing.leaveIn;
    if (const auto why =
            makePlaceForSigning(path, options_.sourceDirectory, options_.outputDirectory,
                                repositoryDirectory(customer_), error)) {
      return refuse(path + " is not used: " + *why);
    }
    announce();
    if (!error)
      leaveForSigning(options_.signing.leaveIn, new_.bytes, said, signing_->keyNumbers(), error,
                      path);
    if (error) {
      writeErrorLine("varn-scripts: " + path + " can't be written: " + error.message());
      return kExitNotRun;
    }
    std::string text = "The list is in " + options_.signing.leaveIn +
                       ", to be signed with the serial " + std::to_string(said.serial) + " until " +
                       utcTimeText(said.expires) + ". There:\n";
    for (const auto& command : signingCommands(signing_->keyNumbers())) text += command + "\n";
    return announced_ && writeOutput(text) ? kExitSuccess : kExitNotRun;
  }

  // On a signature of the published list that counts no more, or soon will not.
  std::optional<ExpiryRemark> remarkOnTime() {
    return signing_ ? signing_->remark() : remarkOnSignatures(files_, oldSignatures_, now());
  }

  // On what computers that need several signatures would miss.
  void remarkOnKeys() {
    if (!signing_) return;
    for (const std::string& sentence : signing_->missing()) writeRemark(sentence, settings_);
    for (const std::string& sentence : signing_->otherSerials()) writeRemark(sentence, settings_);
  }

  void remark() {
    if (signing_ && options_.signing.lifetime && signing_->files().empty()) {
      return writeRemark(
          "--expires changes nothing: the signature stays as it is; publish --renew "
          "makes a new one",
          settings_);
    }
    if (const auto expiry = remarkOnTime()) writeRemark(expiry->text, settings_);
  }

  // Last: what the list names is all there. A computer that has fetched the list that is replaced
  // fetches what that one names.
  void replaceContent(bool listToo, std::error_code& error) {
    ContentNames named(new_.documents.begin(), new_.documents.end());
    for (const SourceScript& script : source_.scripts) named.insert(scriptFileName(script));
    named.merge(signaturesOf(new_.bytes, error));
    if (error) return;
    if (listToo) {
      ContentNames dropped = published_.contentOf(old_.list, named);
      if (old_.bytes != new_.bytes) dropped.insert(oldSignatures_.begin(), oldSignatures_.end());
      replaceList(dropped, error);
      if (error) return;
      named.insert(dropped.begin(), dropped.end());
    }
    files_.removeContentBut(named, options_.keepFor.value_or(std::chrono::seconds(0)), error);
  }

  void replaceList(const ContentNames& dropped, std::error_code& error) {
    // Before they have dropped out: an interruption must not shorten their grace.
    files_.noteDropped(dropped, error);
    // Servers send a compressed copy that lies beside a file without comparing the two. It goes
    // first: an interruption must not leave the old list's copy beside the new list.
    if (!error) files_.removeCompressedCopies(VarnScriptRepository::kListName, error);
    if (!error) files_.commit(error);
  }

  // Adds a script's file and its data document where the tree does not have them yet; an exit
  // status when that went wrong.
  std::optional<int> addContent(std::size_t index) {
    const SourceScript& script = source_.scripts[index];
    const std::string& documentsName = new_.documents[index];
    std::error_code error;
    if (!isThere_[index].script) {
      const std::string& file = script.entry.file.value;
      const std::string bytes = directory_.read(file, error, largestScript_);
      if (error || AgentUtils::hexDigest(AgentUtils::usualDigest(), bytes) != script.sha256) {
        writeErrorLine("varn-scripts: " + options_.sourceDirectory + "/" + file +
                       " has changed while it was published; publish again");
        return kExitUsage;
      }
      files_.add(scriptFileName(script), bytes, error);
      if (error) return reportFailure(error);
    }
    if (isThere_[index].document) return std::nullopt;
    const ScriptRoot root = documentOf(script, source_.digest, customer_);
    const std::string document = xmlDocument(root);
    if (!decodesTo(document, root)) return reportRoundTrip(documentsName);
    files_.add(documentsName, document, error);
    if (error) return reportFailure(error);
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

  // The document of the source for an entry of the new list.
  std::optional<ScriptRoot> newDocumentOf(const ScriptRepositoryMeta& entry) {
    const auto index = &entry - new_.list.scriptsMeta.front().scriptRepo.data();
    return documentOf(source_.scripts[static_cast<std::size_t>(index)], source_.digest, customer_);
  }

  [[nodiscard]] int report(std::size_t content, bool listWritten) {
    // Nobody reads it.
    if (!announced_) return kExitNotRun;
    std::string text = "Published " + counted(source_.scripts.size(), "script", "scripts") +
                       " for customer " + customer_ + ": ";
    const bool isSigned = signing_ && (listWritten || !signing_->files().empty());
    if (content == 0 && !listWritten && !isSigned && files_.removed() == 0) {
      text += "nothing has changed";
    } else {
      text += counted(content, "file", "files") + " written, " +
              (listWritten ? "the list replaced" : "the list unchanged") +
              (files_.copiesRemoved() > signatureCopies_ ? " and its compressed copy removed, "
                                                         : ", ") +
              counted(files_.removed(), "file", "files") + " removed";
    }
    text += ".\n";
    if (isSigned) text += "Signed " + signing_->summary() + ".\n";
    if (!writeOutput(text)) return kExitNotRun;
    remarkOnKeys();
    if (!listWritten) remark();
    return kExitSuccess;
  }

  const PublishOptions& options_;
  const Settings& settings_;
  const std::string customer_;
  const std::uint64_t largestScript_;
  SourceDirectory directory_;
  ServerFiles files_;
  PublishedContent published_;
  Source source_;
  OldList old_;
  NewList new_;
  ListChanges changes_;
  std::optional<Signing> signing_;   ///< when anything is to be signed
  ContentNames oldSignatures_;       ///< of the old list
  std::size_t signatureCopies_ = 0;  ///< compressed copies of signatures that were removed
  std::vector<Presence> isThere_;    ///< of each script
  std::set<std::string> read_;       ///< whose syntax was looked at: content and file name
  bool announced_ = true;            ///< what was to be said so far could be
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
