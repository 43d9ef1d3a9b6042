// Decoding of compressed bodies.

#include <gtest/gtest.h>

#include <string>

#include "DownloadTarget.h"
#include "GzipDecoder.h"
#include "support/Gzip.h"

using AgentUtils::DownloadFailure;
using AgentUtils::GzipDecoder;

namespace {

/// What the body decodes to when it arrives in pieces of `size` bytes, or why it does not.
std::string decoded(const std::string& body, std::size_t size) {
  std::string result;
  GzipDecoder decoder([&](const char* bytes, std::size_t count) { result.append(bytes, count); });
  try {
    for (std::size_t at = 0; at < body.size(); at += size) {
      const std::string piece = body.substr(at, size);
      decoder.write(piece.data(), piece.size());
    }
    decoder.finish();
  } catch (const DownloadFailure& failure) {
    return failure.what();
  }
  return result;
}

TEST(GzipDecoder, DecodesWhateverThePieces) {
  std::string text;
  for (int line = 0; line < 5000; ++line) text += "line " + std::to_string(line * line) + '\n';
  const std::string body = gzipped(text);
  for (const std::size_t size : {std::size_t{1}, std::size_t{7}, std::size_t{4096}, body.size()}) {
    EXPECT_TRUE(decoded(body, size) == text) << size;
  }
  EXPECT_EQ(decoded(gzipped(""), 1000), "");
}

TEST(GzipDecoder, JoinsTheMembersOfAStream) {
  EXPECT_EQ(decoded(gzipped("one") + gzipped("two"), 1000), "onetwo");
  EXPECT_EQ(decoded(gzipped("one") + gzipped("two"), 1), "onetwo");
}

TEST(GzipDecoder, EveryTruncationIsAFailure) {
  const std::string body = gzipped("some text that is long enough");
  for (std::size_t length = 0; length < body.size(); ++length) {
    EXPECT_EQ(decoded(body.substr(0, length), 1000), "the compressed body is cut short") << length;
  }
}

TEST(GzipDecoder, DamageIsAFailure) {
  const std::string body = gzipped("some text that is long enough");
  std::string damaged = body;
  damaged[body.size() - 5] = static_cast<char>(damaged[body.size() - 5] ^ 1);
  EXPECT_EQ(decoded(damaged, 1000), "the compressed body is damaged");
  EXPECT_EQ(decoded("not compressed at all", 1000), "the compressed body is damaged");
  EXPECT_EQ(decoded(body + "rest", 1000), "the compressed body is damaged");
}

TEST(GzipDecoder, LetsTheSinkStopABomb) {
  const std::string bomb = gzipped(std::string(std::size_t{64} << 20, '\0'));
  std::size_t taken = 0;
  GzipDecoder decoder([&](const char*, std::size_t count) {
    taken += count;
    if (taken > 100000) throw DownloadFailure("enough");
  });
  EXPECT_THROW(decoder.write(bomb.data(), bomb.size()), DownloadFailure);
  EXPECT_LT(taken, 200000u);
}

}  // namespace
