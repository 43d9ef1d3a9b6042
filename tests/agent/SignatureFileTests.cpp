// Signature files and public keys: what minisign makes is taken, and everything that differs from
// it in one thing is refused by a sentence of its own.

#include <gtest/gtest.h>

#include <string>

#include "signing/ListSignature.h"
#include "signing/PublicKey.h"
#include "support/Signer.h"

using namespace AgentUtils::signing;

namespace {

std::string refusalOfSignature(const std::string& text) {
  const auto parsed = parseSignature(text);
  const auto* const refusal = std::get_if<Refusal>(&parsed);
  return refusal == nullptr ? "(taken)" : refusal->sentence;
}

std::string refusalOfKey(const std::string& text) {
  const auto parsed = parsePublicKey(text);
  const auto* const refusal = std::get_if<Refusal>(&parsed);
  return refusal == nullptr ? "(taken)" : refusal->sentence;
}

ListSignature signatureIn(const std::string& name) {
  return std::get<ListSignature>(parseSignature(vectorFile(name)));
}

std::string replaced(std::string text, const std::string& what, const std::string& with) {
  return text.replace(text.find(what), what.size(), with);
}

TEST(SignatureFile, OfMinisignIsTakenWithItsKeyAndComment) {
  const ListSignature signature = signatureIn("first.minisig");
  EXPECT_EQ(keyName(signature.key), "808CC446AE5308A3");
  EXPECT_EQ(
      signature.comment,
      "customer:acme\tserial:7\tpublished:2026-11-22T11:30:00Z\texpires:2026-12-22T11:30:00Z");
}

TEST(SignatureFile, OfMinisignIsWrittenAgainAsItWas) {
  for (const char* const name : {"first.minisig", "second.minisig", "locked.minisig"}) {
    EXPECT_EQ(signatureFile(signatureIn(name)), vectorFile(name)) << name;
  }
}

TEST(SignatureFile, OfMinisignHoldsForItsListAndKeyAlone) {
  const ListHash list = hashOfList(vectorFile("list.xml"));
  EXPECT_EQ(verify(signatureIn("first.minisig"), vectorKey("first"), list), Verdict::valid);
  EXPECT_EQ(verify(signatureIn("second.minisig"), vectorKey("second"), list), Verdict::valid);
  EXPECT_EQ(verify(signatureIn("locked.minisig"), vectorKey("locked"), list), Verdict::valid);
  EXPECT_EQ(verify(signatureIn("first.minisig"), vectorKey("second"), list), Verdict::otherList);
  EXPECT_EQ(verify(signatureIn("first.minisig"), vectorKey("first"),
                   hashOfList(vectorFile("list.xml") + ' ')),
            Verdict::otherList);
}

TEST(SignatureFile, WithAChangedCommentDoesNotHold) {
  ListSignature signature = signatureIn("first.minisig");
  signature.comment = replaced(signature.comment, "serial:7", "serial:8");
  EXPECT_EQ(verify(signature, vectorKey("first"), hashOfList(vectorFile("list.xml"))),
            Verdict::otherComment);
}

TEST(SignatureFile, CutAnywhereIsRefused) {
  const std::string whole = vectorFile("first.minisig");
  // The last line break alone may be missing.
  EXPECT_EQ(refusalOfSignature(whole.substr(0, whole.size() - 1)), "(taken)");
  for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
    EXPECT_NE(refusalOfSignature(whole.substr(0, length)), "(taken)") << length;
  }
  EXPECT_EQ(refusalOfSignature(""), "the signature file is empty");
  EXPECT_EQ(refusalOfSignature(whole.substr(0, 20)),
            "the signature file is cut: it has 1 of four lines");
  EXPECT_EQ(refusalOfSignature(whole.substr(0, whole.size() - 2)),
            "the signature file has no signature in its fourth line");
}

TEST(SignatureFile, IsRefusedBySentencesThatNameWhatIsWrong) {
  const std::string whole = vectorFile("first.minisig");
  EXPECT_EQ(refusalOfSignature(whole + std::string(4096, '\n')),
            "the signature file is longer than 4096 bytes");
  EXPECT_EQ(refusalOfSignature(whole + whole), "the signature file has more than four lines");
  EXPECT_EQ(refusalOfSignature(whole + "\n"), "the signature file has more than four lines");
  EXPECT_EQ(refusalOfSignature(replaced(whole, "\n", "\r\n")),
            "the signature file has carriage returns in it");
  EXPECT_EQ(refusalOfSignature(replaced(whole, "untrusted", "Untrusted")),
            "the signature file does not begin with \"untrusted comment: \"");
  EXPECT_EQ(refusalOfSignature(replaced(whole, "\ntrusted", "\nTrusted")),
            "the signature file does not begin its third line with \"trusted comment: \"");
  EXPECT_EQ(refusalOfSignature(replaced(whole, "RUS", "RUS ")),
            "the signature file has no signature in its second line");
  EXPECT_EQ(refusalOfSignature(replaced(whole, "hwo=", "hwp=")),
            "the signature file has no signature in its second line");
  EXPECT_EQ(refusalOfSignature(replaced(whole, "RUS", "RVS")),
            "the signature file is of an unknown algorithm");
  EXPECT_EQ(refusalOfSignature(vectorFile("whole.minisig")),
            "the signature file is of the algorithm Ed, which does not hash the list first; ED is "
            "wanted");
}

TEST(SignatureFile, HasItsPlaceUnderTheListsDigest) {
  EXPECT_EQ(signatureNames("ab12", {vectorKey("first"), vectorKey("second")}),
            (std::vector<std::string>{"signatures/ab12.minisig",
                                      "signatures/ab12.808CC446AE5308A3.minisig",
                                      "signatures/ab12.C3CC33B19BA09674.minisig"}));
}

TEST(PublicKeyText, OfMinisignIsTakenAsALineAndAsAFile) {
  const std::string line = "RWSjCFOuRsSMgAerzYexOa11ibsYAFttoRSPg+xxOs74Kr5YXF8XQtKl";
  const PublicKey key = vectorKey("first");
  EXPECT_EQ(std::get<PublicKey>(parsePublicKey(line)), key);
  EXPECT_EQ(std::get<PublicKey>(parsePublicKey(line + "\n")), key);
  EXPECT_EQ(publicKeyLine(key), line);
  EXPECT_EQ(publicKeyFile(key), vectorFile("first.pub"));
  EXPECT_EQ(keyName(key.number), "808CC446AE5308A3");
}

TEST(PublicKeyText, CutAnywhereIsRefused) {
  const std::string whole = vectorFile("first.pub");
  for (std::size_t length = 0; length + 1 < whole.size(); ++length) {
    EXPECT_NE(refusalOfKey(whole.substr(0, length)), "(taken)") << length;
  }
}

TEST(PublicKeyText, IsRefusedBySentencesThatNameWhatIsWrong) {
  const std::string file = vectorFile("first.pub");
  EXPECT_EQ(refusalOfKey(""), "the public key is empty");
  EXPECT_EQ(refusalOfKey(std::string(2049, 'R')), "the public key is longer than 2048 bytes");
  EXPECT_EQ(refusalOfKey("untrusted comment: x"),
            "the public key is cut: its second line is missing");
  EXPECT_EQ(refusalOfKey(file + "more\n"),
            "the public key is not a line of 56 letters that begins with RW");
  EXPECT_EQ(refusalOfKey(replaced(file, "RWS", "RXS")),
            "the public key is of an unknown algorithm");
  EXPECT_EQ(refusalOfKey(vectorFile("first.key")),
            "the public key is a secret key, which belongs to whoever signs alone");
  // A point of the curve that everybody can sign for.
  EXPECT_EQ(refusalOfKey("RWSjCFOuRsSMgAEAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA"),
            "the public key is none");
}

}  // namespace
