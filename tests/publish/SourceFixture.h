// A directory of scripts for one test, and what is found in it.

#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "publish/Source.h"
#include "support/TemporaryDirectory.h"

namespace VarnScripts::publishing {

class SourceTest : public testing::Test {
 protected:
  void SetUp() override;

  /// Puts `bytes` into the file `name` of the source directory.
  void write(const std::string& name, std::string_view bytes) const;

  /// Writes a manifest of one script, the file "a.sh" of one line; `keys` come after its ID and
  /// file, from line 4 on.
  void writeOneScript(std::string_view keys) const;

  /// Reads the source and gives the findings as texts; the directory's path is shown as "S".
  std::vector<std::string> findings(const std::optional<std::string>& digest = std::nullopt);

  /// The findings of a manifest alone.
  std::vector<std::string> findingsOf(std::string_view manifest);

  [[nodiscard]] std::string path(const std::string& name) const { return directory_ + "/" + name; }

  const TemporaryDirectory parent_;
  const std::string directory_ = parent_ / "source";
  Source source_;  ///< of the last reading
};

}  // namespace VarnScripts::publishing
