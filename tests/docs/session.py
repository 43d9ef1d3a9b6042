"""A shell that runs the transcripts of one page, one command after the other, in a directory.

The shell's state (variables, current directory, exit status) lasts from one command to the next.
"""

import os
import selectors
import subprocess
import time

DEADLINE = 60.0


class Session:
    """One `sh` with `directory` as its working directory and home, and `path` first in PATH."""

    def __init__(self, directory, path, environment):
        self.directory = directory
        variables = {
            name: value for name, value in os.environ.items() if not name.startswith("VARN_")
        }
        variables.update(environment)
        variables.update(PATH=f"{path}:{variables['PATH']}", HOME=directory, LC_ALL="C")
        self._shell = subprocess.Popen(
            ["sh"], cwd=directory, env=variables, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self._marks = 0

    def run(self, command):
        """What the command writes to standard output and standard error, in order."""
        self._marks += 1
        mark = f"-- end of command {self._marks} --"
        # The exit status stays for a following `echo $?`.
        script = (f"{{ {command}\n}} </dev/null\n"
                  f"status=$?; echo '{mark}'; (exit $status)\n")
        self._shell.stdin.write(script.encode())
        self._shell.stdin.flush()
        return self._read_until(mark, command)

    def _read_until(self, mark, command):
        read = b""
        end = f"{mark}\n".encode()
        deadline = time.monotonic() + DEADLINE
        with selectors.DefaultSelector() as selector:
            selector.register(self._shell.stdout, selectors.EVENT_READ)
            while not read.endswith(end):
                if not selector.select(max(0.0, deadline - time.monotonic())):
                    raise AssertionError(f"no end of: {command}\n{read.decode()}")
                chunk = os.read(self._shell.stdout.fileno(), 65536)
                if not chunk:
                    raise AssertionError(f"the shell ended in: {command}\n{read.decode()}")
                read += chunk
        return read[:-len(end)].decode()

    def close(self):
        self._shell.stdin.close()
        self._shell.stdout.close()
        self._shell.wait(DEADLINE)
