// The file of accepted lists: any bytes give a state or one sentence, and a state has one text
// only. The last line, the digest of the others, is made right first, so that what is before it is
// met.

#include "signing/TrustState.h"

#include "Digest.h"
#include "Input.h"

namespace {

using namespace AgentUtils::signing;

void check(const std::string& text) {
  const auto parsed = parseTrustState(text, "acme");
  if (const auto* const state = std::get_if<TrustState>(&parsed)) {
    FUZZ_REQUIRE(trustStateText(*state) == text);
    FUZZ_REQUIRE(state->customer == "acme");
  } else {
    FUZZ_REQUIRE(!std::get<Refusal>(parsed).sentence.empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string text = input.remaining();
  check(text);
  const std::string body = text.substr(0, text.rfind("sha256: "));
  check(body + "sha256: " + AgentUtils::hexDigest(AgentUtils::usualDigest(), body) + "\n");
  return 0;
}
