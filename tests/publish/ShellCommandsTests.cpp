// Which commands a shell script is found to use.

#include <gmock/gmock.h>

#include "publish/ShellCommands.h"

namespace VarnScripts::publishing {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(ShellCommands, AreFoundWhereACommandStands) {
  const struct {
    const char* script;
    ShellCommand command;
  } scripts[] = {
      {"apt-get update\n", {"apt-get", 1}},
      {"#!/bin/sh\n\n  systemctl restart x\n", {"systemctl", 3}},
      {"/usr/bin/systemctl status\n", {"systemctl", 1}},
      {"true && yum -y install x\n", {"yum", 1}},
      {"a; dnf install x", {"dnf", 1}},
      {"a | rpm -q -\n", {"rpm", 1}},
      {"if dpkg -s x; then :; fi\n", {"dpkg", 1}},
      {"if a\nthen useradd x\nelse b\nfi\n", {"useradd", 2}},
      {"x=$(getent passwd root)\n", {"getent", 1}},
      {"echo `lsb_release -s`\n", {"lsb_release", 1}},
      {"LANG=C DEBIAN_FRONTEND=x apt-get -y install x\n", {"apt-get", 1}},
      {"sudo -n systemctl stop x\n", {"systemctl", 1}},
      {"a && \\\n  systemctl stop x\n", {"systemctl", 2}},
      {"{ journalctl -n 1; }\n", {"journalctl", 1}},
      {"(lsblk)\n", {"lsblk", 1}},
      {"f() { lsblk; }\n", {"lsblk", 1}},
      {"echo \"a\nb\"\nlsmod\n", {"lsmod", 3}},
      {"cat <<END\n  text\nEND\nusermod x\n", {"usermod", 4}},
      {"cat >file <<-'E O'\n\tE O\nusermod x\n", {"usermod", 3}},
      {">log modprobe x\n", {"modprobe", 1}},
      {"case $1 in a) zypper up;; esac\n", {"zypper", 1}},
  };
  for (const auto& [script, command] : scripts) {
    EXPECT_THAT(commandsThatMacOSLacks(script), ElementsAre(command)) << script;
  }
}

TEST(ShellCommands, AreNamedOnceAndInTheOrderOfTheScript) {
  EXPECT_THAT(commandsThatMacOSLacks("systemctl a\napt-get b\nsystemctl c\n"),
              ElementsAre(ShellCommand{"systemctl", 1}, ShellCommand{"apt-get", 2}));
}

TEST(ShellCommands, AreNotFoundInWhatIsNoUseOfThem) {
  for (const char* const script : {"",
                                   "apt\\",
                                   "echo apt-get\n",
                                   "# apt-get update\n",
                                   "a # systemctl\n",
                                   "echo 'a\nsystemctl b'\n",
                                   "echo \"x\nsystemctl b \\\" \nyum\"\n",
                                   "cat <<END\napt-get update\nEND\n",
                                   "cat <<\"A\" <<B\nyum\nA\nrpm\nB\n",
                                   "for x in apt dnf; do :; done\n",
                                   "case $1 in\n  apt | dnf) a ;;\n  yum) b ;;\nesac\n",
                                   "apt_get\n",
                                   "./apt-get.sh\n",
                                   "rpm=1\n",
                                   "echo ${x#apt }\n",
                                   "a >rpm\n",
                                   "a 2>&1 <rpm\n",
                                   "a $(( 1 + 2 )) rpm\n",
                                   "'",
                                   "\"",
                                   "`",
                                   "$(",
                                   "<<",
                                   "<<X",
                                   "\\"}) {
    EXPECT_THAT(commandsThatMacOSLacks(script), IsEmpty()) << script;
  }
}

TEST(ShellCommands, AreLeftOutOfAScriptThatAsksForThem) {
  for (const char* const script :
       {"if command -v apt-get >/dev/null; then apt-get update; fi\n",
        "which yum && yum -y update\n", "type dnf rpm\ndnf x\nrpm y\n",
        "systemctl() { :; }\nsystemctl stop x\n", "case $(uname) in Linux) apt-get x;; esac\n",
        "[ \"$OSTYPE\" = x ] || apt-get x\n"}) {
    EXPECT_THAT(commandsThatMacOSLacks(script), IsEmpty()) << script;
  }
}

}  // namespace
}  // namespace VarnScripts::publishing
