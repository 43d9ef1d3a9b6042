#include "key/SecretKey.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <utility>

#include "signing/Sodium.h"

namespace VarnScripts::keys {
namespace {

using AgentUtils::signing::kUntrustedComment;
using AgentUtils::signing::ListSignature;
using AgentUtils::signing::startSodium;

constexpr std::string_view kAlgorithm = "Ed";
constexpr std::string_view kScrypt = "Sc";
constexpr std::string_view kUnprotected{"\0\0", 2};
constexpr std::string_view kChecksum = "B2";

// Where what is in the line of a key: algorithm, derivation, checksum's algorithm, salt,
// operations, memory, and the part that a passphrase hides: number, key, checksum.
constexpr std::size_t kSalt = 6;
constexpr std::size_t kSaltSize = crypto_pwhash_scryptsalsa208sha256_SALTBYTES;
constexpr std::size_t kOperations = kSalt + kSaltSize;
constexpr std::size_t kMemory = kOperations + 8;
constexpr std::size_t kHidden = kMemory + 8;
constexpr std::size_t kNumberSize = 8;
constexpr std::size_t kKeySize = crypto_sign_SECRETKEYBYTES;
constexpr std::size_t kSumSize = 32;
constexpr std::size_t kHiddenSize = kNumberSize + kKeySize + kSumSize;
constexpr std::size_t kSize = kHidden + kHiddenSize;
constexpr std::size_t kLineLength = 212;
static_assert(kSize == 158 &&
              sodium_base64_ENCODED_LEN(kSize, sodium_base64_VARIANT_ORIGINAL) == kLineLength + 1);

using Packed = Secret<kSize>;
using Hidden = Secret<kHiddenSize>;

/// Less than this is no protection.
constexpr PassphraseCost kLeastCost{crypto_pwhash_scryptsalsa208sha256_OPSLIMIT_INTERACTIVE,
                                    crypto_pwhash_scryptsalsa208sha256_MEMLIMIT_INTERACTIVE};
/// What a file may ask for: somebody may have written anything into it.
constexpr PassphraseCost kMostCost{std::uint64_t{1} << 28, std::uint64_t{1} << 33};

Refusal refusal(const std::string& why) { return {"the secret key " + why}; }

std::uint64_t numberAt(const unsigned char* bytes) {
  std::uint64_t number = 0;
  for (int i = 7; i >= 0; --i) number = number << 8 | bytes[i];
  return number;
}

void putNumber(std::uint64_t number, unsigned char* bytes) {
  for (int i = 0; i < 8; ++i, number >>= 8) bytes[i] = static_cast<unsigned char>(number);
}

void put(std::string_view text, unsigned char* bytes) {
  std::memcpy(bytes, text.data(), text.size());
}

bool stands(std::string_view text, const unsigned char* bytes) {
  return std::memcmp(bytes, text.data(), text.size()) == 0;
}

// The checksum of what a passphrase hides, which tells a right one from a wrong one.
std::array<unsigned char, kSumSize> checksumOf(const unsigned char* hidden) {
  std::array<unsigned char, kSumSize> sum;
  crypto_generichash_state state;
  crypto_generichash_init(&state, nullptr, 0, sum.size());
  crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(kAlgorithm.data()),
                            kAlgorithm.size());
  crypto_generichash_update(&state, hidden, kNumberSize + kKeySize);
  crypto_generichash_final(&state, sum.data(), sum.size());
  wipe(&state, sizeof state);
  return sum;
}

// Hides the bytes with the passphrase, or shows them again. False when there is not enough memory.
bool applyPassphrase(const Passphrase& passphrase, const unsigned char* salt, PassphraseCost cost,
                     unsigned char* hidden) {
  Hidden stream;
  const std::string_view text = passphrase.text();
  if (crypto_pwhash_scryptsalsa208sha256(stream.data(), kHiddenSize, text.data(), text.size(), salt,
                                         cost.operations,
                                         static_cast<std::size_t>(cost.memory)) != 0) {
    return false;
  }
  for (std::size_t i = 0; i < kHiddenSize; ++i) hidden[i] ^= stream.data()[i];
  return true;
}

std::optional<Refusal> takeLine(std::string_view text, Packed& packed) {
  if (text.empty()) return refusal("is empty");
  if (!text.starts_with(kUntrustedComment)) return refusal("is none: it has no comment line");
  const std::size_t end = text.find('\n');
  if (end == text.npos) return refusal("is cut: its second line is missing");
  std::string_view line = text.substr(end + 1);
  if (line.ends_with('\n')) line.remove_suffix(1);
  std::size_t count = 0;
  if (sodium_base642bin(packed.data(), kSize, line.data(), line.size(), nullptr, &count, nullptr,
                        sodium_base64_VARIANT_ORIGINAL) != 0 ||
      count != kSize) {
    const bool isPublic = line.size() == 56 && line.starts_with("RW");
    return refusal(isPublic ? "is a public key, with which nothing can be signed"
                            : "is none: its second line is not one of 212 letters");
  }
  if (!stands(kAlgorithm, packed.data())) return refusal("is of an unknown algorithm");
  if (!stands(kChecksum, packed.data() + 4)) return refusal("has a checksum of an unknown kind");
  return std::nullopt;
}

std::optional<Refusal> unlock(Packed& packed, const AskPassphrase& ask) {
  unsigned char* const hidden = packed.data() + kHidden;
  if (stands(kUnprotected, packed.data() + 2)) return std::nullopt;
  if (!stands(kScrypt, packed.data() + 2)) return refusal("is protected in an unknown way");
  const PassphraseCost cost{numberAt(packed.data() + kOperations),
                            numberAt(packed.data() + kMemory)};
  if (cost.operations > kMostCost.operations || cost.memory > kMostCost.memory) {
    return refusal("asks for more work to unlock it than any key has");
  }
  auto passphrase = ask();
  if (auto* const why = std::get_if<Refusal>(&passphrase)) return std::move(*why);
  if (!applyPassphrase(std::get<Passphrase>(passphrase), packed.data() + kSalt, cost, hidden)) {
    return refusal("can't be unlocked: that takes " + std::to_string(cost.memory >> 20) +
                   " MiB of memory");
  }
  const auto sum = checksumOf(hidden);
  if (sodium_memcmp(sum.data(), hidden + kNumberSize + kKeySize, kSumSize) != 0) {
    return refusal("can't be unlocked: the passphrase is wrong, or the file is damaged");
  }
  return std::nullopt;
}

// The public half must be the one that belongs to the seed: a signature made with another gives the
// key away.
bool isWhole(const unsigned char* key) {
  std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> point;
  Secret<kKeySize> again;
  crypto_sign_seed_keypair(point.data(), again.data(), key);
  return sodium_memcmp(again.data(), key, kKeySize) == 0;
}

void pack(const SecretKey& key, std::string_view derivation, Packed& packed) {
  packed.resize(kSize);
  put(kAlgorithm, packed.data());
  put(derivation, packed.data() + 2);
  put(kChecksum, packed.data() + 4);
  std::memcpy(packed.data() + kHidden, key.number.data(), kNumberSize);
  std::memcpy(packed.data() + kHidden + kNumberSize, key.bytes.data(), kKeySize);
}

KeyText fileOf(const Packed& packed, std::string_view comment) {
  Secret<kLineLength + 1> line;
  sodium_bin2base64(reinterpret_cast<char*>(line.data()), kLineLength + 1, packed.data(), kSize,
                    sodium_base64_VARIANT_ORIGINAL);
  line.resize(kLineLength);
  KeyText text;
  text.add(kUntrustedComment);
  text.add(comment);
  text.add("\n");
  text.add(line.text());
  text.add("\n");
  return text;
}

}  // namespace

PublicKey SecretKey::publicKey() const {
  PublicKey key;
  key.number = number;
  std::memcpy(key.point.data(), bytes.data() + crypto_sign_SEEDBYTES, key.point.size());
  return key;
}

SecretKey makeSecretKey() {
  startSodium();
  SecretKey key;
  std::array<unsigned char, crypto_sign_PUBLICKEYBYTES> point;
  key.bytes.resize(kKeySize);
  crypto_sign_keypair(point.data(), key.bytes.data());
  randombytes_buf(key.number.data(), key.number.size());
  return key;
}

std::variant<SecretKey, Refusal> parseSecretKey(std::string_view text, const AskPassphrase& ask) {
  startSodium();
  Packed packed;
  if (auto why = takeLine(text, packed)) return std::move(*why);
  if (auto why = unlock(packed, ask)) return std::move(*why);
  const unsigned char* const number = packed.data() + kHidden;
  if (!isWhole(number + kNumberSize))
    return refusal("is damaged: its two halves do not belong together");
  SecretKey key;
  std::copy_n(number, kNumberSize, key.number.begin());
  key.bytes.resize(kKeySize);
  std::memcpy(key.bytes.data(), number + kNumberSize, kKeySize);
  return key;
}

std::variant<ProtectedKey, Refusal> protectedKeyText(const SecretKey& key,
                                                     const Passphrase& passphrase,
                                                     PassphraseCost cost) {
  startSodium();
  for (; cost.operations >= kLeastCost.operations && cost.memory >= kLeastCost.memory;
       cost = {cost.operations / 2, cost.memory / 2}) {
    Packed packed;
    pack(key, kScrypt, packed);
    randombytes_buf(packed.data() + kSalt, kSaltSize);
    putNumber(cost.operations, packed.data() + kOperations);
    putNumber(cost.memory, packed.data() + kMemory);
    unsigned char* const hidden = packed.data() + kHidden;
    const auto sum = checksumOf(hidden);
    std::memcpy(hidden + kNumberSize + kKeySize, sum.data(), sum.size());
    if (applyPassphrase(passphrase, packed.data() + kSalt, cost, hidden)) {
      return ProtectedKey{fileOf(packed, "minisign encrypted secret key"), cost};
    }
  }
  return refusal("can't be protected: there is too little memory for it");
}

KeyText plainKeyText(const SecretKey& key) {
  startSodium();
  Packed packed;
  pack(key, kUnprotected, packed);
  return fileOf(packed, "minisign secret key without a passphrase");
}

std::string signedWith(const SecretKey& key, std::string_view list, const SignedComment& comment) {
  startSodium();
  ListSignature signature;
  signature.key = key.number;
  signature.comment = signedCommentText(comment);
  const auto hash = AgentUtils::signing::hashOfList(list);
  crypto_sign_detached(signature.overList.data(), nullptr, hash.data(), hash.size(),
                       key.bytes.data());
  const std::string commented = signedWithComment(signature);
  crypto_sign_detached(signature.overComment.data(), nullptr,
                       reinterpret_cast<const unsigned char*>(commented.data()), commented.size(),
                       key.bytes.data());
  return signatureFile(signature);
}

}  // namespace VarnScripts::keys
