#include "support/Signer.h"

#include <sodium.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

using namespace AgentUtils::signing;

namespace {

// In the line of a secret key.
constexpr std::size_t kNumber = 54;
constexpr std::size_t kKey = 62;
constexpr std::size_t kSize = 158;

std::string base64(const std::string& bytes) {
  std::string text(sodium_base64_ENCODED_LEN(bytes.size(), sodium_base64_VARIANT_ORIGINAL), '\0');
  sodium_bin2base64(text.data(), text.size(), reinterpret_cast<const unsigned char*>(bytes.data()),
                    bytes.size(), sodium_base64_VARIANT_ORIGINAL);
  text.pop_back();
  return text;
}

std::string signatureOf(const std::string& bytes, const unsigned char* key) {
  std::string signature(crypto_sign_BYTES, '\0');
  crypto_sign_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr,
                       reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), key);
  return signature;
}

}  // namespace

std::string vectorFile(const std::string& name) {
  std::ifstream file(VARN_SIGNING_VECTORS "/" + name, std::ios::binary);
  if (!file) throw std::runtime_error("no vector " + name);
  return {std::istreambuf_iterator<char>(file), {}};
}

PublicKey vectorKey(const std::string& name) {
  return std::get<PublicKey>(parsePublicKey(vectorFile(name + ".pub")));
}

Signer::Signer(const std::string& name) : packed_(kSize) {
  const std::string text = vectorFile(name + ".key");
  const std::string line = text.substr(text.find('\n') + 1, 212);
  std::size_t count = 0;
  if (sodium_base642bin(packed_.data(), kSize, line.data(), line.size(), nullptr, &count, nullptr,
                        sodium_base64_VARIANT_ORIGINAL) != 0 ||
      count != kSize) {
    throw std::runtime_error("no secret key: " + name);
  }
}

std::string Signer::sign(std::string_view list, std::string_view comment) const {
  std::string hash(64, '\0');
  crypto_generichash(reinterpret_cast<unsigned char*>(hash.data()), hash.size(),
                     reinterpret_cast<const unsigned char*>(list.data()), list.size(), nullptr, 0);
  const unsigned char* const key = packed_.data() + kKey;
  const std::string number(packed_.begin() + kNumber, packed_.begin() + kKey);
  const std::string overList = signatureOf(hash, key);
  const std::string words(comment);
  return "untrusted comment: of a test\n" + base64("ED" + number + overList) +
         "\ntrusted comment: " + words + '\n' + base64(signatureOf(overList + words, key)) + '\n';
}

std::string commentWith(const std::string& serial, const std::string& published,
                        const std::string& expires, const std::string& customer) {
  return "customer:" + customer + "\tserial:" + serial + "\tpublished:" + published +
         "\texpires:" + expires;
}

UTCTime at(std::string_view text) { return utcTimeFrom(text).value(); }

std::string outcome(const Judgement& judgement) {
  const auto* const refusal = std::get_if<Refusal>(&judgement);
  return refusal == nullptr ? "(accepted)" : refusal->sentence;
}
