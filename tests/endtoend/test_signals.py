"""Signals that stop the command reach the running script, and end the command."""

import os
import signal

from support.case import CommandCase


class ForwardingTest(CommandCase):
    """A signal during a run."""

    def start_waiting_script(self, trapped):
        """Starts a script that waits for the signal and tells of it; gives the command's process
        and the FIFO in which the script tells."""
        started, told = self.fifo("started"), self.fifo("told")
        self.put(text=f"trap 'echo got {trapped} >{told}; exit 0' {trapped}\n"
                      f"sleep 100000 &\necho $$ >{started}\nwait\n")
        process = self.start("run", "42")
        self.end_process_at_end(int(self.read_line_from(started)))
        return process, told

    def assert_forwarded(self, number, name):
        process, told = self.start_waiting_script(name)
        process.send_signal(number)
        self.assertEqual(self.read_line_from(told), f"got {name}")
        result = self.finish(process)
        self.assertEqual((result.status, result.output), (-number, ""))

    def test_sigterm(self):
        self.assert_forwarded(signal.SIGTERM, "TERM")

    def test_sigint(self):
        self.assert_forwarded(signal.SIGINT, "INT")

    def test_sighup(self):
        self.assert_forwarded(signal.SIGHUP, "HUP")

    def test_the_whole_group_of_the_script_gets_it(self):
        started = self.fifo("started")
        self.put(text=f"sh -c 'echo $$ >{started}; exec sleep 100000'\n")
        process = self.start("run", "42")
        descendant = int(self.read_line_from(started))
        self.end_process_at_end(descendant)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish(process).status, -signal.SIGTERM)
        self.wait_until(lambda: not self.is_running(descendant), "the end of the descendant")

    def assert_other_child_is_left_alone(self, begin_other, before_signal=lambda: None):
        """Starts a shell that has a child of its own by begin_other and becomes the command."""
        started = self.fifo("started")
        self.put(text=f"echo $$ >{started}\nexec sleep 100000\n")
        told = self.fifo("told")
        command = " ".join(f"'{word}'" for word in [self.command, *self.settings(), "run", "42"])
        other_command = f"setsid sh -c 'echo $$ >{told}; exec sleep 100000'"
        process = self.start(
            settings=["-c", f"({begin_other} exec {other_command}) >/dev/null 2>&1 &"
                            f" exec {command}"],
            executable="/bin/sh")
        script = int(self.read_line_from(started))
        self.end_process_at_end(script)
        before_signal()
        other = int(self.read_line_from(told))
        self.end_process_at_end(other)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(self.finish(process).status, -signal.SIGTERM)
        self.wait_until(lambda: not self.is_running(script), "the end of the script")
        self.assertTrue(self.is_running(other))

    def test_a_child_that_was_there_before_is_left_alone(self):
        self.assert_other_child_is_left_alone("")

    def test_a_child_that_was_there_before_may_make_its_group_later(self):
        go = self.fifo("go")

        def let_go():
            with open(go, "w", encoding="utf-8") as file:
                file.write("go\n")

        self.assert_other_child_is_left_alone(f"read line <{go};", let_go)

    def test_a_signal_that_was_ignored_stays_ignored(self):
        started, go = self.fifo("started"), self.fifo("go")
        self.put(text=f"echo $$ >{started}\nread line <{go}\necho \"$line\"\n")
        process = self.start(
            "run", "42", preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        self.end_process_at_end(int(self.read_line_from(started)))
        process.send_signal(signal.SIGHUP)
        with open(go, "w", encoding="utf-8") as file:
            file.write("went on\n")
        result = self.finish(process)
        self.assertEqual((result.status, result.output), (0, "went on\n"), result.error)

    @staticmethod
    def is_running(pid):
        try:
            with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
                return file.read().rsplit(")", 1)[1].split()[0] != "Z"
        except FileNotFoundError:
            return False


class AnyMomentTest(CommandCase):
    """A signal at any moment of a request, the launch included."""

    # The log's lines are the moments; the fourth is written right before the script is launched.
    LINES = [1, 2, 3] + [4] * 10

    def test_no_script_outlives_the_command(self):
        self.put(text="while :; do sleep 1000; done\n")
        self.addCleanup(lambda: [self._kill(pid) for pid in self.processes_of_this_test()])
        for line in self.LINES:
            with self.subTest(line=line):
                process = self.start("run", "42")
                for _ in range(line):
                    text = process.stderr.readline()
                if line == 4:
                    self.assertIn(b"Execute /bin/sh", text)
                process.send_signal(signal.SIGTERM)
                self.assertEqual(self.finish(process).status, -signal.SIGTERM)
                self.wait_until(lambda: not self.processes_of_this_test(), "the script's end")

    def processes_of_this_test(self):
        """The processes whose command line names a path of this test: the script, and a child of
        the command that has not become the script yet."""
        found = []
        for name in os.listdir("/proc"):
            if not name.isdigit():
                continue
            try:
                with open(f"/proc/{name}/cmdline", "rb") as file:
                    words = file.read()
            except (FileNotFoundError, ProcessLookupError):
                continue
            if self.directory.encode() in words:
                found.append(int(name))
        return found
