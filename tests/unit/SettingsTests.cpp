// The fatal precondition: whoever needs the agent's global settings and finds none stops the
// process with one line on standard error, and without a line in the agent's log.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>

#include "AgentFixture.h"
#include "Directories.h"
#include "ScriptRepositoryLocalMetaProcessor.h"
#include "ScriptRepositoryMetaProcessor.h"
#include "VarnScriptRepository/ScriptRepositoryLocalMeta.h"
#include "VarnScriptRepository/ScriptRepositoryProcessor.h"

#ifdef VARN_COVERAGE
// NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" int __llvm_profile_write_file();  // of clang's runtime
#endif

namespace {

using namespace VarnScriptRepository;

/// Has the dying process tell which lines it ran, when they are counted at all.
void tellCoverageOnAbort() {
#ifdef VARN_COVERAGE
  std::signal(SIGABRT, [](int) { static_cast<void>(__llvm_profile_write_file()); });
#endif
}

class MissingSettings : public doubles::AgentFixture {
 protected:
  /// Runs `use` without settings. A log line would show as a second line on standard error.
  void expectFatal(const std::function<void()>& use) {
    AgentUtils::gv_globvars = nullptr;
    journal.onLog([](const doubles::LogRecord& record) {
      std::fprintf(stderr, "logged: %s\n", record.message.c_str());
    });
    EXPECT_EXIT(
        {
          tellCoverageOnAbort();
          use();
        },
        testing::KilledBySignal(SIGABRT),
        "^VarnScriptRepository: the agent's global settings .gv_globvars. are not set\n$");
  }
};

TEST_F(MissingSettings, StopAConstruction) {
  expectFatal([] { const ScriptRepositoryProcessor processor("42"); });
}

TEST_F(MissingSettings, StopTheFirstUseOfABasePath) {
  expectFatal([] { static_cast<void>(basePath()); });
}

TEST_F(MissingSettings, StopTheFirstUseOfACustomerID) {
  expectFatal([] { static_cast<void>(customerID()); });
}

TEST_F(MissingSettings, StopTheFirstUseOfTheMetadata) {
  expectFatal([] { ScriptRepositoryMetaProcessor::shared(); });
}

TEST_F(MissingSettings, StopTheFirstUseOfTheStorePath) {
  expectFatal([] { static_cast<void>(ScriptRepositoryConstants::FilePath::scriptRepository()); });
}

TEST_F(MissingSettings, StopTheFirstUseOfTheStore) {
  expectFatal([] { ScriptRepositoryLocalMetaProcessor::shared(); });
}

TEST_F(MissingSettings, StopARemoval) {
  expectFatal([] { ScriptRepositoryProcessor::removeServerRemovedScripts(); });
}

}  // namespace
