// Server paths that carry the digest of their content, and those that do not.

#include <gtest/gtest.h>

#include <string>

#include "signing/BoundPath.h"

using AgentUtils::signing::complaintAboutContent;
using AgentUtils::signing::digestInPath;

namespace {

const std::string kDigest = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
const std::string kOther = "d78081e2d670b128921716623b8d4123b27192769b50f5fe76daf837f0de402f";
const std::string kPlace = "/client-data/acme/scriptrepo/";

TEST(BoundPath, HasTheDigestInItsLastName) {
  for (const std::string& path :
       {kPlace + "data/" + kDigest + ".xml", "client-data/acme/scriptrepo/files/" + kDigest + ".sh",
        kDigest, kDigest + ".", "/x/" + kDigest + ".tar.gz"}) {
    EXPECT_EQ(digestInPath(path), kDigest) << path;
  }
}

TEST(BoundPath, HasNoneInAnyOtherForm) {
  std::string capitals = kDigest;
  capitals[0] = 'B';
  for (const std::string& path :
       {std::string(), kPlace, kPlace + "data/42.xml", kPlace + "data/" + capitals + ".xml",
        kPlace + "data/" + kDigest.substr(1) + ".xml", kPlace + "data/" + kDigest + "a.xml",
        kPlace + "data/" + kDigest + "-old.xml", kPlace + "data/" + kDigest + "?.xml",
        kPlace + "data/%62" + kDigest.substr(1) + ".xml", kPlace + kDigest + "/42.xml",
        kPlace + kDigest + ".xml/", kPlace + kDigest + std::string(1, '\0') + ".xml"}) {
    EXPECT_EQ(digestInPath(path), std::nullopt) << path;
  }
}

TEST(BoundPath, TakesItsOwnContentAlone) {
  const std::string path = kPlace + "data/" + kDigest + ".xml";
  EXPECT_EQ(complaintAboutContent(path, kDigest), std::nullopt);
  EXPECT_EQ(complaintAboutContent(path, kOther)->sentence,
            "what came for /client-data/acme/scriptrepo/data/" + kDigest +
                ".xml is not what the signed list names: its SHA-256 is " + kOther);
  EXPECT_EQ(complaintAboutContent(path, "")->sentence,
            "what came for /client-data/acme/scriptrepo/data/" + kDigest +
                ".xml is not what the signed list names: its SHA-256 is ");
  EXPECT_EQ(complaintAboutContent(kPlace + "data/42.xml", kDigest)->sentence,
            "/client-data/acme/scriptrepo/data/42.xml is not bound to the signed list: its name "
            "has no SHA-256 of its content");
}

}  // namespace
