#include "SourceFixture.h"

#include <filesystem>
#include <fstream>

namespace VarnScripts::publishing {

void SourceTest::SetUp() { ASSERT_TRUE(std::filesystem::create_directory(directory_)); }

void SourceTest::write(const std::string& name, std::string_view bytes) const {
  std::ofstream file(path(name), std::ios::binary);
  file << bytes;
  ASSERT_TRUE(file.flush());
}

void SourceTest::writeOneScript(std::string_view keys) const {
  write("a.sh", "echo a\n");
  write("scripts.toml", "[[script]]\nid = \"1\"\nfile = \"a.sh\"\n" + std::string(keys) + "\n");
}

std::vector<std::string> SourceTest::findings(const std::optional<std::string>& digest) {
  Findings findings;
  source_ = readSource({directory_, digest}, findings);
  std::vector<std::string> texts;
  for (const Finding& finding : findings.all()) {
    std::string text = textOf(finding);
    for (auto at = text.find(directory_); at != text.npos; at = text.find(directory_, at)) {
      text.replace(at, directory_.size(), "S");
    }
    texts.push_back(text);
  }
  return texts;
}

std::vector<std::string> SourceTest::findingsOf(std::string_view manifest) {
  write("scripts.toml", manifest);
  return findings();
}

}  // namespace VarnScripts::publishing
