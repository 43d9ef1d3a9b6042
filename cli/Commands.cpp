#include "Commands.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <system_error>
#include <vector>

#include "CommandLine.h"
#include "List.h"
#include "Plan.h"
#include "Prune.h"
#include "Run.h"
#include "ScriptRules.h"
#include "key/Key.h"
#include "publish/Publish.h"

namespace VarnScripts {
namespace {

// An empty list accepts nothing, while the server's empty list accepts the empty code.
std::vector<std::string> splitCodes(const std::string& list) {
  if (list.empty()) return {};
  std::vector<std::string> codes = VarnScriptRepository::codesIn(list);
  for (const std::string& code : codes) {
    int number = -1;
    std::from_chars(code.data(), code.data() + code.size(), number);
    // Codes are compared as texts: "03" would never be met.
    if (number < 0 || number > 255 || code != std::to_string(number)) {
      throw CLI::ValidationError(std::string(kAcceptCodes),
                                 "no exit code can be \"" + code + "\": they are 0 to 255");
    }
  }
  return codes;
}

enum class Zero { taken, refused };

// Takes "7d" for 604800 seconds.
CLI::Validator durationInSeconds(Zero zero) {
  constexpr std::uint64_t kMost = std::uint64_t{100} * 366 * 86400;
  const std::map<std::string, std::uint64_t> units = {
      {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
  return {[units, zero](std::string& text) -> std::string {
            std::string what = "must be a time such as 7d, 12h, 30m or 45s: " + text;
            std::uint64_t number = 0;
            const char* const end = text.data() + text.size();
            const auto [rest, failure] = std::from_chars(text.data(), end, number);
            const auto unit = units.find(std::string(rest, end));
            if (failure != std::errc() || unit == units.end()) return what;
            if (number > kMost / unit->second) return what + " (it is too long)";
            if (number == 0 && zero == Zero::refused) return what + " (it is no time at all)";
            text = std::to_string(number * unit->second);
            return "";
          },
          ""};
}

CLI::Option* addOperand(CLI::App& to, const std::string& name, std::string& text,
                        const std::string& meaning) {
  return to.add_option(name, text, meaning)->required()->type_name("");
}

void addRunOptions(CLI::App& to, CommandLine& line) {
  addOperand(to, "SCRIPT_ID", line.scriptID, "The script's ID");
  to.add_option_function<std::string>(
        std::string(kAcceptCodes),
        [&line](const std::string& codes) { line.acceptCodes = splitCodes(codes); },
        "Exit codes that count as success, separated by commas, in place of the server's; an empty "
        "list accepts none")
      ->type_name("LIST");
  auto* const json = to.add_flag("--json", line.json, "Print the result as one JSON object");
  to.add_flag("--follow", line.follow,
              "Write the script's output as it comes, also where there is no terminal")
      ->excludes(json);
  to.add_flag("--no-wait", line.noWait,
              "Fail when another process runs the script, in place of waiting for its turn");
}

void addPlanOptions(CLI::App& to, CommandLine& line) {
  addOperand(to, "SCRIPT_ID", line.scriptID, "The script's ID");
  to.add_flag("--json", line.json, "Print the plan as one JSON object");
}

void addPruneOptions(CLI::App& to, CommandLine& line) {
  to.add_flag("--dry-run", line.dryRun, "Print the IDs of what would be removed, remove nothing");
  to.add_flag("--json", line.json, "Print what is removed as one JSON object");
}

void addListOptions(CLI::App& to, CommandLine& line) {
  to.add_flag(std::string(kServer), line.listServer,
              "List what the server has, and whether this computer is up to date; with a URL "
              "behind it, it is the setting");
  to.add_flag("--json", line.json, "Print a JSON array");
}

// A name that may be given several times; what follows the first may be an operand.
CLI::Option* addNames(CLI::App& to, const std::string& flag, std::vector<std::string>& names,
                      const std::string& meaning, const std::string& form) {
  return to.add_option(flag, names, meaning)->allow_extra_args(false)->type_name(form);
}

// Refuses one of the options without any of the others.
void needsOneOf(CLI::App& to, const std::string& flag, const std::vector<std::string>& others) {
  if (to.count(flag) == 0) return;
  std::string named;
  for (const std::string& other : others) {
    if (to.count(other) > 0) return;
    named += (named.empty() ? "" : " or ") + other;
  }
  throw CLI::ValidationError(flag, "needs " + named);
}

void refuseTogether(CLI::App& to, const std::string& flag, const std::vector<std::string>& others) {
  if (to.count(flag) == 0) return;
  for (const std::string& other : others) {
    if (to.count(other) > 0) throw CLI::ValidationError(flag, "excludes " + other);
  }
}

constexpr const char* kSourceDirectory = "SOURCE_DIR";
constexpr const char* kOutputDirectory = "OUTPUT_DIR";
constexpr const char* kSignWith = "--sign-with";
constexpr const char* kExpires = "--expires";
constexpr const char* kRenew = "--renew";
constexpr const char* kUnsignedFor = "--unsigned-for";
constexpr const char* kAttach = "--attach";
constexpr const char* kSignedBy = "--signed-by";
constexpr const char* kUnsigned = "--unsigned";
constexpr const char* kPassphraseFile = "--passphrase-file";

// What can't be said of a row alone.
void checkSigningOptions(CLI::App& to) {
  needsOneOf(to, kExpires, {kSignWith, kUnsignedFor});
  needsOneOf(to, kPassphraseFile, {kSignWith});
  needsOneOf(to, kRenew, {kSignWith});
  needsOneOf(to, kUnsignedFor, {kSignedBy});
  needsOneOf(to, kAttach, {kSignedBy});
  needsOneOf(to, kSignedBy, {kAttach, kUnsignedFor});
  refuseTogether(to, kRenew, {kAttach, kUnsignedFor, kUnsigned});
  refuseTogether(to, kUnsignedFor, {kSignWith, kAttach, kUnsigned, "--check"});
  refuseTogether(to, kUnsigned, {kSignWith, kAttach});
}

void addSigningOptions(CLI::App& to, publishing::SigningOptions& options) {
  addNames(to, kSignWith, options.keyFiles,
           "Sign the list with this secret key; may be given several times", "KEY_FILE");
  addNames(to, kPassphraseFile, options.passphraseFiles,
           "Where the passphrase of a key is, in place of asking the terminal: a file for its "
           "owner alone, or a pipe such as /dev/fd/3; once for each key, or once for all",
           "FILE");
  to.add_option_function<std::uint64_t>(
        kExpires,
        [&options](const std::uint64_t& seconds) {
          options.lifetime = std::chrono::seconds(seconds);
        },
        "How long the signature counts: 30d, 12h, 30m or 45s (default: 30d)")
      ->transform(durationInSeconds(Zero::refused))
      ->type_name("TIME");
  to.add_flag_callback(
      kRenew,
      [&to, &options] {
        options.renew = true;
        to.get_option(kSourceDirectory)->required(false);
      },
      "Sign the published list anew with the keys that have signed it, and change nothing "
      "else; SOURCE_DIR is not looked at and may be left out");
  to.add_option(kUnsignedFor, options.leaveIn,
                "Leave the list and what is to be signed with it in this directory, to be signed "
                "elsewhere, and publish nothing")
      ->type_name("DIR");
  addNames(to, kAttach, options.attached,
           "Publish with this signature, which was made elsewhere; may be given several times",
           "SIGNATURE");
  addNames(to, kSignedBy, options.signedBy,
           "The public key of who signs elsewhere, its line or its file; may be given several "
           "times",
           "KEY");
  to.add_flag(kUnsigned, options.withoutSignature,
              "Publish without a signature though the published list has one");
}

// The two directories; with --renew the output alone may be named.
void takeDirectories(CLI::App& to, PublishOptions& options) {
  if (to.count(kOutputDirectory) > 0) return;
  if (!options.signing.renew || to.count(kSourceDirectory) == 0) {
    throw CLI::RequiredError(kOutputDirectory);
  }
  options.outputDirectory.swap(options.sourceDirectory);
}

void addPublishOptions(CLI::App& to, CommandLine& line) {
  PublishOptions& options = line.publish;
  addOperand(to, kSourceDirectory, options.sourceDirectory,
             "Scripts and their manifest, scripts.toml");
  addOperand(to, kOutputDirectory, options.outputDirectory,
             "What the server serves; made when missing")
      ->required(false);
  to.add_option_function<std::uint64_t>(
        "--keep-for",
        [&options](const std::uint64_t& seconds) {
          options.keepFor = std::chrono::seconds(seconds);
        },
        "How long content stays that the list no longer names: 7d, 12h, 30m or 45s (default: until "
        "the list is replaced once more)")
      ->transform(durationInSeconds(Zero::taken))
      ->type_name("TIME");
  to.add_flag("--strict", options.strict, "Refuse what is a warning otherwise");
  to.add_flag("--check", options.check,
              "Check everything, tell what would be published, and write nothing");
  to.add_flag("--allow-removal", options.allowRemoval,
              "Drop all published scripts, or more than a third of ten or more, so that computers "
              "remove them; replace a list that publish has not made");
  to.add_option("--digest", options.digest,
                "Digest of the checksums (default: the manifest's, or sha256)")
      ->type_name("NAME");
  addSigningOptions(to, options.signing);
  to.final_callback([&to, &options] {
    takeDirectories(to, options);
    checkSigningOptions(to);
  });
}

void addPassphraseFile(CLI::App& to, CommandLine& line) {
  to.add_option(kPassphraseFile, line.key.passphraseFile,
                "Where the passphrase is, in place of asking the terminal: a file for its owner "
                "alone, or a pipe such as /dev/fd/3")
      ->type_name("FILE");
}

void addKeyGenerateOptions(CLI::App& to, CommandLine& line) {
  addOperand(to, "KEY_FILE", line.key.file,
             "The secret key's file; the public one is KEY_FILE.pub");
  addPassphraseFile(to, line);
  to.add_flag("--no-passphrase", line.key.noPassphrase,
              "Leave the key unprotected but for the file's mode")
      ->excludes(kPassphraseFile);
}

void addKeyShowOptions(CLI::App& to, CommandLine& line) {
  addOperand(to, "KEY", line.key.file, "The file of a key, or the line of a public one");
  addPassphraseFile(to, line);
}

void addKeyVerifyOptions(CLI::App& to, CommandLine& line) {
  addOperand(to, "LIST", line.key.file, "The list, scripts-meta.xml");
  // A further FILE needs a further flag: what follows may be the list.
  addNames(to, "--signature", line.key.signatures,
           "A signature's file, in place of those beside the list; may be given several times",
           "FILE");
}

constexpr Command kCommands[] = {
    {"run", "Fetch, verify and run one script",
     "0 accepted, 1 rejected, 2 usage or settings error, 3 not run.", NeededSettings::request,
     addRunOptions, run},
    {"plan", "Tell what run would do now, and change nothing",
     "0 a script would be run, 2 usage or settings error, 3 none would be.",
     NeededSettings::request, addPlanOptions, plan},
    {"prune", "Remove local copies of scripts the server dropped",
     "0 done, 2 usage or settings error, 3 the server's list or the store can't be had.",
     NeededSettings::request, addPruneOptions, prune},
    {"list", "List the local records, or the server's scripts",
     "0 done, 2 usage or settings error, 3 the store can't be read, or the\n"
     "server's list can't be had.",
     NeededSettings::localState, addListOptions, list},
    {"publish", "Turn a directory of scripts into a server's tree",
     "0 published, or nothing has changed; 2 usage or settings error, or refused;\n"
     "3 the tree can't be read or written; 4 --check: there is something to publish.",
     NeededSettings::customer, addPublishOptions, publish},
    {"key", "Make, show and try the keys that lists are signed with", "", NeededSettings::nothing,
     nullptr, nullptr},
    {"key generate", "Make a key, secret and public",
     "0 made, 2 usage or settings error, 3 the files can't be written.", NeededSettings::nothing,
     addKeyGenerateOptions, generateKey},
    {"key show", "Print the public key of a key",
     "0 done, 2 usage or settings error, 3 the key can't be read.", NeededSettings::nothing,
     addKeyShowOptions, showKey},
    {"key verify", "Tell whether a list is signed by trusted keys",
     "0 it is, 1 it is not, 2 usage or settings error, 3 a file can't be read.",
     NeededSettings::trustedKeys, addKeyVerifyOptions, verifyList},
};

}  // namespace

std::span<const Command> commands() { return kCommands; }

}  // namespace VarnScripts
