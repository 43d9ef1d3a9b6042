"""The base of all test cases: directories, a repository, and ways to run the command."""

import dataclasses
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time
import unittest

from .repository import CUSTOMER, Repository, Script
from .web_server import WebServer

# What the object of `run --json` has whether a script ran or not.
ANSWER_KEYS = ("script_id", "status", "output", "reason", "reason_code")

# What the log of every command that asks the server begins with, when no key is trusted.
UNVERIFIED = ("DownloadTrust", "prepareDownloads()", "Lists are not verified: no key is trusted")

# Far beyond what any step takes; reaching it is a failure.
DEADLINE = 120


@dataclasses.dataclass
class Result:
    status: int
    output: str
    error: str

    @property
    def error_lines(self):
        return self.error.splitlines()

    @property
    def records(self):
        """The log's JSON lines on standard error."""
        return [json.loads(line) for line in self.error_lines]

    @property
    def steps(self):
        """Source, operation and message of each log line."""
        return [(r["source"], r["operation"], r["message"]) for r in self.records]


class CommandCase(unittest.TestCase):
    """A test with a directory of its own, a repository in it, and the command's settings."""

    maxDiff = None

    # Whether the command writes its log to standard error, which most tests look at.
    verbose = True

    def setUp(self):
        self.command = os.environ["VARN_TESTED_COMMAND"]
        self.directory = os.path.realpath(tempfile.mkdtemp(prefix="varn-endtoend-"))
        self.addCleanup(shutil.rmtree, self.directory)
        self.repository = Repository(self.path("repository"))
        self.base = self.path("base")
        self.server = "file://" + self.repository.root

    def path(self, *names):
        return os.path.join(self.directory, *names)

    # Places on this computer.

    def script_file(self, name):
        return f"{self.base}/client-data/{CUSTOMER}/scripts-repository/{name}"

    def document_file(self, name):
        return f"{self.base}/client-data/{CUSTOMER}/scripts-repository-data/{name}"

    def store_file(self):
        return f"{self.base}/data/{CUSTOMER}/Configuration-Framework/ScriptRepository"

    # The server.

    def put(self, script_id="42", file_name="job.sh", text="echo done\n", **values):
        script = Script(script_id, file_name, text, **values)
        self.repository.put(script)
        return script

    def serve(self, name="server", **options):
        """Serves the repository with nginx from now on; gives the server."""
        server = WebServer(self.path(name), self.repository.root, **options)
        self.addCleanup(server.stop)
        self.server = server.url
        return server

    # The command.

    def environment(self, **variables):
        """This process's environment without proxies, with `variables`, and of all settings with
        the one for the log. What fails is not tried again unless a test wants it."""
        kept = {key: value for key, value in os.environ.items()
                if not key.startswith("VARN_") and not key.lower().endswith("_proxy")}
        if self.verbose:
            kept["VARN_VERBOSE"] = "true"
        return {**kept, "VARN_RETRY": "0", **variables}

    def settings(self):
        return ["--base-path", self.base, "--customer", CUSTOMER, "--server", self.server]

    def start(self, *arguments, settings=None, environment=None, **options):
        """Starts the command; the test ends it when it is still running at the test's end."""
        values = dict(stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                      cwd=self.directory)
        values.update(options)
        process = subprocess.Popen(
            [self.command, *(self.settings() if settings is None else settings), *arguments],
            env=self.environment() if environment is None else environment, **values)
        self.addCleanup(self._end, process)
        return process

    def run_command(self, *arguments, **options):
        """Runs the command to its end."""
        return self.finish(self.start(*arguments, **options))

    def finish(self, process):
        output, error = process.communicate(timeout=DEADLINE)
        return Result(process.returncode, (output or b"").decode(), (error or b"").decode())

    def answer(self, result):
        """The object of `run --json`, and what it says of the run by itself."""
        answer = json.loads(result.output)
        told = {key: answer.pop(key) for key in list(answer) if key not in ANSWER_KEYS}
        return answer, told

    def run_json_log(self, *arguments):
        return self.run_command("--log-format", "json", *arguments)

    def listed(self):
        """The local records as `list --json` gives them."""
        result = self.run_command("list", "--json")
        self.assertEqual(result.status, 0, result.error)
        return json.loads(result.output)

    # Events.

    def fifo(self, name):
        path = self.path(name)
        os.mkfifo(path)
        return path

    def read_line_from(self, path):
        """The first line that somebody writes to the FIFO at `path`."""
        # Open for both, so that neither end waits for the other and no end of file is seen.
        descriptor = os.open(path, os.O_RDWR)
        try:
            text = b""
            deadline = time.monotonic() + DEADLINE
            while not text.endswith(b"\n"):
                ready, _, _ = select.select([descriptor], [], [], deadline - time.monotonic())
                self.assertTrue(ready, f"nothing was written to {path}")
                text += os.read(descriptor, 4096)
            return text.decode().rstrip("\n")
        finally:
            os.close(descriptor)

    def wait_until(self, condition, what):
        """Waits until `condition()` holds, for states of the system that give no event."""
        deadline = time.monotonic() + DEADLINE
        while not condition():
            self.assertLess(time.monotonic(), deadline, f"did not come: {what}")
            select.select([], [], [], 0.01)

    @staticmethod
    def waits_for_a_lock(process):
        with open("/proc/locks", encoding="utf-8") as locks:
            return any(line.split()[1] == "->" and line.split()[5] == str(process.pid)
                       for line in locks)

    @staticmethod
    def state_of(pid):
        """The system's letter for the state of a process (man 5 proc), or None without it."""
        try:
            with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
                return file.read().rsplit(")", 1)[1].split()[0]
        except (FileNotFoundError, ProcessLookupError):
            return None

    def end_process_at_end(self, pid):
        """Ends, at the end of the test, a process that a script has left running; all processes of
        the script when it is the script itself."""
        self.addCleanup(self._kill, pid)

    @staticmethod
    def _kill(pid):
        for kill in (os.killpg, os.kill):
            try:
                kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass

    @staticmethod
    def _end(process):
        if process.poll() is None:
            process.kill()
        process.wait(timeout=DEADLINE)
        for pipe in (process.stdin, process.stdout, process.stderr):
            if pipe is not None:
                pipe.close()
