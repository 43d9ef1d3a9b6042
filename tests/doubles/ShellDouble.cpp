#include "ShellDouble.h"

#include "Journal.h"
#include "ScriptRepositoryUtil.h"

namespace doubles {

Runs& Runs::shared() {
  static Runs& instance = *new Runs;
  return instance;
}

}  // namespace doubles

namespace VarnScriptRepository {

std::pair<std::optional<std::int32_t>, std::optional<std::string>> shell(
    const std::string& launchPath, const std::string& commandPath,
    const std::vector<std::string>& arguments, const std::string& executeInDirectory,
    std::int64_t timeoutIn) {
  std::string entry = "run " + launchPath + " " + commandPath;
  for (const std::string& argument : arguments) entry += " {" + argument + "}";
  entry += " in " + executeInDirectory + " limit " + std::to_string(timeoutIn);
  doubles::Journal::shared().write(entry);
  auto& answers = doubles::Runs::shared().answers;
  const doubles::Runs::Result answer = answers.front();
  if (answers.size() > 1) answers.pop_front();
  return answer;
}

}  // namespace VarnScriptRepository
