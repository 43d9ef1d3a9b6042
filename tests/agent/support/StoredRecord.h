// A record for the store's tests, with the two fields that the library's own record has.

#pragma once

#include <optional>
#include <string>

#include "AgentStore.h"

struct StoredRecord {
  std::optional<std::string> version;
  std::optional<std::string> scriptPath;

  StoredRecord(std::optional<std::string> versionText, std::optional<std::string> pathText)
      : version(std::move(versionText)), scriptPath(std::move(pathText)) {}

  explicit StoredRecord(const AgentStore::KeyedDecoder& from)
      : version(from.decodeIfPresent("version")), scriptPath(from.decodeIfPresent("scriptPath")) {}

  void encode(AgentStore::KeyedEncoder& to) const {
    if (version) to.encode(*version, "version");
    if (scriptPath) to.encode(*scriptPath, "scriptPath");
  }
};
