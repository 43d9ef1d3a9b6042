#!/usr/bin/env python3
"""Lets allocations of requests fail and looks at what is left.

For each kind of request, one allocation after another fails: alone, and together with all that
follow. After each: the process ended by itself, nothing ran that the server's checksum does not
cover, every file at its final name is whole, and the next undisturbed request does the right thing.
"""

import argparse
import concurrent.futures
import os
import subprocess
import sys
import tempfile

from faults import RUN_LIMIT, TRANSPORTS, Harness
from faults import Site as FaultSite
from scenarios import SCENARIOS, runs_in

# Fewer allocations than this in a request mean that the counting is broken.
FEWEST_ALLOCATIONS = 300


# What --quick leaves of the allocations. Most of those over HTTP are of the loading of libraries.
QUICK_STRIDES = {"file": 41, "http": 163}


class Site(FaultSite):
    def __init__(self, harness, scenario, directory, preload):
        super().__init__(harness, scenario, directory)
        self.preload = preload

    def request(self, variables):
        """The request with the allocations of `variables` failing."""
        environment = {**os.environ, "LD_PRELOAD": self.preload, **variables}
        arguments = self.harness.arguments(self.computer, self.server, self.scenario.arguments)
        return subprocess.run(
            arguments, stdin=subprocess.DEVNULL, capture_output=True, timeout=RUN_LIMIT,
            check=False, env=environment,
        )

    def allocations(self):
        self.reset()
        count = os.path.join(self.directory, "count")
        self.request({"VARN_COUNT_ALLOCATIONS": count})
        with open(count, encoding="ascii") as file:
            return int(file.read())

    def starve(self, number, on):
        """What is wrong after allocation `number` failed, alone or with all that follow."""
        self.reset()
        variables = {"VARN_FAIL_ALLOCATION": str(number)}
        if on:
            variables["VARN_FAIL_ALLOCATIONS_ON"] = "1"
        try:
            done = self.request(variables)
        except subprocess.TimeoutExpired:
            return ["hangs"]
        problems = []
        if done.returncode not in (0, 1, 2, 3):
            problems.append(f"ended with {done.returncode}: {done.stderr[-300:]!r}")
        problems += self._problems_of_run(self.scenario.allowed, complete=True)
        if done.returncode == 3 and runs_in(self.marker)[0]:
            problems.append("a script has run and the status says that none has")
        problems += self.computer.problems(self.states)
        return problems + self._problems_of_next()


def starve_scenario(harness, scenario, preload, stride, workers):
    directory = os.path.join(harness.directory, ("http-" if harness.use_http else "") + scenario.name)
    count = Site(harness, scenario, directory, preload).allocations()
    if count < FEWEST_ALLOCATIONS:
        sys.exit(f"{scenario}: only {count} allocations seen; the counting is broken")
    faults = [(number, on) for number in range(1, count + 1, stride) for on in (False, True)]

    def work(numbered):
        worker, share = numbered
        site = Site(harness, scenario, f"{directory}-{worker}", preload)
        return [(fault, problems) for fault in share if (problems := site.starve(*fault))]

    shares = [faults[worker::workers] for worker in range(workers)]
    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        broken = [result for share in pool.map(work, enumerate(shares)) for result in share]
    transport = "http" if harness.use_http else "file"
    print(f"{scenario.name} ({transport}): {count} allocations; {len(faults)} failures tried, "
          f"{len(broken)} with problems", flush=True)
    for (number, on), problems in broken[:20]:
        print(f"  allocation {number}{' and on' if on else ''}: " + "; ".join(problems), flush=True)
    return len(faults), len(broken)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("command", help="the varn-scripts program")
    parser.add_argument("preload", help="the library that makes allocations fail")
    parser.add_argument("--quick", action="store_true", help="a sample of the failures")
    parser.add_argument("--every", type=int, default=1, help="every so manieth failure alone")
    parser.add_argument("--transport", choices=TRANSPORTS, help="requests over this one alone")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1)
    options = parser.parse_args()

    tried = failed = 0
    with tempfile.TemporaryDirectory(prefix="varn-memory-") as directory:
        for transport in [options.transport] if options.transport else TRANSPORTS:
            stride = QUICK_STRIDES[transport] if options.quick else options.every
            harness = Harness(os.path.abspath(options.command), directory, transport == "http")
            for scenario in SCENARIOS:
                counts = starve_scenario(harness, scenario, os.path.abspath(options.preload),
                                         stride, options.workers)
                tried, failed = tried + counts[0], failed + counts[1]
    print(f"{tried} failures tried, {tried - failed} survived, {failed} failed")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
