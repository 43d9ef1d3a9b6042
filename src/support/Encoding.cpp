// Two ways to the same answer: sequence by sequence, for the ends of a text and for short ones, and
// a block of bytes at a time for what lies between. The tests hold the two together.

#include "support/Encoding.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

// What has table look-ups for many bytes at a time. Whether an x86 processor has them is known when
// the program runs; the test for that belongs to the compilers' runtime on Linux, elsewhere it may
// be missing. Everybody else reads all texts sequence by sequence.
#if defined(__x86_64__) && defined(__linux__)
#define VARN_BLOCKS __attribute__((target("avx2")))
#include <immintrin.h>
#elif defined(__aarch64__)
#define VARN_BLOCKS
#include <arm_neon.h>
#endif

namespace VarnScriptRepository::text {
namespace {

using Byte = unsigned char;

/// The bits of a word that no ASCII byte has.
constexpr std::uint64_t kHighestBits = 0x8080808080808080U;

// ---- Sequence by sequence --------------------------------------------------------------------

/// What a UTF-8 sequence that begins with a given byte looks like.
struct Sequence {
  std::size_t length;  ///< 0 for a byte that begins no sequence
  // The range of the second byte is what keeps out overlong forms, surrogates and what lies beyond
  // U+10FFFF; all further bytes are 0x80 to 0xBF.
  Byte secondMin;
  Byte secondMax;
};

constexpr Sequence sequenceOf(Byte first) {
  if (first < 0x80) return {1, 0, 0};
  if (first < 0xC2) return {0, 0, 0};
  if (first < 0xE0) return {2, 0x80, 0xBF};
  if (first == 0xE0) return {3, 0xA0, 0xBF};
  if (first == 0xED) return {3, 0x80, 0x9F};
  if (first < 0xF0) return {3, 0x80, 0xBF};
  if (first == 0xF0) return {4, 0x90, 0xBF};
  if (first < 0xF4) return {4, 0x80, 0xBF};
  if (first == 0xF4) return {4, 0x80, 0x8F};
  return {0, 0, 0};
}

/// How many bytes of `rest` match the sequence that its first byte begins; 0 when the first byte
/// begins none.
std::size_t matchingBytes(std::string_view rest, const Sequence& sequence) {
  if (sequence.length == 0) return 0;
  std::size_t matched = 1;
  while (matched < sequence.length && matched < rest.size()) {
    const auto byte = static_cast<Byte>(rest[matched]);
    const Byte min = matched == 1 ? sequence.secondMin : 0x80;
    const Byte max = matched == 1 ? sequence.secondMax : 0xBF;
    if (byte < min || byte > max) break;
    ++matched;
  }
  return matched;
}

/// The length of the whole sequence that `rest` begins with; 0 when it begins with none.
std::size_t wholeSequence(std::string_view rest) {
  const Sequence sequence = sequenceOf(static_cast<Byte>(rest.front()));
  return matchingBytes(rest, sequence) == sequence.length ? sequence.length : 0;
}

/// The length of the ASCII run that `text` begins with, looked at a word at a time.
std::size_t asciiPrefix(std::string_view text) {
  std::size_t length = 0;
  while (text.size() - length >= sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::copy_n(text.data() + length, sizeof word, reinterpret_cast<char*>(&word));
    if ((word & kHighestBits) != 0) break;
    length += sizeof word;
  }
  while (length < text.size() && static_cast<Byte>(text[length]) < 0x80) ++length;
  return length;
}

/// `isUTF8`, one sequence after the other.
bool isUTF8BySequences(std::string_view bytes) {
  while (true) {
    bytes.remove_prefix(asciiPrefix(bytes));
    if (bytes.empty()) return true;
    const std::size_t length = wholeSequence(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
}

// ---- Block by block --------------------------------------------------------------------------

#ifdef VARN_BLOCKS

/// Long enough that putting the bytes' answers together at its end does not count.
constexpr std::size_t kBlock = 256;

using Table = std::array<Byte, 16>;

/// What can be wrong with two bytes that follow each other, a bit each. Three tables say which of
/// it the first byte's upper half, its lower half and the second byte's upper half allow; what all
/// three allow is wrong. This is the method that Keiser and Lemire published ("Validating UTF-8 In
/// Less Than One Instruction Per Byte", 2020).
enum : Byte {
  kTooShort = 1,    // a byte that begins a sequence, and another one that does or ASCII
  kTooLong = 2,     // ASCII, and a continuation
  kOverlong3 = 4,   // E0 80..9F
  kTooLarge = 8,    // F4 90..BF and F5..FF 90..BF
  kSurrogate = 16,  // ED A0..BF
  kOverlong2 = 32,  // C0..C1 80..BF
  kOverlong4 = 64,  // F0 80..8F, and with the same tables F5..FF 80..8F
  kTwoAfter = 128,  // two continuations: right where a sequence of three or four says so
  kAnyLower = kTooShort | kTooLong | kTwoAfter,
};
constexpr Table kFirstUpper = [] {
  Table table{};
  std::fill_n(table.begin(), 8, kTooLong);
  std::fill_n(table.begin() + 8, 4, kTwoAfter);
  table[0xC] = kTooShort | kOverlong2;
  table[0xD] = kTooShort;
  table[0xE] = kTooShort | kOverlong3 | kSurrogate;
  table[0xF] = kTooShort | kTooLarge | kOverlong4;
  return table;
}();
constexpr Table kFirstLower = [] {
  Table table{};
  table.fill(kAnyLower | kTooLarge | kOverlong4);
  table[0] = kAnyLower | kOverlong2 | kOverlong3 | kOverlong4;
  table[1] = kAnyLower | kOverlong2;
  table[2] = table[3] = kAnyLower;
  table[4] = kAnyLower | kTooLarge;
  table[0xD] |= kSurrogate;
  return table;
}();
constexpr Table kSecondUpper = [] {
  Table table{};
  table.fill(kTooShort);
  table[8] = kTooLong | kTwoAfter | kOverlong2 | kOverlong3 | kOverlong4;
  table[9] = kTooLong | kTwoAfter | kOverlong2 | kOverlong3 | kTooLarge;
  table[0xA] = table[0xB] = kTooLong | kTwoAfter | kOverlong2 | kSurrogate | kTooLarge;
  return table;
}();

#ifdef __x86_64__
using Bytes = __m256i;
VARN_BLOCKS inline Bytes load(const Byte* from) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i_u*>(from));
}
VARN_BLOCKS inline Bytes same(Byte byte) { return _mm256_set1_epi8(static_cast<char>(byte)); }
VARN_BLOCKS inline Bytes lookUp(const Table& table, Bytes halves) {
  const __m128i once = _mm_loadu_si128(reinterpret_cast<const __m128i_u*>(table.data()));
  return _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(once), halves);
}
VARN_BLOCKS inline Bytes upperHalves(Bytes bytes) {
  return _mm256_and_si256(_mm256_srli_epi16(bytes, 4), same(0x0F));
}
VARN_BLOCKS inline Bytes lessAtLeast0(Bytes bytes, Byte by) {
  return _mm256_subs_epu8(bytes, same(by));
}
VARN_BLOCKS inline bool isAnySet(Bytes bits) { return _mm256_testz_si256(bits, bits) == 0; }
bool hasBlocks() { return static_cast<bool>(__builtin_cpu_supports("avx2")); }
#else
using Bytes = uint8x16_t;
inline Bytes load(const Byte* from) { return vld1q_u8(from); }
inline Bytes same(Byte byte) { return vdupq_n_u8(byte); }
inline Bytes lookUp(const Table& table, Bytes halves) {
  return vqtbl1q_u8(vld1q_u8(table.data()), halves);
}
inline Bytes upperHalves(Bytes bytes) { return vshrq_n_u8(bytes, 4); }
inline Bytes lessAtLeast0(Bytes bytes, Byte by) { return vqsubq_u8(bytes, same(by)); }
inline bool isAnySet(Bytes bits) { return vmaxvq_u8(bits) != 0; }
bool hasBlocks() { return true; }
#endif

/// Whether a byte of the block can't stand where it stands, going by the three bytes before it,
/// which are read. A sequence that the block ends inside of is left to whoever looks at the bytes
/// that follow.
VARN_BLOCKS bool hasWrongByte(const Byte* block) {
  Bytes wrong = same(0);
  for (std::size_t at = 0; at < kBlock; at += sizeof(Bytes)) {
    const Bytes first = load(block + at - 1);
    const Bytes second = load(block + at);
    const Bytes bad = lookUp(kFirstUpper, upperHalves(first)) &
                      lookUp(kFirstLower, first & same(0x0F)) &
                      lookUp(kSecondUpper, upperHalves(second));
    // Two continuations stand where a sequence of three began two bytes before, or one of four
    // three bytes before, and must stand there.
    const Bytes third = lessAtLeast0(load(block + at - 2), 0xE0 - 0x80);
    const Bytes fourth = lessAtLeast0(load(block + at - 3), 0xF0 - 0x80);
    wrong |= ((third | fourth) & same(kTwoAfter)) ^ bad;
  }
  return isAnySet(wrong);
}

bool isASCIIBlock(const Byte* block) {
  std::uint64_t bits = 0;
  for (std::size_t at = 0; at < kBlock; at += sizeof bits) {
    std::uint64_t word = 0;
    std::memcpy(&word, block + at, sizeof word);
    bits |= word;
  }
  return (bits & kHighestBits) == 0;
}

/// Whether a sequence that begins before `bytes` goes on there. The three bytes before are read.
bool isInsideSequence(const Byte* bytes) {
  return bytes[-1] >= 0xC0 || bytes[-2] >= 0xE0 || bytes[-3] >= 0xF0;
}

/// Where the last sequence before `end` begins, when it may go on there; `end` when it does not.
/// The three bytes before are read.
std::size_t lastStart(const Byte* bytes, std::size_t end) {
  for (std::size_t back = 1; back <= 3; ++back) {
    if (bytes[end - back] >= 0xC0) return end - back;
  }
  return end;
}

/// `isUTF8` of a text that is at least two blocks long.
bool isUTF8ByBlocks(std::string_view bytes) {
  // The blocks begin where three bytes of whole sequences lie before them.
  std::size_t at = 0;
  while (at < 3) {
    const std::size_t length = wholeSequence(bytes.substr(at));
    if (length == 0) return false;
    at += length;
  }
  const auto* const all = reinterpret_cast<const Byte*>(bytes.data());
  for (; bytes.size() - at >= kBlock; at += kBlock) {
    const Byte* const block = all + at;
    const bool wrong = isASCIIBlock(block) ? isInsideSequence(block) : hasWrongByte(block);
    if (wrong) return false;
  }
  return isUTF8BySequences(bytes.substr(lastStart(all, at)));
}

#endif

}  // namespace

bool isUTF8(std::string_view bytes) {
#ifdef VARN_BLOCKS
  if (bytes.size() >= 2 * kBlock && hasBlocks()) return isUTF8ByBlocks(bytes);
#endif
  return isUTF8BySequences(bytes);
}

std::size_t missingBytesAtEnd(std::string_view bytes) {
  // The sequence that is cut short begins with one of the last three bytes.
  for (std::size_t back = 1; back <= std::min<std::size_t>(3, bytes.size()); ++back) {
    const std::string_view tail = bytes.substr(bytes.size() - back);
    const Sequence sequence = sequenceOf(static_cast<Byte>(tail.front()));
    if (sequence.length > back && matchingBytes(tail, sequence) == back) {
      return sequence.length - back;
    }
  }
  return 0;
}

}  // namespace VarnScriptRepository::text
