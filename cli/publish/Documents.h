// The documents of a published repository, and the names under which its content lies.
//
// Everything but the list has a name made of a digest of its bytes, relative to the repository's
// directory: "data/DIGEST.xml" and "files/DIGEST.sh". What has such a name never changes. Nothing
// in a document depends on the time or the place of publishing. Pure functions; any thread.

#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ScriptRepositoryRecords.h"
#include "publish/Source.h"

namespace VarnScripts::publishing {

/// The repository's directory below the server's root: "client-data/7/scriptrepo".
[[nodiscard]] std::string repositoryDirectory(const std::string& customer);

/// Content names: "data/DIGEST.xml", "files/DIGEST.sh".
using ContentNames = std::set<std::string>;

/// Whether `name` is one that content is published under: "data/DIGEST.xml".
[[nodiscard]] bool isContentName(std::string_view name);

/// The digest of the list over which the signature `name` of the tree is, as its name tells it:
/// "signatures/DIGEST.minisig", or with a key's number "signatures/DIGEST.NUMBER.minisig". Nothing
/// for any other name.
[[nodiscard]] std::optional<std::string> signedListIn(std::string_view name);

/// The digest of the bytes that lie under the content name `name`.
[[nodiscard]] std::string_view digestIn(std::string_view name);

/// The name of the script's file: "files/DIGEST.sh".
[[nodiscard]] std::string scriptFileName(const SourceScript& script);

/// The name of a data document: "data/DIGEST.xml".
[[nodiscard]] std::string documentName(std::string_view document);

/// The content name in a server path or a location of a repository in `directory`, or nothing when
/// it lies elsewhere.
[[nodiscard]] std::optional<std::string> contentNameIn(std::string_view location,
                                                       std::string_view directory);

/// The script's version stamp: 32 hexadecimal digits of a digest over what a client runs, which is
/// the script's bytes, its file name, its arguments and its accepted codes.
[[nodiscard]] std::string versionStamp(const SourceScript& script);

/// The script's data document.
[[nodiscard]] VarnScriptRepository::ScriptRoot documentOf(const SourceScript& script,
                                                          const AgentUtils::DigestKind& digest,
                                                          const std::string& customer);

/// The script's entry in the list; its data document has the name `document`.
[[nodiscard]] VarnScriptRepository::ScriptRepositoryMeta entryOf(const SourceScript& script,
                                                                 const std::string& document,
                                                                 const std::string& customer);

}  // namespace VarnScripts::publishing
