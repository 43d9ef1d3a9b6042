#include "publish/ListToSign.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "Directories.h"
#include "TrustedPath.h"
#include "WholeFiles.h"
#include "signing/UTCTime.h"

namespace VarnScripts::publishing {
namespace {

using AgentUtils::signing::keyName;
using AgentUtils::signing::KeyNumber;
using AgentUtils::signing::SignedComment;
using AgentUtils::signing::utcTimeText;
using VarnScriptRepository::kListName;

constexpr mode_t kMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
constexpr const char* kCommentName = "trusted-comment.txt";
constexpr const char* kHowName = "sign.txt";

// What the signature of one of the keys is called.
std::string signatureName(const KeyNumber& key, const std::vector<KeyNumber>& keys) {
  return kListName + (keys.size() == 1 ? "" : "." + keyName(key)) + ".minisig";
}

std::string signingCommand(const KeyNumber& key, const std::vector<KeyNumber>& keys) {
  const std::string place = keys.size() == 1 ? "" : " -x " + signatureName(key, keys);
  return "minisign -S -s KEY_FILE -m " + std::string(kListName) + place + " -t \"$(cat " +
         kCommentName + ")\"";
}

std::string howToSign(const SignedComment& comment, const std::vector<KeyNumber>& keys) {
  std::string text = "The list " + std::string(kListName) + " of the customer " + comment.customer +
                     " is to be signed with the comment in " + kCommentName + ":\nits serial is " +
                     std::to_string(comment.serial) + ", and the signature counts until " +
                     utcTimeText(comment.expires) +
                     ".\nIn this directory, with the file of the secret key in place of KEY_FILE";
  std::string attached;
  std::string signedBy;
  for (const KeyNumber& key : keys) {
    text += (keys.size() == 1 ? "" : "\n\nfor the key " + keyName(key)) + ":\n\n    " +
            signingCommand(key, keys);
    attached += " --attach " + signatureName(key, keys);
    signedBy += " --signed-by " + (keys.size() == 1 ? "KEY_FILE" : keyName(key)) + ".pub";
  }
  text += keys.size() == 1 ? "\n\nThe signature is " + signatureName(keys.front(), keys) +
                                 ". Whoever publishes takes it in"
                           : "\n\nWhoever publishes takes the signatures in";
  return text + " with --attach and the public key" + (keys.size() == 1 ? "" : "s") +
         ":\n\n    varn-scripts publish SOURCE_DIR OUTPUT_DIR" + attached + signedBy + "\n";
}

// The path with every link followed, as far as it is there.
std::filesystem::path resolved(const std::string& path) {
  std::error_code unknown;
  std::filesystem::path whole = std::filesystem::absolute(path, unknown);
  std::filesystem::path found = std::filesystem::weakly_canonical(whole, unknown);
  if (unknown) found = whole.lexically_normal();
  return found.has_filename() ? found : found.parent_path();
}

// Whether both are one directory, by whatever names; or would be when they were made.
bool isSame(const std::filesystem::path& one, const std::filesystem::path& other) {
  std::error_code missing;
  return one == other || std::filesystem::equivalent(one, other, missing);
}

bool liesIn(std::filesystem::path place, const std::filesystem::path& directory) {
  while (!isSame(place, directory)) {
    if (!place.has_relative_path()) return false;
    place = place.parent_path();
  }
  return true;
}

}  // namespace

std::optional<std::string> makePlaceForSigning(const std::string& directory,
                                               const std::string& source, const std::string& output,
                                               const std::string& repository,
                                               std::error_code& error) {
  const std::filesystem::path place = resolved(directory);
  if (liesIn(place, resolved(output)) || liesIn(place, resolved(output + "/" + repository))) {
    return "it lies in the tree that is served; give another directory";
  }
  if (isSame(place, resolved(source))) {
    return "it is the directory of the scripts; give another directory";
  }
  const auto whoElse = [&directory] {
    return examinePath(directory, PathEnd::directory, ::geteuid(), MissingDirectory::made).refusal;
  };
  if (auto refusal = whoElse(); !refusal.empty()) return refusal;
  std::filesystem::create_directories(directory, error);
  if (error) return std::nullopt;
  // What was made has the mode that the process's mask leaves.
  if (auto refusal = whoElse(); !refusal.empty()) return refusal;
  return std::nullopt;
}

std::vector<std::string> signingCommands(const std::vector<KeyNumber>& keys) {
  std::vector<std::string> commands;
  commands.reserve(keys.size());
  for (const KeyNumber& key : keys) commands.push_back(signingCommand(key, keys));
  return commands;
}

void leaveForSigning(const std::string& directory, std::string_view list,
                     const SignedComment& comment, const std::vector<KeyNumber>& keys,
                     std::error_code& error, std::string& path) {
  error.clear();
  const std::pair<const char*, std::string> files[] = {
      {kListName, std::string(list)},
      {kCommentName, signedCommentText(comment) + "\n"},
      {kHowName, howToSign(comment, keys)},
  };
  for (const auto& [name, bytes] : files) {
    path = directory + "/" + name;
    posix::replaceFile(path, bytes, kMode, error);
    if (error) return;
  }
}

}  // namespace VarnScripts::publishing
