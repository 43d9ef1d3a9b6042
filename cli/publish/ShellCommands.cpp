#include "publish/ShellCommands.h"

#include <algorithm>
#include <deque>
#include <set>

namespace VarnScripts::publishing {
namespace {

// Only what belongs to Linux systems. What some release of macOS has, or what is often installed
// there, is not among them.
constexpr std::string_view kLacking[] = {
    "apt",      "apt-cache", "apt-get",     "apt-key",  "dnf",         "dpkg",     "dpkg-query",
    "getent",   "groupadd",  "groupdel",    "groupmod", "hostnamectl", "iptables", "journalctl",
    "loginctl", "lsblk",     "lsb_release", "lsmod",    "modprobe",    "nft",      "pacman",
    "rpm",      "systemctl", "timedatectl", "udevadm",  "update-rc.d", "useradd",  "userdel",
    "usermod",  "yum",       "zypper",
};

// What a command may follow.
constexpr std::string_view kBeforeCommands[] = {"!",    "{",     "do",    "elif", "else",
                                                "exec", "if",    "nohup", "sudo", "then",
                                                "time", "until", "while"};

// What asks whether the commands behind it are there.
constexpr std::string_view kQuestions[] = {"command", "hash", "type", "which"};

template <class Names>
bool isAmong(const Names& names, std::string_view word) {
  return std::find(std::begin(names), std::end(names), word) != std::end(names);
}

// Reads a script from its beginning to its end, a word at a time. No whole grammar: what it takes
// for a command where none is has to have the name of one as well.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  std::vector<ShellCommand> read() {
    while (at_ < text_.size()) step();
    std::erase_if(found_, [this](const auto& command) { return known_.contains(command.name); });
    return found_;
  }

 private:
  void step() {
    const char c = text_[at_];
    if (c == '\n') return endLine();
    if (c == ' ' || c == '\t' || c == '\r') {
      ++at_;
    } else if (text_.substr(at_, 2) == "\\\n") {
      // The line goes on.
      at_ += 2;
      ++line_;
    } else if (c == '#') {
      at_ = std::min(text_.find('\n', at_), text_.size());
    } else if (c == '<' || c == '>') {
      redirect();
    } else if (std::string_view(";&|()`").find(c) != std::string_view::npos) {
      ++at_;
      startCommand();
      if (c == '(') ++depth_;
      if (c == ')' && depth_ > 0) {
        --depth_;
        isCommandNext_ = false;
      }
    } else {
      takeWord(word());
    }
  }

  void startCommand() {
    isCommandNext_ = true;
    isQuestion_ = false;
  }

  void endLine() {
    ++line_;
    ++at_;
    startCommand();
    for (; !hereDocuments_.empty(); hereDocuments_.pop_front()) skipHereDocument();
  }

  void skipHereDocument() {
    while (at_ < text_.size()) {
      const std::size_t end = std::min(text_.find('\n', at_), text_.size());
      std::string_view line = text_.substr(at_, end - at_);
      at_ = std::min(end + 1, text_.size());
      ++line_;
      line.remove_prefix(std::min(line.find_first_not_of('\t'), line.size()));
      if (line == hereDocuments_.front()) return;
    }
  }

  void redirect() {
    const std::size_t start = at_;
    while (at_ < text_.size() &&
           std::string_view("<>&|-").find(text_[at_]) != std::string_view::npos)
      ++at_;
    const std::string_view sign = text_.substr(start, at_ - start);
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t')) ++at_;
    std::string target = word();
    if (sign != "<<" && sign != "<<-") return;
    std::erase_if(target, [](char c) { return c == '\'' || c == '"' || c == '\\'; });
    if (!target.empty()) hereDocuments_.push_back(std::move(target));
  }

  // The word that begins here, as it stands; empty where none does.
  std::string word() {
    const std::size_t start = at_;
    while (at_ < text_.size()) {
      const char c = text_[at_];
      if (std::string_view(" \t\r\n;&|()<>`").find(c) != std::string_view::npos) break;
      if (c == '\'' || c == '"') {
        skipQuoted(c);
      } else if (text_.substr(at_, 2) == "$(") {
        // What follows is a command of its own.
        ++at_;
        break;
      } else {
        skipCharacter();
        if (c == '\\' && at_ < text_.size()) skipCharacter();
      }
    }
    return std::string(text_.substr(start, at_ - start));
  }

  void skipCharacter() {
    if (text_[at_] == '\n') ++line_;
    ++at_;
  }

  void skipQuoted(char mark) {
    ++at_;
    while (at_ < text_.size() && text_[at_] != mark) {
      if (mark == '"' && text_[at_] == '\\' && at_ + 1 < text_.size()) skipCharacter();
      skipCharacter();
    }
    if (at_ < text_.size()) ++at_;
  }

  void takeWord(const std::string& word) {
    if (isQuestion_) {
      known_.insert(word);
      return;
    }
    // The body of a function begins behind its parentheses.
    if (word == "{") startCommand();
    if (!isCommandNext_ || isAmong(kBeforeCommands, word)) return;
    // An assignment, or an option of what runs the command.
    if (word.find('=') != word.npos || word.starts_with('-')) return;
    isCommandNext_ = false;
    isQuestion_ = isAmong(kQuestions, word);
    const std::string name = word.substr(word.rfind('/') + 1);
    if (!isAmong(kLacking, name)) return;
    if (text_.substr(at_, 2) == "()") {
      known_.insert(name);
    } else if (!isPattern() && std::none_of(found_.begin(), found_.end(), [&](const auto& command) {
                 return command.name == name;
               })) {
      found_.push_back({name, line_});
    }
  }

  // Whether what has just been read is a pattern of a case: what nothing has opened is closed.
  [[nodiscard]] bool isPattern() const {
    const std::size_t next = text_.find_first_of("\n;&()<>`$", at_);
    return depth_ == 0 && next != text_.npos && text_[next] == ')';
  }

  const std::string_view text_;
  std::size_t at_ = 0;
  std::size_t depth_ = 0;  ///< of parentheses
  std::size_t line_ = 1;
  bool isCommandNext_ = true;
  bool isQuestion_ = false;
  std::deque<std::string> hereDocuments_;  ///< what ends those that begin with the next line
  std::vector<ShellCommand> found_;
  std::set<std::string> known_;
};

}  // namespace

std::vector<ShellCommand> commandsThatMacOSLacks(std::string_view text) {
  for (const std::string_view question : {"uname", "OSTYPE", "sw_vers"}) {
    if (text.find(question) != text.npos) return {};
  }
  return Reader(text).read();
}

}  // namespace VarnScripts::publishing
