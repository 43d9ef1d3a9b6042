#include "ScriptRules.h"

#include <utility>

#include "support/Text.h"

namespace VarnScriptRepository {
namespace {

constexpr Interpreter kInterpreters[] = {
    {"py", "/usr/bin/python3", "text/x-python"},
    {"sh", "/bin/sh", "text/x-shellscript"},
    {"pl", "/usr/bin/perl", "text/x-perl"},
    {"scpt", "/usr/bin/osascript", "application/x-applescript"},
};

// What the server's notation of a location begins with, and what it has for slashes.
constexpr std::string_view kLocationPrefix = "..\\webapps\\Quillandermoor\\";
constexpr std::string_view kLocationSlash = "\\";

}  // namespace

std::span<const Interpreter> interpreters() noexcept { return kInterpreters; }

const Interpreter* interpreterFor(const std::string& fileName) {
  const std::string_view extension = text::trimmed(text::pathExtension(fileName));
  for (const Interpreter& interpreter : kInterpreters) {
    if (extension == interpreter.extension) return &interpreter;
  }
  return nullptr;
}

std::optional<std::string> getLaunchPath(const std::string& fileName) {
  const Interpreter* const interpreter = interpreterFor(fileName);
  if (interpreter == nullptr) return std::nullopt;
  return std::string(interpreter->launchPath);
}

std::vector<std::string> splitWithQuotes(const std::string& text) {
  enum class State { betweenTokens, plainToken, quotedToken };
  State state = State::betweenTokens;
  std::vector<std::string> tokens;
  std::string token;
  const auto endToken = [&] {
    tokens.push_back(std::exchange(token, {}));
    state = State::betweenTokens;
  };
  text::Characters characters(text);
  while (const auto character = characters.next()) {
    const bool quote = *character == "\"";
    switch (state) {
      case State::betweenTokens:
        if (text::isWhitespace(*character)) break;
        state = quote ? State::quotedToken : State::plainToken;
        if (!quote) token = *character;
        break;
      case State::plainToken:
        // A quote inside a plain token is a character like any other.
        if (text::isWhitespace(*character))
          endToken();
        else
          token += *character;
        break;
      case State::quotedToken:
        if (quote)
          endToken();
        else
          token += *character;
        break;
    }
  }
  // A quote that is never closed gives what follows it, even when nothing does.
  if (state != State::betweenTokens) endToken();
  return tokens;
}

std::vector<std::string> codesIn(const std::string& list) { return text::pieces(list, ','); }

std::string serverPath(const std::string& fileSystemLocation) {
  // Wherever the prefix stands, and however often.
  const std::string relative = text::replacingAll(fileSystemLocation, kLocationPrefix, "");
  return text::replacingAll(relative, kLocationSlash, "/");
}

std::string fileSystemLocation(const std::string& serverPath) {
  return std::string(kLocationPrefix) + text::replacingAll(serverPath, "/", kLocationSlash);
}

const ChecksumValue* checksumOf(const VyFile& file, const std::vector<ChecksumValue>& all) {
  if (file.csToVyFiles.empty()) return nullptr;
  const std::string& checksumID = file.csToVyFiles.front().checksumID;
  for (const ChecksumValue& candidate : all) {
    if (text::equal(candidate.checksumID, checksumID)) return &candidate;
  }
  return nullptr;
}

bool isSameVersion(const std::optional<std::string>& recorded, const std::string& onServer) {
  return recorded && text::equal(*recorded, onServer);
}

}  // namespace VarnScriptRepository
