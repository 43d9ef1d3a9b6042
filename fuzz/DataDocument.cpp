// The data document of one script: any bytes decode or do not, and what decodes survives being
// written and read again.

#include "Input.h"
#include "MarkupParser.h"
#include "ScriptRepositoryRecords.h"
#include "publish/XMLDocument.h"

using VarnScriptRepository::ScriptRoot;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const auto roots =
      MarkupParser::XML::parse(input.remaining(), std::nullopt, false).toStruct<ScriptRoot>();
  if (!roots) return 0;
  FUZZ_REQUIRE(roots->size() == 1);
  FUZZ_REQUIRE(roots->front().script.size() <= 1);
  if (roots->front().script.empty()) return 0;  // another top element; nothing to write
  const auto again = MarkupParser::XML::parse(VarnScripts::publishing::xmlDocument(roots->front()),
                                              std::nullopt, false)
                         .toStruct<ScriptRoot>();
  FUZZ_REQUIRE(again.has_value());
  FUZZ_REQUIRE(again->front() == roots->front());
  return 0;
}
