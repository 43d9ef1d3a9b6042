"""How much memory a run takes beside its script's output."""

import os
import resource
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

    def test_of_a_result_in_json(self):
        self.assert_peak(2.1, "--quiet", "run", "42", "--json")

    def test_a_script_that_has_run_is_never_not_run(self):
        # Enough for the output and a copy of it.
        self.put(file_name="less.sh", text="head -c 100M /dev/zero | tr '\\0' x; exit 4\n")
        most = 420 << 20
        for arguments in [("run", "42"), ("run", "42", "--json")]:
            # Not into this process: what it has had at most counts as its children's.
            with open(self.path("output"), "wb") as output:
                result = self.finish(self.start("--quiet", *arguments, stdout=output, preexec_fn=lambda: (
                    resource.setrlimit(resource.RLIMIT_AS, (most, most)))))
            self.assertEqual(result.status, 1, result.error)
            self.assertGreaterEqual(os.path.getsize(self.path("output")), 100 << 20)
