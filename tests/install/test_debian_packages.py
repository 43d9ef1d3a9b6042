"""Makes the Debian packages of a built tree and looks at what is in them.

From the environment: VARN_BUILD_DIRECTORY, the built tree; VARN_CPACK, CMake's packing program.
Whether they install, run and go away again is for `debian-package`, which takes minutes.
"""

import gzip
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

RUNTIME = [
    "usr/bin/varn-scripts",
    "usr/lib/systemd/system/varn-scripts-prune.service",
    "usr/lib/systemd/system/varn-scripts-prune.timer",
    "usr/lib/systemd/system/varn-scripts@.service",
    "usr/lib/systemd/system/varn-scripts@.timer",
    "usr/share/bash-completion/completions/varn-scripts",
    "usr/share/doc/varn-scripts/CHANGELOG.md",
    "usr/share/doc/varn-scripts/changelog.gz",
    "usr/share/doc/varn-scripts/examples/README.md",
    "usr/share/doc/varn-scripts/examples/demo",
    "usr/share/doc/varn-scripts/examples/look-only.conf",
    "usr/share/doc/varn-scripts/examples/varn-scripts.toml",
    "usr/share/fish/vendor_completions.d/varn-scripts.fish",
    "usr/share/man/man1/varn-scripts.1.gz",
    "usr/share/man/man5/scripts.toml.5.gz",
    "usr/share/man/man5/varn-scripts.toml.5.gz",
    "usr/share/zsh/{zsh}/_varn-scripts",
]
LIBRARY = [
    "usr/{lib}/libVarnScriptRepository.so.0",
    "usr/{lib}/libVarnScriptRepository.so.0.1.0",
    "usr/share/doc/libvarnscriptrepository0/changelog.gz",
]
DEVELOPMENT = [
    "usr/include/VarnScriptRepository/AgentLog.h",
    "usr/include/VarnScriptRepository/AgentSettings.h",
    "usr/include/VarnScriptRepository/AgentStore.h",
    "usr/include/VarnScriptRepository/AgentUtils.h",
    "usr/include/VarnScriptRepository/LogSettings.h",
    "usr/include/VarnScriptRepository/MarkupParser.h",
    "usr/include/VarnScriptRepository/ScriptRepositoryHost.h",
    "usr/include/VarnScriptRepository/ScriptRepositoryLocalMeta.h",
    "usr/include/VarnScriptRepository/ScriptRepositoryProcessor.h",
    "usr/include/VarnScriptRepository/ScriptRunObserver.h",
    "usr/include/VarnScriptRepository/VarnExport.h",
    "usr/{lib}/cmake/VarnScriptRepository/FindObjectRuntime.cmake",
    "usr/{lib}/cmake/VarnScriptRepository/VarnScriptRepositoryConfig.cmake",
    "usr/{lib}/cmake/VarnScriptRepository/VarnScriptRepositoryConfigVersion.cmake",
    "usr/{lib}/cmake/VarnScriptRepository/VarnScriptRepositoryContractsTargets.cmake",
    "usr/{lib}/cmake/VarnScriptRepository/VarnScriptRepositoryMarkupParserTargets.cmake",
    "usr/{lib}/cmake/VarnScriptRepository/VarnScriptRepositoryTargets.cmake",
    "usr/{lib}/cmake/VarnScriptRepository/VarnScriptRepositoryUnitsTargets.cmake",
    "usr/{lib}/libVarnMarkupParser.a",
    "usr/{lib}/libVarnScriptRepository.so",
    "usr/{lib}/libVarnScriptRepositoryUnits.a",
    "usr/{lib}/pkgconfig/VarnScriptRepository.pc",
    "usr/share/VarnScriptRepository/contracts/Contract.h",
    "usr/share/VarnScriptRepository/contracts/LogContractTests.cpp",
    "usr/share/VarnScriptRepository/contracts/ParserContractTests.cpp",
    "usr/share/VarnScriptRepository/contracts/StoreContractTests.cpp",
    "usr/share/VarnScriptRepository/contracts/UtilitiesContractTests.cpp",
    "usr/share/VarnScriptRepository/contracts/support/KeyedCoding.h",
    "usr/share/VarnScriptRepository/contracts/support/SmallRecords.h",
    "usr/share/VarnScriptRepository/contracts/support/StoredRecord.h",
    "usr/share/doc/libvarnscriptrepository-dev/changelog.gz",
    "usr/share/doc/varn-scripts/examples/embed/AgentUnderContract.cpp",
    "usr/share/doc/varn-scripts/examples/embed/CMakeLists.txt",
    "usr/share/doc/varn-scripts/examples/embed/agent.cpp",
    "usr/share/doc/varn-scripts/examples/resident/CMakeLists.txt",
    "usr/share/doc/varn-scripts/examples/resident/resident.cpp",
]
# One file for each way of compiling, named after it.
PER_CONFIGURATION = re.compile(r"Targets-[a-z]+\.cmake$")
SCRIPTS = "usr/share/doc/varn-scripts/examples/scripts/"


def execute(*arguments, **more):
    return subprocess.run([str(argument) for argument in arguments], check=True,
                          stdin=subprocess.DEVNULL, capture_output=True, encoding="utf-8",
                          timeout=240, **more).stdout


class DebianPackages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory(prefix="varn-packages-")
        cls.addClassCleanup(directory.cleanup)
        execute(os.environ["VARN_CPACK"], "-G", "DEB", "-B", directory.name,
                cwd=os.environ["VARN_BUILD_DIRECTORY"])
        cls.found = {path.name.split("_")[0]: path
                     for path in pathlib.Path(directory.name).glob("*.deb")}

    def field(self, package, name):
        return execute("dpkg-deb", "--field", self.found[package], name).strip()

    def entries(self, package):
        """Mode, owner and path of everything in the package."""
        for line in execute("dpkg-deb", "--contents", self.found[package]).splitlines():
            mode, owner, _, _, _, path = line.split(" -> ")[0].split(None, 5)
            yield mode, owner, path.removeprefix("./")

    def files(self, package):
        return sorted(path for mode, _, path in self.entries(package) if mode[0] != "d")

    def expected(self, package, listed):
        """The list, with the directories that the prefix of the build decides about."""
        files = self.files(package)
        library = next((path for path in files if "/libVarnScriptRepository" in path), "usr//")
        zsh = [path.split("/")[3] for path in files if path.startswith("usr/share/zsh/")]
        return sorted(path.format(lib=library.split("/", 1)[1].rsplit("/", 1)[0], zsh=(*zsh, "")[0])
                      for path in listed)

    def test_there_are_three(self):
        self.assertEqual({"varn-scripts", "libvarnscriptrepository0", "libvarnscriptrepository-dev"},
                         set(self.found))

    def test_the_librarys_package_holds_the_library_alone(self):
        package = "libvarnscriptrepository0"
        self.assertEqual(self.expected(package, LIBRARY), self.files(package))

    def test_the_commands_package_holds_what_the_list_says(self):
        files = [path for path in self.files("varn-scripts") if not path.startswith(SCRIPTS)]
        self.assertEqual(self.expected("varn-scripts", RUNTIME), files)
        scripts = [path for path in self.files("varn-scripts") if path.startswith(SCRIPTS)]
        self.assertEqual(7, len(scripts))

    def test_the_development_package_holds_what_the_list_says(self):
        package = "libvarnscriptrepository-dev"
        files = [path for path in self.files(package) if not PER_CONFIGURATION.search(path)]
        self.assertEqual(self.expected(package, DEVELOPMENT), files)

    def test_everything_belongs_to_root_and_nobody_else_may_write(self):
        for package in self.found:
            for mode, owner, path in self.entries(package):
                self.assertEqual("root/root", owner, path)
                if mode[0] != "l":
                    self.assertEqual("r-", mode[7] + mode[8], path)
                    self.assertEqual("-", mode[5], path)
                self.assertNotIn("s", mode, path)

    def test_the_control_fields_say_what_is_needed(self):
        self.assertEqual("0.1.0", self.field("varn-scripts", "Version"))
        self.assertEqual("admin", self.field("varn-scripts", "Section"))
        self.assertEqual("ca-certificates, python3", self.field("varn-scripts", "Recommends"))
        for package in ("varn-scripts", "libvarnscriptrepository0"):
            depends = [one.split()[0] for one in self.field(package, "Depends").split(", ")]
            for library in ("libc6", "libcurl", "libexpat1", "libsodium", "libsqlite3-0", "libssl3",
                            "libutf8proc"):
                self.assertEqual(1, len([one for one in depends if one.startswith(library)]),
                                 (package, library))
            # Loaded when it is needed, so that dpkg knows nothing of it.
            self.assertIn("libcurl4t64 | libcurl4 (>= 7.85)", self.field(package, "Depends"))
            self.assertEqual([], [one for one in depends if one.endswith("-dev")])
            # Neither of the two needs the other.
            self.assertEqual([], [one for one in depends if "varn" in one])
            # Nobody looks for a class in the command's process.
            self.assertEqual(package != "varn-scripts", "libobjc4" in depends, package)
        self.assertEqual("libs", self.field("libvarnscriptrepository0", "Section"))

        package = "libvarnscriptrepository-dev"
        self.assertEqual("libdevel", self.field(package, "Section"))
        self.assertRegex(self.field(package, "Depends"),
                         r"^libvarnscriptrepository0 \(= 0\.1\.0\), libexpat1-dev, libobjc-[0-9]+-dev, "
                         r"libutf8proc-dev, pkgconf \| pkg-config$")
        self.assertTrue(self.field("varn-scripts", "Description").startswith(
            "Runs an organisation's scripts from a verified local copy\n The command"))

    def control(self, package):
        directory = tempfile.TemporaryDirectory(prefix="varn-control-")
        self.addCleanup(directory.cleanup)
        execute("dpkg-deb", "--control", self.found[package], directory.name)
        return pathlib.Path(directory.name)

    def test_each_has_a_changelog_that_dpkg_reads(self):
        for package, path in self.found.items():
            with tempfile.TemporaryDirectory(prefix="varn-files-") as directory:
                execute("dpkg-deb", "--extract", path, directory)
                packed = pathlib.Path(directory, "usr/share/doc", package, "changelog.gz")
                text = gzip.decompress(packed.read_bytes()).decode()
            read = subprocess.run(["dpkg-parsechangelog", "-l", "-", "-S", "Version"], input=text,
                                  capture_output=True, encoding="utf-8", check=True, timeout=60)
            self.assertEqual(("0.1.0\n", ""), (read.stdout, read.stderr), package)

    def test_installing_the_library_tells_the_loader(self):
        control = self.control("libvarnscriptrepository0")
        self.assertEqual("activate-noawait ldconfig\n",
                         (control / "triggers").read_text(encoding="utf-8"))
        self.assertEqual("libVarnScriptRepository 0 libvarnscriptrepository0 (>= 0.1.0)\n",
                         (control / "shlibs").read_text(encoding="utf-8"))
        # What CPack adds calls the loader as well; nothing else happens.
        for script in ("postinst", "postrm"):
            text = (control / script).read_text(encoding="utf-8")
            self.assertNotIn("systemctl", text)
            self.assertNotIn("rm -r", text)

    def test_purging_the_command_takes_the_state_away(self):
        control = self.control("varn-scripts")
        self.assertFalse((control / "shlibs").exists())
        for script in ("postinst", "prerm", "postrm"):
            execute("sh", "-n", control / script)
            self.assertTrue(os.access(control / script, os.X_OK), script)
        self.assertIn("rm -rf /var/lib/varn-scripts\n",
                      (control / "postrm").read_text(encoding="utf-8"))
