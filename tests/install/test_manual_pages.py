"""Holds the manual pages and the completions to what the command itself says in --help.

The command under test is the environment variable VARN_TESTED_COMMAND.
"""

import os
import pathlib
import re
import shutil
import subprocess
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
COMMAND_PAGE = ROOT / "docs/man/varn-scripts.1"
SETTINGS_PAGE = ROOT / "docs/man/varn-scripts.toml.5"
SERVICE_DIRECTORY = ROOT / "examples/systemd"
GROUPS = {"key": ["key generate", "key show", "key verify"]}
WORDS = ["run", "plan", "prune", "list", "publish", *GROUPS]
COMMANDS = [name for word in WORDS for name in GROUPS.get(word, [word])]
ANYWHERE = {"--help", "--version", "--config"}


def help_text(command=""):
    return subprocess.run(
        [os.environ["VARN_TESTED_COMMAND"], *command.split(), "--help"],
        check=True, capture_output=True, encoding="utf-8", timeout=60).stdout


def options(command=""):
    """The long options that the help lists, without those that are only mentioned."""
    return set(re.findall(r"^  (?:-h,)?(--[a-z-]+)", help_text(command), re.MULTILINE))


def commands(group=""):
    """The commands that the help lists."""
    part = help_text(group).split("Commands:")[1]
    return re.findall(r"^  ([a-z]+)  ", part, re.MULTILINE)


def settings():
    return options() - ANYWHERE


class Help(unittest.TestCase):
    def test_the_reading_of_the_help_finds_what_is_known_to_be_there(self):
        self.assertLessEqual({"--base-path", "--quiet", "--help", "--version"}, options())
        self.assertEqual({"--help", "--json", "--no-wait", "--accept-codes"}, options("run"))
        self.assertEqual(WORDS, commands())
        for group, members in GROUPS.items():
            self.assertEqual(members, [f"{group} {name}" for name in commands(group)])


class CommandPage(unittest.TestCase):
    def page(self):
        return COMMAND_PAGE.read_text(encoding="utf-8")

    def part(self, command):
        """What the page says under the command, up to the next command or section."""
        parts = re.split(r"^(?:\.It Cm ((?:key )?[a-z]+)|\.Sh ).*\n", self.page(),
                         flags=re.MULTILINE)
        return parts[parts.index(command) + 1]

    def described(self, text):
        return {"--" + name
                for line in re.findall(r"^\.It (.*)", text, re.MULTILINE)
                for name in re.findall(r"\bFl -([a-z-]+)", line)}

    def test_describes_every_option_under_its_command_and_no_other(self):
        for command in COMMANDS:
            with self.subTest(command=command):
                self.assertEqual(options(command) - {"--help"}, self.described(self.part(command)))

    def test_describes_every_general_option_and_no_other(self):
        section = self.page().split(".Sh OPTIONS")[1].split(".Sh ")[0]
        self.assertEqual(options(), self.described(section))

    def test_shows_every_option_of_a_command_in_the_synopsis(self):
        synopsis = self.page().split(".Sh SYNOPSIS")[1].split(".Sh ")[0]
        for command in COMMANDS:
            form = synopsis.split(f".Cm {command}\n")[1].split(".Nm")[0]
            shown = {"--" + name for name in re.findall(r"\bFl -([a-z-]+)", form)}
            self.assertEqual(options(command) - {"--help"}, shown, command)

    def test_names_every_environment_variable_and_no_other(self):
        variables = {"VARN_" + name[2:].replace("-", "_").upper() for name in settings()}
        self.assertEqual(variables | {"VARN_CONFIG"},
                         set(re.findall(r"Ev (VARN_[A-Z_]+)", self.page())) |
                         set(re.findall(r", Ev (VARN_[A-Z_]+)", self.page())))


class SettingsPage(unittest.TestCase):
    def test_describes_every_key_and_no_other(self):
        page = SETTINGS_PAGE.read_text(encoding="utf-8")
        keys = set(re.findall(r"^\.It Ic ([a-z_]+)", page, re.MULTILINE))
        self.assertEqual({name[2:].replace("-", "_") for name in settings()}, keys)


class Pages(unittest.TestCase):
    def test_are_formatted_without_a_warning(self):
        formatters = [name for name in ("mandoc", "groff") if shutil.which(name)]
        if not formatters:
            self.skipTest("neither mandoc nor groff is installed")
        for page in (COMMAND_PAGE, SETTINGS_PAGE):
            for formatter in formatters:
                lint = {"mandoc": ["mandoc", "-T", "lint", "-W", "warning"],
                        "groff": ["groff", "-mdoc", "-ww", "-z", "-K", "utf8"]}[formatter]
                done = subprocess.run([*lint, page], capture_output=True, encoding="utf-8",
                                      timeout=60, check=False)
                self.assertEqual((0, ""), (done.returncode, done.stdout + done.stderr), page)


class BashCompletion(unittest.TestCase):
    def complete(self, *words):
        """What the completion offers for the last of the words."""
        script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _varn_scripts; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        done = subprocess.run(
            ["bash", "--norc", "-c", script, "bash", ROOT / "completions/varn-scripts.bash",
             *words], capture_output=True, encoding="utf-8", timeout=60, check=True)
        return set(done.stdout.split())

    def test_offers_the_commands(self):
        self.assertEqual(set(WORDS), self.complete("varn-scripts", ""))
        for group in GROUPS:
            self.assertEqual(set(commands(group)), self.complete("varn-scripts", group, ""))
            self.assertEqual(options() - {"--version"}, self.complete("varn-scripts", group, "--"))
        self.assertEqual({"plan", "prune", "publish"},
                         self.complete("varn-scripts", "--customer", "run", "p"))

    def test_offers_every_general_option(self):
        self.assertEqual(options(), self.complete("varn-scripts", "--"))

    def test_offers_a_commands_options_and_the_general_ones_after_it(self):
        for command in COMMANDS:
            with self.subTest(command=command):
                self.assertEqual((options() | options(command)) - {"--version"},
                                 self.complete("varn-scripts", *command.split(), "--"))

    def test_offers_the_values_of_an_option(self):
        self.assertEqual({"text", "json"}, self.complete("varn-scripts", "--log-format", ""))
        self.assertEqual({"json"}, self.complete("varn-scripts", "--log-format", "=", "j"))
        self.assertEqual(set(), self.complete("varn-scripts", "--customer", ""))


class ZshCompletion(unittest.TestCase):
    def file(self):
        return (ROOT / "completions/varn-scripts.zsh").read_text(encoding="utf-8")

    def offered(self, text):
        return set(re.findall(r"'\*?(--[a-z-]+)\[", text)) | set(re.findall(r",(--help)}", text)) | \
            set(re.findall(r"\)(--version)\[", text))

    def test_offers_the_commands(self):
        listed = self.file().split("commands=(\n")[1].split("  )")[0]
        self.assertEqual(WORDS, re.findall(r"""^    ['"]([a-z]+):""", listed, re.MULTILINE))

    def test_offers_every_general_option(self):
        general = self.file().split("settings=(\n")[1].split("\n  )")[0]
        self.assertEqual(options() - {"--version"}, self.offered(general))
        self.assertIn("(- *)--version[", self.file())

    def test_offers_a_commands_options(self):
        for command in COMMANDS:
            with self.subTest(command=command):
                part = self.file().split(f"        {command.split()[-1]})")[1].split(";;")[0]
                self.assertIn("$settings", part)
                self.assertEqual(options(command) - {"--help"}, self.offered(part))

    def test_is_read_without_a_complaint(self):
        if not shutil.which("zsh"):
            self.skipTest("zsh is not installed")
        done = subprocess.run(["zsh", "-n", ROOT / "completions/varn-scripts.zsh"],
                              capture_output=True, encoding="utf-8", timeout=60, check=False)
        self.assertEqual((0, ""), (done.returncode, done.stderr))


class Services(unittest.TestCase):
    def test_the_service_runs_what_the_command_line_takes(self):
        service = (SERVICE_DIRECTORY / "varn-scripts@.service").read_text(encoding="utf-8")
        line = re.search(r"^ExecStart=varn-scripts (.*)$", service, re.MULTILINE).group(1)
        words = [word for word in line.split() if not word.startswith(("/", "%"))]
        self.assertEqual(["--config", "run", "--"], words)

    def test_the_property_list_is_well_formed_and_runs_the_command(self):
        import plistlib
        path = next((ROOT / "examples/launchd").glob("*.plist"))
        job = plistlib.loads(path.read_bytes())
        self.assertEqual(path.name, job["Label"] + ".plist")
        self.assertEqual(["run", "--", job["Label"].rsplit(".", 1)[1]],
                         job["ProgramArguments"][-3:])
