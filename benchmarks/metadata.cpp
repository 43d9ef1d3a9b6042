// The server's list from file to records, `metadata library BASE_PATH CUSTOMER`, beside expat alone
// over the same bytes in memory, `metadata expat FILE`. The result is the number of entries.

#include <expat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string_view>

#include "AgentSettings.h"
#include "Contestant.h"
#include "ScriptRepositoryMetaProcessor.h"

namespace {

int library(const char* basePath, const char* customer) {
  AgentUtils::AgentSettings settings;
  settings.basePath = basePath;
  settings.customerID = customer;
  AgentUtils::configure(settings);
  auto& processor = VarnScriptRepository::ScriptRepositoryMetaProcessor::shared();
  return bench::serve(
      [&] {
        processor.loadScriptRepoMetaData();
        if (!processor.scriptRepoMetaData()) bench::fail("the list does not decode");
        return processor.scriptRepoMetaData()->size();
      },
      [&] { processor.setScriptRepoMetaData(std::nullopt); });
}

/// Handlers that count and do nothing else: a parser that reports nothing would skip half its work.
struct Counts {
  std::size_t elements = 0;
  std::size_t characters = 0;
  std::size_t entries = 0;
};

std::size_t parse(const std::string& bytes) {
  constexpr std::size_t kPiece = std::size_t{1} << 20;
  Counts counts;
  const XML_Parser parser = XML_ParserCreate(nullptr);
  XML_SetUserData(parser, &counts);
  XML_SetElementHandler(
      parser,
      [](void* data, const XML_Char* name, const XML_Char**) {
        auto& to = *static_cast<Counts*>(data);
        ++to.elements;
        if (std::string_view(name) == "ScriptRepo") ++to.entries;
      },
      [](void*, const XML_Char*) {});
  XML_SetCharacterDataHandler(parser, [](void* data, const XML_Char*, int length) {
    static_cast<Counts*>(data)->characters += static_cast<std::size_t>(length);
  });
  for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
    const std::size_t size = std::min(kPiece, bytes.size() - at);
    if (XML_Parse(parser, bytes.data() + at, static_cast<int>(size), at + size == bytes.size()) !=
        XML_STATUS_OK) {
      bench::fail("the list is not well formed");
    }
  }
  XML_ParserFree(parser);
  return counts.entries;
}

int expat(const char* path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  return bench::serve([&] { return parse(bytes); });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "library" && argc == 4) return library(argv[2], argv[3]);
  if (mode == "expat" && argc == 3) return expat(argv[2]);
  bench::fail("usage: metadata library BASE_PATH CUSTOMER | metadata expat FILE");
}
