// The signed comment: four fields, each once, each of its form.

#include <gtest/gtest.h>

#include <string>

#include "signing/SignedComment.h"
#include "support/Signer.h"

using namespace AgentUtils::signing;

namespace {

std::string refusalOf(const std::string& text) {
  const auto parsed = parseSignedComment(text);
  const auto* const refusal = std::get_if<Refusal>(&parsed);
  return refusal == nullptr ? "(taken)" : refusal->sentence;
}

TEST(SignedComment, HoldsItsFourFields) {
  const SignedComment expected{"acme", 7, UTCTime(std::chrono::seconds(1795347000)),
                               UTCTime(std::chrono::seconds(1797939000))};
  const std::string text =
      "customer:acme\tserial:7\tpublished:2026-11-22T11:30:00Z\texpires:2026-12-22T11:30:00Z";
  EXPECT_EQ(std::get<SignedComment>(parseSignedComment(text)), expected);
  EXPECT_EQ(signedCommentText(expected), text);
  EXPECT_EQ(std::get<SignedComment>(parseSignedComment(
                "expires:2026-12-22T11:30:00Z\tserial:7\tcustomer:acme\tpublished:2026-11-22T11:30:"
                "00Z")),
            expected);
}

TEST(SignedComment, TakesACustomerWithBlanksAndColons) {
  const auto parsed = parseSignedComment(
      commentWith("7", "2026-11-22T11:30:00Z", "2026-12-22T11:30:00Z", "acme: the other one"));
  EXPECT_EQ(std::get<SignedComment>(parsed).customer, "acme: the other one");
}

TEST(SignedComment, IsRefusedBySentencesThatNameWhatIsWrong) {
  const struct {
    std::string text;
    const char* refusal;
  } rows[] = {
      {"", "the signed comment holds what is not known here: \"\""},
      {"timestamp:1\tfile:list.xml",
       "the signed comment holds what is not known here: \"timestamp:1\""},
      {commentWith("7") + "\t", "the signed comment holds what is not known here: \"\""},
      {commentWith("7") + "\tnote", "the signed comment holds what is not known here: \"note\""},
      {commentWith("7") + "\tserial:7", "the signed comment has serial twice"},
      {"customer:acme\tserial:7\tpublished:2026-11-22T11:30:00Z",
       "the signed comment has no expires"},
      {"serial:7\tpublished:2026-11-22T11:30:00Z\texpires:2026-12-22T11:30:00Z",
       "the signed comment has no customer"},
      {commentWith("7", "2026-11-22T11:30:00Z", "2026-12-22T11:30:00Z", ""),
       "the signed comment has customer that is no name"},
      {commentWith("7", "2026-11-22T11:30:00Z", "2026-12-22T11:30:00Z", "a\033[2J"),
       "the signed comment has customer that is no name"},
      {commentWith("7", "2026-11-22", "2026-12-22T11:30:00Z"),
       "the signed comment has published that is no time such as 2026-11-22T11:30:00Z: "
       "\"2026-11-22\""},
      {commentWith("7", "2026-11-22T11:30:00Z", "soon"),
       "the signed comment has expires that is no time such as 2026-11-22T11:30:00Z: \"soon\""},
      {commentWith("7", "2026-11-22T11:30:00Z", "2026-11-22T11:30:00Z"),
       "the signed comment expires before it was published"},
  };
  for (const auto& row : rows) EXPECT_EQ(refusalOf(row.text), row.refusal) << row.text;
}

TEST(SignedComment, HasASerialThat64BitsHold) {
  for (const char* const serial : {"0", "1", "18446744073709551615"}) {
    EXPECT_EQ(refusalOf(commentWith(serial)), "(taken)") << serial;
  }
  for (const std::string serial :
       {"", "-1", "+1", " 1", "1 ", "01", "0x1", "1.0", "one", "18446744073709551616"}) {
    EXPECT_EQ(refusalOf(commentWith(serial)),
              "the signed comment has serial that is no whole number from 0 to "
              "18446744073709551615: \"" +
                  serial + '"');
  }
}

TEST(UTCTimeText, IsReadInOneFormOnly) {
  EXPECT_EQ(utcTimeFrom("1970-01-01T00:00:00Z"), UTCTime());
  EXPECT_EQ(utcTimeFrom("2024-02-29T23:59:59Z"), UTCTime(std::chrono::seconds(1709251199)));
  EXPECT_EQ(utcTimeFrom("9999-12-31T23:59:59Z"), UTCTime(std::chrono::seconds(253402300799)));
  for (const char* const text :
       {"", "2026-11-22", "2026-11-22T11:30Z", "2026-11-22 11:30:00Z", "2026-11-22t11:30:00z",
        "2026-11-22T11:30:00", "2026-11-22T11:30:00+00:00", "2026-11-22T11:30:00.5Z",
        "2026-11-22T11:30:00Z ", "2023-02-29T00:00:00Z", "2026-13-01T00:00:00Z",
        "2026-00-01T00:00:00Z", "2026-01-00T00:00:00Z", "2026-01-01T24:00:00Z",
        "2026-01-01T00:60:00Z", "2026-01-01T00:00:60Z", "+026-01-01T00:00:00Z"}) {
    EXPECT_EQ(utcTimeFrom(text), std::nullopt) << text;
  }
}

TEST(UTCTimeText, IsWrittenAsItIsRead) {
  for (const char* const text : {"0000-01-01T00:00:00Z", "1969-12-31T23:59:59Z",
                                 "2026-11-02T01:03:09Z", "9999-12-31T23:59:59Z"}) {
    EXPECT_EQ(utcTimeText(at(text)), text);
  }
  EXPECT_EQ(utcTimeText(at("9999-12-31T23:59:59Z") + std::chrono::hours(1000000)),
            "9999-12-31T23:59:59Z");
}

}  // namespace
