#include "publish/Signers.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "ExitStatus.h"
#include "WholeFiles.h"
#include "key/KeyFiles.h"
#include "signing/ListSignature.h"

namespace VarnScripts::publishing {
namespace {

using AgentUtils::signing::keyName;
using AgentUtils::signing::kLongestSignatureFile;

// The secret key in the file; `next` counts the passphrase files that have been used.
std::variant<keys::SecretKey, Refusal> secretKeyAt(const std::string& path,
                                                   const std::vector<std::string>& passphraseFiles,
                                                   std::size_t& next) {
  return keys::secretKeyIn(path, [&] {
    if (passphraseFiles.empty()) return keys::passphraseOf(path, "")();
    const std::size_t last = passphraseFiles.size() - 1;
    return keys::passphraseOf(path, passphraseFiles[std::min(next++, last)])();
  });
}

// What is wrong when one key is given twice, be it under two numbers, or two that have one number:
// the names of their signatures would be the same.
std::optional<NoSigners> complaintAbout(const Signers& signers) {
  if (const auto why = AgentUtils::signing::complaintAboutNumbers(signers.all())) {
    return NoSigners{why->sentence, kExitUsage};
  }
  std::set<AgentUtils::signing::KeyNumber> numbers;
  for (const PublicKey& key : signers.all()) {
    if (!numbers.insert(key.number).second) {
      return NoSigners{"the key " + keyName(key.number) + " is given twice", kExitUsage};
    }
  }
  return std::nullopt;
}

}  // namespace

std::vector<PublicKey> Signers::all() const {
  std::vector<PublicKey> all;
  for (const keys::SecretKey& key : here) all.push_back(key.publicKey());
  all.insert(all.end(), elsewhere.begin(), elsewhere.end());
  return all;
}

std::variant<Signers, NoSigners> signersFor(const SigningOptions& options) {
  Signers signers;
  for (const std::string& given : options.signedBy) {
    auto key = keys::publicKeyGiven(given);
    if (const auto* const why = std::get_if<Refusal>(&key)) {
      return NoSigners{why->sentence, kExitUsage};
    }
    signers.elsewhere.push_back(std::get<PublicKey>(key));
  }
  for (const std::string& path : options.attached) {
    std::error_code error;
    // One byte more than is taken, so that a long one is refused by its own sentence.
    auto file =
        posix::readRegularFile(path, posix::LastLink::follow, error, kLongestSignatureFile + 1);
    if (error) {
      return NoSigners{"the signature " + path + " can't be read: " + posix::whyNotRead(error),
                       kExitNotRun};
    }
    const auto signature = AgentUtils::signing::parseSignature(file.bytes);
    if (const auto* const why = std::get_if<Refusal>(&signature)) {
      return NoSigners{path + ": " + why->sentence, kExitUsage};
    }
    signers.attached.push_back(std::move(file.bytes));
  }
  std::size_t next = 0;
  for (const std::string& path : options.keyFiles) {
    auto key = secretKeyAt(path, options.passphraseFiles, next);
    if (const auto* const why = std::get_if<Refusal>(&key)) {
      return NoSigners{why->sentence, kExitNotRun};
    }
    signers.here.push_back(std::move(std::get<keys::SecretKey>(key)));
  }
  if (auto why = complaintAbout(signers)) return std::move(*why);
  return signers;
}

}  // namespace VarnScripts::publishing
