"""Standard output that fails, and a terminal as standard error."""

import json
import os
import pty
import select
import time

from support.case import DEADLINE, CommandCase


class OutputLimitTest(CommandCase):
    """No more of the output is written and logged than `max_output` allows."""

    def setUp(self):
        super().setUp()
        # 3000 bytes, three a character.
        self.put(file_name="much.py", text="print('€' * 1000, end='')\nexit(4)\n", codes="4")

    def test_the_surplus_is_left_out_and_told(self):
        result = self.run_command("--max-output", "1000", "run", "42")
        self.assertEqual((result.status, result.output), (0, "€" * 333))
        self.assertEqual(result.error_lines[-1],
                         "varn-scripts: 2001 of 3000 bytes of output are left out (max_output)")
        self.assertLess(result.error.count("€"), 1000)
        self.assertIn(" bytes left out] €", result.error)
        self.assertIn("€ Exit Code: 4\n", result.error)

    def test_the_surplus_is_told_in_json(self):
        result = self.run_command("--quiet", "--max-output", "1000", "run", "42", "--json")
        self.assertEqual((result.status, result.error), (0, ""))
        answer, run = self.answer(result)
        self.assertEqual(answer, {"script_id": "42", "status": "accepted", "output": "€" * 333})
        self.assertEqual((run["output_bytes"], run["dropped_bytes"], run["left_out_bytes"]),
                         (3000, 0, 2001))

    def test_what_fits_is_whole(self):
        for options in (["--max-output", "3000"], []):
            result = self.run_command("--quiet", *options, "run", "42")
            self.assertEqual((result.status, result.output, result.error), (0, "€" * 1000, ""))


class OutputFailureTest(CommandCase):
    """A result that can't be written does not change the verdict, and crashes nothing."""

    def setUp(self):
        super().setUp()
        self.put(text="echo done\n")

    def test_a_closed_pipe(self):
        reading, writing = os.pipe()
        os.close(reading)
        try:
            process = self.start("--quiet", "run", "42", stdout=writing)
        finally:
            os.close(writing)
        result = self.finish(process)
        self.assertEqual(result.status, 0)
        self.assertEqual(result.error,
                         "varn-scripts: standard output can't be written: Broken pipe\n")

    def test_a_full_disk(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            process = self.start("--quiet", "run", "42", "--json", stdout=full)
        result = self.finish(process)
        self.assertEqual(result.status, 0)
        self.assertEqual(result.error, "varn-scripts: standard output can't be written: No space "
                                       "left on device\n")

    def test_a_list_that_can_not_be_written_is_an_error(self):
        self.run_command("run", "42")
        with open("/dev/full", "w", encoding="utf-8") as full:
            process = self.start("list", stdout=full)
        self.assertEqual(self.finish(process).status, 3)

    def test_closed_standard_streams(self):
        process = self.start("run", "42", stdin=None, stdout=None, stderr=None,
                             preexec_fn=lambda: os.closerange(0, 3))
        self.assertEqual(self.finish(process).status, 0)
        self.assertEqual(len(self.listed()), 1)


class TerminalTest(CommandCase):
    """What a person at a terminal sees."""

    def run_on_terminal(self, *arguments, until=None, then=None):
        """Runs the command with a terminal as standard error; gives its status and the text. Once
        the terminal shows the text `until`, `then()` is called."""
        ours, theirs = pty.openpty()
        try:
            try:
                process = self.start(*arguments, stderr=theirs)
            finally:
                os.close(theirs)
            text = self.read_terminal(ours, until, then)
        finally:
            os.close(ours)
        return self.finish(process).status, text

    def read_terminal(self, descriptor, until, then):
        text = b""
        deadline = time.monotonic() + DEADLINE
        while True:
            ready, _, _ = select.select([descriptor], [], [], deadline - time.monotonic())
            self.assertTrue(ready, text)
            try:
                text += os.read(descriptor, 65536)
            except OSError:
                # All processes have closed their end.
                return text.decode()
            if then is not None and until.encode() in text:
                then()
                then = None

    def put_waiting(self):
        """Puts a script that waits for `let_go`."""
        self.go = self.fifo("go")
        self.put(text=f"read line <{self.go}\n")

    def let_go(self):
        with open(self.go, "w", encoding="utf-8") as file:
            file.write("go\n")

    def test_a_run_shows_its_time_against_its_limit_and_clears_it(self):
        self.put_waiting()
        status, text = self.run_on_terminal("run", "42", until="Script is running: 1 s",
                                            then=self.let_go)
        self.assertEqual(status, 0)
        self.assertIn("\rScript is running: 0 s of at most 600 s\x1b[K\r", text)
        self.assertIn("\rScript is running: 1 s of at most 600 s\x1b[K\r", text)
        self.assertGreater(text.rindex("\r\x1b[K"), text.rindex("Script is running"))

    def test_the_log_may_lie_in_a_file(self):
        self.put_waiting()
        status, text = self.run_on_terminal("--log-file", self.path("log"), "run", "42",
                                            until="Script is running: 0 s", then=self.let_go)
        self.assertEqual(status, 0)
        self.assertTrue(text.endswith("\r\x1b[K"), repr(text))
        self.assertNotIn("Processing", text)

    def test_a_download_shows_its_bytes(self):
        self.put(text="exit 0\n#" + "x" * 3_000_000 + "\n")
        self.serve()
        status, text = self.run_on_terminal("run", "42")
        self.assertEqual(status, 0, text)
        self.assertRegex(text, r"\rDownloading [0-9.]+ [KM]?i?B[^\r]*\x1b\[K\r")

    def test_quiet_shows_nothing(self):
        self.put(text="echo out\n")
        self.assertEqual(self.run_on_terminal("--quiet", "run", "42"), (0, ""))
