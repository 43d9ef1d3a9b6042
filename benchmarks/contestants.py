"""Programs that are measured, and letting them take turns."""

import collections
import math
import mmap
import os
import pathlib
import resource
import shutil
import subprocess
import time

Sample = collections.namedtuple("Sample", "wall processor result peak")

STEP_SECONDS = 300


class Failure(Exception):
    """A measured program did not do its work."""


def environment():
    """The environment without settings of the command or the loader, and without a proxy."""
    return {
        name: value
        for name, value in os.environ.items()
        if not name.startswith(("VARN_", "LD_")) and "proxy" not in name.lower()
    }


def touch(size):
    """Uses so many bytes of memory for a moment: the host of a virtual machine may have to find
    them first, and what that takes is nothing of what is measured afterwards."""
    if size:
        mmap.mmap(
            -1, size, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS | mmap.MAP_POPULATE
        ).close()


class Program:
    """A program that answers "COUNT" with what COUNT calls of its work took (see Contestant.h).

    `fresh` starts it anew for each sample, so that memory is that of one call; `rounds` is how many
    rounds it has, apart from the others, where it is too slow for all of theirs; `expect` is the
    result that each call must have; `memory` is what is touched before each sample; `before` is
    called before each question, outside of what is measured."""

    def __init__(
        self,
        name,
        arguments,
        fresh=False,
        rounds=None,
        expect=None,
        settings=None,
        descriptors=None,
        memory=0,
        before=None,
    ):
        self.name = name
        self.arguments = [str(argument) for argument in arguments]
        self.fresh = fresh
        self.rounds = rounds
        self.expect = expect
        self.memory = memory
        self._before = before
        self._environment = {**environment(), **(settings or {})}
        self._descriptors = descriptors
        self._process = None

    def missing(self):
        """Why it can't take part, or nothing. The first argument that is a path may be missing, and
        so may a command behind the meter."""
        for argument in self.arguments[:2]:
            if argument.startswith("/") and not os.path.exists(argument):
                return f"{pathlib.Path(argument).name} is not there"
        if not self.arguments[0].startswith("/") and not shutil.which(self.arguments[0]):
            return f"{self.arguments[0]} is not installed"
        return None

    def _limit(self):
        if self._descriptors:
            resource.setrlimit(resource.RLIMIT_NOFILE, (self._descriptors, self._descriptors))

    def start(self):
        self._process = subprocess.Popen(
            self.arguments,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            env=self._environment,
            preexec_fn=self._limit if self._descriptors else None,
            text=True,
        )

    def _ask(self, calls):
        if self._before:
            self._before()
        try:
            self._process.stdin.write(f"{calls}\n")
            self._process.stdin.flush()
            answer = self._process.stdout.readline().split()
        except OSError:
            answer = []
        if len(answer) != 3:
            raise Failure(f"{self.name} gave no figures: {' '.join(self.arguments)}")
        if self.expect is not None and int(answer[2]) != self.expect:
            raise Failure(f"{self.name} gave {answer[2]} where {self.expect} is right")
        return [int(text) for text in answer]

    def _peak(self):
        try:
            with open(f"/proc/{self._process.pid}/status", encoding="ascii") as status:
                line = next(line for line in status if line.startswith("VmHWM"))
        except OSError:
            return 0
        return int(line.split()[1]) * 1024

    def sample(self, calls):
        """The cost of one call, from `calls` of them."""
        touch(self.memory)
        if self._process is None:
            self.start()
            if not self.fresh:
                # The first call of a process pays for what later ones find.
                self._ask(1)
        wall, processor, result = self._ask(calls)
        peak = self._peak()
        if self.fresh:
            self.stop()
        return Sample(wall / calls / 1e9, processor / calls / 1e9, result, peak)

    def stop(self):
        if self._process is None:
            return
        process, self._process = self._process, None
        process.stdin.close()
        try:
            process.wait(STEP_SECONDS)
        finally:
            if process.poll() is None:
                process.kill()
            process.stdout.close()


class Turns:
    """The samples of several programs that took turns, for so many rounds. On a busy machine it is
    over when `seconds` have passed, but not before `least` rounds. Programs with rounds of their own
    take turns among themselves afterwards."""

    def __init__(self, programs, calls, rounds, seconds=math.inf, least=3):
        self.skipped = {}
        self._samples = {}
        able = []
        for program in programs:
            why = program.missing()
            if why:
                self.skipped[program.name] = why
            else:
                able.append(program)
                self._samples[program.name] = []
        self._take_turns([p for p in able if p.rounds is None], calls, rounds, seconds, least)
        slow = [p for p in able if p.rounds is not None]
        most = max((p.rounds for p in slow), default=0)
        self._take_turns(slow, calls, most, math.inf, most)

    def _take_turns(self, programs, calls, rounds, seconds, least):
        deadline = time.monotonic() + seconds
        try:
            for turn in range(rounds):
                if turn >= least and time.monotonic() > deadline:
                    break
                # Whoever comes after a heavy one finds its caches cold; so each comes after each.
                first = turn % len(programs)
                for program in programs[first:] + programs[:first]:
                    if program.rounds is None or turn < program.rounds:
                        self._take(program, calls)
        finally:
            for program in programs:
                program.stop()

    def _take(self, program, calls):
        if program.name in self.skipped:
            return
        try:
            self._samples[program.name].append(program.sample(calls))
        except Failure as failure:
            program.stop()
            if program.name in ("library", "limit"):
                raise
            # A peer that can't do the work here is no reason to stop.
            self.skipped[program.name] = str(failure)

    def of(self, name, what):
        return [getattr(sample, what) for sample in self._samples.get(name, [])]

    def peers(self, what):
        names = [name for name in self._samples if name not in ("library", "limit")]
        return {name: self.of(name, what) for name in names if name not in self.skipped}
