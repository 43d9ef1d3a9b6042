// The library's process runner, call after call. Its log is the bundled one, written to standard
// error, or switched off when VARN_BENCH_QUIET is set.

#include <cstdlib>

#include "Contestant.h"
#include "LogSettings.h"
#include "ScriptRepositoryUtil.h"

int main(int argc, char** argv) {
  const auto run = bench::runnerArguments(argc, argv);
  AgentLog::LogSettings log;
  log.quiet = std::getenv("VARN_BENCH_QUIET") != nullptr;
  AgentLog::configure(log);
  const std::vector<std::string> rest(run.arguments.begin() + 1, run.arguments.end());
  return bench::serve([&] {
    const auto [status, output] =
        VarnScriptRepository::shell(run.program, run.arguments.front(), rest, run.directory, 600);
    if (status != 0 || !output) bench::fail("the program was not run");
    return output->size();
  });
}
