#include "publish/ListToSign.h"

#include <sys/stat.h>

#include <filesystem>
#include <utility>

#include "Directories.h"
#include "WholeFiles.h"
#include "signing/UTCTime.h"

namespace VarnScripts::publishing {
namespace {

using AgentUtils::signing::SignedComment;
using AgentUtils::signing::utcTimeText;
using VarnScriptRepository::kListName;

constexpr mode_t kMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;
constexpr const char* kCommentName = "trusted-comment.txt";
constexpr const char* kHowName = "sign.txt";
constexpr const char* kSignatureName = "scripts-meta.xml.minisig";

std::string howToSign(const SignedComment& comment) {
  return "The list " + std::string(kListName) + " of the customer " + comment.customer +
         " is to be signed with the comment in " + kCommentName + ":\nits serial is " +
         std::to_string(comment.serial) + ", and the signature counts until " +
         utcTimeText(comment.expires) +
         ".\nIn this directory, with the file of the secret key in place of KEY_FILE:\n\n    " +
         signingCommand() + "\n\nThe signature is " + kSignatureName +
         ". Whoever publishes takes it in with --attach and the public key:\n\n"
         "    varn-scripts publish SOURCE_DIR OUTPUT_DIR --attach " +
         kSignatureName + " --signed-by KEY_FILE.pub\n";
}

}  // namespace

std::string signingCommand() {
  return "minisign -S -s KEY_FILE -m " + std::string(kListName) + " -t \"$(cat " + kCommentName +
         ")\"";
}

void leaveForSigning(const std::string& directory, std::string_view list,
                     const SignedComment& comment, std::error_code& error, std::string& path) {
  path = directory;
  std::filesystem::create_directories(directory, error);
  if (error) return;
  const std::pair<const char*, std::string> files[] = {
      {kListName, std::string(list)},
      {kCommentName, signedCommentText(comment) + "\n"},
      {kHowName, howToSign(comment)},
  };
  for (const auto& [name, bytes] : files) {
    path = directory + "/" + name;
    posix::replaceFile(path, bytes, kMode, error);
    if (error) return;
  }
}

}  // namespace VarnScripts::publishing
