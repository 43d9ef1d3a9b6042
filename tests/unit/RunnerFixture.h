// What the tests of the process runner share: short ways to run something, the log as a list, and
// care for the descendants that a test leaves behind.

#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AgentFixture.h"
#include "ScriptRepositoryUtil.h"

namespace runnertests {

using Result = std::pair<std::optional<std::int32_t>, std::optional<std::string>>;
using Texts = std::vector<std::string>;

/// The path of one of the tests' own programs: "print-arguments".
std::string program(const std::string& name);

/// The line of the runner with this message, as the journal has it.
std::string line(const std::string& message);

/// Whether `condition` came true before ten seconds had passed.
bool eventually(const std::function<bool()>& condition);

/// How many descriptors this process has open.
int openDescriptors();

/// Whether this kernel keeps the status of a child whose host ignores SIGCHLD, as Linux does from
/// 6.15 on.
bool kernelKeepsStatuses();

/// A runner's test. The process adopts the descendants of the programs it runs, so that it can wait
/// for those that outlive their parents.
class RunnerFixture : public testing::Test {
 protected:
  RunnerFixture();
  /// Waits for the adopted descendants, which a test has told to end.
  ~RunnerFixture() override;

  /// Runs a shell command in the test's directory.
  Result runCommand(const std::string& command, std::int64_t timeoutIn = 600) const;

  /// The first line of a run of `command` by `runCommand`.
  std::string entryLine(const std::string& escapedCommand, std::int64_t timeoutIn = 600) const;

  std::string path(const std::string& name) const { return directory.path() + "/" + name; }

  doubles::Journal& journal = doubles::Journal::shared();
  TemporaryDirectory directory;
};

}  // namespace runnertests
