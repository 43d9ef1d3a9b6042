// What a manifest may hold, and what is said about one that is wrong.

#include <gmock/gmock.h>

#include "SourceFixture.h"

namespace VarnScripts::publishing {
namespace {

using AgentUtils::digestKind;
using testing::ElementsAre;
using testing::IsEmpty;

using Manifest = SourceTest;

TEST_F(Manifest, GivesEveryValueOfAScript) {
  write("a.sh", "echo a\n");
  EXPECT_THAT(findingsOf("digest = \"sha512\"\n"
                         "[[script]]\n"
                         "id = \"42\"\n"
                         "file = \"a.sh\"\n"
                         "arguments = '-a \"two words\"'\n"
                         "accepted_codes = \"0,3\"\n"
                         "name = \"First\"\n"
                         "description = \"Says a.\"\n"
                         "platform = \"Linux\"\n"),
              IsEmpty());
  ASSERT_EQ(source_.scripts.size(), 1U);
  const ManifestScript& script = source_.scripts[0].entry;
  EXPECT_EQ(script.id.value, "42");
  EXPECT_EQ(script.file.value, "a.sh");
  EXPECT_EQ(script.arguments.value, "-a \"two words\"");
  EXPECT_EQ(script.acceptedCodes.value, "0,3");
  EXPECT_EQ(script.name.value, "First");
  EXPECT_EQ(script.description.value, "Says a.");
  EXPECT_EQ(script.platform.value, "Linux");
  EXPECT_EQ(source_.digest.name, "sha512");
}

TEST_F(Manifest, HasADefaultForWhatIsNotGiven) {
  writeOneScript("");
  EXPECT_THAT(findings(), IsEmpty());
  ASSERT_EQ(source_.scripts.size(), 1U);
  const ManifestScript& script = source_.scripts[0].entry;
  EXPECT_EQ(script.arguments.value, "");
  EXPECT_EQ(script.acceptedCodes.value, "0");
  EXPECT_EQ(script.name.value, "a.sh");
  EXPECT_EQ(script.description.value, "");
  EXPECT_EQ(script.platform.value, "Mac");
  EXPECT_EQ(source_.digest.name, "sha256");
}

TEST_F(Manifest, TakesAcceptedCodesAsAListOfNumbers) {
  writeOneScript("accepted_codes = [0, 3, 255]");
  EXPECT_THAT(findings(), IsEmpty());
  ASSERT_EQ(source_.scripts.size(), 1U);
  EXPECT_EQ(source_.scripts[0].entry.acceptedCodes.value, "0,3,255");
}

TEST_F(Manifest, GivesTheDigestsOfEachScript) {
  writeOneScript("");
  EXPECT_THAT(
      findings("SHA-1"),
      ElementsAre("--digest: warning: another script with the same sha1 digest can be made; "
                  "use sha256"));
  ASSERT_EQ(source_.scripts.size(), 1U);
  EXPECT_EQ(source_.scripts[0].sha256,
            "914cefaded94d45f313fa21b0af05991c33df3566f4ca6814c3652f4b92b7c8c");
  EXPECT_EQ(source_.scripts[0].checksum, "fe08476cb37197e892beb9d781aada5a340aefb0");
  EXPECT_EQ(source_.scripts[0].size, 7U);
  EXPECT_EQ(source_.scripts[0].extension, "sh");
}

TEST_F(Manifest, IsRefusedWhenItIsMissing) {
  EXPECT_THAT(findings(),
              ElementsAre("S/scripts.toml: the manifest can't be read: No such file or directory; "
                          "publish takes a directory with a manifest of this name"));
}

TEST_F(Manifest, IsRefusedWhenItIsNoToml) {
  EXPECT_THAT(findingsOf("\n[[script]\n"),
              ElementsAre("S/scripts.toml:2: Error while parsing table header: expected ']', saw "
                          "'\\n'; correct the manifest's TOML"));
}

TEST_F(Manifest, IsRefusedWithLineAndRemedyWhenSomethingIsWrong) {
  write("a.sh", "echo a\n");
  const struct {
    const char* manifest;
    const char* finding;
  } manifests[] = {
      {"digests = \"sha256\"\n[[script]]\nid = \"1\"\nfile = \"a.sh\"\n",
       "S/scripts.toml:1: unknown key \"digests\"; the manifest's keys are digest "
       "and script"},
      {"[[script]]\nid = \"1\"\nfile = \"a.sh\"\nargs = \"\"\n",
       "S/scripts.toml:4: unknown key \"args\"; a script's keys are id, file, arguments, "
       "accepted_codes, name, description and platform"},
      {"[[script]]\nid = 1\nfile = \"a.sh\"\n",
       "S/scripts.toml:2: id must be a text; write it between quotation marks"},
      {"[[script]]\nid = \"1\"\nfile = [\"a.sh\"]\n",
       "S/scripts.toml:3: file must be a text; write it between quotation marks"},
      {"[[script]]\nid = \"1\"\nfile = \"a.sh\"\narguments = true\n",
       "S/scripts.toml:4: arguments must be a text; write it between quotation "
       "marks"},
      {"digest = 256\n[[script]]\nid = \"1\"\nfile = \"a.sh\"\n",
       "S/scripts.toml:1: digest must be a text; write it between quotation marks"},
      {"[[script]]\nid = \"1\"\nfile = \"a.sh\"\naccepted_codes = 0\n",
       "S/scripts.toml:4: accepted_codes must be a text or a list of whole numbers; "
       "write it as \"0,3\" or as [0, 3]"},
      {"[[script]]\nid = \"1\"\nfile = \"a.sh\"\naccepted_codes = [0, \"3\"]\n",
       "S/scripts.toml:4: accepted_codes must be a text or a list of whole numbers; "
       "write it as \"0,3\" or as [0, 3]"},
      {"\n[script]\nid = \"1\"\nfile = \"a.sh\"\n",
       "S/scripts.toml:2: script must be a list of tables; write [[script]] above "
       "each script's keys"},
      {"script = [1]\n",
       "S/scripts.toml:1: script must be a list of tables; write [[script]] above "
       "each script's keys"},
      {"[[script]]\nfile = \"a.sh\"\n", "S/scripts.toml:1: the script has no id; give it one"},
      {"\n\n[[script]]\nid = \"1\"\n",
       "S/scripts.toml:3: the script has no file; name one that lies beside the "
       "manifest"},
      {"\ndigest = \"crc32\"\n[[script]]\nid = \"1\"\nfile = \"a.sh\"\n",
       "S/scripts.toml:2: unknown digest \"crc32\"; use sha256, or one of sha224, "
       "sha384, sha512, sha1 and md5"},
      {"digest = \"\"\n[[script]]\nid = \"1\"\nfile = \"a.sh\"\n",
       "S/scripts.toml:1: unknown digest \"\"; use sha256, or one of sha224, "
       "sha384, sha512, sha1 and md5"},
      {"digest = \"MD5\"\n[[script]]\nid = \"1\"\nfile = \"a.sh\"\n",
       "S/scripts.toml:1: warning: another script with the same md5 digest can be "
       "made; use sha256"},
      {"# nothing\n",
       "S/scripts.toml: the manifest lists no script, and every computer would remove all that it "
       "has; list at least one, or give --allow-removal"},
  };
  for (const auto& [manifest, finding] : manifests) {
    EXPECT_THAT(findingsOf(manifest), ElementsAre(finding)) << manifest;
  }
}

// The parser took the whole stack.
TEST_F(Manifest, IsRefusedWhenAKeyHasPartsWithoutEnd) {
  std::string key = "id";
  for (int part = 0; part < 200000; ++part) key += ".a";
  EXPECT_THAT(
      findingsOf("[[script]]\n" + key + " = 1\n"),
      ElementsAre("S/scripts.toml:2: a key has more than 16 parts; correct the manifest's TOML"));
}

TEST_F(Manifest, TheCommandLinesDigestWins) {
  writeOneScript("");
  EXPECT_THAT(findings("sha384"), IsEmpty());
  EXPECT_EQ(source_.digest.name, "sha384");
  EXPECT_THAT(findings("sha999"),
              ElementsAre("--digest: unknown digest \"sha999\"; use sha256, or one of sha224, "
                          "sha384, sha512, sha1 and md5"));
}

TEST_F(Manifest, DigestsAreNamedInAnyUsualSpelling) {
  const struct {
    const char* spelling;
    const char* name;
  } names[] = {{"sha224", "sha224"},  {"SHA-256", "sha256"}, {"sha_384", "sha384"},
               {"Sha 512", "sha512"}, {"SHA", "sha1"},       {"md-5", "md5"}};
  for (const auto& [spelling, name] : names) {
    const auto kind = digestKind(spelling);
    ASSERT_TRUE(kind) << spelling;
    EXPECT_EQ(kind->name, name) << spelling;
  }
  EXPECT_FALSE(digestKind("sha3-256"));
  EXPECT_FALSE(digestKind("256"));
}

}  // namespace
}  // namespace VarnScripts::publishing
