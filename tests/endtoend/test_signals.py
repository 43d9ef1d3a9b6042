"""Signals that stop the command reach the running script, and end the command after it."""

import contextlib
import json
import os
import shutil
import signal
import socket
import subprocess
import unittest

from support.case import DEADLINE, CommandCase


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

    def is_running(self, pid):
        return self.state_of(pid) not in (None, "Z")


class WaitingTest(CommandCase):
    """After the signal the command waits for the script's end, with its turn held."""

    def start_script_that_goes_on(self, *options):
        """Starts a script that is signalled, tells so, and ends only when it is let go; gives the
        command's process when the script has told."""
        self.go, started, told = self.fifo("go"), self.fifo("started"), self.fifo("told")
        # Not a shell, which hears nothing of a signal that comes right before its read blocks.
        self.put(file_name="job.py",
                 text="import os, signal, sys\n"
                      "signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})\n"
                      "print('before', flush=True)\n"
                      f"print(os.getpid(), file=open({started!r}, 'w'), flush=True)\n"
                      "signal.sigwait({signal.SIGTERM})\n"
                      f"print('got', file=open({told!r}, 'w'), flush=True)\n"
                      f"open({self.go!r}).readline()\n"
                      "print('after')\n"
                      "sys.exit(3)\n")
        process = self.start("run", "42", *options)
        self.end_process_at_end(int(self.read_line_from(started)))
        process.terminate()
        self.assertEqual(self.read_line_from(told), "got")
        return process

    def let_go(self):
        with open(self.go, "w", encoding="utf-8") as file:
            file.write("go\n")

    def test_what_a_script_writes_after_the_signal_is_written_before_the_end_by_it(self):
        process = self.start_script_that_goes_on()
        self.let_go()
        result = self.finish(process)
        self.assertEqual((result.status, result.output), (-signal.SIGTERM, "before\nafter\n"))

    def test_the_object_holds_what_was_judged(self):
        process = self.start_script_that_goes_on("--json", "--accept-codes", "3")
        self.let_go()
        result = self.finish(process)
        self.assertEqual(result.status, -signal.SIGTERM)
        answer, run = self.answer(result)
        self.assertEqual(answer, {"script_id": "42", "status": "accepted",
                                  "output": "before\nafter\n"})
        self.assertEqual((run["exit_code"], run["timed_out"]), (3, False))

    def test_the_next_request_waits_for_the_end_of_the_script(self):
        first = self.start_script_that_goes_on()
        self.put(text="echo next\n", version="2")
        second = self.start("run", "42")
        self.wait_until(lambda: self.waits_for_a_lock(second), "the second request's wait")
        self.let_go()
        self.assertEqual(self.finish(first).status, -signal.SIGTERM)
        result = self.finish(second)
        self.assertEqual((result.status, result.output), (0, "next\n"), result.error)

    def test_a_second_signal_ends_the_command_at_once(self):
        process = self.start_script_that_goes_on()
        process.send_signal(signal.SIGINT)
        result = self.finish(process)
        self.assertEqual((result.status, result.output), (-signal.SIGINT, ""))

    @unittest.skipUnless(shutil.which("strace") and not os.environ.get("VARN_SANITIZE"),
                         "no strace here")
    def test_a_start_that_hangs_is_left_by_the_second_signal(self):
        self.put(text="echo ran\n")
        tracer = subprocess.Popen(
            ["strace", "-f", "-qq", "-o", self.path("trace"), "-P", "/bin/sh",
             "-e", "inject=execve:delay_enter=600000000", self.command, *self.settings(), "run", "42"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            cwd=self.directory, env=self.environment(), start_new_session=True)
        self.addCleanup(self._end, tracer)
        self.addCleanup(self._kill, tracer.pid)
        # Up to here no start is under way, and the first signal would end the command.
        self.wait_until(lambda: self.grandchildren(tracer.pid), "the child that becomes the script")
        (command,) = self.children(tracer.pid)
        for number in (signal.SIGTERM, signal.SIGINT):
            os.kill(command, number)
            self.wait_until(lambda: not self.is_pending(command, number), "the signal's taking")
        self.wait_until(lambda: self.state_of(command) in (None, "Z"), "the command's end")

    @staticmethod
    def children(pid):
        found = []
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            for thread in os.listdir(f"/proc/{pid}/task"):
                with open(f"/proc/{pid}/task/{thread}/children", encoding="utf-8") as file:
                    found += map(int, file.read().split())
        return found

    def grandchildren(self, pid):
        return [each for child in self.children(pid) for each in self.children(child)]

    @staticmethod
    def is_pending(pid, number):
        try:
            with open(f"/proc/{pid}/status", encoding="utf-8") as file:
                mask = next(line.split()[1] for line in file if line.startswith("ShdPnd:"))
        except (FileNotFoundError, ProcessLookupError):
            return False
        return bool(int(mask, 16) >> (number - 1) & 1)

    def test_a_script_that_ignores_every_signal_is_left_by_the_second(self):
        ready, started, told = self.fifo("ready"), self.fifo("started"), self.fifo("told")
        self.put(text=f"(trap 'echo got >{told}' TERM; sleep 100000 & echo >{ready}; wait) &\n"
                      f"read line <{ready}\ntrap '' INT TERM HUP\necho $$ >{started}\n"
                      "while :; do sleep 1000; done\n")
        process = self.start("run", "42")
        script = int(self.read_line_from(started))
        self.end_process_at_end(script)
        process.terminate()
        self.assertEqual(self.read_line_from(told), "got")
        self.assertIsNone(process.poll())
        process.terminate()
        self.assertEqual(self.finish(process).status, -signal.SIGTERM)
        self.assertNotIn(self.state_of(script), (None, "Z"))

    def test_a_stopped_script_is_continued_to_hear_it(self):
        started = self.fifo("started")
        self.put(text=f"trap 'echo heard; exit 0' TERM\necho $$ >{started}\nkill -STOP $$\n"
                      "sleep 100000\n")
        process = self.start("run", "42")
        script = int(self.read_line_from(started))
        self.end_process_at_end(script)
        self.wait_until(lambda: self.state_of(script) == "T", "the script's stop")
        process.terminate()
        result = self.finish(process)
        self.assertEqual((result.status, result.output), (-signal.SIGTERM, "heard\n"))

    def test_a_script_that_has_left_its_group_gets_it(self):
        started = self.fifo("started")
        self.put(file_name="job.py",
                 text="import os, signal, sys\n"
                      "def end(*_):\n    print('heard', flush=True)\n    os._exit(0)\n"
                      "signal.signal(signal.SIGTERM, end)\n"
                      "os.setpgid(0, os.getpgid(os.getppid()))\n"
                      f"open({started!r}, 'w').write(f'{{os.getpid()}}\\n')\n"
                      "while True: signal.pause()\n")
        # A group of its own, not that of the tests.
        process = self.start("run", "42", start_new_session=True)
        script = int(self.read_line_from(started))
        self.end_process_at_end(script)
        process.terminate()
        result = self.finish(process)
        self.assertEqual((result.status, result.output), (-signal.SIGTERM, "heard\n"))


class PlanTest(CommandCase):
    """A signal during a plan."""

    def test_its_temporary_directory_goes(self):
        os.mkdir(self.path("tmp"))
        with socket.create_server(("127.0.0.1", 0)) as listening:
            self.server = f"http://127.0.0.1:{listening.getsockname()[1]}"
            listening.settimeout(DEADLINE)
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
                with self.subTest(number=number):
                    process = self.start("plan", "42",
                                         environment=self.environment(TMPDIR=self.path("tmp")))
                    connection, _ = listening.accept()
                    with connection:
                        self.assertEqual(len(os.listdir(self.path("tmp"))), 1)
                        process.send_signal(number)
                        self.assertEqual(self.finish(process).status, -number)
                        self.assertEqual(os.listdir(self.path("tmp")), [])


class AnyMomentTest(CommandCase):
    """A signal at any moment of a request, the launch included."""

    # The log's lines are the moments; the fifth is written right before the script is launched.
    LINES = [1, 2, 3, 4] + [5] * 10

    def test_no_script_outlives_the_command(self):
        self.put(text="while :; do sleep 1000; done\n")
        self.addCleanup(lambda: [self._kill(pid) for pid in self.processes_of_this_test()])
        for line in self.LINES:
            with self.subTest(line=line):
                process = self.start("run", "42")
                for _ in range(line):
                    text = process.stderr.readline()
                if line == 5:
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
