// Two ways to the same answer: sequence by sequence, for the ends of a text and for short ones, and
// a block of bytes at a time for what lies between. The tests hold the two together.

#include "support/Encoding.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

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

/// Long enough that putting the bytes' answers together at its end does not count.
constexpr std::size_t kBlock = 256;

/// All bits that are set in one or more of the words of `size` bytes.
template <std::size_t size>
[[gnu::always_inline]] inline std::uint64_t bitsOfWords(const Byte* bytes) {
  using Words [[gnu::vector_size(16)]] = std::uint64_t;
  Words bits{};
  for (std::size_t at = 0; at < size; at += sizeof bits) {
    Words words;
    std::memcpy(&words, bytes + at, sizeof words);
    bits |= words;
  }
  return bits[0] | bits[1];
}

bool isASCIIBlock(const Byte* block) { return (bitsOfWords<kBlock>(block) & kHighestBits) == 0; }

/// Whether a sequence that begins before `bytes` goes on there. The three bytes before are read.
bool isInsideSequence(const Byte* bytes) {
  return bytes[-1] >= 0xC0 || bytes[-2] >= 0xE0 || bytes[-3] >= 0xF0;
}

/// Whether a byte of the block can't stand where it stands, going by the three bytes before it:
/// together these tests let pass what is UTF-8 and nothing else. A sequence that the block ends
/// inside of is left to whoever looks at the bytes that follow. The three bytes before the block
/// are read.
///
/// Each test answers for `width` bytes at a time, with all bits set where it is true. Processors
/// compare signed bytes; as such, 0x80 to 0xBF are the smallest. Bytes that are compared as
/// unsigned ones have their highest bit flipped.
template <std::size_t width>
[[gnu::always_inline]] inline bool hasWrongByte(const Byte* block) {
  using Bytes [[gnu::vector_size(width)]] = signed char;
  constexpr auto is = [](int byte) { return static_cast<signed char>(byte); };
  constexpr auto flipped = [](int byte) { return static_cast<signed char>(byte ^ 0x80); };
  Bytes wrong{};
  for (std::size_t at = 0; at < kBlock; at += width) {
    Bytes byte;
    Bytes before;
    Bytes second;  // the second byte before
    Bytes third;
    std::memcpy(&byte, block + at, width);
    std::memcpy(&before, block + at - 1, width);
    std::memcpy(&second, block + at - 2, width);
    std::memcpy(&third, block + at - 3, width);
    const Bytes unsignedBefore = before ^ flipped(0);

    const Bytes continues = byte < is(0xC0);
    const Bytes expected = (unsignedBefore > flipped(0xBF)) |
                           ((second ^ flipped(0)) > flipped(0xDF)) |
                           ((third ^ flipped(0)) > flipped(0xEF));
    wrong |= expected ^ continues;
    // Overlong forms of three bytes, and surrogates.
    const Bytes belowA0 = byte < is(0xA0);
    wrong |= ((before == is(0xE0)) & belowA0) | ((before == is(0xED)) & ~belowA0);
    // Overlong forms of four bytes, and what lies beyond U+10FFFF.
    const Bytes below90 = byte < is(0x90);
    wrong |= ((before == is(0xF0)) & below90) | ((unsignedBefore > flipped(0xF3)) & ~below90);
    // Bytes that begin nothing.
    wrong |= ((before & is(0xFE)) == is(0xC0)) | (unsignedBefore > flipped(0xF4));
  }
  return bitsOfWords<width>(reinterpret_cast<const Byte*>(&wrong)) != 0;
}

#if defined(__x86_64__) && defined(__linux__)
// Most x86 processors have wider registers than all of them have. The test for that belongs to the
// compilers' runtime on Linux; elsewhere it may be missing.
__attribute__((target("avx2"))) bool hasWrongByteWide(const Byte* block) {
  return hasWrongByte<32>(block);
}

bool hasWrongByteHere(const Byte* block) {
  return __builtin_cpu_supports("avx2") ? hasWrongByteWide(block) : hasWrongByte<16>(block);
}
#else
bool hasWrongByteHere(const Byte* block) { return hasWrongByte<16>(block); }
#endif

/// Where the last sequence before `end` begins, when it may go on there; `end` when it does not.
/// The three bytes before are read.
std::size_t lastStart(const Byte* bytes, std::size_t end) {
  for (std::size_t back = 1; back <= 3; ++back) {
    if (bytes[end - back] >= 0xC0) return end - back;
  }
  return end;
}

}  // namespace

bool isUTF8(std::string_view bytes) {
  if (bytes.size() < 2 * kBlock) return isUTF8BySequences(bytes);
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
    const bool wrong = isASCIIBlock(block) ? isInsideSequence(block) : hasWrongByteHere(block);
    if (wrong) return false;
  }
  return isUTF8BySequences(bytes.substr(lastStart(all, at)));
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
