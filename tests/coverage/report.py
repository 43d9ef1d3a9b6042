#!/usr/bin/env python3
"""Tells which lines and branches of the sources the tests reached.

    report.py TRACE_FILE DIRECTORY...

Reads a trace file in lcov's format. Prints a row for each source file below the directories, then
every line that was never reached and every branch that never went one of its two ways. A branch is
a condition of the source, as clang counts them.
"""

import collections
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]


class File:
    def __init__(self):
        self.lines = collections.Counter()
        self.branches = collections.Counter()


def read(trace):
    """The files of a trace. What several programs or instantiations tell is added up."""
    files = collections.defaultdict(File)
    file = None
    for record in pathlib.Path(trace).read_text(encoding="utf-8").splitlines():
        kind, _, value = record.partition(":")
        if kind == "SF":
            file = files[pathlib.Path(value)]
        elif kind == "DA":
            line, count = value.split(",")[:2]
            file.lines[int(line)] += int(count)
        elif kind == "BRDA":
            line, block, branch, count = value.split(",")
            file.branches[int(line), int(block), int(branch)] += 0 if count == "-" else int(count)
    return files


def ratio(counts):
    reached = sum(1 for count in counts.values() if count > 0)
    share = f"{100 * reached / len(counts):.1f}" if counts else "-"
    return f"{reached:5} of {len(counts):5} {share:>6} %"


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    trace, *directories = sys.argv[1:]
    files = read(trace)
    for directory in directories:
        below = {path.relative_to(ROOT): file for path, file in sorted(files.items())
                 if path.is_relative_to(ROOT / directory)}
        if not below:
            sys.exit(f"report.py: nothing is known of {directory}")
        total = File()
        print(f"{directory + '/':44}{'lines':>20}{'branches':>24}")
        for path, file in below.items():
            total.lines.update({(path, line): count for line, count in file.lines.items()})
            total.branches.update({(path, key): count for key, count in file.branches.items()})
            print(f"{str(path):44}{ratio(file.lines)}  {ratio(file.branches)}")
        print(f"{'all':44}{ratio(total.lines)}  {ratio(total.branches)}")
        for path, file in below.items():
            for line, count in sorted(file.lines.items()):
                if count == 0:
                    print(f"{path}:{line}: never reached")
            for (line, _, branch), count in sorted(file.branches.items()):
                if count == 0 and file.lines[line] > 0:
                    print(f"{path}:{line}: a condition was never {str(branch % 2 == 0).lower()}")
        print()


if __name__ == "__main__":
    main()
