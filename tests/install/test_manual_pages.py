"""Holds the manual pages and the completions to what the command itself says in --help.

The command under test is the environment variable VARN_TESTED_COMMAND.
"""

import os
import pathlib
import re
import shutil
import sqlite3
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
COMMAND_PAGE = ROOT / "docs/man/varn-scripts.1"
SETTINGS_PAGE = ROOT / "docs/man/varn-scripts.toml.5"
MANIFEST_PAGE = ROOT / "docs/man/scripts.toml.5"
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
    return set(re.findall(r"^  (?:-[a-z],)?(--[a-z-]+)", help_text(command), re.MULTILINE))


def commands(group=""):
    """The commands that the help lists."""
    part = help_text(group).split("Commands:")[1]
    return re.findall(r"^  ([a-z]+)  ", part, re.MULTILINE)


def settings():
    return options() - ANYWHERE


def key_of(option):
    """The setting's key; of several texts an option gives one."""
    return {"--trusted-key": "trusted_keys"}.get(option, option[2:].replace("-", "_"))


class Help(unittest.TestCase):
    def test_the_reading_of_the_help_finds_what_is_known_to_be_there(self):
        self.assertLessEqual({"--base-path", "--quiet", "--help", "--version"}, options())
        self.assertEqual({"--help", "--json", "--follow", "--no-wait", "--accept-codes"}, options("run"))
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
        variables = {"VARN_" + key_of(name).upper() for name in settings()}
        self.assertEqual(variables | {"VARN_CONFIG"},
                         set(re.findall(r"Ev (VARN_[A-Z_]+)", self.page())) |
                         set(re.findall(r", Ev (VARN_[A-Z_]+)", self.page())))


class SettingsPage(unittest.TestCase):
    def test_describes_every_key_and_no_other(self):
        page = SETTINGS_PAGE.read_text(encoding="utf-8")
        keys = set(re.findall(r"^\.It Ic ([a-z_]+)", page, re.MULTILINE))
        self.assertEqual({key_of(name) for name in settings()}, keys)


class ManifestPage(unittest.TestCase):
    def refusals(self, manifest):
        with tempfile.TemporaryDirectory() as directory:
            pathlib.Path(directory, "scripts.toml").write_text(manifest, encoding="utf-8")
            return subprocess.run(
                [os.environ["VARN_TESTED_COMMAND"], "--customer", "7", "publish", "--check",
                 directory, directory + "/tree"],
                check=False, capture_output=True, encoding="utf-8", timeout=60).stderr

    def keys(self, manifest, beginning):
        """The keys that the command names when it meets one that it does not know."""
        listed = re.search(f"{beginning} are (.*)", self.refusals(manifest)).group(1)
        return re.split(", | and ", listed)

    def test_describes_every_key_of_a_script_and_of_the_manifest_and_no_other(self):
        of_script = self.keys('[[script]]\nid = "1"\nfile = "a.sh"\nx = 1\n', "a script's keys")
        of_manifest = self.keys("x = 1\n", "the manifest's keys")
        self.assertEqual(["id", "file"], of_script[:2])
        self.assertEqual(["digest", "script"], of_manifest)
        page = MANIFEST_PAGE.read_text(encoding="utf-8")
        self.assertEqual(["digest", *of_script], re.findall(r"^\.It Ic ([a-z_]+)", page, re.MULTILINE))
        self.assertIn(".Ic [[script]]", page)
        table = (ROOT / "docs/formats.md").read_text(encoding="utf-8").split("| key |")[1]
        self.assertEqual(["digest", *of_script],
                         re.findall(r"^\| `([a-z_]+)` \|", table.split("\n\n")[0], re.MULTILINE))

    def test_each_key_that_it_describes_is_taken(self):
        page = MANIFEST_PAGE.read_text(encoding="utf-8")
        for key, form in re.findall(r"^\.It Ic ([a-z_]+) Pq (.*)$", page, re.MULTILINE):
            place = ("" if key == "digest" else "[[script]]\n") + f"{key} = true\n"
            refusals = self.refusals(place)
            self.assertIn(f"{key} must be a text", refusals)
            self.assertEqual("list" in form, f"{key} must be a text or a list" in refusals, key)


class Pages(unittest.TestCase):
    def test_are_formatted_without_a_warning(self):
        formatters = [name for name in ("mandoc", "groff") if shutil.which(name)]
        if not formatters:
            self.skipTest("neither mandoc nor groff is installed")
        for page in (COMMAND_PAGE, SETTINGS_PAGE, MANIFEST_PAGE):
            for formatter in formatters:
                lint = {"mandoc": ["mandoc", "-T", "lint", "-W", "warning"],
                        "groff": ["groff", "-mdoc", "-ww", "-z", "-K", "utf8"]}[formatter]
                done = subprocess.run([*lint, page], capture_output=True, encoding="utf-8",
                                      timeout=60, check=False)
                self.assertEqual((0, ""), (done.returncode, done.stdout + done.stderr), page)


class Records:
    """A computer with records, one of whose directories has a blank in its name."""

    def __init__(self, test):
        directory = tempfile.TemporaryDirectory(prefix="varn-completion-")
        test.addCleanup(directory.cleanup)
        self.base = directory.name + "/the base"
        place = pathlib.Path(self.base, "data/acme/Configuration-Framework")
        place.mkdir(parents=True)
        store = sqlite3.connect(place / "ScriptRepository")
        with store:
            store.execute("CREATE TABLE ScriptToMeta (key TEXT PRIMARY KEY, value TEXT NOT NULL)")
            store.executemany("INSERT INTO ScriptToMeta VALUES (?, '{}')", [("42",), ("clean-up",)])
        store.close()
        self.config = directory.name + "/settings.toml"
        pathlib.Path(self.config).write_text(f'base_path = "{self.base}"\ncustomer = "acme"\n')


def without_settings():
    """The environment in which the command is found by its name, and has no settings from."""
    kept = {name: value for name, value in os.environ.items() if not name.startswith("VARN_")}
    directory = os.path.dirname(os.environ["VARN_TESTED_COMMAND"])
    return {**kept, "PATH": f"{directory}:{kept['PATH']}"}


class BashCompletion(unittest.TestCase):
    def complete(self, *words):
        """What the completion offers for the last of the words."""
        script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _varn_scripts; '
                  'printf "%s\\n" "${COMPREPLY[@]}"')
        done = subprocess.run(
            ["bash", "--norc", "-c", script, "bash", ROOT / "completions/varn-scripts.bash",
             *words], capture_output=True, encoding="utf-8", timeout=60, check=True,
            env=without_settings())
        return set(done.stdout.split())

    def test_offers_the_scripts_that_the_settings_on_the_line_lead_to(self):
        records = Records(self)
        self.assertEqual(set(), self.complete("varn-scripts", "run", ""))
        for typed in (records.base.replace(" ", "\\ "), f'"{records.base}"', f"'{records.base}'"):
            places = ["--base-path", typed, "--customer", "acme"]
            for command in ("run", "plan"):
                self.assertEqual({"42", "clean-up"},
                                 self.complete("varn-scripts", *places, command, ""))
                self.assertEqual({"clean-up"},
                                 self.complete("varn-scripts", command, *places, "c"))
            # The shell makes three words of it.
            self.assertEqual({"42"}, self.complete("varn-scripts", "run", "--base-path", "=", typed,
                                                   "--customer", "=", "acme", "4"))
        self.assertEqual({"42", "clean-up"},
                         self.complete("varn-scripts", "--config", records.config, "run", ""))
        self.assertEqual(set(), self.complete("varn-scripts", "--config", records.config, "run",
                                              "--base-path", "/nowhere", ""))

    def test_evaluates_nothing_that_is_on_the_line(self):
        with tempfile.TemporaryDirectory() as directory:
            made = pathlib.Path(directory, "made")
            for typed in (f"$(touch {made})", f"`touch {made}`", f"x;touch {made}"):
                self.complete("varn-scripts", "--base-path", typed, "run", "")
            self.assertFalse(made.exists())

    def test_offers_urls_or_options_behind_the_server_of_list(self):
        self.assertIn("https://", self.complete("varn-scripts", "list", "--server", ""))
        self.assertEqual({"--json"}, self.complete("varn-scripts", "list", "--server", "--js"))

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
        # Alone, several times, behind what it excludes, or behind its letter.
        return set(re.findall(r"""['"]\*?(?:\([^)]*\))?(--[a-z-]+)\[""", text)) | \
            set(re.findall(r",(--[a-z-]+)}", text))

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

    def test_offers_the_scripts_that_the_settings_on_the_line_lead_to(self):
        if not shutil.which("zsh"):
            self.skipTest("zsh is not installed")
        records = Records(self)
        # What the shell's own completion functions do with the words is all that is needed of them.
        script = ('compadd() { print -rl -- "${(@P)2}" }; _call_program() { shift; eval "$*" }\n'
                  + self.file().split("_varn_scripts() {")[0]
                  + '\ntyped=("$@"); _varn_scripts_known')
        for places in (["--base-path", records.base.replace(" ", "\\ "), "--customer", "acme"],
                       [f"--base-path='{records.base}'", "--customer=acme"],
                       ["--config", records.config]):
            done = subprocess.run(["zsh", "-f", "-c", script, "zsh", "varn-scripts", *places, "run"],
                                  capture_output=True, encoding="utf-8", timeout=60, check=True,
                                  env=without_settings())
            self.assertEqual(["42", "clean-up"], done.stdout.split(), done.stderr)


class FishCompletion(unittest.TestCase):
    def file(self):
        return (ROOT / "completions/varn-scripts.fish").read_text(encoding="utf-8")

    def offered(self, condition):
        """The long options of the lines with this condition."""
        lines = [line for line in self.file().splitlines()
                 if line.startswith("complete ") and
                 (re.findall(r" -n ('.*?'|\S+)", line) or [None])[0] == condition]
        return {"--" + name for line in lines for name in re.findall(r" -l ([a-z-]+) ", line)}

    def test_offers_the_commands(self):
        self.assertEqual(WORDS, re.findall(r" -n __varn_scripts_needs_command -a ([a-z]+) ",
                                              self.file()))

    def test_offers_every_general_option(self):
        self.assertEqual(options() - {"--version"},
                         self.offered(None) | self.offered("'not __varn_scripts_after list'"))
        self.assertEqual({"--version"}, self.offered("__varn_scripts_needs_command"))

    def offered_after(self, command):
        return self.offered(f"'__varn_scripts_after {command}'")

    def test_offers_a_commands_options(self):
        for command in COMMANDS:
            self.assertEqual(options(command) - {"--help"}, self.offered_after(command), command)

    def test_knows_which_options_take_a_value(self):
        listed = self.file().split("set -g __varn_scripts_with_value ")[1].split("\n\n")[0]
        lines = self.file().split("complete -c varn-scripts -f\n")[1].splitlines()
        with_value = {"--" + name for line in lines if re.search(r" -[rx] ", line)
                      for name in re.findall(r" -l ([a-z-]+) ", line)}
        self.assertEqual(with_value, set(re.findall(r"--[a-z-]+", listed)))

    def fish(self, *arguments):
        if not shutil.which("fish"):
            self.skipTest("fish is not installed")
        return subprocess.run(["fish", "--no-config", *arguments], capture_output=True,
                              encoding="utf-8", timeout=60, check=False, env=without_settings())

    def test_is_read_without_a_complaint(self):
        done = self.fish("-n", str(ROOT / "completions/varn-scripts.fish"))
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))

    def complete(self, line):
        done = self.fish("-c", "source $argv[1]; complete -C $argv[2]",
                         str(ROOT / "completions/varn-scripts.fish"), line)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        return {each.split("\t")[0] for each in done.stdout.splitlines()}

    def test_offers_what_fits(self):
        records = Records(self)
        self.assertEqual(set(WORDS), self.complete("varn-scripts "))
        self.assertEqual({"generate", "show", "verify"}, self.complete("varn-scripts key "))
        self.assertEqual({"--json"}, self.complete("varn-scripts --customer run plan --js"))
        self.assertEqual({"text", "json"}, self.complete("varn-scripts --log-format "))
        for places in (f"--base-path '{records.base}' --customer acme",
                       f"--base-path='{records.base}' --customer=acme",
                       f"--config {records.config}"):
            self.assertEqual({"42", "clean-up"}, self.complete(f"varn-scripts {places} run "))
            self.assertEqual({"42"}, self.complete(f"varn-scripts run {places} 4"))
            self.assertEqual(set(), self.complete(f"varn-scripts {places} run 42 c"))


class Services(unittest.TestCase):
    def words_of(self, name):
        service = (SERVICE_DIRECTORY / name).read_text(encoding="utf-8")
        line = re.search(r"^ExecStart=varn-scripts (.*)$", service, re.MULTILINE).group(1)
        return [word for word in line.split() if not word.startswith(("/", "%"))]

    def test_the_services_run_what_the_command_line_takes(self):
        self.assertEqual(["--config", "run", "--"], self.words_of("varn-scripts@.service"))
        self.assertEqual(["--config", "prune"], self.words_of("varn-scripts-prune.service"))

    def test_systemd_takes_the_units(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze is not installed")
        with tempfile.TemporaryDirectory() as directory:
            units = []
            for unit in sorted(SERVICE_DIRECTORY.glob("varn-scripts*")):
                text = unit.read_text(encoding="utf-8").replace(
                    "ExecStart=varn-scripts ", f"ExecStart={os.environ['VARN_TESTED_COMMAND']} ")
                pathlib.Path(directory, unit.name).write_text(text, encoding="utf-8")
                units.append(f"{directory}/{unit.name.replace('@.', '@42.')}")
            self.assertEqual(4, len(units))
            done = subprocess.run(["systemd-analyze", "--man=no", "verify", *units],
                                  capture_output=True, encoding="utf-8", timeout=60, check=False)
        # What else this system has among its units is no matter of this.
        said = [line for line in done.stderr.splitlines() if "varn-scripts" in line]
        self.assertEqual((0, []), (done.returncode, said))

    def jobs(self):
        import plistlib
        return {path.name: plistlib.loads(path.read_bytes())
                for path in (ROOT / "examples/launchd").glob("*.plist")}

    def test_the_property_lists_are_well_formed_and_run_the_command(self):
        jobs = self.jobs()
        self.assertEqual({"org.varn.varn-scripts.42.plist": ["run", "--", "42"],
                          "org.varn.varn-scripts-prune.plist": ["prune"]},
                         {name: job["ProgramArguments"][7:] for name, job in jobs.items()})
        for name, job in jobs.items():
            self.assertEqual(name, job["Label"] + ".plist")
            self.assertEqual(["/usr/local/bin/varn-scripts", "--config"],
                             job["ProgramArguments"][4:6])
            self.assertIn("StartCalendarInterval", job)

    def test_the_shell_of_a_property_list_waits_and_becomes_the_command(self):
        for name, job in self.jobs().items():
            words = job["ProgramArguments"]
            self.assertEqual(["/bin/sh", "-c"], words[:2])
            with self.subTest(name):
                script = "sleep() { echo slept $#; }; " + words[2]
                done = subprocess.run(["/bin/sh", "-c", script, "name", "echo", "ran"],
                                      capture_output=True, encoding="utf-8", timeout=60,
                                      check=False)
                self.assertEqual((0, "slept 1\nran\n", ""),
                                 (done.returncode, done.stdout, done.stderr))
