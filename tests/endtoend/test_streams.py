"""Standard output while the script runs and when it fails, and what a terminal shows."""

import json
import os
import re
import signal
import socket
import subprocess
import threading

from support.case import DEADLINE, CommandCase
from support.terminal import Terminal


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

    def test_with_a_log_in_JSON_every_line_is_JSON(self):
        for arguments in (["run", "42"], ["run", "42", "--json"], ["run", "42", "--follow"],
                          ["list"], ["list", "--server"], ["plan", "42"], ["prune", "--json"]):
            with self.subTest(arguments=arguments):
                with open("/dev/full", "w", encoding="utf-8") as full:
                    process = self.start("--log-format", "json", *arguments, stdout=full)
                self.assertEqual(self.finish(process).records[-1]["message"], "standard output "
                                 "can't be written: No space left on device")

    def test_a_list_that_can_not_be_written_is_an_error(self):
        self.run_command("run", "42")
        with open("/dev/full", "w", encoding="utf-8") as full:
            process = self.start("list", stdout=full)
        self.assertEqual(self.finish(process).status, 3)

    def test_help_and_version_that_can_not_be_written_are_an_error(self):
        for arguments in (("--version",), ("--help",), ("run", "--help")):
            with self.subTest(arguments=arguments):
                with open("/dev/full", "w", encoding="utf-8") as full:
                    process = self.start(*arguments, settings=[], stdout=full)
                result = self.finish(process)
                self.assertEqual((result.status, result.error), (
                    3, "varn-scripts: standard output can't be written: No space left on device\n"))

    def test_an_answer_for_a_closed_standard_output_is_an_error(self):
        source = self.path("source")
        os.mkdir(source)
        with open(os.path.join(source, "scripts.toml"), "w", encoding="utf-8") as manifest:
            manifest.write('[[script]]\nid = "42"\nfile = "job.sh"\n')
        with open(os.path.join(source, "job.sh"), "w", encoding="utf-8") as script:
            script.write("echo done\n")
        said = "varn-scripts: standard output can't be written: Bad file descriptor\n"
        for arguments in (["list", "--json"], ["list", "--server"], ["plan", "42", "--json"],
                          ["prune", "--json"], ["publish", "--check", source, self.path("tree")],
                          ["--version"]):
            with self.subTest(arguments=arguments):
                process = self.start("--quiet", *arguments, stdout=None,
                                     preexec_fn=lambda: os.close(1))
                result = self.finish(process)
                self.assertEqual((result.status, result.error), (3, said))

    def test_a_closed_standard_output_leaves_a_script_its_status(self):
        self.put(text="echo done\nexit 4\n")
        for arguments in (["run", "42"], ["run", "42", "--json"], ["run", "42", "--follow"]):
            with self.subTest(arguments=arguments):
                process = self.start("--quiet", *arguments, stdout=None,
                                     preexec_fn=lambda: os.close(1))
                result = self.finish(process)
                self.assertEqual((result.status, result.error), (
                    1, "varn-scripts: standard output can't be written: Bad file descriptor\n"))

    def test_closed_standard_streams(self):
        process = self.start("run", "42", stdin=None, stdout=None, stderr=None,
                             preexec_fn=lambda: os.closerange(0, 3))
        self.assertEqual(self.finish(process).status, 0)
        self.assertEqual(len(self.listed()), 1)


class FollowTest(CommandCase):
    """With --follow the output is written as it comes, wherever it goes."""

    verbose = False

    def setUp(self):
        super().setUp()
        self.go = self.fifo("go")

    def let_go(self):
        with open(self.go, "w", encoding="utf-8") as file:
            file.write("go\n")

    def read_until(self, stream, end):
        text = b""
        while not text.endswith(end):
            piece = os.read(stream.fileno(), 65536)
            self.assertTrue(piece, text)
            text += piece
        return text

    def test_it_comes_before_the_script_has_ended_and_once(self):
        self.put(text=f"echo first\nread line <{self.go}\nprintf second\n")
        process = self.start("run", "42", "--follow")
        first = self.read_until(process.stdout, b"first\n")
        self.let_go()
        result = self.finish(process)
        self.assertEqual((result.status, first.decode() + result.output, result.error),
                         (0, "first\nsecond", ""))

    def assert_whole(self, count):
        """A script writes `count` characters of three bytes while nobody reads, and goes on."""
        told = self.fifo("told")
        self.put(file_name="much.py",
                 text=f"import sys\nprint('€' * {count}, end='', flush=True)\n"
                      f"open({told!r}, 'w').write('written\\n')\n")
        process = self.start("run", "42", "--follow")
        # Its pipe holds less: somebody takes what it writes.
        self.assertEqual(self.read_line_from(told), "written")
        result = self.finish(process)
        self.assertEqual((result.status, result.output == "€" * count, result.error), (0, True, ""))

    def test_a_reader_who_does_not_read_holds_up_no_script(self):
        self.assert_whole(1_000_000)

    def test_what_a_reader_is_too_far_behind_for_comes_at_the_end(self):
        self.assert_whole(10_000_000)

    def test_a_reader_who_goes_away_disturbs_no_script(self):
        done = self.path("done")
        self.put(text=f"echo first\nread line <{self.go}\n"
                      f"head -c 300000 /dev/zero | tr '\\0' x\n: >{done}\n")
        reading, writing = os.pipe()
        try:
            process = self.start("run", "42", "--follow", stdout=writing)
        finally:
            os.close(writing)
        self.assertEqual(os.read(reading, 100), b"first\n")
        os.close(reading)
        self.let_go()
        result = self.finish(process)
        self.assertEqual((result.status, result.error),
                         (0, "varn-scripts: standard output can't be written: Broken pipe\n"))
        self.assertTrue(os.path.exists(done))

    def test_a_full_disk_disturbs_no_script(self):
        done = self.path("done")
        self.put(text=f"echo first\necho second\n: >{done}\nexit 3\n", codes="3")
        with open("/dev/full", "w", encoding="utf-8") as full:
            process = self.start("run", "42", "--follow", stdout=full)
        result = self.finish(process)
        self.assertEqual((result.status, result.error),
                         (0, "varn-scripts: standard output can't be written: No space left on "
                             "device\n"))
        self.assertTrue(os.path.exists(done))

    def test_no_more_comes_than_max_output_allows(self):
        self.put(text=f"printf 'ab€€'\nread line <{self.go}\nprintf '€c'\n")
        process = self.start("--max-output", "10", "run", "42", "--follow")
        first = self.read_until(process.stdout, "ab€€".encode())
        self.let_go()
        result = self.finish(process)
        self.assertEqual((result.status, first.decode() + result.output, result.error), (
            0, "ab€€",
            "varn-scripts: 4 of 12 bytes of output are left out (max_output)\n"))

    def test_what_is_not_utf8_is_left_out_as_ever(self):
        self.put(text=f"echo first\nread line <{self.go}\nprintf '\\377'\n")
        process = self.start("run", "42", "--follow")
        first = self.read_until(process.stdout, b"first\n")
        self.let_go()
        result = self.finish(process)
        self.assertEqual((result.status, first + result.output.encode(), result.error), (
            0, b"first\n",
            "varn-scripts: 1 bytes of output are left out: they are not UTF-8\n"))

    def test_with_json_it_is_a_mistake(self):
        self.put()
        result = self.run_command("run", "42", "--follow", "--json")
        self.assertEqual((result.status, result.output, result.error_lines[0]),
                         (2, "", "varn-scripts: --json excludes --follow"))


class TerminalTest(CommandCase):
    """What a person at a terminal sees."""

    verbose = False
    RUNNING = re.compile("Script is running: [0-9]+ s of at most 600 s")

    def setUp(self):
        super().setUp()
        # One for each time: who opens one anew may still meet the writer of before.
        self.go = self.fifo("go")
        self.go_on = self.fifo("go-on")
        self.terminal = Terminal(self)

    def let_go(self, fifo=None):
        with open(fifo or self.go, "w", encoding="utf-8") as file:
            file.write("go\n")

    def end_of(self, process):
        """The status of the process, and the lines that are seen in the end."""
        self.terminal.read_to_end()
        return self.finish(process).status, self.terminal.seen()

    def shows_running_below(self, *lines):
        """Whether what is seen is these lines, and below them that the script is running."""
        return lambda seen: seen[:-1] == list(lines) and self.RUNNING.fullmatch(seen[-1])

    def test_a_run_shows_its_time_against_its_limit_and_clears_it(self):
        self.put(text=f"read line <{self.go}\n")
        process = self.terminal.start("run", "42", stdout=subprocess.PIPE)
        # Two of them, whichever: a loaded computer may pass over a second.
        line = r"\rScript is running: ([0-9]+) s of at most 600 s\x1b\[K\r"
        self.terminal.read_until(lambda _: len(set(re.findall(line, self.terminal.text))) > 1)
        self.let_go()
        self.assertEqual(self.end_of(process), (0, [""]))
        seconds = [int(text) for text in re.findall(line, self.terminal.text)]
        self.assertEqual(seconds, sorted(seconds))

    def test_the_output_comes_at_once_with_the_time_below_it(self):
        self.put(text=f"echo one\necho two\nread line <{self.go}\necho three\n"
                      f"read line <{self.go_on}\nprintf four\n")
        process = self.terminal.start("run", "42")
        self.terminal.read_until(self.shows_running_below("one", "two"))
        self.let_go()
        self.terminal.read_until(self.shows_running_below("one", "two", "three"))
        self.let_go(self.go_on)
        self.assertEqual(self.end_of(process), (0, ["one", "two", "three", "four"]))

    def test_a_script_that_writes_all_the_time_does_not_hide_the_time(self):
        self.put(text=f"while ! [ -e {self.path('enough')} ]; do echo line; sleep 0.01; done\n")
        process = self.terminal.start("run", "42")
        # Behind one line and before the next.
        status_line = r"\rScript is running: [0-9]+ s of at most 600 s\x1b\[K\r"
        self.terminal.read_until(re.compile(
            rf"line\r\n(?:{status_line})+\r\x1b\[Kline\r\n{status_line}"))
        with open(self.path("enough"), "w", encoding="utf-8"):
            pass
        status, seen = self.end_of(process)
        self.assertEqual((status, set(seen[:-1]), seen[-1]), (0, {"line"}, ""))

    def test_a_line_that_has_not_ended_is_left_alone(self):
        self.put(text=f"echo one\nprintf 'please wait '\nread line <{self.go}\necho over\n"
                      f"read line <{self.go_on}\n")
        process = self.terminal.start("run", "42")
        self.terminal.read_until(lambda seen: seen == ["one", "please wait "])
        self.let_go()
        self.terminal.read_until(self.shows_running_below("one", "please wait over"))
        self.let_go(self.go_on)
        self.assertEqual(self.end_of(process), (0, ["one", "please wait over", ""]))

    def test_what_is_said_stands_on_a_line_of_its_own(self):
        self.put(text="printf 'no end'; exit 3\n")
        process = self.terminal.start("run", "42")
        self.assertEqual(self.end_of(process),
                         (1, ["no end", "varn-scripts: rejected: the exit code is 3", ""]))

    def test_the_log_may_lie_in_a_file_and_the_time_stays(self):
        self.put(text=f"echo out\nread line <{self.go}\n")
        process = self.terminal.start("--log-file", self.path("log"), "run", "42",
                                      stdout=subprocess.PIPE)
        self.terminal.read_until(re.compile("Script is running: [1-9][0-9]* s"))
        # Meanwhile the log has had a line of the output.
        running = self.terminal.text.partition("Script is running: ")[2]
        self.assertNotIn("\r\x1b[K", running)
        self.let_go()
        self.assertEqual(self.end_of(process), (0, [""]))

    def test_the_log_may_be_there_as_well(self):
        self.put(text=f"echo out\nread line <{self.go}\n")
        process = self.terminal.start("-v", "run", "42", stdout=subprocess.PIPE)
        self.terminal.read_until(
            lambda seen: len(seen) == 7 and self.RUNNING.fullmatch(seen[-1]))
        self.let_go()
        status, seen = self.end_of(process)
        self.assertEqual((status, len(seen), seen[-1]), (0, 9, ""))
        for line in seen[:-1]:
            self.assertRegex(line, r"^\d{4}-\S+Z info \S+ \S+ \d+ \S")
            self.assertNotRegex(line, self.RUNNING)

    def test_a_download_shows_its_bytes(self):
        with StalledServer() as server:
            self.server = server.url
            process = self.terminal.start("run", "42")
            self.terminal.read_until(re.compile(
                r"\rDownloading [0-9.]+ KiB of 976\.6 KiB \([0-9]+ %\)\x1b\[K\r"))
            process.kill()
            self.terminal.read_to_end()

    def test_quiet_shows_the_output_alone(self):
        self.put(text="echo out\n")
        process = self.terminal.start("--quiet", "run", "42")
        self.assertEqual(self.end_of(process), (0, ["out", ""]))
        self.assertEqual(self.terminal.text, "out\r\n")

    def test_json_is_not_followed(self):
        self.put(text="echo out; exit 3\n")
        process = self.terminal.start("run", "42", "--json")
        status, seen = self.end_of(process)
        self.assertEqual((status, len(seen)), (1, 2))
        self.assertEqual(json.loads(seen[0])["output"], "out\n")

    def test_a_terminal_that_is_stopped_holds_up_no_script(self):
        told = self.fifo("told")
        self.put(text=f"echo one\nread line <{self.go}\n"
                      f"head -c 3000000 /dev/zero | tr '\\0' x\necho written >{told}\n")
        process = self.terminal.start("run", "42")
        self.terminal.read_until("one\r\n")
        # Ctrl-S, and much later Ctrl-Q.
        self.terminal.type("\x13")
        self.let_go()
        self.assertEqual(self.read_line_from(told), "written")
        self.terminal.type("\x11")
        status, _ = self.end_of(process)
        self.assertEqual((status, self.terminal.text.count("x")), (0, 3_000_000))

    def test_ctrl_c_leaves_a_clean_line(self):
        self.put(file_name="wait.py",
                 text="import signal\nsignal.signal(signal.SIGINT, signal.SIG_DFL)\n"
                      f"signal.alarm({DEADLINE})\nprint('one', flush=True)\nsignal.pause()\n")
        process = self.terminal.start("run", "42")
        self.terminal.read_until(self.shows_running_below("one"))
        self.terminal.type("\x03")
        self.assertEqual(self.end_of(process), (
            -signal.SIGINT,
            ["one", "varn-scripts: rejected: the script was ended by signal 2", ""]))

    def test_ctrl_c_during_a_download_leaves_a_clean_line(self):
        with StalledServer() as server:
            self.server = server.url
            for command in (["run", "42"], ["plan", "42"], ["prune"]):
                with self.subTest(command=command):
                    self.terminal = Terminal(self)
                    process = self.terminal.start(*command)
                    self.terminal.read_until(lambda seen: seen[-1].startswith("Downloading "))
                    self.terminal.type("\x03")
                    self.assertEqual(self.end_of(process), (-signal.SIGINT, [""]))

    def test_names_from_the_server_steer_nothing(self):
        # An XML document can't have ESC, but its eight-bit form.
        name, shown = "4\x9b2J\x85", "4?2J?"
        self.put(script_id=name, version=name)
        for command in (["run", name], ["list"], ["plan", name], ["run", name + "x"],
                        ["publish", name, self.path("out")]):
            with self.subTest(command=command):
                self.terminal = Terminal(self)
                self.terminal.start(*command).wait(timeout=DEADLINE)
                self.terminal.read_to_end()
                for character in "\x9b\x85":
                    self.assertNotIn(character, self.terminal.text)
                if command != ["run", name]:
                    self.assertIn(shown, self.terminal.text)


class StalledServer:
    """A web server whose every answer stops on its way."""

    def __enter__(self):
        self._socket = socket.create_server(("127.0.0.1", 0))
        self._connections = []
        self.url = f"http://127.0.0.1:{self._socket.getsockname()[1]}"
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._socket.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        for each in (self._socket, *self._connections):
            each.close()

    def _serve(self):
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            self._connections.append(connection)
            # The request is shorter than what one reads at once.
            connection.recv(65536)
            connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 1000000\r\n\r\n"
                               + b"<" * 100000)
