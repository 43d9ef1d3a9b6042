#include "publish/Syntax.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <system_error>

#include "ScriptRules.h"
#include "WholeFiles.h"
#include "platform/Child.h"
#include "platform/Clock.h"
#include "platform/Wait.h"
#include "publish/PerlText.h"

namespace VarnScripts::publishing {
namespace {

namespace platform = VarnScriptRepository::platform;
using Strings = std::vector<std::string>;

// Of what an interpreter says only the beginning is of use.
constexpr std::size_t kMostOutput = 65536;
constexpr std::size_t kLongestMessage = 200;

// Starting Python takes longer than reading a script, so one process reads many.
constexpr std::size_t kFilesAtOnce = 200;

// Writes the number of each file before it reads it, and line and message behind it when it can't.
// What else may stand in the output, such as that of a stand-in without Python, tells nothing.
constexpr const char* kPythonProgram = R"(
import sys
sys.stdout.reconfigure(errors="backslashreplace")
for number, path in enumerate(sys.argv[1:]):
    print("reads", number, flush=True)
    try:
        with open(path, "rb") as file:
            compile(file.read(), path, "exec", dont_inherit=True)
    except SyntaxError as error:
        print("fails", number, error.lineno or 0, str(error.msg).split("\n")[0], flush=True)
    except OSError:
        pass
    except Exception as error:
        print("fails", number, 0, str(error).split("\n")[0], flush=True)
)";

// How a process went.
struct Outcome {
  std::string output;
  bool isInTime = false;
  platform::EndStatus status = platform::Child::kStatusLost;
};

// Adds what is there to `output`; false when nothing is.
bool take(platform::FileDescriptor& readingEnd, std::string& output) {
  std::array<char, 4096> part;
  for (bool any = false;; any = true) {
    const std::size_t count =
        readingEnd ? platform::readHeld(readingEnd, part.data(), part.size()) : 0;
    if (count == 0) return any;
    output.append(part.data(), std::min(count, kMostOutput - output.size()));
  }
}

// Starts the program and waits until it ends, or says nothing for as long as `limit`; nothing when
// it can't be started. This process's standard input, which it shares, is the null device.
std::optional<Outcome> outcomeOf(const std::string& launchPath, const Strings& arguments,
                                 std::chrono::milliseconds limit) {
  std::error_code error;
  platform::Pipe pipe = platform::makePipe(error);
  if (error) return std::nullopt;
  const std::string here = ".";
  platform::Child child =
      platform::Child::launch({launchPath, arguments, here, pipe.writingEnd.get()}, error);
  pipe.writingEnd.reset();
  if (error) return std::nullopt;
  Outcome outcome;
  auto deadline = platform::AwakeClock::now() + limit;
  while (!outcome.isInTime && platform::AwakeClock::now() < deadline) {
    outcome.isInTime = platform::waitForOutputOrEnd(pipe.readingEnd, child, deadline).end;
    if (take(pipe.readingEnd, outcome.output)) deadline = platform::AwakeClock::now() + limit;
  }
  if (!outcome.isInTime) {
    child.terminateGroup();
    ::kill(child.processID(), SIGKILL);
  }
  outcome.status = child.reap();
  return outcome;
}

// Takes the number at the beginning of `text` off, and the character behind it.
std::optional<std::size_t> takeNumber(std::string_view& text) {
  std::size_t number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (failure != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  text.remove_prefix(std::min<std::size_t>(1, text.size()));
  return number;
}

std::string_view withoutBlanks(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(" :"), text.size()));
}

// Collects what is found out about files of one interpreter.
class Syntax {
 public:
  Syntax(std::string_view launchPath, std::chrono::milliseconds limit, Findings& findings)
      : launchPath_(launchPath), limit_(limit), findings_(findings) {}

  // One process for each file: the shell reads no second one.
  void readWithShell(const Strings& paths) {
    for (const std::string& path : paths) {
      const auto outcome = outcomeOf(launchPath_, {"-n", "--", path}, limit_);
      if (!outcome) return;
      if (!isWhole(*outcome)) {
        giveUp(path, *outcome);
      } else if (outcome->status.code != 0 && !outcome->output.empty()) {
        tellShellsMessage(path, outcome->output);
      }
    }
  }

  // One process for each file, as with the shell.
  void readWithPerl(const Strings& paths) {
    for (const std::string& path : paths) {
      std::error_code unreadable;
      const auto file = posix::readRegularFile(path, posix::LastLink::follow, unreadable);
      if (unreadable || !isOnlyReadByPerl(file.bytes)) continue;
      // -T: no modules of directories that the environment names.
      const auto outcome = outcomeOf(launchPath_, {"-cT", "--", path}, limit_);
      if (!outcome) return;
      if (!isWhole(*outcome)) {
        giveUp(path, *outcome);
      } else if (outcome->status.code != 0) {
        tellPerlsMessage(path, outcome->output);
      }
    }
  }

  void readWithPython(const Strings& paths) {
    for (std::size_t first = 0; first < paths.size();) {
      const std::size_t count = std::min(kFilesAtOnce, paths.size() - first);
      Strings arguments = {"-I", "-S", "-B", "-W", "ignore", "-X", "utf8", "-c", kPythonProgram};
      arguments.insert(arguments.end(), paths.begin() + static_cast<std::ptrdiff_t>(first),
                       paths.begin() + static_cast<std::ptrdiff_t>(first + count));
      const auto outcome = outcomeOf(launchPath_, arguments, limit_);
      if (!outcome) return;
      const auto last = tellPythonsMessages(paths, first, outcome->output);
      // A stand-in that tells where Python is to be had.
      if (!last) return;
      // The one that could not be read to its end is passed over.
      if (!isWhole(*outcome)) giveUp(paths[*last], *outcome);
      first = *last + 1;
    }
  }

 private:
  static bool isWhole(const Outcome& outcome) {
    return outcome.isInTime && !outcome.status.isSignal;
  }

  void tell(const std::string& path, std::size_t line, std::string_view message) {
    findings_.warn(
        {path, line},
        launchPath_ + " can't read the script: " + std::string(message.substr(0, kLongestMessage)),
        "correct it");
  }

  void giveUp(const std::string& path, const Outcome& outcome) {
    tell(path, 0,
         outcome.isInTime
             ? "it ends by signal " + std::to_string(outcome.status.code)
             : "it takes longer than " +
                   std::to_string(std::chrono::ceil<std::chrono::seconds>(limit_).count()) + " s");
  }

  // "a.sh: 3: Syntax error: …" or "a.sh: line 3: syntax error …".
  void tellShellsMessage(const std::string& path, std::string_view output) {
    std::string_view text = output.substr(0, output.find('\n'));
    if (text.starts_with(path)) text.remove_prefix(path.size());
    text = withoutBlanks(text);
    if (text.starts_with("line ")) text.remove_prefix(5);
    const std::size_t line = takeNumber(text).value_or(0);
    tell(path, line, withoutBlanks(text));
  }

  // "syntax error at a.pl line 3, near …", after warnings of the same form, maybe.
  void tellPerlsMessage(const std::string& path, std::string_view output) {
    std::string_view text = output.substr(0, output.find('\n'));
    const std::string place = " at " + path + " line ";
    std::size_t line = 0;
    if (const std::size_t at = text.find(place); at != text.npos) {
      std::string_view number = text.substr(at + place.size());
      line = takeNumber(number).value_or(0);
      text = text.substr(0, at);
    }
    tell(path, line, text);
  }

  // The number of the last file that was begun, among all; nothing when none was.
  std::optional<std::size_t> tellPythonsMessages(const Strings& paths, std::size_t first,
                                                 std::string_view output) {
    std::optional<std::size_t> last;
    while (!output.empty()) {
      std::string_view line = output.substr(0, output.find('\n'));
      output.remove_prefix(std::min(line.size() + 1, output.size()));
      const bool fails = line.starts_with("fails ");
      if (!fails && !line.starts_with("reads ")) continue;
      line.remove_prefix(6);
      const auto number = takeNumber(line);
      if (!number || *number >= paths.size() - first) continue;
      last = first + *number;
      if (!fails) continue;
      const std::size_t place = takeNumber(line).value_or(0);
      tell(paths[*last], place, line);
    }
    return last;
  }

  const std::string launchPath_;
  const std::chrono::milliseconds limit_;
  Findings& findings_;
};

bool exists(const char* path) {
  std::error_code unknown;
  return std::filesystem::exists(path, unknown);
}

// Without the developer tools, macOS has a stand-in for Python that opens a window.
bool isStandIn(std::string_view launchPath) {
  return launchPath == "/usr/bin/python3" && exists("/usr/bin/xcode-select") &&
         !exists("/Library/Developer/CommandLineTools/usr/bin/python3") &&
         !exists("/Applications/Xcode.app");
}

}  // namespace

void checkSyntax(const std::vector<std::string>& paths, Findings& findings,
                 std::chrono::milliseconds limit) {
  for (const auto& interpreter : VarnScriptRepository::interpreters()) {
    const std::string launchPath(interpreter.launchPath);
    if (::access(launchPath.c_str(), X_OK) != 0 || isStandIn(launchPath)) continue;
    Strings own;
    for (const std::string& path : paths) {
      if (VarnScriptRepository::interpreterFor(path) == &interpreter) own.push_back(path);
    }
    Syntax syntax(launchPath, limit, findings);
    if (interpreter.extension == "sh") syntax.readWithShell(own);
    if (interpreter.extension == "pl") syntax.readWithPerl(own);
    if (interpreter.extension == "py" && !own.empty()) syntax.readWithPython(own);
  }
}

}  // namespace VarnScripts::publishing
