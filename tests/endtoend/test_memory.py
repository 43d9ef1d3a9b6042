"""How much memory a run takes beside its script's output."""

import os
import subprocess
import unittest

from support.case import CommandCase

OUTPUT = 200 << 20


class PeakTest(CommandCase):
    """The most memory that the command has had, in sizes of the output."""

    def setUp(self):
        super().setUp()
        with open(self.command, "rb") as program:
            if b"__asan_init" in (content := program.read()) or b"__tsan_init" in content:
                raise unittest.SkipTest("a sanitizer has memory of its own")
        self.put(text=f"yes 'Grüße, a line of text' | head -c {OUTPUT}; exit 4\n")

    def assert_peak(self, most, *arguments, status=1):
        process = self.start(*arguments, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        _, ended, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(ended)
        self.assertEqual(process.returncode, status)
        peak = usage.ru_maxrss * 1024 / OUTPUT
        print(f"figure: peak of {' '.join(arguments)}: {peak:.2f} times the output")
        self.assertLessEqual(peak, most)

    def test_with_the_log_on(self):
        self.assert_peak(3.2, "run", "42")
        self.assert_peak(3.2, "--log-format", "json", "run", "42")
        self.assert_peak(3.2, "--log-file", self.path("log"), "run", "42")

    def test_without_a_log(self):
        self.assert_peak(2.1, "--quiet", "run", "42")
