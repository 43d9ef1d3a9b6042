// The process runner over a child whose writes, pauses and end are the fuzzer's. What it collects
// is what a plain decoder takes from the same child, at the same times.

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "AgentLog.h"
#include "Input.h"
#include "ScriptRepositoryUtil.h"
#include "ScriptedChild.h"
#include "VarnScriptRepository/ScriptRunObserver.h"

namespace {

using fuzz::ScriptedChild;

std::vector<std::string> messages;

std::size_t logged(std::string_view beginning) {
  return static_cast<std::size_t>(
      std::count_if(messages.begin(), messages.end(),
                    [&](const std::string& message) { return message.starts_with(beginning); }));
}

/// What is reported to an observer of a run.
struct Watch : VarnScriptRepository::ScriptRunObserver {
  void outputTaken(std::string_view piece) override { output += piece; }
  void scriptEnded(const VarnScriptRepository::ScriptEnd& ended) override { end = ended; }

  std::string output;
  std::optional<VarnScriptRepository::ScriptEnd> end;
};

// ---- The plain decoder -----------------------------------------------------------------------

/// One row of the table of well-formed sequences: the first byte, the second, and the length. All
/// further bytes are 80 to BF.
struct Form {
  int first[2];
  int second[2];
  std::size_t length;
};
constexpr Form kForms[] = {
    {{0x00, 0x7F}, {}, 1},           {{0xC2, 0xDF}, {0x80, 0xBF}, 2},
    {{0xE0, 0xE0}, {0xA0, 0xBF}, 3}, {{0xE1, 0xEC}, {0x80, 0xBF}, 3},
    {{0xED, 0xED}, {0x80, 0x9F}, 3}, {{0xEE, 0xEF}, {0x80, 0xBF}, 3},
    {{0xF0, 0xF0}, {0x90, 0xBF}, 4}, {{0xF1, 0xF3}, {0x80, 0xBF}, 4},
    {{0xF4, 0xF4}, {0x80, 0x8F}, 4},
};

/// Nothing when `bytes` is not UTF-8. Otherwise how many bytes are missing from the character that
/// it ends inside of: 0 when there is none.
std::optional<std::size_t> missingFrom(std::string_view bytes) {
  while (!bytes.empty()) {
    const Form* form = nullptr;
    const auto in = [](char byte, const int(&range)[2]) {
      return static_cast<unsigned char>(byte) >= range[0] &&
             static_cast<unsigned char>(byte) <= range[1];
    };
    for (const Form& each : kForms) {
      if (in(bytes.front(), each.first)) form = &each;
    }
    if (form == nullptr) return std::nullopt;
    for (std::size_t at = 1; at < std::min(form->length, bytes.size()); ++at) {
      if (!in(bytes[at], at == 1 ? form->second : kForms[1].second)) return std::nullopt;
    }
    if (bytes.size() < form->length) return form->length - bytes.size();
    bytes.remove_prefix(form->length);
  }
  return 0;
}

/// How many bytes the last character of `bytes` lacks, whatever stands before it.
std::size_t missingAtEnd(std::string_view bytes) {
  for (std::size_t last = 1; last <= std::min<std::size_t>(3, bytes.size()); ++last) {
    const auto missing = missingFrom(bytes.substr(bytes.size() - last));
    if (missing.value_or(0) > 0) return *missing;
  }
  return 0;
}

/// What a run comes to.
struct Outcome {
  std::string output;
  std::int32_t status = 0;
  std::size_t chunks = 0;
  std::size_t limitsReached = 0;
  std::int64_t endOfWait = 0;
  bool operator==(const Outcome&) const = default;
};

class PlainRunner {
 public:
  explicit PlainRunner(ScriptedChild& child) : child_(child), most_(child.capacity()) {
    if (child.limitInSeconds() > 0) limit_ = 1000 * child.limitInSeconds();
  }

  Outcome run() {
    bool grown = false;
    while (true) {
      const auto ready = child_.wait(limit_, open_);
      if (ready.end) break;
      if (ready.output && takeChunk(SIZE_MAX) >= most_ && !std::exchange(grown, true)) {
        child_.growPipe();
        most_ = std::max(most_, child_.capacity());
      }
      if (child_.now() >= limit_ && !child_.hasEnded()) {
        ++outcome_.limitsReached;
        child_.terminate();
        limit_ = ScriptedChild::kNever;
      }
    }
    std::size_t held = open_ ? child_.held() : 0;
    while (held > 0) held -= takeChunk(held);
    outcome_.status = child_.status();
    outcome_.endOfWait = child_.now();
    return std::move(outcome_);
  }

 private:
  std::string read(std::size_t most) {
    if (!open_ || most == 0) return {};
    if (child_.isAtEndOfFile()) open_ = false;
    return child_.read(most);
  }

  /// Takes a chunk, all in all no more than `held` bytes.
  std::size_t takeChunk(std::size_t held) {
    std::string chunk = read(std::min(most_, held));
    if (chunk.empty()) return 0;
    std::int64_t until = child_.now() + 50;
    if (limit_ > child_.now()) until = std::min(until, limit_);
    std::size_t more = 3;
    while (const std::size_t missing = std::min(missingAtEnd(chunk), more)) {
      const bool ended = child_.hasEnded();
      const std::string rest = read(std::min(missing, held - chunk.size()));
      chunk += rest;
      more -= rest.size();
      if (!rest.empty()) continue;
      if (!open_ || ended || child_.now() >= until) break;
      child_.wait(until, true);
    }
    if (missingFrom(chunk) == 0U) {
      outcome_.output += chunk;
      ++outcome_.chunks;
    }
    return chunk.size();
  }

  ScriptedChild& child_;
  std::size_t most_;
  std::int64_t limit_ = ScriptedChild::kNever;
  bool open_ = true;
  Outcome outcome_;
};

}  // namespace

void AgentLog::logInfo(const std::string& message, const std::string&, const std::string&, int) {
  messages.push_back(message);
}
void AgentLog::logError(const std::string&, const std::string&, const std::string&, int) {
  FUZZ_REQUIRE(false);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  auto& child = ScriptedChild::current();
  child = ScriptedChild(input);
  ScriptedChild same = child;
  messages.clear();

  Watch watch;
  VarnScriptRepository::setScriptRunObserver(&watch);
  const auto [status, output] =
      VarnScriptRepository::shell("/", "-c", {}, "/", child.limitInSeconds());
  VarnScriptRepository::setScriptRunObserver(nullptr);
  FUZZ_REQUIRE(status && output);
  const Outcome outcome{*output, *status, logged("availableOutput"), logged("shell: Killing"),
                        child.now()};
  FUZZ_REQUIRE(outcome == PlainRunner(same).run());

  // What is reported of the run is what becomes of it.
  FUZZ_REQUIRE(watch.end && watch.output == *output && watch.end->outputBytes == output->size());
  FUZZ_REQUIRE(watch.end->code == *status && watch.end->lostBytes == 0);
  FUZZ_REQUIRE(watch.end->droppedBytes == child.written().size() - child.held() - output->size());
  FUZZ_REQUIRE(watch.end->limitReached == (outcome.limitsReached == 1));

  // Whatever the decoder says: it is UTF-8 and in the order written, the child's own bytes were all
  // looked at, and what is read behind its end does not take longer the more there is.
  FUZZ_REQUIRE(missingFrom(*output) == 0U);
  std::size_t at = 0;
  for (const char byte : *output) {
    at = child.written().find(byte, at) + 1;
    FUZZ_REQUIRE(at != 0);
  }
  FUZZ_REQUIRE(child.written().size() - child.held() >= child.writtenByChild());
  FUZZ_REQUIRE(outcome.limitsReached <= 1);
  FUZZ_REQUIRE(logged("shell: task is not running") == (child.limitInSeconds() == 0 ? 1U : 0U));
  return 0;
}
