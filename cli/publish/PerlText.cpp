#include "publish/PerlText.h"

#include <algorithm>
#include <cstddef>
#include <string>

namespace VarnScripts::publishing {
namespace {

constexpr std::string_view kBlanks = " \t\r";

// Modules of Perl's own library that take nothing but names when they are imported. A blank around
// each.
constexpr std::string_view kModules =
    " strict warnings utf8 integer feature vars Carp Cwd Data::Dumper Digest::MD5 Digest::SHA "
    "Encode "
    "Errno Fcntl File::Basename File::Copy File::Find File::Path File::Spec "
    "File::Spec::Functions File::Temp Getopt::Long Getopt::Std IO::File IO::Handle IPC::Open2 "
    "IPC::Open3 JSON::PP List::Util MIME::Base64 POSIX Scalar::Util Socket Sys::Hostname "
    "Term::ANSIColor Text::ParseWords Text::Wrap Time::HiRes Time::Local Time::Piece ";

// What loads, declares for another package, or is called while Perl reads.
constexpr std::string_view kWords =
    " use no require BEGIN UNITCHECK CHECK INIT package CORE GLOBAL UNIVERSAL AUTOLOAD attributes "
    "class field ";

bool isAmong(std::string_view word, std::string_view words) {
  return words.find(' ' + std::string(word) + ' ') != words.npos;
}

bool isOfWord(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= '0' && byte <= '9') || byte == '_';
}

void skip(std::string_view& text, std::string_view bytes) {
  text.remove_prefix(std::min(text.find_first_not_of(bytes), text.size()));
}

// Takes what `isPart` accepts off the beginning.
template <typename IsPart>
std::string_view take(std::string_view& text, IsPart isPart) {
  const auto end = std::find_if_not(text.begin(), text.end(), isPart);
  const std::string_view taken = text.substr(0, static_cast<std::size_t>(end - text.begin()));
  text.remove_prefix(taken.size());
  return taken;
}

bool takeOne(std::string_view& text, std::string_view expected) {
  if (!text.starts_with(expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

// Takes 'floor', ':all' or qw(floor ceil) off the beginning.
bool takeLiteral(std::string_view& text) {
  const auto isOfName = [](char byte) { return isOfWord(byte) || byte == ':' || byte == '-'; };
  if (takeOne(text, "qw")) {
    skip(text, kBlanks);
    if (!takeOne(text, "(")) return false;
    take(text, [&](char byte) { return isOfName(byte) || byte == ' ' || byte == '\t'; });
    return takeOne(text, ")");
  }
  if (!takeOne(text, "'")) return false;
  take(text, isOfName);
  return takeOne(text, "'");
}

// Whether the line is `use POSIX 'floor', 'ceil';`, `use v5.10;` or their like, and nothing else.
bool isHarmlessUse(std::string_view line) {
  if (!takeOne(line, "use ")) return false;
  skip(line, kBlanks);
  const std::string_view name =
      take(line, [](char byte) { return isOfWord(byte) || byte == ':' || byte == '.'; });
  const bool isVersion = name.find_first_not_of("v0123456789._") == name.npos;
  if (!isVersion && !isAmong(name, kModules)) return false;
  skip(line, kBlanks);
  while (!isVersion && !line.empty() && line.front() != ';') {
    if (!takeLiteral(line)) return false;
    skip(line, kBlanks);
    if (!takeOne(line, ",") && !line.starts_with(';')) return false;
    skip(line, kBlanks);
  }
  if (!takeOne(line, ";")) return false;
  skip(line, kBlanks);
  return line.empty() || line.front() == '#';
}

// Perl starts another interpreter that the first line names, and takes switches from it.
bool isHarmlessFirstLine(std::string_view line) {
  if (!line.starts_with("#!")) return true;
  line.remove_prefix(2);
  skip(line, kBlanks);
  if (!takeOne(line, "/usr/bin/perl") && !takeOne(line, "/usr/bin/env perl")) return false;
  skip(line, kBlanks);
  takeOne(line, "-w");
  skip(line, kBlanks);
  return line.empty();
}

// Whether `sub` is followed by a name of this package, or by none.
bool isOwnSubroutine(std::string_view text) {
  skip(text, " \t\r\n");
  const std::string_view name = take(text, isOfWord);
  skip(text, " \t\r\n");
  if (name.empty()) return text.starts_with('{') || text.starts_with('(');
  // A package's name would be before it, with :: or ' between; attributes begin with a colon.
  return text.starts_with('{') || text.starts_with('(') || text.starts_with(';');
}

}  // namespace

bool isOnlyReadByPerl(std::string_view text) {
  // Perl takes texts with NUL for UTF-16, whose words are not seen here.
  if (text.find('\0') != text.npos || text.starts_with("\xFF\xFE") ||
      text.starts_with("\xFE\xFF")) {
    return false;
  }
  for (bool isFirst = true; !text.empty(); isFirst = false) {
    std::string_view line = text.substr(0, text.find('\n'));
    if (isFirst && !isHarmlessFirstLine(line)) return false;
    const std::size_t length = std::min(line.size() + 1, text.size());
    skip(line, kBlanks);
    if (!line.empty() && line.front() != '#' && !isHarmlessUse(line)) break;
    text.remove_prefix(length);
  }
  while (!text.empty()) {
    take(text, [](char byte) { return !isOfWord(byte); });
    const std::string_view word = take(text, isOfWord);
    if (isAmong(word, kWords) || word.starts_with("MODIFY_")) return false;
    if (word == "sub" && !isOwnSubroutine(text)) return false;
  }
  return true;
}

}  // namespace VarnScripts::publishing
