#!/usr/bin/env python3
"""Changes the library one small step at a time and looks whether its unit tests notice.

A mutant is one change in one line of src/: an operator, a constant, a condition, a message, or the
order of two statements. A mutant that does not compile is no mutant. One that the tests pass is a
survivor; survivors are printed with their line and change, for somebody to judge. Those that were
judged to change nothing that can be observed stand in equivalent.txt, each with its reason, and are
not tried.

Each worker has a copy of the tree and a build directory of its own. A run that was interrupted goes
on where it was: verdicts are kept in the directory, for as long as the tree stays the same.
"""

import argparse
import concurrent.futures
import contextlib
import hashlib
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
PARTS = ("CMakeLists.txt", "agent", "cmake", "include", "interfaces", "posix", "src", "tests")
TARGETS = ("varn-unit-tests", "varn-property-tests", "varn-runner-tests",
           "varn-system-call-tests")
# Long tests of what the others hold as well, those of the tree, and of programs not built for this.
LEFT_OUT = "^RunnerPromise|^Rules|_NOT_BUILT$"
# Those that take seconds each; most mutants are caught before it comes to them.
SLOW = "^EncodingProperty|^LittleMemory|^LongText|^ReloadServerList|^RunEvents|^Shell"
EQUIVALENT = pathlib.Path(__file__).with_name("equivalent.txt")
TEST_LIMIT = 300  # seconds for the tests of one mutant; a longer run counts as caught

# Other systems' files do not run here.
NOT_HERE = re.compile(r"\.macos\.cpp$")

# What the compiler alone looks at, or nothing at all: a change says nothing about the tests.
NO_CODE = re.compile(r"= delete;|no_sanitize|^#|static_assert")

OPERATORS = (
    (r" == ", " != "), (r" != ", " == "),
    (r" < ", " <= "), (r" <= ", " < "), (r" > ", " >= "), (r" >= ", " > "),
    (r" && ", " || "), (r" \|\| ", " && "),
    (r" \+ ", " - "), (r" - ", " + "), (r" \+= ", " = "), (r"\+\+", "--"),
    (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"\bif \((?!constexpr)", "if (!("), (r"\bif \(!", "if ("),
    (r"\bbreak;", ";"), (r"\bcontinue;", ";"),
    (r"\b0\b", "1"), (r"\b1\b", "0"), (r"\b([2-9]|[1-9]\d+)\b", None),
)

STATEMENT = re.compile(r"^\s+(?!return\b|const\b|auto\b|if\b|for\b|while\b|else\b|case\b|break\b|continue\b"
                       r"|static\b|struct\b|std::\w+\s+\w+[({;]|//)[\w:>\-.*\[\]]+.*;\s*$")


class Mutant:
    def __init__(self, path, first, last, lines, change):
        self.path = path
        self.first = first  # index of the first line that is replaced
        self.last = last    # index behind the last one
        self.lines = lines
        self.change = change

    def __str__(self):
        return f"{self.path}:{self.first + 1}: {self.change}"

    def key(self):
        """What names the change whatever its line is."""
        return f"{self.path}: {self.change}"

    def order(self):
        return hashlib.sha256(str(self).encode()).hexdigest()


def code_of(line):
    """The line without its comment, and whether it is code at all."""
    text = line.split("//")[0] if '"' not in line else line
    return text if text.strip() and not text.lstrip().startswith(("#", "//", "*", "namespace")) else ""


def outside_texts(line, position):
    return line[:position].replace('\\"', "").count('"') % 2 == 0


def operator_mutants(path, index, line):
    end = len(code_of(line))
    for pattern, replacement in OPERATORS:
        for match in re.finditer(pattern, line):
            # What stands in a text or a comment is no operator.
            if not outside_texts(line, match.start()) or match.start() >= end:
                continue
            text = replacement if replacement is not None else str(int(match.group(0)) + 1)
            changed = line[: match.start()] + text + line[match.end():]
            if text == "if (!(":
                closing = matching_parenthesis(line, match.end() - 1)
                if closing is None:
                    continue
                changed = (line[: match.start()] + "if (!" + line[match.end() - 1: closing + 1] + ")"
                           + line[closing + 1:])
            yield Mutant(path, index, index + 1, [changed],
                         f"{line.strip()}  ->  {changed.strip()}")


def matching_parenthesis(line, opening):
    depth = 0
    for position in range(opening, len(line)):
        depth += {"(": 1, ")": -1}.get(line[position], 0)
        if depth == 0:
            return position
    return None


def message_mutants(path, index, line):
    for match in re.finditer(r'"((?:[^"\\]|\\.){2,})"', line):
        if line.lstrip().startswith(("#include", 'extern "C"')) or "static_assert" in line:
            continue
        text = match.group(1)
        middle = len(text) // 2
        if text[middle - 1] == "\\":
            continue
        changed = line[: match.start(1)] + text[:middle] + "~" + text[middle:] + line[match.end(1):]
        yield Mutant(path, index, index + 1, [changed], f"{line.strip()}  ->  {changed.strip()}")


def order_mutants(path, index, lines):
    if index + 1 >= len(lines):
        return
    line, following = lines[index], lines[index + 1]
    if STATEMENT.match(line) and STATEMENT.match(following) and line.strip() != following.strip():
        yield Mutant(path, index, index + 2, [following, line],
                     f"{line.strip()}  <->  {following.strip()}")


def deletion_mutants(path, index, line):
    if STATEMENT.match(line) and line.count("(") == line.count(")"):
        yield Mutant(path, index, index + 1, [";\n"], f"{line.strip()}  ->  (nothing)")


def all_mutants():
    for file in sorted((ROOT / "src").rglob("*.cpp")):
        path = file.relative_to(ROOT)
        if NOT_HERE.search(str(path)):
            continue
        lines = file.read_text(encoding="utf-8").splitlines(keepends=True)
        for index, line in enumerate(lines):
            if not code_of(line) or NO_CODE.search(line):
                continue
            yield from operator_mutants(path, index, line)
            yield from message_mutants(path, index, line)
            yield from order_mutants(path, index, lines)
            yield from deletion_mutants(path, index, line)


def bring_up_to_date(source, target):
    """Makes `target` a copy of `source`. What differs gets a new time, so that it is compiled anew: a
    run that was killed may have left a mutant, and its object file."""
    if source.is_dir():
        target.mkdir(exist_ok=True)
        names = {entry.name for entry in source.iterdir()}
        for entry in target.iterdir():
            if entry.name not in names:
                shutil.rmtree(entry) if entry.is_dir() else entry.unlink()
        for name in names:
            bring_up_to_date(source / name, target / name)
    elif not target.exists() or target.read_bytes() != source.read_bytes():
        shutil.copy(source, target)


class Worker:
    """A copy of the tree, built, in which one mutant after another is tried."""

    def __init__(self, directory):
        self.tree = directory / "tree"
        self.build = directory / "build"
        self.tree.mkdir(parents=True, exist_ok=True)
        for part in PARTS:
            bring_up_to_date(ROOT / part, self.tree / part)
        self._command(["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja",
                       "-DCMAKE_BUILD_TYPE=", "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=gold",
                       "-DVARN_BUILD_COMMAND=OFF", "-DVARN_BUNDLED_AGENT_MODULES=OFF",
                       "-DVARN_TEST_TIMEOUT=100"], check=True)
        self._compile(check=True)
        if not self._tests_pass():
            sys.exit(f"the tests fail without any change: {self.build}/Testing/Temporary/LastTest.log")

    def judge(self, mutant):
        """"caught", "survived" or "no mutant"."""
        file = self.tree / mutant.path
        original = file.read_text(encoding="utf-8")
        lines = original.splitlines(keepends=True)
        lines[mutant.first: mutant.last] = mutant.lines
        try:
            file.write_text("".join(lines), encoding="utf-8")
            if self._compile().returncode != 0:
                return "no mutant"
            return "survived" if self._tests_pass() else "caught"
        finally:
            file.write_text(original, encoding="utf-8")

    def _compile(self, check=False):
        return self._command(["ninja", "-C", self.build, "-j1", *TARGETS], check=check)

    def _tests_pass(self):
        return self._pass("-E", f"{LEFT_OUT}|{SLOW}") and self._pass("-E", LEFT_OUT, "-R", SLOW)

    def _pass(self, *choice):
        mark = f"VARN_MUTANT={self.build}"
        # One at a time: with more, ctest would begin with those that take the longest.
        try:
            done = self._command(["env", mark, "ctest", "--test-dir", self.build, "-j1",
                                  "--stop-on-failure", "--no-tests=error", *choice],
                                 limit=TEST_LIMIT)
        except subprocess.TimeoutExpired:
            return False
        finally:
            kill_all_with(mark.encode())
        return done.returncode == 0

    @staticmethod
    def _command(arguments, check=False, limit=None):
        return subprocess.run([str(argument) for argument in arguments], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=check,
                              timeout=limit)


def kill_all_with(variable):
    """Ends what the tests of a mutant have left running: such processes may go on for ever. All of
    them have inherited the variable "NAME=VALUE"."""
    for pid in filter(str.isdigit, os.listdir("/proc")):
        # It may have ended, or be somebody else's.
        with contextlib.suppress(OSError):
            environment = pathlib.Path("/proc", pid, "environ").read_bytes()
            if variable in environment.split(b"\0"):
                os.kill(int(pid), signal.SIGKILL)


def equivalents():
    """The keys of the mutants that nobody could notice: what stands before " ## " in each line."""
    lines = EQUIVALENT.read_text(encoding="utf-8").splitlines()
    return {line.split(" ## ")[0] for line in lines if " ## " in line}


class Verdicts:
    """The verdicts of this tree, kept in a file."""

    def __init__(self, path):
        digest = hashlib.sha256()
        for file in sorted(file for part in ("src", "tests") for file in (ROOT / part).rglob("*")):
            if file.suffix in (".cpp", ".h", ".txt") and file != EQUIVALENT:
                digest.update(file.read_bytes())
        self._heading = digest.hexdigest()
        self._path = path
        self._known = {}
        lines = path.read_text(encoding="utf-8").splitlines() if path.exists() else []
        if lines and lines[0] == self._heading:
            for line in lines[1:]:
                verdict, _, mutant = line.partition("\t")
                self._known[mutant] = verdict
        else:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(self._heading + "\n", encoding="utf-8")

    def of(self, mutant):
        return self._known.get(str(mutant))

    def keep(self, mutant, verdict):
        with self._path.open("a", encoding="utf-8") as file:
            file.write(f"{verdict}\t{mutant}\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--most", type=int, default=320, help="how many mutants to judge")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--directory", type=pathlib.Path, default=ROOT / "build" / "mutation")
    options = parser.parse_args()

    # In the order of their digests: a sample of all files and kinds that stays the same.
    left_out = equivalents()
    mutants = [m for m in sorted(all_mutants(), key=Mutant.order) if m.key() not in left_out]
    verdicts = Verdicts(options.directory / "verdicts.txt")
    workers = queue.SimpleQueue()
    with concurrent.futures.ThreadPoolExecutor(options.workers) as pool:
        places = [options.directory / str(number) for number in range(options.workers)]
        for worker in pool.map(Worker, places):
            workers.put(worker)

        counts = {"caught": 0, "survived": 0, "no mutant": 0}

        def judge(mutant):
            if counts["caught"] + counts["survived"] >= options.most:
                return
            verdict = verdicts.of(mutant)
            if verdict is None:
                worker = workers.get()
                try:
                    verdict = worker.judge(mutant)
                finally:
                    workers.put(worker)
                verdicts.keep(mutant, verdict)
            counts[verdict] += 1
            if verdict == "survived":
                print(f"survived  {mutant}", flush=True)

        list(pool.map(judge, mutants))

    judged = counts["caught"] + counts["survived"]
    share = 100 * counts["caught"] / max(judged, 1)
    print(f"{judged} mutants of {len(mutants)} candidates judged, {counts['caught']} caught "
          f"({share:.1f} %), {counts['survived']} survived, {counts['no mutant']} did not compile, "
          f"{len(left_out)} known to change nothing")
    sys.exit(0 if judged >= min(options.most, 300) and share >= 95 else 1)


if __name__ == "__main__":
    main()
