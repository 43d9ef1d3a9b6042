// The files of keys: any bytes give a public key, a secret key or one sentence, and a key is
// written as it is read. Whatever a file asks for, no passphrase is given, so that nothing costs
// much.

#include "Input.h"
#include "key/SecretKey.h"
#include "signing/PublicKey.h"

using namespace VarnScripts::keys;

namespace {

bool isOneSentence(const Refusal& refusal) {
  return !refusal.sentence.empty() && refusal.sentence.find('\n') == std::string::npos;
}

std::variant<Passphrase, Refusal> noPassphrase() { return Refusal{"no passphrase is given"}; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::string text = input.remaining();
  const auto key = AgentUtils::signing::parsePublicKey(text);
  if (const auto* const read = std::get_if<PublicKey>(&key)) {
    FUZZ_REQUIRE(std::get<PublicKey>(AgentUtils::signing::parsePublicKey(publicKeyFile(*read))) ==
                 *read);
    FUZZ_REQUIRE(std::get<PublicKey>(AgentUtils::signing::parsePublicKey(publicKeyLine(*read))) ==
                 *read);
  } else {
    FUZZ_REQUIRE(isOneSentence(std::get<Refusal>(key)));
  }
  const auto secret = parseSecretKey(text, noPassphrase);
  if (const auto* const read = std::get_if<SecretKey>(&secret)) {
    const auto again = parseSecretKey(plainKeyText(*read).text(), noPassphrase);
    FUZZ_REQUIRE(std::get<SecretKey>(again).publicKey() == read->publicKey());
  } else {
    FUZZ_REQUIRE(isOneSentence(std::get<Refusal>(secret)));
  }
  return 0;
}
