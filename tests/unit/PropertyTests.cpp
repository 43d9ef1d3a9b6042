// Properties of the pure operations, against plain reference versions that read a text one code
// point at a time and know a few combining marks only.

#include <gmock/gmock.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "AgentFixture.h"
#include "MarkupParser.h"
#include "NarrowRegisters.h"
#include "ScriptRepositoryProcessorRequest.h"
#include "ScriptRules.h"
#include "ShellDouble.h"
#include "support/Encoding.h"
#include "support/Text.h"

namespace {

using namespace VarnScriptRepository;
using Texts = std::vector<std::string>;

// ---- Texts -----------------------------------------------------------------------------------

/// Texts made of pieces that matter to the operations.
rc::Gen<std::string> textOf(std::vector<std::string> alphabet) {
  return rc::gen::map(rc::gen::container<Texts>(rc::gen::elementOf(std::move(alphabet))),
                      [](const Texts& pieces) {
                        std::string joined;
                        for (const std::string& piece : pieces) joined += piece;
                        return joined;
                      });
}

// ---- Splitter --------------------------------------------------------------------------------

const Texts kBlanks{" ", "\t", "\n", "\r\n", "\u00a0", "\u3000"};
const std::string kMark = "\u0301";

/// The characters of a text over the splitter's alphabet: a piece with the marks that follow it.
Texts charactersOf(const std::string& text) {
  static const Texts pieces{"\r\n", "\u00a0", "\u3000", "\u00e9", kMark};
  Texts characters;
  std::string_view rest = text;
  while (!rest.empty()) {
    std::size_t length = 1;
    for (const std::string& piece : pieces) {
      if (rest.starts_with(piece)) length = piece.size();
    }
    const std::string piece(rest.substr(0, length));
    rest.remove_prefix(length);
    // A line break is never joined with what follows it.
    const bool joins = piece == kMark && !characters.empty() && characters.back() != "\n" &&
                       characters.back() != "\r\n" && characters.back() != "\t";
    if (joins)
      characters.back() += piece;
    else
      characters.push_back(piece);
  }
  return characters;
}

bool isBlank(const std::string& character) {
  return std::any_of(kBlanks.begin(), kBlanks.end(), [&](const std::string& blank) {
    return character == blank || character.starts_with(blank + kMark);
  });
}

Texts referenceSplit(const std::string& text) {
  const Texts characters = charactersOf(text);
  Texts tokens;
  std::size_t at = 0;
  while (true) {
    while (at < characters.size() && isBlank(characters[at])) ++at;
    if (at == characters.size()) return tokens;
    std::string token;
    if (characters[at] == "\"") {
      for (++at; at < characters.size() && characters[at] != "\""; ++at) token += characters[at];
      if (at < characters.size()) ++at;
    } else {
      for (; at < characters.size() && !isBlank(characters[at]); ++at) token += characters[at];
    }
    tokens.push_back(token);
  }
}

RC_GTEST_PROP(SplitWithQuotesProperty, AgreesWithAPlainVersion, ()) {
  const std::string text = *textOf({"a", "b", "-", "\\", "'", "\"", "\"", " ", "\t", "\n", "\r\n",
                                    "\u00a0", "\u3000", "\u00e9", kMark});
  RC_ASSERT(splitWithQuotes(text) == referenceSplit(text));
}

RC_GTEST_PROP(SplitWithQuotesProperty, GivesQuotedTokensBack, (std::vector<std::uint8_t> seeds)) {
  Texts tokens;
  std::string text;
  for (const std::uint8_t seed : seeds) {
    tokens.push_back(std::string(seed % 5, 'x') + std::string(seed % 3, ' '));
    text += "\"" + tokens.back() + "\" ";
  }
  RC_ASSERT(splitWithQuotes(text) == tokens);
}

RC_GTEST_PROP(SplitWithQuotesProperty, SurvivesAnyBytes, (const std::string& text)) {
  std::size_t length = 0;
  for (const std::string& token : splitWithQuotes(text)) length += token.size();
  RC_ASSERT(length <= text.size());
}

// ---- Extension -------------------------------------------------------------------------------

std::string referenceExtension(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  std::string extension;
  bool dot = false;
  for (const char character : path) {
    if (character == '/' || character == '.') {
      dot = character == '.';
      extension.clear();
    } else if (dot) {
      extension += character;
    }
  }
  return dot ? extension : "";
}

RC_GTEST_PROP(ExtensionProperty, AgreesWithAPlainVersion, ()) {
  const std::string path = *textOf({"a", "sh", ".", ".", "/", " ", "\u00e9"});
  RC_ASSERT(text::pathExtension(path) == referenceExtension(path));
}

RC_GTEST_PROP(LaunchPathProperty, GoesByTheTrimmedExtensionAlone, ()) {
  const std::string directory = *textOf({"a", "/", ".py", " "});
  const std::string stem = *textOf({"a", ".", "b", " "});
  const std::string blanks = *textOf({" ", "\t", "\u00a0"});
  const std::string extension =
      *rc::gen::element<std::string>("py", "sh", "pl", "scpt", "SH", "pyc", "");
  const std::string name = directory + "/" + stem + "." + blanks + extension + blanks;

  const std::vector<std::pair<std::string, std::string>> known{{"py", "/usr/bin/python3"},
                                                               {"sh", "/bin/sh"},
                                                               {"pl", "/usr/bin/perl"},
                                                               {"scpt", "/usr/bin/osascript"}};
  std::optional<std::string> expected;
  for (const auto& [key, path] : known) {
    if (key == extension) expected = path;
  }
  RC_ASSERT(getLaunchPath(name) == expected);
}

// ---- Verdict ---------------------------------------------------------------------------------

/// Whether `code` is one of the pieces of `list`, found without splitting.
bool referenceListed(const std::string& list, const std::string& code) {
  return ("," + list + ",").find("," + code + ",") != std::string::npos;
}

class VerdictProperty : public doubles::AgentFixture {};

TEST_F(VerdictProperty, AgreesWithAPlainVersion) {
  EXPECT_TRUE(rc::check([] {
    const std::int32_t status = *rc::gen::oneOf(rc::gen::inRange<std::int32_t>(-12, 13),
                                                rc::gen::arbitrary<std::int32_t>());
    const std::string own = std::to_string(status);
    ScriptRepo repo;
    repo.scriptName = "a.sh";
    repo.exitCode = *textOf({"0", "1", "-", ",", ",", " ", own, "," + own + ","});
    std::optional<Texts> overrideList;
    ScriptRequest request("42", &overrideList);
    request.scriptFilePath = "/a.sh";
    doubles::Runs::shared().answers = {{status, "out"}};

    const bool accepted = referenceListed(repo.exitCode, own);
    RC_CLASSIFY(accepted);
    RC_ASSERT(request.executeScript(repo) == ProcessingResult(accepted, "out"));

    // Any override list decides alone.
    const auto list = *rc::gen::container<Texts>(rc::gen::elementOf(Texts{own, "x", " " + own}));
    overrideList = list;
    const bool overridden = std::count(list.begin(), list.end(), own) > 0;
    RC_ASSERT(request.executeScript(repo) == ProcessingResult(overridden, "out"));
  }));
}

// ---- List text -------------------------------------------------------------------------------

/// Reads a list text back. Absent when it is none.
std::optional<Texts> readListText(std::string_view list) {
  if (list.size() < 2 || list.front() != '[' || list.back() != ']') return std::nullopt;
  list = list.substr(1, list.size() - 2);
  Texts elements;
  while (!list.empty()) {
    if (!elements.empty()) {
      if (!list.starts_with(", ")) return std::nullopt;
      list.remove_prefix(2);
    }
    if (!list.starts_with('"')) return std::nullopt;
    list.remove_prefix(1);
    std::string element;
    while (!list.empty() && list.front() != '"') {
      if (list.front() == '\\') list.remove_prefix(1);
      if (list.empty()) return std::nullopt;
      element += list.front();
      list.remove_prefix(1);
    }
    if (list.empty()) return std::nullopt;
    list.remove_prefix(1);
    elements.push_back(element);
  }
  return elements;
}

RC_GTEST_PROP(ListTextProperty, ReadsBackAsTheList, ()) {
  const auto elements =
      *rc::gen::container<Texts>(textOf({"a", "\"", "\\", ",", " ", "[", "]", "\n", "\u00e9"}));
  RC_ASSERT(readListText(text::listText(elements)) == elements);
}

// ---- Server locations ------------------------------------------------------------------------

std::string referenceServerPath(const std::string& location) {
  const std::string prefix = "..\\webapps\\Quillandermoor\\";
  std::string path;
  for (std::size_t at = 0; at < location.size();) {
    if (location.compare(at, prefix.size(), prefix) == 0) {
      at += prefix.size();
      continue;
    }
    path += location[at] == '\\' ? '/' : location[at];
    ++at;
  }
  return path;
}

class LocationProperty : public doubles::AgentFixture {};

TEST_F(LocationProperty, AgreesWithAPlainVersion) {
  EXPECT_TRUE(rc::check([this] {
    const std::string location =
        *textOf({"..\\webapps\\Quillandermoor\\", "..\\webapps\\Quilla", "ndermoor\\", "a", "\\",
                 "/", ".", "..\\webapps\\quillandermoor\\"});
    ScriptRequest request("42");
    journal.reset();

    RC_ASSERT(!request.downloadScript(location, "b.sh"));

    RC_ASSERT(journal.effects() == Texts{"download " + referenceServerPath(location) +
                                         " to <agent>/client-data/7/scripts-repository/b.sh"});
  }));
}

// ---- Records ---------------------------------------------------------------------------------

rc::Gen<std::string> leaf() {
  return textOf({"a", "1", " ", "\"", "\\", "\n", "\u00e9", "(", "="});
}

std::optional<std::string> optionalLeaf() {
  if (!*rc::gen::arbitrary<bool>()) return std::nullopt;
  return *leaf();
}

RC_GTEST_PROP(RecordProperty, AMetadataDocumentDecodesToWhatWasEncoded, ()) {
  ScriptsRepoMetaRoot root{{ScriptRepoAllMetaData{}}};
  const auto count = *rc::gen::inRange<std::size_t>(0, 4);
  for (std::size_t index = 0; index < count; ++index) {
    ScriptRepositoryMeta& entry = root.scriptsMeta[0].scriptRepo.emplace_back();
    entry.scriptName = optionalLeaf();
    entry.description = optionalLeaf();
    entry.scriptID = *leaf();
    entry.scriptFile = optionalLeaf();
    entry.dbUpdatedTime = optionalLeaf();
    entry.fileID = *leaf();
    entry.customerID = optionalLeaf();
    entry.osPlatform = optionalLeaf();
    entry.modifiedTime = *leaf();
    entry.createdTime = optionalLeaf();
    entry.encType = optionalLeaf();
    const auto mappings = *rc::gen::inRange<std::size_t>(0, 3);
    for (std::size_t mapping = 0; mapping < mappings; ++mapping) {
      if (!entry.scriptPathMapping) entry.scriptPathMapping.emplace();
      entry.scriptPathMapping->push_back({*leaf()});
    }
  }
  const auto decoded = MarkupParser::XML::parse(doubles::document(root), std::nullopt, false)
                           .toStruct<ScriptsRepoMetaRoot>();
  RC_ASSERT(decoded && decoded->size() == 1 && decoded->front() == root);
}

// ---- Encoding --------------------------------------------------------------------------------

/// The length of the character that `bytes` begins with, by the value that its bits give; 0 for
/// none.
std::size_t referenceCharacter(std::string_view bytes) {
  const auto at = [&](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
  const unsigned first = at(0);
  if (first < 0x80) return 1;
  // How many ones the first byte begins with.
  std::size_t length = 0;
  while (length < 8 && (first & (0x80U >> length)) != 0) ++length;
  if (length < 2 || length > 4 || bytes.size() < length) return 0;
  std::uint32_t value = first & (0xFFU >> (length + 1));
  for (std::size_t index = 1; index < length; ++index) {
    if ((at(index) & 0xC0U) != 0x80) return 0;
    value = value << 6 | (at(index) & 0x3FU);
  }
  constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = value >= 0xD800 && value <= 0xDFFF;
  return value < smallest[length] || value > 0x10FFFF || surrogate ? 0 : length;
}

bool referenceIsUTF8(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t length = referenceCharacter(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

/// Every byte that is the first or the last of those that are treated alike.
const std::string kEdgeBytes =
    "\x41\x80\x8f\x90\x9f\xa0\xbf\xc0\xc1\xc2\xdf\xe0\xe1\xed\xef\xf0\xf1\xf4\xf5";

/// Expects that every short string of edge bytes is judged as by the plain version, wherever it
/// stands around a block's edges.
void expectAgreementAroundABlocksEdges() {
  // Long texts are read in blocks of 256 bytes from the fourth byte on; 530 bytes are two blocks
  // and an end that is read plainly.
  std::string whole(530, 'a');
  std::size_t strings = 0;
  std::size_t good = 0;
  const auto differs = [&](std::string_view bytes) {
    const bool expected = referenceIsUTF8(bytes);
    ++strings;
    if (expected) ++good;
    for (const std::size_t at : {0U, 1U, 2U, 3U, 256U, 257U, 258U, 259U, 512U, 513U, 514U, 515U}) {
      std::copy(bytes.begin(), bytes.end(), whole.begin() + static_cast<std::ptrdiff_t>(at));
      const bool agrees = text::isUTF8(whole) == expected;
      std::fill_n(whole.begin() + static_cast<std::ptrdiff_t>(at), bytes.size(), 'a');
      if (!agrees) return true;
    }
    // At the very end, and alone.
    std::copy_backward(bytes.begin(), bytes.end(), whole.end());
    const bool agrees = text::isUTF8(whole) == expected && text::isUTF8(bytes) == expected;
    std::fill_n(whole.rbegin(), bytes.size(), 'a');
    return !agrees;
  };
  for (std::size_t length = 1; length <= 4; ++length) {
    std::vector<std::size_t> digits(length, 0);
    std::string bytes(length, kEdgeBytes.front());
    for (std::size_t digit = 0; digit < length;) {
      for (std::size_t at = 0; at < length; ++at) bytes[at] = kEdgeBytes[digits[at]];
      ASSERT_FALSE(differs(bytes)) << testing::PrintToString(bytes);
      for (digit = 0; digit < length && ++digits[digit] == kEdgeBytes.size(); ++digit) {
        digits[digit] = 0;
      }
    }
  }
  EXPECT_EQ(strings, 19U + 19U * 19U + 19U * 19U * 19U + 19U * 19U * 19U * 19U);
  EXPECT_GT(good, 0U);
}

TEST(EncodingProperty, AgreesWithAPlainVersionForEveryShortStringOfEdgeBytesAroundABlocksEdges) {
  expectAgreementAroundABlocksEdges();
}

#ifdef VARN_HAS_NARROW_REGISTERS
TEST(EncodingProperty, AgreesWithAPlainVersionAlsoOnAProcessorOfNarrowRegisters) {
  const NarrowRegisters processor;
  ASSERT_FALSE(__builtin_cpu_supports("avx2"));
  expectAgreementAroundABlocksEdges();
}
#endif

RC_GTEST_PROP(EncodingProperty, AgreesWithAPlainVersionOnLongTexts, ()) {
  // Characters of all lengths, and now and then something that is none.
  static const Texts good{"a",          "text of words ", "\u00e9", "\u07ff",
                          "\u0800",     "\ud7ff",         "\ue000", "\u20ac",
                          "\U0001F600", "\U0010FFFF",     "\n"};
  static const Texts bad{"\x80",
                         "\xc3",
                         "\xc0\x80",
                         "\xe0\x9f\xbf",
                         "\xed\xa0\x80",
                         "\xf0\x8f\x80\x80",
                         "\xf4\x90\x80\x80",
                         "\xff",
                         "\xe2\x82",
                         "\xf0\x9f\x98"};
  const auto pieces = *rc::gen::container<std::vector<std::uint8_t>>(
      rc::gen::inRange<std::uint8_t>(0, static_cast<std::uint8_t>(good.size())));
  std::string line = "\u00fc";
  for (const std::uint8_t piece : pieces) line += good[piece];
  std::string whole;
  while (whole.size() < 600) whole += line;
  RC_ASSERT(text::isUTF8(whole));

  const auto at = *rc::gen::inRange<std::size_t>(0, whole.size());
  const std::string& wrong = *rc::gen::elementOf(bad);
  const bool replaced = *rc::gen::arbitrary<bool>();
  std::string damaged = whole;
  damaged.replace(at, replaced ? std::min(wrong.size(), whole.size() - at) : 0, wrong);
  RC_CLASSIFY(referenceIsUTF8(damaged), "still good");
  RC_ASSERT(text::isUTF8(damaged) == referenceIsUTF8(damaged));

  // Any byte in place of another.
  std::string changed = whole;
  changed[at] = *rc::gen::arbitrary<char>();
  RC_ASSERT(text::isUTF8(changed) == referenceIsUTF8(changed));
  // Any end.
  RC_ASSERT(text::isUTF8(whole.substr(0, at)) == referenceIsUTF8(whole.substr(0, at)));
}

// ---- Text equality ---------------------------------------------------------------------------

RC_GTEST_PROP(TextEqualityProperty, TakesBothSpellingsOfACharacterForEqual, ()) {
  const auto pieces =
      *rc::gen::container<std::vector<std::uint8_t>>(rc::gen::inRange<std::uint8_t>(0, 4));
  const Texts composed{"a", "\u00e9", "\u00c5", "\uac00"};
  const Texts decomposed{"a", "e\u0301", "A\u030a", "\u1100\u1161"};
  std::string one;
  std::string other;
  for (const std::uint8_t piece : pieces) {
    one += composed[piece];
    other += decomposed[piece];
  }
  RC_ASSERT(text::equal(one, other));
  RC_ASSERT(!text::equal(one + "a", other));
  RC_ASSERT(!text::equal(one, other + "A"));
}

}  // namespace
