#include "key/Key.h"

#include <chrono>
#include <optional>
#include <system_error>
#include <utility>
#include <variant>

#include "Calls.h"
#include "CommandLine.h"
#include "Digest.h"
#include "ExitStatus.h"
#include "Reason.h"
#include "StandardStreams.h"
#include "TrustedKeys.h"
#include "WholeFiles.h"
#include "key/CoreDumps.h"
#include "key/KeyFiles.h"
#include "key/Passphrase.h"
#include "key/SecretKey.h"
#include "signing/ListSignature.h"
#include "signing/TrustDecision.h"

namespace VarnScripts {
namespace {

namespace signing = AgentUtils::signing;
using keys::Passphrase;
using keys::PublicKey;
using keys::Refusal;
using keys::SecretKey;
using posix::LastLink;
using posix::readRegularFile;
using posix::whyNotRead;

int report(const std::string& sentence, int exitStatus) {
  writeErrorLine("varn-scripts: " + sentence);
  return exitStatus;
}

int writePublicKey(const PublicKey& key) {
  return writeOutput(publicKeyFile(key)) ? kExitSuccess : kExitNotRun;
}

// The passphrase for a new key, typed twice on a terminal.
std::variant<Passphrase, Refusal> newPassphrase(const KeyOptions& options) {
  if (!options.passphraseFile.empty()) return keys::passphraseIn(options.passphraseFile);
  auto first = keys::askForPassphrase("Passphrase for " + options.file + ": ");
  if (std::holds_alternative<Refusal>(first)) return first;
  auto second = keys::askForPassphrase("The same once more: ");
  if (std::holds_alternative<Refusal>(second)) return second;
  if (std::get<Passphrase>(first).text() == std::get<Passphrase>(second).text()) return first;
  return Refusal{"the two passphrases are not the same"};
}

std::variant<PublicKey, Refusal> publicKeyOf(const KeyOptions& options) {
  auto given = keys::publicKeyGiven(options.file);
  if (std::holds_alternative<PublicKey>(given)) return given;
  auto secret =
      keys::secretKeyIn(options.file, keys::passphraseOf(options.file, options.passphraseFile));
  if (auto* const why = std::get_if<Refusal>(&secret)) return std::move(*why);
  return std::get<SecretKey>(secret).publicKey();
}

// What the files at `paths` hold.
std::variant<std::vector<std::string>, Refusal> signaturesAt(const std::vector<std::string>& paths,
                                                             bool mayBeMissing) {
  std::vector<std::string> files;
  for (const std::string& path : paths) {
    std::error_code error;
    // One byte more than is taken, so that a long one is refused by its own sentence.
    auto file = readRegularFile(path, LastLink::follow, error, signing::kLongestSignatureFile + 1);
    if (error == std::errc::no_such_file_or_directory && mayBeMissing) continue;
    if (error) return Refusal{"the signature " + path + " can't be read: " + whyNotRead(error)};
    files.push_back(std::move(file.bytes));
  }
  return files;
}

std::vector<std::string> pathsBeside(const std::string& list, const std::string& bytes,
                                     const signing::TrustPolicy& policy) {
  std::vector<std::string> paths;
  const std::string digest = AgentUtils::hexDigest(AgentUtils::usualDigest(), bytes);
  for (const std::string& name : signing::signatureNames(digest, policy.keys)) {
    paths.push_back(posix::directoryOf(list) + "/" + name);
  }
  return paths;
}

// The customer that the first of the signatures that names one is for.
std::string customerOf(const std::vector<std::string>& signatureFiles) {
  for (const std::string& file : signatureFiles) {
    const auto signature = signing::parseSignature(file);
    if (!std::holds_alternative<signing::ListSignature>(signature)) continue;
    const auto comment =
        signing::parseSignedComment(std::get<signing::ListSignature>(signature).comment);
    if (const auto* const known = std::get_if<signing::SignedComment>(&comment)) {
      return known->customer;
    }
  }
  return {};
}

// The remark on a key that is cheaper to guess at than others.
std::optional<std::string> remarkOnCost(const std::string& file, keys::PassphraseCost cost) {
  if (cost.memory >= keys::kUsualCost.memory) return std::nullopt;
  return "there is too little memory to protect " + file +
         " as well as usual: to try a passphrase takes " + std::to_string(cost.memory >> 20) +
         " MiB of it in place of " + std::to_string(keys::kUsualCost.memory >> 20);
}

signing::UTCTime now() {
  return std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
}

}  // namespace

int generateKey(const CommandLine& line, const Settings& settings) {
  const KeyOptions& options = line.key;
  const std::string publicPath = options.file + ".pub";
  keys::forbidCoreDumps();
  if (const auto why = keys::complaintAboutNewKey(options.file, publicPath)) {
    return report(why->sentence, kExitNotRun);
  }
  const SecretKey key = keys::makeSecretKey();
  keys::ProtectedKey made{{}, keys::kUsualCost};
  if (options.noPassphrase) {
    made.text = plainKeyText(key);
  } else {
    const auto passphrase = newPassphrase(options);
    if (const auto* const why = std::get_if<Refusal>(&passphrase)) {
      return report(why->sentence, kExitNotRun);
    }
    auto locked = protectedKeyText(key, std::get<Passphrase>(passphrase));
    if (const auto* const why = std::get_if<Refusal>(&locked)) {
      return report(why->sentence, kExitNotRun);
    }
    made = std::move(std::get<keys::ProtectedKey>(locked));
  }
  const PublicKey publicKey = key.publicKey();
  const auto why = keys::writeKeyFiles(options.file, made.text, publicPath, publicKey);
  if (why) return report(why->sentence, kExitNotRun);
  if (const auto text = remarkOnCost(options.file, made.cost)) writeRemark(*text, settings);
  return writePublicKey(publicKey);
}

int showKey(const CommandLine& line, const Settings& /*settings*/) {
  keys::forbidCoreDumps();
  const auto key = publicKeyOf(line.key);
  if (const auto* const why = std::get_if<Refusal>(&key)) return report(why->sentence, kExitNotRun);
  return writePublicKey(std::get<PublicKey>(key));
}

int verifyList(const CommandLine& line, const Settings& settings) {
  const KeyOptions& options = line.key;
  auto trusted = trustedKeysOf(settings);
  if (const auto* const error = std::get_if<SettingsError>(&trusted)) {
    return report(error->line, kExitUsage);
  }
  signing::TrustPolicy policy{
      std::move(std::get<std::vector<PublicKey>>(trusted)), settings.agent.signaturesNeeded, {}};
  std::error_code error;
  const posix::RegularFile list = readRegularFile(options.file, LastLink::follow, error);
  if (error) {
    return report("the list " + options.file + " can't be read: " + whyNotRead(error), kExitNotRun);
  }
  const bool beside = options.signatures.empty();
  const auto files = signaturesAt(
      beside ? pathsBeside(options.file, list.bytes, policy) : options.signatures, beside);
  if (const auto* const why = std::get_if<Refusal>(&files)) {
    return report(why->sentence, kExitNotRun);
  }
  const auto& signatures = std::get<std::vector<std::string>>(files);
  policy.customer =
      settings.agent.customerID.empty() ? customerOf(signatures) : settings.agent.customerID;
  const auto judgement = judgeList(list.bytes, signatures, policy, {policy.customer, {}}, now());
  if (const auto* const why = std::get_if<Refusal>(&judgement)) {
    return report(options.file + ": " + why->sentence, kExitRejected);
  }
  const auto& accepted = std::get<signing::Acceptance>(judgement);
  return writeOutput(options.file + ": " + whoSigned(accepted) + "\n") ? kExitSuccess : kExitNotRun;
}

}  // namespace VarnScripts
