#include "publish/History.h"

#include <utility>

#include "publish/Documents.h"

namespace VarnScripts::publishing {
namespace {

// An opened comment can't stand in the document's texts: a "<" there is always escaped.
constexpr std::string_view kBeginning =
    "<!-- Content of earlier lists, which clients may still hold; the newest list comes first.\n";
constexpr std::string_view kEnd = "-->\n";
constexpr std::string_view kListWord = "list";

// Takes the next word off `text`; empty at its end.
std::string_view takeWord(std::string_view& text) {
  const auto begin = text.find_first_not_of(" \n");
  if (begin == text.npos) return {};
  text.remove_prefix(begin);
  const std::string_view word = text.substr(0, text.find_first_of(" \n"));
  text.remove_prefix(word.size());
  return word;
}

void removeNames(ContentNames& from, const ContentNames& names) {
  std::erase_if(from, [&names](const std::string& name) { return names.contains(name); });
}

}  // namespace

History historyIn(std::string_view list) {
  const auto begin = list.rfind(kBeginning);
  if (begin == list.npos || !list.ends_with(kEnd)) return {};
  list.remove_prefix(begin + kBeginning.size());
  list.remove_suffix(kEnd.size());

  History history;
  for (auto word = takeWord(list); !word.empty(); word = takeWord(list)) {
    if (word == kListWord) {
      history.emplace_back();
    } else if (!history.empty() && isContentName(word)) {
      history.back().emplace(word);
    }
  }
  return history;
}

std::string historyComment(const History& history) {
  if (history.empty()) return "";
  std::string comment(kBeginning);
  for (const ContentNames& names : history) {
    comment += kListWord;
    for (const std::string& name : names) comment.append("\n ").append(name);
    comment += '\n';
  }
  return comment.append(kEnd);
}

History advanced(History history, ContentNames previous, const ContentNames& current) {
  removeNames(previous, current);
  history.insert(history.begin(), std::move(previous));
  for (std::size_t i = 1; i < history.size(); ++i) removeNames(history[i], current);
  return history;
}

History limited(History history, std::size_t lists, const ContentNames& current) {
  if (history.size() > lists) history.resize(lists);
  for (ContentNames& names : history) removeNames(names, current);
  return history;
}

}  // namespace VarnScripts::publishing
