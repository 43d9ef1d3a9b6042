"""The base of the promises' tests: the end-to-end tests' support, figures, and what a run cost."""

import contextlib
import os
import shutil
import sqlite3
import subprocess
import sys
import unittest

from support.case import DEADLINE, CommandCase, Result
from support.repository import DIRECTORY, Script

TEMPORARY_PREFIX = ".varn-download-"

MEBIBYTE = 1 << 20

# A script that tells whether the data document on this computer covers the bytes that run.
TELL_COVERED = """\
sum=$(sha256sum "$0" | cut -d ' ' -f 1)
if grep -q "$sum" "../scripts-repository-data/%s.xml"; then echo covered; else echo NOT COVERED; fi
"""

# Starts a program and tells its status and its memory. A small process of its own, because a
# program begins with the memory of who starts it.
MEASURE = """
import os, sys
child = os.posix_spawn(sys.argv[2], sys.argv[2:], os.environ)
_, status, usage = os.wait4(child, 0)
with open(sys.argv[1], "w") as file:
    file.write(f"{os.waitstatus_to_exitcode(status)} {usage.ru_maxrss}")
"""

# strace and a sanitizer's leak detector can't watch one process together.
needs_strace = unittest.skipUnless(
    shutil.which("strace") and not os.environ.get("VARN_SANITIZE"), "no strace here")


class OwnFileScript(Script):
    """A script whose file lies in a place of its own on the server, whatever its name."""

    @property
    def file_path(self):
        return f"{DIRECTORY}/files/{self.script_id}/file.sh"


class PromiseCase(CommandCase):
    """A test of a promise: a table of cases, and the figure that they come to."""

    def setUp(self):
        super().setUp()
        self._open_cases = 0

    @contextlib.contextmanager
    def case(self, **names):
        """One case of the table. Its failure does not keep the others from being tried."""
        with self.subTest(**names):
            self._open_cases += 1
            yield
            self._open_cases -= 1

    def figure(self, text):
        """Prints a figure for the reader, when every case has held; `./dev promise` shows these
        lines."""
        self.assertEqual(self._open_cases, 0, "cases that did not hold")
        print("figure: " + text, flush=True)

    def read(self, path):
        with open(path, "rb") as file:
            return file.read()

    def write(self, path, content):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)

    def assert_memory(self, memory, most, name):
        """`most` is meant for a build without a sanitizer, whose own books are large."""
        self.assertLess(memory, most * (8 if os.environ.get("VARN_SANITIZE") else 1), name)

    def temporary_files(self):
        return [name for _, _, names in os.walk(self.base) for name in names
                if name.startswith(TEMPORARY_PREFIX)]

    def assert_store_is_sound(self):
        with contextlib.closing(sqlite3.connect(self.store_file())) as store:
            self.assertEqual(store.execute("PRAGMA integrity_check").fetchall(), [("ok",)])

    @staticmethod
    def waits_for_a_lock(process):
        with open("/proc/locks", encoding="utf-8") as locks:
            return any(line.split()[1] == "->" and line.split()[5] == str(process.pid)
                       for line in locks)

    def run_measured(self, *arguments):
        """Runs the command to its end; its result, and the most memory that it had, in bytes."""
        memory = self.path("memory")
        done = subprocess.run(
            [sys.executable, "-I", "-S", "-c", MEASURE, memory, self.command, *self.settings(),
             *arguments],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE, check=False,
            env=self.environment())
        status, kibibytes = map(int, self.read(memory).split())
        result = Result(status, done.stdout.decode(errors="replace"),
                        done.stderr.decode(errors="replace"))
        return result, kibibytes * 1024

    def traced(self, calls, *arguments):
        """The system calls `calls` of a request, a line for each."""
        trace = self.path("trace")
        done = subprocess.run(
            ["strace", "-f", "-qq", "-s", "4096", "-e", "trace=" + calls, "-o", trace,
             self.command, *self.settings(), *arguments],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE, check=False,
            env=self.environment())
        lines = self.read(trace).decode(errors="replace").splitlines()
        return Result(done.returncode, done.stdout.decode(), done.stderr.decode()), lines
