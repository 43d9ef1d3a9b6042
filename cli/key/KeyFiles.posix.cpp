#include "key/KeyFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <system_error>
#include <utility>

#include "Calls.h"
#include "StandardStreams.h"
#include "WholeFiles.h"
#include "key/CoreDumps.h"
#include "key/Passphrase.h"

namespace VarnScripts::keys {
namespace {

constexpr mode_t kSecretMode = S_IRUSR | S_IWUSR;
constexpr mode_t kPublicMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;

std::string modeText(mode_t mode) {
  std::string digits;
  for (const int shift : {9, 6, 3, 0}) digits += static_cast<char>('0' + (mode >> shift & 7));
  return digits;
}

Refusal notMade(const std::string& path, const std::error_code& error) {
  const bool isThere = error == std::errc::file_exists;
  return {"the key " + path + " can't be written: " +
          (isThere ? "it is there already, and no key is overwritten" : error.message())};
}

}  // namespace

std::string openToOthers(const struct stat& status) {
  if (status.st_uid != ::geteuid() && status.st_uid != 0) {
    return "it belongs to user " + std::to_string(status.st_uid);
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    return "others than its owner may use it (mode " + modeText(status.st_mode) +
           "); chmod 600 mends that";
  }
  return {};
}

std::variant<KeyFile, Refusal> readKeyFile(const std::string& path) {
  const auto refusal = [&path](const std::string& why) {
    return Refusal{"the key " + path + " can't be read: " + why};
  };
  std::error_code error;
  const posix::OpenedFile opened = posix::openRegularFile(path, posix::LastLink::follow, error);
  if (error && isStandardInput(opened.status)) return refusal(kStandardInputUnread);
  if (error) return refusal(posix::whyNotRead(error));
  KeyFile result{{}, openToOthers(opened.status)};
  KeyText& text = result.text;
  text.resize(posix::readInto(opened.descriptor.get(), text.data(), kLongestKeyFile, error));
  if (error) return refusal(error.message());
  if (text.size() == kLongestKeyFile) return refusal("it is too long for a key");
  return result;
}

AskPassphrase passphraseOf(std::string path, std::string passphraseFile) {
  return [path = std::move(path), passphraseFile = std::move(passphraseFile)] {
    return passphraseFile.empty() ? askForPassphrase("Passphrase of " + path + ": ")
                                  : passphraseIn(passphraseFile);
  };
}

std::variant<SecretKey, Refusal> secretKeyIn(const std::string& path, const AskPassphrase& ask) {
  forbidCoreDumps();
  auto read = readKeyFile(path);
  if (auto* const why = std::get_if<Refusal>(&read)) return std::move(*why);
  const auto& file = std::get<KeyFile>(read);
  const bool isOpen = !file.openToOthers.empty();
  bool isProtected = false;
  auto key = parseSecretKey(file.text.text(), [&]() -> std::variant<Passphrase, Refusal> {
    isProtected = true;
    if (isOpen) return Refusal{};
    return ask();
  });
  // What is no secret key at all has no mode to be mended.
  if (isOpen && (isProtected || std::holds_alternative<SecretKey>(key))) {
    return Refusal{"the secret key " + path + " is not used: " + file.openToOthers};
  }
  if (auto* const why = std::get_if<Refusal>(&key)) return Refusal{path + ": " + why->sentence};
  return key;
}

std::variant<PublicKey, Refusal> publicKeyGiven(const std::string& given) {
  auto key = AgentUtils::signing::parsePublicKey(given);
  const bool isPath = given.find('/') != given.npos || ::access(given.c_str(), F_OK) == 0;
  if (std::holds_alternative<PublicKey>(key)) return key;
  if (!isPath) {
    return Refusal{given + " is neither the line of a public key nor a file that is there"};
  }
  auto read = readKeyFile(given);
  if (auto* const why = std::get_if<Refusal>(&read)) return std::move(*why);
  key = AgentUtils::signing::parsePublicKey(std::get<KeyFile>(read).text.text());
  if (auto* const why = std::get_if<Refusal>(&key)) return Refusal{given + ": " + why->sentence};
  return key;
}

std::optional<Refusal> complaintAboutNewKey(const std::string& path,
                                            const std::string& publicPath) {
  for (const std::string& each : {path, publicPath}) {
    struct stat status {};
    if (::lstat(each.c_str(), &status) == 0) {
      return notMade(each, std::make_error_code(std::errc::file_exists));
    }
  }
  return std::nullopt;
}

std::optional<Refusal> writeKeyFiles(const std::string& path, const KeyText& secret,
                                     const std::string& publicPath, const PublicKey& key) {
  std::error_code error;
  posix::makeFile(path, secret.text(), kSecretMode, error);
  if (error) return notMade(path, error);
  posix::makeFile(publicPath, publicKeyFile(key), kPublicMode, error);
  if (error) {
    ::unlink(path.c_str());
    return notMade(publicPath, error);
  }
  posix::syncDirectory(posix::directoryOf(path), error);
  if (error) {
    ::unlink(path.c_str());
    ::unlink(publicPath.c_str());
    return notMade(path, error);
  }
  return std::nullopt;
}

}  // namespace VarnScripts::keys
