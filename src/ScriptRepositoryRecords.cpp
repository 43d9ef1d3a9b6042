#include "ScriptRepositoryRecords.h"

#include "support/Text.h"

namespace VarnScriptRepository {

// ---- Look-ups --------------------------------------------------------------------------------

std::vector<std::string> ScriptRepoAllMetaData::getAllAvailableScriptIDs() const {
  std::vector<std::string> ids;
  ids.reserve(scriptRepo.size());
  for (const ScriptRepositoryMeta& entry : scriptRepo) ids.push_back(entry.scriptID);
  return ids;
}

std::optional<VyFile> ScriptItem::getFileData(const std::string& fileID) const {
  for (const VyFile& file : files) {
    if (text::equal(file.fileID, fileID)) return file;
  }
  return std::nullopt;
}

std::optional<ScriptRepo> ScriptItem::getScriptRepo(const std::string& scriptID) const {
  for (const ScriptRepo& repo : scriptRepo) {
    if (text::equal(repo.scriptID, scriptID)) return repo;
  }
  return std::nullopt;
}

// ---- Schemas ---------------------------------------------------------------------------------

const MarkupParser::RecordSchema& ScriptRepoPath::schema() {
  return recordSchema<ScriptRepoPath>();
}
const MarkupParser::RecordSchema& ScriptRepositoryMeta::schema() {
  return recordSchema<ScriptRepositoryMeta>();
}
const MarkupParser::RecordSchema& ScriptRepoAllMetaData::schema() {
  return recordSchema<ScriptRepoAllMetaData>();
}
const MarkupParser::RecordSchema& ScriptsRepoMetaRoot::schema() {
  return recordSchema<ScriptsRepoMetaRoot>();
}
const MarkupParser::RecordSchema& ScriptRepo::schema() { return recordSchema<ScriptRepo>(); }
const MarkupParser::RecordSchema& ChecksumValue::schema() { return recordSchema<ChecksumValue>(); }
const MarkupParser::RecordSchema& CSToVyFile::schema() { return recordSchema<CSToVyFile>(); }
const MarkupParser::RecordSchema& VyFile::schema() { return recordSchema<VyFile>(); }
const MarkupParser::RecordSchema& ScriptItem::schema() { return recordSchema<ScriptItem>(); }
const MarkupParser::RecordSchema& ScriptRoot::schema() { return recordSchema<ScriptRoot>(); }

// ---- Vocabulary ------------------------------------------------------------------------------

std::optional<OSPlatform> OSPlatform::fromRawValue(const std::string& rawValue) {
  if (rawValue == "Mac") return macOS;
  return std::nullopt;
}

std::string OSPlatform::rawValue() const { return "Mac"; }

}  // namespace VarnScriptRepository
