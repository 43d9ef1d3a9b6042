#!/usr/bin/env python3
"""Disturbs requests at their system calls and looks at what is left.

For each kind of request, the process is killed at each of its system calls, and each call of its
file, socket, pipe and process functions is made to fail with each of several errors. After every
single fault: nothing ran that the server's checksum does not cover, every file at its final name is
wholly old or wholly new, the store is sound, nothing is open to others, no fault but the kill ended
the process by a signal, and the next undisturbed request does the right thing and leaves no temporary
file. Needs strace, which injects the faults.
"""

import argparse
import collections
import concurrent.futures
import ctypes
import functools
import http.server
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

from repository import read
from scenarios import SCENARIOS, prepare, runs_in

ERRORS = ("EIO", "ENOSPC", "EMFILE", "ENOMEM", "EACCES", "EINTR")

# The calls that fail by injection: files, sockets, pipes, processes. A call that can't be refused
# (exit) or that is no such function (memory, time, signals) is disturbed by kills alone.
FAILING = frozenset(
    """access chdir clone clone3 connect copy_file_range dup dup2 dup3 faccessat faccessat2 fallocate
    fchmod fchmodat fchown fcntl fdatasync fgetxattr flistxattr flock fremovexattr fsetxattr fstat
    fsync ftruncate getcwd getdents64 getpeername getsockname getsockopt getxattr ioctl lgetxattr
    lseek lsetxattr lstat mkdir mkdirat newfstatat open openat pidfd_open pipe pipe2 poll ppoll
    pread64 prlimit64 pwrite64 read readlink readlinkat readv recvfrom recvmsg rename renameat
    renameat2 sendfile sendmmsg sendmsg sendto setsockopt setxattr socket socketpair stat statx
    unlink unlinkat utimensat wait4 waitid write writev""".split()
)

# A call that can fail in one way only.
ONLY_ERRORS = {"close": ("EIO",)}

# Fewer points than this mean that the harness, not the library, is at fault.
FEWEST_POINTS = 120

TRANSPORTS = ("file", "http")

PR_SET_CHILD_SUBREAPER = 36

RUN_LIMIT = 60  # seconds; a disturbed request that takes longer hangs


class Harness:
    def __init__(self, command, directory, use_http):
        self.command = command
        self.directory = directory
        self.use_http = use_http

    def server_url(self, server):
        if not self.use_http:
            return "file://" + server.directory
        return f"http://127.0.0.1:{serve(server.directory)}"

    def arguments(self, computer, server, arguments):
        settings = os.path.join(computer.directory, "settings.toml")
        with open(settings, "w", encoding="utf-8") as file:
            file.write(
                f'base_path = "{computer.base}"\ncustomer = "7"\nserver = "{self.server_url(server)}"\n'
                # A disturbed download is to fail, not to go better after a pause.
                "retry = 0\n"
            )
            if server.key:
                file.write(f'trusted_keys = ["{server.key.line}"]\n')
        return [self.command, "--config", settings, *arguments]

    def run(self, computer, server, arguments):
        """An undisturbed request; its exit status and outputs."""
        return subprocess.run(
            self.arguments(computer, server, arguments),
            stdin=subprocess.DEVNULL, capture_output=True, timeout=RUN_LIMIT, check=False,
        )

    def run_traced(self, computer, server, arguments, strace):
        return subprocess.run(
            ["strace", "-qq", *strace, *self.arguments(computer, server, arguments)],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=RUN_LIMIT, check=False,
        )


@functools.lru_cache(maxsize=None)
def serve(directory):
    """A server for `directory` on loopback that ends with this process; its port."""

    class Handler(http.server.SimpleHTTPRequestHandler):
        def __init__(self, *arguments):
            super().__init__(*arguments, directory=directory)

        def log_message(self, format, *arguments):  # its log is of no use here
            pass

    class Server(http.server.ThreadingHTTPServer):
        def handle_error(self, request, client_address):  # disturbed clients hang up
            pass

    server = Server(("127.0.0.1", 0), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server.server_address[1]


def become_subreaper():
    """Makes this process the parent of whatever its descendants leave running."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def points(harness, computer, server, scenario, directory):
    """The system calls of the request as (name, which call of that name), from the reading of the
    settings on; what comes before is the loading of the program."""
    trace = os.path.join(directory, "trace")
    harness.run_traced(computer, server, scenario.arguments, ["-o", trace])
    counts = collections.Counter()
    found = []
    started = False
    with open(trace, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            name = re.match(r"(\w+)\(", line)
            if not name:
                continue
            counts[name[1]] += 1
            started = started or "settings.toml" in line and name[1].startswith("open")
            if started:
                found.append((name[1], counts[name[1]]))
    return found


class Site:
    """One prepared scenario in a directory of its own, disturbed again and again."""

    def __init__(self, harness, scenario, directory):
        os.makedirs(directory)
        self.harness = harness
        self.scenario = scenario
        self.directory = directory
        prepared = prepare(scenario, directory, harness.run)
        self.server, self.computer, self.snapshot, self.marker, self.states = prepared

    def reset(self):
        self.computer.restore(self.snapshot)
        if self.scenario.rolls_back:
            self.server.publish("2")
        if os.path.exists(self.marker):
            os.remove(self.marker)

    def points(self):
        self.reset()
        return points(self.harness, self.computer, self.server, self.scenario, self.directory)

    def disturb(self, name, which, fault):
        """Puts one fault into one request; whether the request came to it, and what is wrong
        afterwards, as texts."""
        self.reset()
        trace = os.path.join(self.directory, "trace")
        try:
            done = self.harness.run_traced(
                self.computer, self.server, self.scenario.arguments,
                ["-o", trace, "-e", f"trace={name}", "-e", f"inject={name}:{fault}:when={which}"],
            )
        except subprocess.TimeoutExpired:
            return True, ["hangs"]
        killed = fault == "signal=KILL"
        if killed and not self._scripts_have_ended():
            return True, ["the script of the killed command goes on"]
        hit = done.returncode == -signal.SIGKILL if killed else b"(INJECTED)" in read(trace)
        return hit, self._problems_of_disturbed(done, killed)

    @staticmethod
    def _scripts_have_ended():
        """Waits for the script that a killed command has left running: what it still does is no
        part of the next request. It is this process's child by now, see become_subreaper."""
        deadline = time.monotonic() + RUN_LIMIT
        while True:
            try:
                ended, _ = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return True
            if ended == 0:
                if time.monotonic() > deadline:
                    return False
                time.sleep(0.002)

    def _problems_of_disturbed(self, done, killed):
        problems = []
        if not killed and done.returncode not in (0, 1, 2, 3):
            problems.append(f"ended with {done.returncode}: {done.stderr[-300:]!r}")
        problems += self._problems_of_run(self.scenario.allowed, complete=not killed)
        # A failed write of a file is a failed request; what it leaves must be whole.
        problems += self.computer.problems(self.states)
        return problems + self._problems_of_next()

    def _problems_of_run(self, allowed, complete):
        began, ended = runs_in(self.marker)
        problems = [f"ran {version}" for version in began if version not in allowed]
        if complete and began != ended:
            problems.append(f"began {began} but ended {ended}")
        return problems

    def _problems_of_next(self):
        if os.path.exists(self.marker):
            os.remove(self.marker)
        if self.scenario.rolls_back:
            self.server.publish("1")
        done = self.harness.run(self.computer, self.server, self.scenario.arguments)
        problems = []
        if done.returncode != 0:
            problems.append(f"next request ended with {done.returncode}: {done.stderr[-500:]!r}")
        began, _ = runs_in(self.marker)
        if began != ([self.scenario.expected] if self.scenario.expected else []):
            problems.append(f"next request ran {began}")
        if self.scenario.expected:
            problems += [f"left {path}" for path in self.computer.temporary_files()]
        return problems + self.computer.problems(self.states)


def faults_for(site, stride):
    """Every fault of the site's scenario, or every `stride`-th of them."""
    found = site.points()
    if len(found) < FEWEST_POINTS:
        sys.exit(f"{site.scenario}: only {len(found)} system calls seen; the tracing is broken")
    faults = [(name, which, "signal=KILL") for name, which in found]
    faults += [
        (name, which, f"error={error}")
        for error in ERRORS
        for name, which in found
        if name in FAILING or error in ONLY_ERRORS.get(name, ())
    ]
    return len(found), faults[::stride]


def work(harness, scenario, directory, faults):
    """Puts in the faults; each with whether it was come to and its problems."""
    site = Site(harness, scenario, directory)
    return [(fault, *site.disturb(*fault)) for fault in faults]


def disturb_scenario(harness, scenario, stride, workers):
    directory = os.path.join(harness.directory, ("http-" if harness.use_http else "") + scenario.name)
    count, faults = faults_for(Site(harness, scenario, directory), stride)
    shares = [faults[worker::workers] for worker in range(workers)]
    # A process for each, to which the children that are left come.
    with concurrent.futures.ProcessPoolExecutor(workers, initializer=become_subreaper) as pool:
        results = [
            pool.submit(work, harness, scenario, f"{directory}-{number}", share)
            for number, share in enumerate(shares)
        ]
        done = [result for share in results for result in share.result()]
    broken = [(fault, problems) for fault, _, problems in done if problems]
    hits = sum(hit for _, hit, _ in done)
    kills = sum(fault[2] == "signal=KILL" for fault in faults)
    transport = "http" if harness.use_http else "file"
    print(f"{scenario.name} ({transport}): {count} system calls; {kills} kills and "
          f"{len(faults) - kills} errors tried, {hits} hit, {len(broken)} with problems", flush=True)
    for (name, which, fault), problems in broken[:20]:
        print(f"  {name} #{which} {fault}: " + "; ".join(problems), flush=True)
    # Requests differ a little from one to the next, so a few faults find no call to be put into.
    if hits < 0.9 * len(faults):
        sys.exit(f"{scenario}: only {hits} of {len(faults)} faults were hit; the injection is broken")
    return len(faults), hits, len(broken)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("command", help="the varn-scripts program")
    parser.add_argument("--quick", action="store_true", help="a sample of the faults")
    parser.add_argument("--transport", choices=TRANSPORTS, help="requests over this one alone")
    parser.add_argument("--scenario", choices=[scenario.name for scenario in SCENARIOS],
                        help="this one alone")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1)
    options = parser.parse_args()
    if shutil.which("strace") is None:
        sys.exit("strace is not installed")

    stride = 37 if options.quick else 1
    tried = hit = failed = 0
    with tempfile.TemporaryDirectory(prefix="varn-faults-") as directory:
        for transport in [options.transport] if options.transport else TRANSPORTS:
            harness = Harness(os.path.abspath(options.command), directory, transport == "http")
            for scenario in SCENARIOS:
                if options.scenario not in (None, scenario.name):
                    continue
                counts = disturb_scenario(harness, scenario, stride, options.workers)
                tried, hit, failed = (a + b for a, b in zip((tried, hit, failed), counts))
    print(f"{tried} faults tried, {hit} hit, {tried - failed} survived, {failed} failed")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
