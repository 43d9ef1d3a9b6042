// The interpreter that a script's file name selects.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "ScriptRules.h"

namespace {

struct Row {
  const char* fileName;
  std::optional<std::string> launchPath;
};

void expectRows(std::initializer_list<Row> rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fileName);
    EXPECT_EQ(VarnScriptRepository::getLaunchPath(row.fileName), row.launchPath);
  }
}

TEST(GetLaunchPath, KnowsFourExtensions) {
  expectRows({{"run.py", "/usr/bin/python3"},
              {"cleanup.sh", "/bin/sh"},
              {"report.pl", "/usr/bin/perl"},
              {"notify.scpt", "/usr/bin/osascript"}});
}

TEST(GetLaunchPath, IsAbsentForEveryOtherExtension) {
  expectRows({{"tool.SH", std::nullopt},
              {"tool.Py", std::nullopt},
              {"tool.bash", std::nullopt},
              {"tool.s", std::nullopt},
              {"tool.shx", std::nullopt},
              {"tool.applescript", std::nullopt},
              {"tool.p y", std::nullopt},
              {"tool.sh\u0301", std::nullopt},
              {"tool.\u0455h", std::nullopt}});
}

TEST(GetLaunchPath, IsAbsentWithoutAnExtension) {
  expectRows({{"tool", std::nullopt},
              {"", std::nullopt},
              {"tool.", std::nullopt},
              {".", std::nullopt},
              {"sh", std::nullopt},
              {"/", std::nullopt},
              {"tool.sh.", std::nullopt}});
}

TEST(GetLaunchPath, TakesWhatFollowsTheLastDot) {
  expectRows({{"archive.tar.py", "/usr/bin/python3"},
              {"a.sh.py", "/usr/bin/python3"},
              {"a..sh", "/bin/sh"},
              {".sh", "/bin/sh"},
              {"a.py.txt", std::nullopt}});
}

TEST(GetLaunchPath, LooksAtTheLastPathComponentAlone) {
  expectRows({{"dir.py/tool.sh", "/bin/sh"},
              {"dir.py/tool", std::nullopt},
              {"/a/b.d/c.pl", "/usr/bin/perl"},
              {"tool.sh/", "/bin/sh"},
              {"tool.sh//", "/bin/sh"}});
}

TEST(GetLaunchPath, TrimsWhiteSpaceAroundTheExtension) {
  expectRows({{"run.py ", "/usr/bin/python3"},
              {"run. py", "/usr/bin/python3"},
              {"run.\t sh \n", "/bin/sh"},
              {"run.sh\r\n", "/bin/sh"},
              {"run.sh\u00a0", "/bin/sh"},
              {"run.sh\u2028", "/bin/sh"},
              {"run.sh\u3000\u0085", "/bin/sh"},
              {"run.sh \u0301", "/bin/sh"},
              {"run.sh .", std::nullopt},
              {"run. ", std::nullopt}});
}

}  // namespace
