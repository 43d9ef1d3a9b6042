"""Holds the list of docs/agent-modules.md against the archive of the library's units: it is what an
agent with modules of its own must define, no less and no more.

From the environment: VARN_UNITS, the archive; VARN_LIBRARIES and VARN_UTF8PROC, what it is linked
with; VARN_NM, VARN_CXX and VARN_CXX_FLAGS.
"""

import os
import pathlib
import re
import shlex
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
OF_AGENTS = re.compile(r"(AgentLog|AgentStore|AgentUtils|MarkupParser)::")

# Defines the one function with which the compiler writes the table of the class's virtual ones.
STORE = """
#include "AgentUtils.h"
struct AgentUtils::RootAccessKeyValueStorage::Table {};
AgentUtils::RootAccessKeyValueStorage::~RootAccessKeyValueStorage() = default;
"""


def shortened(name):
    text = r"std::__(?:cxx11|1)::basic_string<char, std::(?:__1::)?char_traits<char>, " \
           r"std::(?:__1::)?allocator<char> ?>"
    return re.sub(text, "std::string", name.replace("[abi:cxx11]", ""))


def compiler(*arguments):
    return subprocess.run(
        [os.environ["VARN_CXX"], "-std=c++20", *shlex.split(os.environ["VARN_CXX_FLAGS"]),
         *(f"-I{ROOT / headers}" for headers in ("include", "interfaces")), *map(str, arguments)],
        capture_output=True, text=True, check=False)


def symbols(binary, *options):
    """Encoded names and what they stand for."""
    def names(*more):
        listing = subprocess.run([os.environ["VARN_NM"], "--no-sort", *options, *more, binary],
                                 check=True, capture_output=True, text=True).stdout
        found = [re.sub(r"^[0-9a-f ]*[A-Za-z] ", "", line)
                 for line in listing.splitlines() if re.match(r"[0-9a-f ]*[A-Za-z] ", line)]
        return found
    return dict(zip(names(), map(shortened, names("--demangle")), strict=True))


def documented():
    page = (ROOT / "docs/agent-modules.md").read_text(encoding="utf-8")
    block = page.partition("must define, no more and no less")[2].partition("```text\n")[2]
    return block.partition("```")[0].splitlines()


class AgentModules(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="varn-symbols-")
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.units = os.environ["VARN_UNITS"]

    def needed(self):
        """Encoded names and what they stand for, of all that the units and the store's class ask of
        an agent."""
        source = self.directory / "store.cpp"
        source.write_text(STORE, encoding="utf-8")
        store = source.with_suffix(".o")
        done = compiler("-c", source, "-o", store)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        asked = {**symbols(self.units, "--undefined-only"), **symbols(store, "--undefined-only")}
        own = symbols(self.units, "--defined-only")
        return {encoded: name for encoded, name in asked.items()
                if OF_AGENTS.match(name) and encoded not in own}

    def link(self, encoded):
        """Links a program of the units and of symbols of these names."""
        stubs = self.directory / "stubs.cpp"
        stubs.write_text("int main() {}\n" + "".join(
            f'extern "C" char {name};\nchar {name};\n' for name in encoded), encoding="utf-8")
        return compiler(stubs, "-o", self.directory / "program", "-Wl,--whole-archive", self.units,
                        "-Wl,--no-whole-archive", os.environ["VARN_LIBRARIES"],
                        *os.environ["VARN_UTF8PROC"].split(";"), "-pthread")

    def test_the_page_lists_what_must_be_defined(self):
        self.assertEqual(sorted(set(self.needed().values())), documented())

    def test_a_program_links_with_these_and_with_none_less(self):
        needed = self.needed()
        done = self.link(needed)
        self.assertEqual(0, done.returncode, done.stderr)
        log = next(encoded for encoded, name in needed.items() if "logInfo" in name)
        done = self.link(set(needed) - {log})
        self.assertNotEqual(0, done.returncode)
        self.assertIn("AgentLog::logInfo", done.stderr)


if __name__ == "__main__":
    unittest.main()
