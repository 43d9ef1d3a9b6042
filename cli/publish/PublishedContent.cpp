#include "publish/PublishedContent.h"

#include <system_error>

#include "MarkupParser.h"

namespace VarnScripts::publishing {

using MarkupParser::XML;
using VarnScriptRepository::ScriptRepositoryMeta;
using VarnScriptRepository::ScriptRoot;
using VarnScriptRepository::ScriptsRepoMetaRoot;

std::optional<ScriptRoot> PublishedContent::documentOf(const ScriptRepositoryMeta& entry) {
  if (!entry.scriptPathMapping || entry.scriptPathMapping->empty()) return std::nullopt;
  const auto name = contentNameIn(entry.scriptPathMapping->front().filepath, directory_);
  return name ? documentAt(*name) : std::nullopt;
}

ContentNames PublishedContent::contentOf(const ScriptsRepoMetaRoot& list,
                                         const ContentNames& current) {
  ContentNames content;
  for (const auto& all : list.scriptsMeta) {
    for (const auto& entry : all.scriptRepo) {
      if (!entry.scriptPathMapping) continue;
      for (const auto& mapping : *entry.scriptPathMapping) {
        addContentAt(mapping.filepath, current, content);
      }
    }
  }
  return content;
}

std::optional<ScriptRoot> PublishedContent::documentAt(const std::string& name) {
  std::error_code ignored;
  auto bytes = files_.read(name, ignored);
  if (!bytes) return std::nullopt;
  auto roots = XML::parse(std::move(*bytes), std::nullopt, false).toStruct<ScriptRoot>();
  return roots ? std::optional(std::move(roots->front())) : std::nullopt;
}

void PublishedContent::addContentAt(const std::string& filepath, const ContentNames& current,
                                    ContentNames& content) {
  const auto document = contentNameIn(filepath, directory_);
  // The script file of a document that stays is that of the new list too.
  if (!document || current.contains(*document)) return;
  content.insert(*document);
  const auto root = documentAt(*document);
  if (!root) return;
  for (const auto& item : root->script) {
    for (const auto& file : item.files) {
      const auto name = contentNameIn(file.fileSystemLocation, directory_);
      if (name && !current.contains(*name)) content.insert(*name);
    }
  }
}

}  // namespace VarnScripts::publishing
