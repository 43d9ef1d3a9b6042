#!/usr/bin/env python3
"""Disturbs publications with signatures at their system calls and looks at the tree that is left.

For each kind of publication, the process is killed at each of its system calls, and each call of its
file functions is made to fail with each of several errors. After every single fault: the list is
wholly the old one or the new one, both keys' signatures over it verify, no signature file is cut,
all that the list names is there, and the next undisturbed publication has the new list signed and
leaves no temporary file. Needs strace, which injects the faults.
"""

import argparse
import collections
import concurrent.futures
import hashlib
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ElementTree

from faults import ERRORS, FAILING, ONLY_ERRORS, RUN_LIMIT
from repository import read

REPOSITORY = "client-data/7/scriptrepo"
KEYS = ("release.key", "second.key")

# Fewer points than this mean that the harness, not the command, is at fault.
FEWEST_POINTS = 60


class Publication:
    """A kind of publication: what is published before it, with which options, and then how."""

    def __init__(self, name, before, options, changes, renews=False):
        self.name = name
        self.before = before
        self.options = options
        self.changes = changes
        self.renews = renews


SIGNED = [word for key in KEYS for word in ("--sign-with", key)]
PUBLICATIONS = (
    Publication("first", None, SIGNED, False),
    Publication("changed", SIGNED, SIGNED, True),
    Publication("signed-later", [], SIGNED, False),
    Publication("renewed", SIGNED, ["--renew", "--expires", "60d", *SIGNED], False, renews=True),
)


class Site:
    """One prepared publication in a directory of its own, disturbed again and again."""

    def __init__(self, command, publication, directory):
        self.command = command
        self.publication = publication
        self.directory = directory
        self.tree = os.path.join(directory, "tree")
        self.snapshot = os.path.join(directory, "snapshot")
        os.makedirs(os.path.join(directory, "source"))
        for key in KEYS:
            self._run("key", "generate", key, "--no-passphrase")
        self._write_script("1")
        if publication.before is not None:
            self._publish(*publication.before)
            shutil.copytree(self.tree, self.snapshot, symlinks=True)
        self.old = self._list()
        if publication.changes:
            self._write_script("2")
        self._publish(*SIGNED)
        self.new = self._list()
        self.counts = collections.Counter()

    def _write_script(self, version):
        source = os.path.join(self.directory, "source")
        with open(os.path.join(source, "job.sh"), "w", encoding="utf-8") as file:
            file.write(f"echo {version}\n")
        with open(os.path.join(source, "scripts.toml"), "w", encoding="utf-8") as file:
            file.write('[[script]]\nid = "42"\nfile = "job.sh"\n')

    def _run(self, *arguments, before=(), check=True):
        return subprocess.run([*before, self.command, *arguments], cwd=self.directory,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=RUN_LIMIT,
                              check=check)

    @staticmethod
    def _arguments(options):
        return ["--customer", "7", "publish", "source", "tree", *options]

    def _publish(self, *options, check=True):
        return self._run(*self._arguments(options), check=check)

    def _path(self, *parts):
        return os.path.join(self.tree, REPOSITORY, *parts)

    def _list(self):
        return read(self._path("scripts-meta.xml"))

    def reset(self):
        shutil.rmtree(self.tree, ignore_errors=True)
        if os.path.isdir(self.snapshot):
            shutil.copytree(self.snapshot, self.tree, symlinks=True)

    def points(self):
        """The system calls as (name, which call of that name), from the reading of the keys on;
        what comes before is the loading of the program."""
        self.reset()
        trace = os.path.join(self.directory, "trace")
        self._run(*self._arguments(self.publication.options), before=["strace", "-qq", "-o", trace])
        counts = collections.Counter()
        found = []
        started = False
        with open(trace, encoding="utf-8", errors="replace") as lines:
            for line in lines:
                name = re.match(r"(\w+)\(", line)
                if not name:
                    continue
                counts[name[1]] += 1
                started = started or KEYS[0] in line and name[1].startswith("open")
                if started:
                    found.append((name[1], counts[name[1]]))
        return found

    def disturb(self, name, which, fault):
        """Puts one fault into one publication; whether it came to it, and what is wrong then."""
        self.reset()
        trace = os.path.join(self.directory, "trace")
        strace = ["strace", "-qq", "-o", trace, "-e", f"trace={name}",
                  "-e", f"inject={name}:{fault}:when={which}"]
        try:
            done = self._run(*self._arguments(self.publication.options), before=strace, check=False)
        except subprocess.TimeoutExpired:
            return True, ["hangs"]
        killed = fault == "signal=KILL"
        hit = done.returncode == -signal.SIGKILL if killed else b"(INJECTED)" in read(trace)
        problems = []
        if not killed and done.returncode not in (0, 2, 3):
            problems.append(f"ended with {done.returncode}: {done.stderr[-300:]!r}")
        self.counts[self._state()] += 1
        problems += self._problems_of_tree()
        return hit, problems + self._problems_of_next(done.returncode == 0)

    def _state(self):
        now = self._list()
        return "old" if now == self.old and self.old != self.new else "new" if now else "none"

    def _problems_of_tree(self):
        now = self._list()
        if now is None:
            return [] if self.old is None else ["the list is gone"]
        if now not in (self.old, self.new):
            return [f"the list is torn ({len(now)} bytes)"]
        problems = self._problems_of_content(now)
        names = [name for name in self._signature_names() if self._digest(now) in name]
        for name in names:
            problems += self._problems_of_verifying(f"{name} is cut", 1, "--signature",
                                                    self._path("signatures", name))
        # What was published without a signature has none yet, or one of the two.
        if self.publication.before != []:
            problems += self._problems_of_verifying("the list is not signed by both", 2)
        return problems

    @staticmethod
    def _digest(content):
        return hashlib.sha256(content).hexdigest()

    def _signature_names(self):
        try:
            names = os.listdir(self._path("signatures"))
        except FileNotFoundError:
            return []
        return [name for name in names if name.endswith(".minisig")]

    def _problems_of_verifying(self, what, needed, *options):
        trusted = [word for key in KEYS for word in ("--trusted-key", key + ".pub")]
        done = self._run("key", "verify", self._path("scripts-meta.xml"), *trusted,
                         "--signatures-needed", str(needed), *options, check=False)
        return [] if done.returncode == 0 else [f"{what}: {done.stderr!r}"]

    def _problems_of_content(self, content):
        problems = []
        for element in ElementTree.fromstring(content).iter("filepath"):
            document = self._named(element.text, problems)
            if document is None:
                continue
            for location in ElementTree.fromstring(document).iter("file_system_location"):
                self._named(location.text.split("Quillandermoor")[1].replace("\\", "/"), problems)
        return problems

    def _named(self, path, problems):
        """The bytes of what has this path on the server, which tells their digest."""
        content = read(self.tree + path)
        if content is None or self._digest(content) not in path:
            problems.append(f"{path} is not there or not whole")
        return content

    def _problems_of_next(self, succeeded):
        # A renewal that has succeeded leaves nothing to publish.
        done = self._publish(*SIGNED, check=False)
        problems = []
        if done.returncode != 0:
            problems.append(f"the next one ended with {done.returncode}: {done.stderr[-300:]!r}")
        if succeeded and b"nothing has changed" not in done.stdout:
            problems.append(f"the next one had something to do: {done.stdout!r}")
        if self._list() != self.new:
            problems.append("the next one has not published")
        problems += self._problems_of_content(self.new)
        problems += self._problems_of_verifying("the next list is not signed by both", 2)
        for directory, _, names in os.walk(self.tree):
            problems += [f"left {directory}/{name}" for name in names
                         if name.startswith(".publishing-")]
        return problems


def faults_for(points):
    faults = [(name, which, "signal=KILL") for name, which in points]
    return faults + [
        (name, which, f"error={error}")
        for error in ERRORS
        for name, which in points
        if name in FAILING or error in ONLY_ERRORS.get(name, ())
    ]


def work(command, publication, directory, faults):
    site = Site(command, publication, directory)
    return [(fault, *site.disturb(*fault)) for fault in faults], site.counts


def disturb_publication(command, publication, directory, stride, workers):
    points = Site(command, publication, os.path.join(directory, publication.name)).points()
    if len(points) < FEWEST_POINTS:
        sys.exit(f"{publication.name}: only {len(points)} system calls seen; the tracing is broken")
    faults = faults_for(points)[::stride]
    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        results = [pool.submit(work, command, publication,
                               os.path.join(directory, f"{publication.name}-{number}"),
                               faults[number::workers])
                   for number in range(workers)]
        parts = [result.result() for result in results]
    done = [each for part, _ in parts for each in part]
    states = sum((counts for _, counts in parts), collections.Counter())
    broken = [(fault, problems) for fault, _, problems in done if problems]
    hits = sum(hit for _, hit, _ in done)
    kills = sum(fault[2] == "signal=KILL" for fault in faults)
    print(f"{publication.name}: {len(points)} system calls; {kills} kills and "
          f"{len(faults) - kills} errors tried, {hits} hit, {len(broken)} with problems; left with "
          + ", ".join(f"{count} times the {state} list" for state, count in sorted(states.items())),
          flush=True)
    for (name, which, fault), problems in broken[:20]:
        print(f"  {name} #{which} {fault}: " + "; ".join(problems), flush=True)
    if hits < 0.9 * len(faults):
        sys.exit(f"{publication.name}: only {hits} of {len(faults)} faults were hit; the injection "
                 "is broken")
    return len(faults), hits, len(broken)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("command", help="the varn-scripts program")
    parser.add_argument("--quick", action="store_true", help="a sample of the faults")
    parser.add_argument("--publication", choices=[each.name for each in PUBLICATIONS],
                        help="this one alone")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1)
    options = parser.parse_args()
    if shutil.which("strace") is None:
        sys.exit("strace is not installed")
    stride = 37 if options.quick else 1
    tried = hit = failed = 0
    with tempfile.TemporaryDirectory(prefix="varn-faults-") as directory:
        for publication in PUBLICATIONS:
            if options.publication in (None, publication.name):
                counts = disturb_publication(os.path.abspath(options.command), publication,
                                             directory, stride, options.workers)
                tried, hit, failed = (a + b for a, b in zip((tried, hit, failed), counts))
    print(f"{tried} faults tried, {hit} hit, {tried - failed} survived, {failed} failed")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
