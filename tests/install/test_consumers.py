"""Builds programs on the library as other projects do: on an installed one, by CMake and by
pkg-config, and on its sources.

From the environment: VARN_BUILD_DIRECTORY, the built tree; VARN_CMAKE, VARN_CXX and VARN_GENERATOR,
what it was built with; VARN_CXX_FLAGS, what every program on it must be compiled with;
VARN_BUILD_TYPE.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
EMBED = ROOT / "examples/embed"
RESIDENT = ROOT / "examples/resident"
CONSUMERS = pathlib.Path(__file__).resolve().parent / "consumers"
HEADERS = ["AgentLog.h", "AgentSettings.h", "AgentStore.h", "AgentUtils.h",
           "LogSettings.h", "MarkupParser.h", "ScriptRepositoryHost.h",
           "ScriptRepositoryLocalMeta.h",
           "ScriptRepositoryProcessor.h", "ScriptRunObserver.h", "VarnExport.h"]


def execute(arguments, expected=0, **more):
    done = subprocess.run([str(argument) for argument in arguments], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
                          timeout=600, check=False, **more)
    if done.returncode != expected:
        raise AssertionError(f"{arguments}: exit status {done.returncode}, not {expected}\n"
                             f"{done.stdout}{done.stderr}")
    return done


class DirectoryCase(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="varn-consumer-")
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name).resolve()
        # GCC's object runtime forgets a few small texts of its own; a leak check passes over them.
        forgotten = self.directory / "forgotten"
        forgotten.write_text("leak:objc_malloc\n", encoding="utf-8")
        os.environ["LSAN_OPTIONS"] = f"suppressions={forgotten}:print_suppressions=0"

    def configure(self, source, build, *more):
        execute([os.environ["VARN_CMAKE"], "-S", source, "-B", build,
                 "-G", os.environ["VARN_GENERATOR"],
                 f"-DCMAKE_CXX_COMPILER={os.environ['VARN_CXX']}",
                 f"-DCMAKE_CXX_FLAGS={os.environ['VARN_CXX_FLAGS']}",
                 f"-DCMAKE_BUILD_TYPE={os.environ['VARN_BUILD_TYPE']}",
                 "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", *more])

    def build(self, build):
        execute([os.environ["VARN_CMAKE"], "--build", build])

    def install(self):
        """Installs, then moves the prefix: nothing in it may know where it was."""
        execute([os.environ["VARN_CMAKE"], "--install", os.environ["VARN_BUILD_DIRECTORY"],
                 "--prefix", self.directory / "first"])
        prefix = self.directory / "prefix"
        (self.directory / "first").rename(prefix)
        return prefix

    def publish(self, source=ROOT / "examples/scripts", *options):
        server = self.directory / "server"
        execute([pathlib.Path(os.environ["VARN_BUILD_DIRECTORY"]) / "bin/varn-scripts",
                 "--customer", "acme", "publish", source, server, *options])
        return server

    def library_environment(self, prefix):
        library = next(prefix.rglob("libVarnScriptRepository.so")).parent
        return {**os.environ, "LD_LIBRARY_PATH": str(library)}

    def check_agent(self, agent):
        base = self.directory / "base"
        server = self.publish()
        arguments = [server, base, "acme"]
        # Without that file this script is rejected wherever it runs.
        rejected = execute([agent, *arguments, "106"], expected=1)
        self.assertIn("asset tag", rejected.stdout)
        self.assertIn("agent: info: Script-Meta Download Success", rejected.stderr)
        self.assertTrue((base / "client-data/acme/scripts-repository/asset-tag.sh").is_file())
        accepted = execute([agent, *arguments, "105"])
        self.assertNotEqual("", accepted.stdout)
        unknown = execute([agent, *arguments, "999"], expected=3)
        self.assertEqual("", unknown.stdout)
        # A script that is not what the checksum covers is not run.
        for script in server.glob("client-data/acme/scriptrepo/files/*.sh"):
            script.write_text(script.read_text(encoding="utf-8") + "\n", encoding="utf-8")
        tampered = execute([agent, server, base, "acme", "106"], expected=3)
        self.assertIn("Checksum mismatch", tampered.stderr)


class Installed(DirectoryCase):
    def setUp(self):
        super().setUp()
        self.prefix = self.install()

    def pkg_config(self, *arguments):
        path = next(self.prefix.rglob("VarnScriptRepository.pc")).parent
        return execute(["pkg-config", *arguments, "VarnScriptRepository"],
                       env={**os.environ, "PKG_CONFIG_PATH": str(path)}).stdout.split()

    def check_shared(self, program):
        base = self.directory / "shared base"
        server = self.publish()
        for script, verdict in (("105", "accepted"), ("106", "rejected"), ("999", "not run")):
            done = execute([program, base, f"file://{server}", script],
                           env=self.library_environment(self.prefix))
            self.assertEqual(f"{base}/data/Configuration-Framework/ScriptRepository\n"
                             f"{verdict}\n", done.stdout)
            self.assertEqual("", done.stderr)

    def check_signed(self, program):
        """With keys alone set, an altered local document does not count."""
        command = pathlib.Path(os.environ["VARN_BUILD_DIRECTORY"]) / "bin/varn-scripts"
        key = self.directory / "release.key"
        execute([command, "key", "generate", key, "--no-passphrase"])
        source = self.directory / "source"
        source.mkdir()
        (source / "job.sh").write_text('test "$1" = signed\n', encoding="utf-8")
        (source / "scripts.toml").write_text(
            '[[script]]\nid = "42"\nfile = "job.sh"\narguments = "signed"\n', encoding="utf-8")
        server = self.publish(source, "--sign-with", key, "--allow-removal")
        base = self.directory / "signed base"
        line = pathlib.Path(f"{key}.pub").read_text(encoding="utf-8").splitlines()[-1]
        for change in ("", "altered"):
            if change:
                document = next(base.rglob("42.xml"))
                text = document.read_text(encoding="utf-8")
                self.assertIn("signed", text)
                document.write_text(text.replace("signed", change), encoding="utf-8")
            done = execute([program, base, f"file://{server}", "42", line],
                           env=self.library_environment(self.prefix))
            self.assertEqual("accepted", done.stdout.splitlines()[-1])

    def test_the_example_agent_builds_on_it_and_runs_scripts(self):
        build = self.directory / "build"
        self.configure(EMBED, build, f"-DCMAKE_PREFIX_PATH={self.prefix}")
        self.build(build)
        self.check_agent(build / "agent")

    def test_cmake_gives_the_shared_library_and_the_archive_with_its_registration(self):
        build = self.directory / "build"
        self.configure(CONSUMERS, build, f"-DCMAKE_PREFIX_PATH={self.prefix}",
                       f"-DAGENT={EMBED / 'agent.cpp'}")
        self.build(build)
        self.check_shared(build / "shared")
        self.check_signed(build / "shared")
        registered = execute([build / "registered"], expected=2)
        self.assertEqual("registered\n", registered.stdout)

    def test_pkg_config_gives_the_shared_library(self):
        program = self.directory / "shared"
        execute([os.environ["VARN_CXX"], "-std=c++20", *os.environ["VARN_CXX_FLAGS"].split(),
                 CONSUMERS / "Shared.cpp", "-o", program, *self.pkg_config("--cflags", "--libs")])
        self.check_shared(program)
        self.assertEqual(["0.1.0"], self.pkg_config("--modversion"))

    def test_every_header_compiles_alone_under_both_names(self):
        directory = next(self.prefix.rglob("AgentLog.h")).parent
        self.assertEqual(HEADERS, sorted(path.name for path in directory.iterdir()))
        flags = self.pkg_config("--cflags")
        for header in HEADERS:
            for name in (header, f"VarnScriptRepository/{header}"):
                with self.subTest(name=name):
                    source = self.directory / "header.cpp"
                    source.write_text(f'#include "{name}"\n#include "{name}"\n', encoding="utf-8")
                    execute([os.environ["VARN_CXX"], "-std=c++20", "-fsyntax-only", "-Wall",
                             "-Wextra", "-Wpedantic", "-Werror", *flags, source])

    def test_nothing_in_it_names_the_places_where_it_was_built(self):
        places = [os.environ["VARN_BUILD_DIRECTORY"], str(ROOT), str(self.directory / "first")]
        texts = [path for pattern in ("*.cmake", "*.pc", "*.h", "*.service", "*.timer")
                 for path in self.prefix.rglob(pattern)]
        self.assertGreater(len(texts), 12)
        for path in texts:
            text = path.read_text(encoding="utf-8")
            self.assertEqual([], [place for place in places if place in text], path)

    def test_settings_are_named_one_by_one_without_a_warning(self):
        source = self.directory / "settings.cpp"
        source.write_text(
            '#include "AgentSettings.h"\n#include "LogSettings.h"\n'
            'void set() {\n'
            '  AgentUtils::configure({.basePath = "/opt/agent", .serverURL = "file:///srv"});\n'
            '  AgentLog::configure({.quiet = true});\n'
            '  static const AgentUtils::GlobalVariables own{.vyCustomerID = "7"};\n'
            '  AgentUtils::gv_globvars = &own;\n'
            '}\n', encoding="utf-8")
        execute([os.environ["VARN_CXX"], "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra",
                 "-Wmissing-field-initializers", "-Werror", *self.pkg_config("--cflags"), source])

    def test_the_command_finds_its_library_beside_it(self):
        if "sanitize" in os.environ["VARN_CXX_FLAGS"]:
            self.skipTest("a sanitizer's runtime decides what is loaded")
        done = execute([self.prefix / "bin/varn-scripts", "--version"])
        self.assertEqual("varn-scripts 0.1.0\n", done.stdout)


class Resident(DirectoryCase):
    """A host on the installed library that lives for longer than one version of a script."""

    def setUp(self):
        super().setUp()
        prefix = self.install()
        build = self.directory / "build"
        self.configure(RESIDENT, build, f"-DCMAKE_PREFIX_PATH={prefix}")
        self.build(build)
        self.host = build / "resident"
        self.environment = self.library_environment(prefix)
        self.source = self.directory / "source"
        self.source.mkdir()
        self.base = self.directory / "base"

    def publish_scripts(self, **texts):
        manifest = ""
        for script_id, text in texts.items():
            (self.source / f"{script_id}.sh").write_text(text, encoding="utf-8")
            manifest += f'[[script]]\nid = "{script_id}"\nfile = "{script_id}.sh"\n'
        (self.source / "scripts.toml").write_text(manifest, encoding="utf-8")
        return self.publish(self.source, "--allow-removal")

    def start(self, server):
        process = subprocess.Popen(
            [self.host, self.base, f"file://{server}", "acme"], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, encoding="utf-8",
            env=self.environment)
        self.addCleanup(process.communicate)
        return process

    def ask(self, process, script_id):
        """What the host writes for one ID."""
        process.stdin.write(script_id + "\n")
        process.stdin.flush()
        lines = []
        while not lines or lines[-1] not in ("done\n", ""):
            lines.append(process.stdout.readline())
        self.assertEqual("done\n", lines[-1])
        return "".join(lines[:-1])

    def test_it_runs_new_versions_and_removes_what_is_dropped(self):
        server = self.publish_scripts(one="echo first\n", two="echo other\n")
        process = self.start(server)
        self.assertEqual("one accepted\nfirst\n", self.ask(process, "one"))
        self.assertEqual("two accepted\nother\n", self.ask(process, "two"))
        dropped = self.base / "client-data/acme/scripts-repository/two.sh"
        self.assertTrue(dropped.exists())

        self.publish_scripts(one="echo second\n")
        self.assertEqual("one accepted\nsecond\ntwo removed\n", self.ask(process, "one"))
        self.assertFalse(dropped.exists())
        self.assertEqual("two not run\n", self.ask(process, "two"))

        # Away with the server: what is there goes on running.
        server.rename(self.directory / "gone")
        self.assertEqual("one accepted\nsecond\n", self.ask(process, "one"))

    def test_it_takes_turns_with_the_command(self):
        go = self.directory / "go"
        os.mkfifo(go)
        server = self.publish_scripts(one=f"echo begun >'{go}.begun'\nread line <'{go}'\n"
                                          "echo ended\n")
        os.mkfifo(f"{go}.begun")
        process = self.start(server)
        process.stdin.write("one\n")
        process.stdin.flush()
        with open(f"{go}.begun", encoding="utf-8") as begun:
            self.assertEqual("begun\n", begun.read())
        command = pathlib.Path(os.environ["VARN_BUILD_DIRECTORY"]) / "bin/varn-scripts"
        refused = execute([command, "--customer", "acme", "--base-path", self.base, "--server",
                           f"file://{server}", "run", "one", "--no-wait"], expected=3)
        self.assertIn(f"Script one is in use by process {process.pid}\n", refused.stderr)
        with open(go, "w", encoding="utf-8") as file:
            file.write("go\n")
        self.assertEqual(["one accepted\n", "ended\n", "done\n"],
                         [process.stdout.readline() for _ in range(3)])

    def test_it_names_the_setting_that_is_wrong(self):
        wrong = execute([self.host, "", "file:///srv", "acme"], expected=2, env=self.environment)
        self.assertEqual("AgentSettings::basePath is not given\n", wrong.stderr)
        wrong = execute([self.host, "base", "file:///srv", "acme"], expected=2,
                        env=self.environment)
        self.assertEqual("AgentSettings::basePath is relative: base\n", wrong.stderr)


class Contracts(DirectoryCase):
    """The suites of the four headers, installed, on an agent's own modules."""

    def setUp(self):
        super().setUp()
        prefix = self.install()
        self.agent = self.directory / "agent"
        shutil.copytree(EMBED, self.agent)
        self.configure(self.agent, self.directory / "build", f"-DCMAKE_PREFIX_PATH={prefix}",
                       "-DAGENT_CONTRACTS=ON")

    def outcomes(self, expected):
        execute([os.environ["VARN_CMAKE"], "--build", self.directory / "build",
                 "--target", "agent-contracts"])
        written = execute([self.directory / "build/agent-contracts"], expected=expected).stdout
        return {outcome: sorted(set(re.findall(rf"(?m)^\[ *{outcome} *\] (\w+\.\w+)", written)))
                for outcome in ("OK", "SKIPPED", "FAILED")}

    def test_the_example_agent_keeps_them_and_a_wrong_module_does_not(self):
        right = self.outcomes(expected=0)
        self.assertGreater(len(right["OK"]), 25)
        self.assertEqual([], right["FAILED"])
        self.assertEqual(["LogContract"], sorted({name.split(".")[0] for name in right["SKIPPED"]}))

        source = self.agent / "agent.cpp"
        text = source.read_text(encoding="utf-8")
        digest = "std::equal(digest, digest + size, wanted, wanted + wantedSize)"
        self.assertIn(digest, text)
        source.write_text(text.replace(digest, "true"), encoding="utf-8")
        wrong = self.outcomes(expected=1)
        self.assertEqual(["ChecksumContract.IsOfTheFilesContent",
                          "ChecksumContract.OfAnotherAlgorithmOrValueIsNone"], wrong["FAILED"])
        self.assertEqual(len(right["OK"]) - 2, len(wrong["OK"]))


class FromSources(DirectoryCase):
    def test_the_example_agent_builds_with_them_and_nothing_leaks_into_it(self):
        build = self.directory / "build"
        self.configure(EMBED, build, f"-DVARN_SOURCES={ROOT}")
        self.build(build)
        self.check_agent(build / "agent")

        # The agent is compiled as it asked for: no warnings of ours, and none made errors.
        commands = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
        own = [c["command"] for c in commands if c["file"].endswith("/agent.cpp")]
        self.assertEqual(1, len(own))
        self.assertNotIn("-W", own[0].replace("-Wl,", ""))
        # No test, no tool, and nothing to install.
        files = {path.name for path in build.rglob("*")}
        self.assertEqual(set(), files & {"varn-scripts", "varn-unit-tests", "CTestTestfile.cmake"})
        self.assertIn("libVarnScriptRepositoryUnits.a", files)
        execute([os.environ["VARN_CMAKE"], "--install", build,
                 "--prefix", self.directory / "parent"])
        self.assertFalse((self.directory / "parent").exists())
