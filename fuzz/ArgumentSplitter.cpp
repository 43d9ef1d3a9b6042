// The argument splitter against a second one, written from the rules with indexes into a list of
// characters instead of a walk.

#include <string>
#include <vector>

#include "Input.h"
#include "ScriptRules.h"
#include "support/Text.h"

namespace {

using namespace VarnScriptRepository;

std::vector<std::string> charactersOf(const std::string& text) {
  std::vector<std::string> list;
  text::Characters characters(text);
  while (const auto character = characters.next()) list.emplace_back(*character);
  return list;
}

std::string joined(const std::vector<std::string>& characters, std::size_t from, std::size_t to) {
  std::string text;
  for (std::size_t at = from; at < to; ++at) text += characters[at];
  return text;
}

std::vector<std::string> plainSplit(const std::string& text) {
  const auto characters = charactersOf(text);
  std::vector<std::string> tokens;
  std::size_t at = 0;
  while (at < characters.size()) {
    if (text::isWhitespace(characters[at])) {
      ++at;
      continue;
    }
    if (characters[at] == "\"") {
      const std::size_t from = ++at;
      while (at < characters.size() && characters[at] != "\"") ++at;
      tokens.push_back(joined(characters, from, at));
      ++at;
      continue;
    }
    const std::size_t from = at;
    while (at < characters.size() && !text::isWhitespace(characters[at])) ++at;
    tokens.push_back(joined(characters, from, at));
  }
  return tokens;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string text = input.remaining();
  FUZZ_REQUIRE(joined(charactersOf(text), 0, charactersOf(text).size()) == text);
  FUZZ_REQUIRE(splitWithQuotes(text) == plainSplit(text));
  return 0;
}
