// A signature file: any bytes give a signature or one sentence, and a signature is written as it is
// read. Held against a list and a key that are known, nothing counts but what the key has signed.

#include "Input.h"
#include "signing/ListSignature.h"
#include "signing/SignedComment.h"
#include "signing/TrustDecision.h"

namespace {

using namespace AgentUtils::signing;

// The key and the signature over this list that lie in tests/agent/signing-vectors.
constexpr std::string_view kKey = "RWSjCFOuRsSMgAerzYexOa11ibsYAFttoRSPg+xxOs74Kr5YXF8XQtKl";
constexpr std::string_view kList =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<scripts-meta><ScriptRepoAllMetaData/></scripts-meta>\n";
constexpr std::string_view kComment =
    "customer:acme\tserial:7\tpublished:2026-11-22T11:30:00Z\texpires:2026-12-22T11:30:00Z";

bool isOneSentence(const Refusal& refusal) {
  return !refusal.sentence.empty() && refusal.sentence.find('\n') == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string text = input.remaining();
  const auto parsed = parseSignature(text);
  const auto* const signature = std::get_if<ListSignature>(&parsed);
  if (signature == nullptr) FUZZ_REQUIRE(isOneSentence(std::get<Refusal>(parsed)));
  if (signature != nullptr) {
    FUZZ_REQUIRE(std::get<ListSignature>(parseSignature(signatureFile(*signature))) == *signature);
    const auto comment = parseSignedComment(signature->comment);
    if (const auto* const fields = std::get_if<SignedComment>(&comment)) {
      const auto again = parseSignedComment(signedCommentText(*fields));
      FUZZ_REQUIRE(std::get<SignedComment>(again) == *fields);
    }
  }

  static const TrustPolicy policy{{std::get<PublicKey>(parsePublicKey(kKey))}, 1, "acme"};
  const auto judgement =
      judgeList(kList, {text}, policy, {"acme", {}}, utcTimeFrom("2026-12-01T00:00:00Z").value());
  if (const auto* const refusal = std::get_if<Refusal>(&judgement)) {
    FUZZ_REQUIRE(isOneSentence(*refusal));
  } else {
    FUZZ_REQUIRE(signature != nullptr && signature->comment == kComment);
  }
  return 0;
}
