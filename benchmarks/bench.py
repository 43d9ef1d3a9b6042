#!/usr/bin/env python3
"""Measures the library and the command beside what limits them and beside their peers, and prints
one table. `./dev bench` builds what this needs and starts it.

    benchmarks/bench.py --build build/bench [--quick] [--only GROUP,...] [--write-docs]

Each figure is a ratio of two programs that took turns within this run. Works in a temporary
directory that it removes, in memory when there is room, and ends only what it started. Exit status:
1 when a cost grows faster than the work, and also when something could not be measured.
"""

import argparse
import json
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import time

import figures
import plots
import rows
from contestants import Failure

HERE = pathlib.Path(__file__).resolve().parent
DOCUMENT = HERE.parent / "docs" / "maintaining" / "performance.md"
BEGIN, END = "<!-- The bench writes from here on. -->", "<!-- To here. -->"

PEER_PACKAGES = {
    "Boost": "libboost-dev",
    "libuv": "libuv1-dev",
    "POCO": "libpoco-dev",
    "GLib": "libglib2.0-dev",
    "Go": "golang-go",
    "Python": "python3",
    "Node": "nodejs",
    "Ansible": "ansible-core",
    "LMDB": "liblmdb-dev",
    "LevelDB": "libleveldb-dev",
    "libxml2": "libxml2-dev",
    "expat": "libexpat1-dev",
    "SQLite": "libsqlite3-dev",
    "OpenSSL": "libssl-dev",
    "curl": "curl",
    "bash": "bash",
    "nginx": "nginx",
}


def package_versions():
    if not shutil.which("dpkg-query"):
        return {}
    answer = subprocess.run(
        ["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *PEER_PACKAGES.values()],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        text=True,
        check=False,
    ).stdout
    installed = dict(line.split(" ", 1) for line in answer.splitlines() if " " in line)
    # Without the distribution's epoch and revision.
    return {
        name: re.sub(r"^\d+:|[-+~][^-]*$", "", installed[package].strip())
        for name, package in PEER_PACKAGES.items()
        if installed.get(package, "").strip()
    }


def processor_model():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        found = re.search(r"model name\s*:\s*(.*)", info.read())
    return found.group(1).strip() if found else platform.machine()


def machine(programs):
    build = json.loads((programs / "build.json").read_text(encoding="utf-8"))
    return {
        "processor": processor_model(),
        "cores": os.cpu_count(),
        "kernel": f"{platform.system()} {platform.release().split('-')[0]}",
        "compiler": build["compiler"],
        "flags": build["flags"],
        "versions": package_versions(),
    }


def machine_text(about, load, quick):
    versions = ", ".join(f"{name} {version}" for name, version in about["versions"].items())
    return (
        f"{about['processor']}, {about['cores']} cores, {about['kernel']}, {about['compiler']} "
        f"({about['flags']}); {versions}. Load average {load[0]:.1f} at the beginning and "
        f"{load[1]:.1f} at the end.{' A quick run: fewer rounds, less work.' if quick else ''}"
    )


def progress(text):
    print(text, file=sys.stderr, flush=True)


def collect(bench, groups):
    found = []
    failures = 0
    for group in groups:
        began = time.monotonic()
        progress(f"{group.__name__.replace('_', ' ')} ...")
        try:
            found.extend(group(bench))
        except (Failure, RuntimeError, OSError, subprocess.SubprocessError, KeyError) as failure:
            failures += 1
            progress(f"bench.py: {group.__name__}: {failure}")
        progress(f"    {time.monotonic() - began:.0f} s")
    return found, failures


def text_of(result):
    parts = []
    if result["rows"]:
        parts.append(figures.table(result["rows"]))
    if result["growth"]:
        parts.append(figures.growth_table(result["growth"]))
    parts.append(machine_text(result["machine"], result["load"], result["quick"]))
    return "\n\n".join(parts) + "\n"


def write_document(result, paths):
    document = DOCUMENT.read_text(encoding="utf-8")
    if BEGIN not in document or END not in document:
        sys.exit(f"bench.py: {DOCUMENT.name} lacks the comments between which the table stands")
    images = "".join(f"![{path.stem}](performance/{path.name})\n" for path in paths)
    before, rest = document.split(BEGIN, 1)
    after = rest.split(END, 1)[1]
    DOCUMENT.write_text(
        f"{before}{BEGIN}\n\n{text_of(result)}\n{images}\n{END}{after}", encoding="utf-8"
    )
    if paths:
        pictures = DOCUMENT.with_suffix("")
        pictures.mkdir(exist_ok=True)
        for path in paths:
            shutil.copy(path, pictures / path.name)


def working_directory():
    """In memory when there is room: what a disk does has nothing to do with what is measured."""
    shared = pathlib.Path("/dev/shm")
    if shared.is_dir() and shutil.disk_usage(shared).free > 4 << 30:
        return str(shared)
    return None


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--build", required=True, type=pathlib.Path, help="build directory")
    parser.add_argument("--quick", action="store_true", help="fewer rounds and less work")
    names = [group.__name__ for group in rows.GROUPS + rows.GROWTH]
    parser.add_argument("--only", help=f"some of: {', '.join(names)}")
    document = DOCUMENT.relative_to(HERE.parent)
    parser.add_argument("--write-docs", action="store_true", help=f"into {document}")
    options = parser.parse_args()
    options.build = options.build.resolve()
    options.names = options.only.split(",") if options.only else names
    unknown = sorted(set(options.names) - set(names))
    if unknown:
        parser.error(f"unknown: {', '.join(unknown)}")
    if options.write_docs and (options.only or options.quick):
        parser.error("only a whole run is written to the documentation")
    return options


def plot(curves, directory):
    if not curves:
        return []
    try:
        return plots.draw(curves, directory)
    except ImportError:
        progress("bench.py: no plots without python3-matplotlib")
        return []


def main():
    options = arguments()
    began, load = time.monotonic(), os.getloadavg()[0]
    programs = options.build / "benchmarks"
    with tempfile.TemporaryDirectory(prefix="varn-bench-", dir=working_directory()) as work:
        bench = rows.Bench(
            programs, options.build / "bin/varn-scripts", pathlib.Path(work), options.quick
        )
        chosen = [[g for g in all if g.__name__ in options.names] for all in (rows.GROUPS, rows.GROWTH)]
        found, failed = collect(bench, chosen[0])
        curves, failed_curves = collect(bench, chosen[1])
    result = {
        "machine": machine(programs),
        "quick": options.quick,
        "load": [load, os.getloadavg()[0]],
        "seconds": time.monotonic() - began,
        "rows": found,
        "growth": curves,
    }
    results = options.build / "results"
    results.mkdir(exist_ok=True)
    (results / "bench.json").write_text(json.dumps(result, indent=2) + "\n", encoding="utf-8")
    paths = plot(curves, results)
    print(text_of(result))
    progress(f"{result['seconds']:.0f} s; results/bench.json in the build directory has all figures")
    if options.write_docs:
        write_document(result, paths)
    steep = [curve["name"] for curve in curves if curve["steeper_than_work"]]
    for name in steep:
        progress(f"bench.py: {name}: the cost grows faster than the work")
    sys.exit(1 if steep or failed or failed_curves else 0)


if __name__ == "__main__":
    main()
