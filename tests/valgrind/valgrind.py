#!/usr/bin/env python3
"""Runs the end-to-end tests with the command under Valgrind, and tells what it found.

Every process of the command is watched by memcheck with --track-fds. What counts: an error, a block
that is lost, and a descriptor that is open at the end and was not open at the beginning, but for
those that a process keeps on purpose until it ends. A block that is "possibly lost" is not: SQLite
and the tables of a thread that still runs have no pointer but one to their inside.
"""

import argparse
import collections
import concurrent.futures
import os
import pathlib
import re
import stat
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
TESTS = HERE.parent / "endtoend"

# What a process keeps until it ends, by what stands in the trace of its opening.
KEPT = {
    "the store": "RootAccessKeyValueStorage",
    "idle connections to the server": "curl_easy_perform",
    "the log file": "spdlog::",
}

# The paragraphs of a log that find nothing.
SUMMARIES = ("Memcheck, ", "Command: ", "Parent PID: ", "HEAP SUMMARY", "LEAK SUMMARY",
             "All heap blocks", "Reachable blocks", "To see them", "For lists of", "ERROR SUMMARY",
             "Rerun with", "Use --track-origins")

# What a process that is asked to end ends by; its descriptors go with it.
ASKED_TO_END = re.compile(r"Process terminating with default action of signal (1|2|15) ")

# Fewer processes than this mean that the tests did not go through Valgrind.
FEWEST_PROCESSES = 100

WRAPPER = """#!/bin/sh
exec valgrind --num-callers=40 --error-exitcode=99 --leak-check=full \\
  --show-leak-kinds=definite,indirect --errors-for-leak-kinds=definite --track-fds=yes \\
  --trace-children=no --child-silent-after-fork=yes --suppressions='{suppressions}' \\
  --log-file='{logs}/%p.log' '{command}' "$@"
"""


def make_wrapper(command, directory):
    logs = directory / "logs"
    logs.mkdir()
    wrapper = directory / "varn-scripts"
    suppressions = HERE / "suppressions"
    wrapper.write_text(WRAPPER.format(suppressions=suppressions, logs=logs, command=command))
    wrapper.chmod(wrapper.stat().st_mode | stat.S_IXUSR)
    return wrapper, logs


def classes():
    """The test classes, as names for unittest."""
    found = []
    for module in sorted(TESTS.glob("test_*.py")):
        names = re.findall(r"(?m)^class (\w+Test)\(", module.read_text())
        found += [f"{module.stem}.{name}" for name in names]
    return found


def run_class(name, wrapper):
    """Runs one class of tests; its name, how many tests there were, and the output of a failure."""
    done = subprocess.run(
        [sys.executable, "-B", "-m", "unittest", name], cwd=TESTS, capture_output=True, text=True,
        env={**os.environ, "VARN_TESTED_COMMAND": str(wrapper)}, check=False)
    tests = int(re.search(r"Ran (\d+) test", done.stderr)[1])
    return name, tests, "" if done.returncode == 0 else done.stderr


def blocks_of(log):
    """The log's paragraphs, without the number of the process."""
    text = re.sub(r"(?m)^==\d+== ?", "", log.read_text(errors="replace"))
    return [block.strip() for block in text.split("\n\n") if block.strip()]


def findings_of(log):
    """The errors and leaks, the descriptors left open, and those kept on purpose."""
    errors, left, kept = [], [], collections.Counter()
    blocks = blocks_of(log)
    is_ended = any(ASKED_TO_END.match(block) for block in blocks)
    for block in blocks:
        if block.startswith("FILE DESCRIPTORS"):
            # The first descriptor follows in the same paragraph.
            block = block.partition("\n")[2]
        if not block or "<inherited from parent>" in block or block.startswith(SUMMARIES):
            continue
        if ASKED_TO_END.match(block):
            kept["all that a process had when it was asked to end"] += 1
            continue
        if not block.startswith("Open "):
            errors.append(block)
            continue
        reason = next((name for name, part in KEPT.items() if part in block), None)
        if reason:
            kept[reason] += 1
        elif not is_ended:
            left.append(block)
    return errors, left, kept


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("command", type=pathlib.Path, help="the varn-scripts program, a Debug build")
    parser.add_argument("tests", nargs="*", help="classes such as test_log.FormTest; else all")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1)
    options = parser.parse_args()

    with tempfile.TemporaryDirectory(prefix="varn-valgrind-") as temporary:
        wrapper, logs = make_wrapper(options.command.resolve(), pathlib.Path(temporary))
        names = options.tests or classes()
        with concurrent.futures.ThreadPoolExecutor(options.workers) as pool:
            results = list(pool.map(lambda name: run_class(name, wrapper), names))
        for name, _, output in results:
            if output:
                print(f"---- {name} failed\n{output}", flush=True)
        errors, left, kept = [], [], collections.Counter()
        found = sorted(logs.glob("*.log"))
        for log in found:
            of_log = findings_of(log)
            errors += of_log[0]
            left += of_log[1]
            kept += of_log[2]
    for block, count in collections.Counter(errors + left).most_common(20):
        print(f"---- {count} times:\n{block}")
    failed = sum(bool(output) for _, _, output in results)
    print(f"{sum(tests for _, tests, _ in results)} tests in {len(results)} classes, {failed} classes "
          f"failed; {len(found)} processes under Valgrind: {len(errors)} errors and leaks, {len(left)} "
          "descriptors left open")
    for name, count in sorted(kept.items()):
        print(f"kept until the end on purpose: {name}, {count} times")
    if not options.tests and len(found) < FEWEST_PROCESSES:
        sys.exit(f"only {len(found)} processes: the tests did not go through Valgrind")
    sys.exit(1 if errors or left or failed else 0)


if __name__ == "__main__":
    main()
