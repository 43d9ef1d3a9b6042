// What the commands have in common that ask the server and change nothing here: `plan`, `list
// --server` and `prune --dry-run`. The server's documents are fetched into a temporary directory,
// the store is read from a copy in it; base path and data path stay as they are.

#pragma once

#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "List.h"
#include "MarkupParser.h"
#include "PathGuard.h"
#include "Progress.h"
#include "Reason.h"
#include "ScriptRepositoryRecords.h"
#include "Settings.h"
#include "SignalForwarding.h"
#include "TemporaryDirectory.h"
#include "VarnScriptRepository/ScriptRunObserver.h"
#include "support/Files.h"

namespace VarnScripts {

/// The document of the kind `Root` in the file at `path`, or nothing, and `reason` is told which of
/// the two steps failed.
template <class Root>
[[nodiscard]] std::optional<Root> decodedFile(const std::string& path,
                                              VarnScriptRepository::RequestStep read,
                                              VarnScriptRepository::RequestStep decode,
                                              ReasonFinder& reason) {
  std::error_code error;
  std::string document = VarnScriptRepository::files::readWhole(path, error);
  if (error) {
    reason.stepFailed({read, path, VarnScriptRepository::files::description(error)});
    return std::nullopt;
  }
  auto roots = MarkupParser::XML::parse(std::move(document), std::nullopt, false).toStruct<Root>();
  if (roots) return std::move(roots->front());
  reason.stepFailed({decode, path, {}});
  return std::nullopt;
}

/// One inquiry, on the thread of the command. Constructed after `SignalForwarding`.
class Inquiry {
 public:
  /// About the script `scriptID`, or about all when it is empty. `settings` as long as this.
  Inquiry(const std::string& scriptID, const Settings& settings);
  Inquiry(const Inquiry&) = delete;
  Inquiry& operator=(const Inquiry&) = delete;

  /// Configures the agent modules and makes the temporary directory, which goes away with this, or
  /// when `signals` ends the process. After a failure the exit status, and standard error has the
  /// line for it.
  [[nodiscard]] std::optional<int> begin(SignalForwarding& signals);

  /// Clears the progress off the terminal: what is written next is the answer.
  void finish() { progress_.finish(); }

  [[nodiscard]] const Settings& settings() const { return settings_; }
  /// The path of `name` in the temporary directory. After `begin`.
  [[nodiscard]] std::string temporaryPath(const std::string& name) const {
    return temporary_->pathOf(name);
  }
  /// What the modules say of failures comes here.
  [[nodiscard]] ReasonFinder& reason() { return reason_; }
  [[nodiscard]] PathGuard& guard() { return guard_; }

  /// Why a request would be refused for what all requests and those for `scriptIDs` use, before
  /// it asks the server for anything; or nothing.
  [[nodiscard]] std::optional<Reason> refusal(const std::vector<std::string>& scriptIDs);

  /// The path of a copy of the store; empty without a store. Throws when there is one and no copy
  /// of it, with the cause.
  [[nodiscard]] const std::string& copyOfStore();

  /// All local records. `error` is a line that tells why a store that is there can't be read.
  [[nodiscard]] std::vector<ListedScript> records(std::optional<std::string>& error);

  /// The entries of the server's list; nothing when it can't be had.
  [[nodiscard]] std::optional<std::vector<VarnScriptRepository::ScriptRepositoryMeta>>
  fetchServerList();

  /// Who has signed that list, when keys are trusted.
  [[nodiscard]] const std::optional<AgentUtils::ListJudgement>& listSigners() const {
    return list_;
  }

  /// Why `fetchServerList` gave nothing.
  [[nodiscard]] Reason whyNoList() const;

 private:
  const Settings& settings_;
  Progress progress_;
  ReasonFinder reason_;
  PathGuard guard_{MissingDirectory::left};
  std::optional<TemporaryDirectory> temporary_;
  std::optional<std::string> copyOfStore_;
  std::optional<AgentUtils::ListJudgement> list_;
};

}  // namespace VarnScripts
