"""What the bench measures: one function for each group of rows, each with its limit and its peers."""

import dataclasses
import hashlib
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time

import figures
import repository
from contestants import Program, Turns, environment

HERE = pathlib.Path(__file__).resolve().parent
PEERS = HERE / "peers"
KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30


@dataclasses.dataclass
class Bench:
    """What every group needs: the built programs, a directory, and whether to be quick."""

    programs: pathlib.Path
    command: pathlib.Path
    directory: pathlib.Path
    quick: bool

    def program(self, name):
        return self.programs / f"bench-{name}"

    def rounds(self, full, quick):
        return quick if self.quick else full

    def turns(self, programs, calls, rounds):
        least = self.rounds(9, 3)
        return Turns(programs, calls, rounds, seconds=self.rounds(25, 6), least=least)

    def on_disk(self):
        """A directory whose files lie in the cache of a file system, as any file's do that has just
        been written. In memory alone they would lie there in small pages, which take longer."""
        where = "/var/tmp" if os.access("/var/tmp", os.W_OK) else None
        return tempfile.TemporaryDirectory(prefix="varn-bench-", dir=where)

    def new(self, name):
        path = self.directory / name
        path.mkdir()
        return path

    def room(self, memory, disk):
        """Why there is no room for that many bytes, or nothing."""
        with open("/proc/meminfo", encoding="ascii") as info:
            available = int(re.search(r"MemAvailable:\s*(\d+)", info.read()).group(1)) * 1024
        free = shutil.disk_usage(self.directory).free
        # A directory in memory takes its part of the memory, too.
        if available < memory + disk or free < disk:
            return f"needs {figures.count(memory + disk)} of memory, {available / GIB:.1f} GiB are free"
        return None


# ---- The runner ----------------------------------------------------------------------------------


def runner_programs(bench, touch, arguments, peers, **options):
    """The library, the limit and peers that run `arguments`, with `touch` bytes in use."""
    settings = options.pop("settings", {})
    peer_rounds = options.pop("peer_rounds", None)
    tail = [touch, bench.directory, *arguments]
    # Loading Python's site packages or Node's inspector is not part of anything measured.
    commands = {
        "Boost": [bench.program("runner-boost")],
        "Python": [sys.executable, PEERS / "runner.py"],
        "Go": [bench.program("runner-go")],
        "libuv": [bench.program("runner-libuv")],
        "POCO": [bench.program("runner-poco")],
        "GLib": [bench.program("runner-glib")],
        "Node": [shutil.which("node") or "node", PEERS / "runner.js"],
    }
    programs = [
        Program("library", [bench.program("runner"), *tail], settings=settings, **options),
        Program("limit", [bench.program("runner-limit"), *tail], settings=settings, **options),
    ]
    for name in peers:
        programs.append(
            Program(name, commands[name] + tail, settings=settings, rounds=peer_rounds, **options)
        )
    return programs


EVERYBODY = ("Boost", "Python", "Go", "libuv", "POCO", "GLib", "Node")
BARE_RUN = "posix_spawn, read, waitpid"


def one_line_script(bench):
    script = bench.directory / "one-line.sh"
    script.write_text("echo ready\n", encoding="ascii")
    return ["/bin/sh", script]


def runner_calls(bench):
    arguments = one_line_script(bench)
    programs = runner_programs(bench, 0, arguments, EVERYBODY, expect=len("ready\n"))
    silent = Program(
        "without its log",
        programs[0].arguments,
        expect=len("ready\n"),
        settings={"VARN_BENCH_QUIET": "1"},
    )
    turns = bench.turns([*programs, silent], 20, bench.rounds(50, 10))
    for what, target, words in (
        ("wall", 1.03, "wall"),
        ("processor", 1.3, "caller's processor time"),
    ):
        yield figures.row(
            f"shell(), one-line script, {words}",
            BARE_RUN,
            target,
            turns.of("library", what),
            turns.of("limit", what),
            turns.peers(what),
            turns.skipped,
        )
    yield figures.row(
        "the same, without its log",
        BARE_RUN,
        1.2,
        turns.of("without its log", "processor"),
        turns.of("limit", "processor"),
    )


def runner_touched(bench):
    touch = bench.rounds(2 * GIB, 512 * MIB)
    piece = f"shell(), {figures.count(touch)} touched in the parent, wall"
    short = bench.room(3 * touch + GIB, 0)
    if short:
        yield figures.skipped_row(piece, short)
        return
    programs = runner_programs(
        bench, touch, one_line_script(bench), EVERYBODY, peer_rounds=bench.rounds(2, 1)
    )
    for peer in programs[2:]:
        # One at a time: together they would not fit.
        peer.fresh = True
    turns = bench.turns(programs, 10, bench.rounds(30, 8))
    yield figures.row(
        piece,
        BARE_RUN,
        1.03,
        turns.of("library", "wall"),
        turns.of("limit", "wall"),
        turns.peers("wall"),
        turns.skipped,
    )


def runner_descriptors(bench):
    programs = runner_programs(bench, 0, one_line_script(bench), EVERYBODY, descriptors=20_000)
    turns = bench.turns(programs, 20, bench.rounds(40, 8))
    yield figures.row(
        "shell(), open-file limit of 20,000, wall",
        BARE_RUN,
        1.03,
        turns.of("library", "wall"),
        turns.of("limit", "wall"),
        turns.peers("wall"),
        turns.skipped,
    )


def collected(bench, kind, size, peers, settings):
    arguments = [bench.program("write-output"), kind, size]
    programs = runner_programs(
        bench,
        0,
        arguments,
        peers,
        fresh=True,
        expect=size,
        memory=2 * size,
        settings={"VARN_BENCH_PIPE": str(MIB), **settings},
        peer_rounds=bench.rounds(2, 1),
    )
    return bench.turns(programs, 1, bench.rounds(9, 5))


def runner_output(bench):
    size = bench.rounds(GIB, 128 * MIB)
    limit = "read loop, 1 MiB pipe"
    piece = f"{figures.count(size)} of ASCII lines into the result"
    short = bench.room(4 * size, 0)
    if short:
        yield figures.skipped_row(piece, short)
    else:
        peers = ("Go", "Python", "libuv", "POCO", "Boost", "GLib")
        turns = collected(bench, "ascii", size, peers, {})
        yield figures.row(
            f"{piece}, wall",
            limit,
            1.5,
            turns.of("library", "wall"),
            turns.of("limit", "wall"),
            turns.peers("wall"),
            turns.skipped,
        )
        yield figures.row(
            "the same, peak memory",
            "the output's size",
            1.3,
            turns.of("library", "peak"),
            size,
            turns.peers("peak"),
            turns.skipped,
        )
    size = bench.rounds(256 * MIB, 64 * MIB)
    turns = collected(bench, "multibyte", size, ("Go", "Python"), {"VARN_BENCH_UTF8": "1"})
    yield figures.row(
        f"{figures.count(size)} of multi-byte text into the result, validated, wall",
        limit,
        1.6,
        turns.of("library", "wall"),
        turns.of("limit", "wall"),
        turns.peers("wall"),
        turns.skipped,
    )


# ---- Metadata ------------------------------------------------------------------------------------

# One thread that computes and waits for nothing is measured by its processor time: the same on an
# idle machine, and on a busy one not that of the others.


def list_path(base):
    return base / "client-data" / repository.CUSTOMER / "scripts-repository-data/scripts-meta.xml"


def metadata(bench):
    for entries, calls, rounds in ((100_000, 1, (9, 4)), (1_000, 10, (40, 10))):
        base = bench.new(f"metadata-{entries}")
        size = repository.write_list(list_path(base), entries)
        large = entries > 10_000
        heavy = {"fresh": large, "expect": entries, "memory": 4 * size if large else 0}
        peer = {**heavy, "rounds": bench.rounds(3, 1) if large else None}
        program = bench.program("metadata")
        turns = bench.turns(
            [
                Program("library", [program, "library", base, repository.CUSTOMER], **heavy),
                Program("limit", [program, "expat", list_path(base)], **heavy),
                Program("libxml2 tree", [bench.program("metadata-dom"), list_path(base)], **peer),
                Program("Python", [sys.executable, PEERS / "metadata.py", list_path(base)], **peer),
            ],
            calls,
            bench.rounds(*rounds),
        )
        yield figures.row(
            f"metadata of {entries:,} entries ({size / 1e6:.3g} MB), file to records",
            "expat over the same bytes",
            1.45,
            turns.of("library", "processor"),
            turns.of("limit", "processor"),
            turns.peers("processor"),
            turns.skipped,
        )
        if large:
            yield figures.row(
                "the same, peak memory",
                "the document's size",
                2.8,
                turns.of("library", "peak"),
                size,
                turns.peers("peak"),
                turns.skipped,
            )
        shutil.rmtree(base)


# ---- Checksum, store -----------------------------------------------------------------------------


def checksum_large(bench):
    size = bench.rounds(GIB, 256 * MIB)
    piece = f"checksum of {figures.count(size)}, SHA-256"
    short = bench.room(3 * size, 0)
    if short:
        yield figures.skipped_row(piece, short)
        return
    with bench.on_disk() as directory:
        turns = checksum_turns(bench, pathlib.Path(directory) / "file", size)
    yield figures.row(
        piece,
        "the digest alone, in memory",
        0.9,
        turns.of("library", "processor"),
        turns.of("limit", "processor"),
        turns.peers("processor"),
        turns.skipped,
        form="speed",
    )


def checksum_turns(bench, path, size):
    block = os.urandom(MIB)
    digest = hashlib.sha256()
    with open(path, "wb") as file:
        for _ in range(size // MIB):
            file.write(block)
            digest.update(block)
    program, meter = bench.program("checksum"), bench.program("meter")
    peer = {"rounds": bench.rounds(3, 1)}
    return bench.turns(
        [
            Program("library", [program, "library", path, digest.hexdigest()]),
            Program("limit", [program, "memory", path], memory=size),
            Program("sha256sum", [meter, "sha256sum", path], **peer),
            Program("openssl dgst", [meter, "openssl", "dgst", "-sha256", path], **peer),
        ],
        1,
        bench.rounds(9, 4),
    )


SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1}


def pieces(bench):
    """The pieces within one process: Google Benchmark repeats them in a random order."""
    answer = subprocess.run(
        [
            bench.program("pieces"),
            "--benchmark_format=json",
            "--benchmark_enable_random_interleaving=true",
            f"--benchmark_repetitions={bench.rounds(25, 10)}",
            f"--benchmark_min_time={bench.rounds(0.05, 0.02)}",
        ],
        env={**environment(), "VARN_BENCH_DIRECTORY": str(bench.new("pieces"))},
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,
        check=True,
    ).stdout
    found = {}
    for run in json.loads(answer)["benchmarks"]:
        if run["run_type"] == "iteration":
            piece, contestant = run["run_name"].split("/", 1)
            seconds = run["cpu_time"] * SECONDS[run["time_unit"]]
            found.setdefault(piece, {}).setdefault(contestant, []).append(seconds)
    for piece, limit, target, words, peers in (
        (
            "checksum of 4 KiB",
            "open, read, digest",
            1.5,
            "checksum of a 4 KiB script, a later call in a process",
            (),
        ),
        ("store get", "prepared statements", 1.4, "store: one get", ("LMDB", "LevelDB")),
        (
            "store read-modify-write",
            "prepared statements",
            1.4,
            "store: one read-modify-write",
            ("LMDB", "LevelDB"),
        ),
    ):
        samples = found[piece]
        yield figures.row(
            words,
            limit,
            target,
            samples["library"],
            samples[limit],
            {peer: samples[peer] for peer in peers if peer in samples},
            {peer: "not built in" for peer in peers if peer not in samples},
        )


# ---- Requests ------------------------------------------------------------------------------------

SCRIPT_ID = 42


def request(bench):
    place = bench.new("request")
    repository.write_repository(place / "server", 100, SCRIPT_ID)
    base = place / "base"
    script = base / "client-data/7/scripts-repository" / repository.script_name(SCRIPT_ID)
    base.mkdir(mode=0o700)
    library = Program(
        "library",
        [bench.program("request"), base, repository.CUSTOMER, f"file://{place / 'server'}", SCRIPT_ID],
    )
    limit = Program("limit", [bench.program("runner-limit"), 0, script.parent, "/bin/sh", script])
    turns = bench.turns([library, limit], 20, bench.rounds(50, 15))
    yield figures.row(
        "processScript(), up to date, metadata loaded",
        "bare start of the same script",
        1.15,
        turns.of("library", "wall"),
        turns.of("limit", "wall"),
    )
    shutil.rmtree(place)


def run_arguments(bench, base, url):
    return command_arguments(bench, base, url, "run", SCRIPT_ID)


def command_arguments(bench, base, url, *arguments):
    return [
        *[bench.command, "--base-path", base, "--customer", repository.CUSTOMER],
        *["--server", url, *arguments],
    ]


# What a program with the system's libcurl takes to start, on whatever machine.
CURL = "curl --version"


def poll_programs(bench, place, url, script):
    meter = bench.program("meter")
    for name in ("bash", "Python"):
        (place / name).mkdir()
    checksum = f"checksum={repository.checksum()}"
    script_url = f"url={url}/{repository.REPOSITORY}/files/{repository.script_name(SCRIPT_ID)}"
    (place / "Ansible").mkdir()
    playbook = ["ansible-playbook", "-i", "localhost,", "-e", f"directory={place / 'Ansible'}"]
    return [
        Program("library", [meter, *run_arguments(bench, place / "base", url)]),
        Program("limit", [meter, "/bin/sh", script]),
        Program(CURL, [meter, *CURL.split()]),
        Program(
            "bash+curl+sha256sum",
            [meter, "/bin/bash", PEERS / "poll.sh", url, place / "bash", SCRIPT_ID],
        ),
        Program(
            "Python", [meter, sys.executable, PEERS / "poll.py", url, place / "Python", SCRIPT_ID]
        ),
        Program(
            "Ansible",
            [meter, *playbook, "-e", checksum, "-e", script_url, PEERS / "poll.yml"],
            rounds=bench.rounds(4, 1),
        ),
    ]


def whole_run(bench):
    piece = "varn-scripts run, up to date, 1,000 entries, nginx, processor time"
    why = repository.Server.missing()
    if why:
        yield figures.skipped_row(piece, why)
        return
    place = bench.new("run")
    repository.write_repository(place / "root", 1_000, SCRIPT_ID)
    (place / "base").mkdir(mode=0o700)
    script = place / "root" / repository.REPOSITORY / "files" / repository.script_name(SCRIPT_ID)
    server = repository.Server(place / "nginx", place / "root")
    try:
        turns = bench.turns(poll_programs(bench, place, server.url, script), 1, bench.rounds(40, 15))
    finally:
        server.stop()
    ours = turns.of("library", "processor")
    yield figures.row(
        piece,
        "sh script",
        None,
        ours,
        turns.of("limit", "processor"),
        turns.peers("processor"),
        turns.skipped,
    )
    milliseconds = [seconds * 1000 for seconds in ours]
    yield figures.row(
        "the same, in milliseconds",
        "",
        None,
        milliseconds,
        1,
        {n: [s * 1000 for s in samples] for n, samples in turns.peers("processor").items()},
        form="ms",
    )
    for peer, target in (
        (CURL, 2.06),
        ("bash+curl+sha256sum", 1 / 3),
        ("Python", 1 / 9),
        ("Ansible", 1 / 60),
    ):
        if peer in turns.skipped:
            yield figures.skipped_row(f"the same, by {peer}", turns.skipped[peer])
        else:
            yield figures.row(f"the same, by {peer}", peer, target, ours, turns.of(peer, "processor"))
    shutil.rmtree(place)


def short_run(bench):
    piece = "varn-scripts run, up to date, 100 entries, nginx, processor time"
    why = repository.Server.missing()
    if why:
        yield figures.skipped_row(piece, why)
        return
    place = bench.new("short-run")
    repository.write_repository(place / "root", 100, SCRIPT_ID)
    (place / "base").mkdir(mode=0o700)
    meter = bench.program("meter")
    server = repository.Server(place / "nginx", place / "root")
    try:
        turns = bench.turns(
            [
                Program("library", [meter, *run_arguments(bench, place / "base", server.url)]),
                Program("limit", [meter, *CURL.split()]),
            ],
            1,
            bench.rounds(40, 15),
        )
    finally:
        server.stop()
    yield figures.row(
        piece, CURL, 1.47, turns.of("library", "processor"), turns.of("limit", "processor")
    )
    shutil.rmtree(place)


def with_and_without_keys(bench, tree, url, place, **options):
    """The same run by a computer that trusts the list's key, and by one that trusts none."""
    programs = []
    for name, trust in (("library", ["--trusted-key", f"{tree.key}.pub"]), ("limit", [])):
        (place / name).mkdir(mode=0o700)
        command = command_arguments(bench, place / name, url, *trust, "run", SCRIPT_ID)
        programs.append(Program(name, [bench.program("meter"), *command], **options))
    return programs


def requests_of(program, server, before):
    """How many requests each of a few runs makes."""
    counts = []
    for _ in range(3):
        before()
        first = server.requests()
        subprocess.run(
            program.arguments[1:],
            env=environment(),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            check=True,
        )
        counts.append(server.requests() - first)
    return counts


def synced_replacements(directory, count):
    """How many milliseconds it takes there to replace a small file so that it stays replaced."""
    samples = []
    for _ in range(count):
        begin = time.perf_counter()
        with open(directory / "new", "wb") as file:
            file.write(b"x" * 512)
            file.flush()
            os.fsync(file.fileno())
        os.rename(directory / "new", directory / "file")
        names = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)
        os.fsync(names)
        os.close(names)
        samples.append((time.perf_counter() - begin) * 1000)
    return samples


def in_milliseconds(samples):
    return [seconds * 1000 for seconds in samples]


def signed_run(bench):
    """What trusted keys cost: a list that is unchanged, and one that has changed."""
    why = repository.Server.missing()
    if why:
        yield figures.skipped_row("varn-scripts run, trusted keys", why)
        return
    place = bench.new("signed-run")
    tree = repository.SignedTree(bench.command, place / "published", 100)
    server = repository.Server(place / "nginx", tree.root, counts=True)
    try:
        yield from unchanged_list(bench, tree, server, place / "unchanged")
        yield from changed_list(bench, tree, server, place / "changed")
        with bench.on_disk() as directory:
            yield changed_list_on_disk(bench, tree, server, pathlib.Path(directory))
    finally:
        server.stop()
    shutil.rmtree(place)


WITHOUT_KEYS = "the same without keys"


def unchanged_list(bench, tree, server, place):
    place.mkdir()
    programs = with_and_without_keys(bench, tree, server.url, place)
    turns = bench.turns(programs, 5, bench.rounds(40, 10))
    for what, words in (("processor", "processor time"), ("wall", "wall")):
        yield figures.row(
            f"varn-scripts run, trusted key, unchanged list of 100 entries, nginx, {words}",
            WITHOUT_KEYS,
            1.1,
            turns.of("library", what),
            turns.of("limit", what),
        )
    counts = [requests_of(program, server, lambda: None) for program in programs]
    yield figures.row("the same, requests", WITHOUT_KEYS, 0, *counts, form="requests more")


def changed_list(bench, tree, server, place):
    place.mkdir()
    programs = with_and_without_keys(bench, tree, server.url, place, before=tree.change)
    turns = bench.turns(programs, 1, bench.rounds(60, 15))
    for what, words in (("processor", "processor time"), ("wall", "wall")):
        yield figures.row(
            f"varn-scripts run, trusted key, changed list of 100 entries, nginx, {words}",
            WITHOUT_KEYS,
            2,
            in_milliseconds(turns.of("library", what)),
            in_milliseconds(turns.of("limit", what)),
            form="ms more",
        )
    counts = [requests_of(program, server, tree.change) for program in programs]
    yield figures.row("the same, requests", WITHOUT_KEYS, 1, *counts, form="requests more")


def changed_list_on_disk(bench, tree, server, place):
    """What is remembered of a list is synced before the list is used, and a disk takes its time."""
    programs = with_and_without_keys(bench, tree, server.url, place, before=tree.change)
    turns = bench.turns(programs, 1, bench.rounds(60, 15))
    return figures.row(
        "varn-scripts run, trusted key, changed list, wall, the computer's files on a disk",
        WITHOUT_KEYS,
        None,
        in_milliseconds(turns.of("library", "wall")),
        in_milliseconds(turns.of("limit", "wall")),
        {"replacing one small file there, synced": synced_replacements(place, 60)},
        form="ms more",
    )


def long_output(bench):
    """A whole run whose script writes much. The meter's result is the most memory of a process."""
    size = 64 * MIB
    place = bench.new("long-output")
    text = f"exec {bench.program('write-output')} ascii {size}\n".encode()
    repository.write_repository(place / "root", SCRIPT_ID, SCRIPT_ID, text)
    url = f"file://{place / 'root'}"
    for name in ("base", "logged", "bash", "Python"):
        (place / name).mkdir(mode=0o700)
    script = place / "root" / repository.REPOSITORY / "files" / repository.script_name(SCRIPT_ID)
    meter, memory = bench.program("meter"), {"memory": 4 * size}
    quiet = run_arguments(bench, place / "base", url)
    logged = run_arguments(bench, place / "logged", url)
    turns = bench.turns(
        [
            Program("library", [meter, *quiet, "--quiet"], **memory),
            Program("with its log", [meter, *logged, "--verbose"], **memory),
            Program("limit", [meter, "/bin/sh", "-c", f"/bin/sh {script} | cat"], **memory),
            Program(
                "bash",
                [meter, "/bin/bash", PEERS / "poll.sh", url, place / "bash", SCRIPT_ID],
                rounds=bench.rounds(9, 1),
                **memory,
            ),
            Program(
                "Python",
                [meter, sys.executable, PEERS / "poll.py", url, place / "Python", SCRIPT_ID],
                **memory,
            ),
        ],
        1,
        bench.rounds(15, 5),
    )
    for name, words, peak in (
        # Twice the output, and what a process has without any.
        ("library", "varn-scripts run --quiet", 2.2),
        ("with its log", "varn-scripts run --verbose", 3.2),
    ):
        peers = {peer: turns.of(peer, "wall") for peer in ("bash", "Python")}
        yield figures.row(
            f"{words}, {figures.count(size)} of output, wall",
            "the script into cat",
            None,
            turns.of(name, "wall"),
            turns.of("limit", "wall"),
            peers,
            turns.skipped,
        )
        yield figures.row(
            "the same, peak memory",
            "the output's size",
            peak,
            turns.of(name, "result"),
            size,
            {peer: turns.of(peer, "result") for peer in peers},
            turns.skipped,
        )
    shutil.rmtree(place)


def removal(bench):
    count = bench.rounds(10_000, 2_000)
    program = bench.program("removal")
    turns = bench.turns(
        [
            Program("library", [program, "library", bench.new("removal-a"), count], expect=count),
            Program("limit", [program, "bare", bench.new("removal-b"), count], expect=count),
        ],
        1,
        bench.rounds(9, 4),
    )
    yield figures.row(
        f"removal of {count:,} scripts",
        "unlinks and a deleting transaction each",
        2,
        turns.of("library", "wall"),
        turns.of("limit", "wall"),
    )


def start_up(bench):
    place = bench.new("start-up")
    meter = bench.program("meter")
    settings = place / "settings.toml"
    settings.write_text(
        f'base_path = "{place}"\ncustomer = "7"\nserver = "http://127.0.0.1"\n', encoding="utf-8"
    )
    repository.write_repository(place / "root", SCRIPT_ID, SCRIPT_ID)
    (place / "base").mkdir(mode=0o700)
    local = command_arguments(bench, place / "base", f"file://{place / 'root'}")
    subprocess.run(
        [*map(str, local), "run", str(SCRIPT_ID)],
        env=environment(),
        stdout=subprocess.DEVNULL,
        check=True,
    )
    programs = [
        Program("library", [meter, bench.command, "--version"]),
        Program("list", [meter, bench.command, "--config", settings, "list"]),
        Program("limit", [meter, "/bin/true"]),
        Program("C++ program", [meter, bench.program("trivial")]),
        Program(CURL, [meter, *CURL.split()]),
        Program("file:// list", [meter, *local, "list"]),
        Program("file:// plan", [meter, *local, "plan", SCRIPT_ID]),
    ]
    turns = bench.turns(programs, 5, bench.rounds(30, 10))
    for what, words in (("processor", "processor time"), ("wall", "wall")):
        yield figures.row(
            f"start-up, varn-scripts --version, {words}",
            "/bin/true",
            None,
            turns.of("library", what),
            turns.of("limit", what),
            turns.peers(what),
            turns.skipped,
        )
    for what in ("list", "plan"):
        yield figures.row(
            f"varn-scripts {what}, file://, processor time",
            CURL,
            0.59,
            turns.of(f"file:// {what}", "processor"),
            turns.of(CURL, "processor"),
        )
    shutil.rmtree(place)


GROUPS = (
    runner_calls,
    runner_touched,
    runner_descriptors,
    runner_output,
    metadata,
    checksum_large,
    pieces,
    request,
    whole_run,
    short_run,
    signed_run,
    long_output,
    start_up,
    removal,
)


# ---- Growth --------------------------------------------------------------------------------------


def samples_by_size(bench, make, sizes, rounds):
    """The processor time of each size; `make` gives the program of a size. Sizes take turns, too."""
    programs = [make(size) for size in sizes]
    turns = bench.turns(programs, 1, rounds)
    if turns.skipped:
        raise RuntimeError(next(iter(turns.skipped.values())))
    return {size: turns.of(str(size), "processor") for size in sizes}


def growth_entries(bench):
    name = "metadata, file to records"
    sizes = [100, 1_000, 10_000, 100_000] + ([] if bench.quick else [1_000_000])
    short = bench.room(3 * GIB, 2 * GIB)
    if short:
        sizes = sizes[:-1]
    bases = {size: bench.new(f"growth-{size}") for size in sizes}
    for size, base in bases.items():
        repository.write_list(list_path(base), size)
    arguments = [bench.program("metadata"), "library"]
    samples = samples_by_size(
        bench,
        lambda size: Program(str(size), [*arguments, bases[size], repository.CUSTOMER], expect=size),
        sizes,
        bench.rounds(5, 4),
    )
    for base in bases.values():
        shutil.rmtree(base)
    yield figures.growth(name, "entries", samples)


def growth_output(bench):
    sizes = [KIB, 16 * KIB, 256 * KIB, 4 * MIB, 64 * MIB]
    sizes += [256 * MIB] if bench.quick else [GIB, 4 * GIB]
    while len(sizes) > 5 and bench.room(3 * sizes[-1], 0):
        sizes.pop()
    runner, writer = bench.program("runner"), bench.program("write-output")
    samples = samples_by_size(
        bench,
        lambda size: Program(
            str(size),
            [runner, 0, bench.directory, writer, "ascii", size],
            expect=size,
            fresh=size >= GIB,
        ),
        sizes,
        bench.rounds(5, 4),
    )
    yield figures.growth("shell(), output into the result", "bytes", samples)


def growth_rows(bench):
    sizes = [10, 100, 1_000] + ([3_000] if bench.quick else [10_000, 100_000])
    for mode, name in (("library", "removal of scripts"), ("list", "IDs of all local rows")):
        samples = samples_by_size(
            bench,
            lambda size, mode=mode: Program(
                str(size),
                [bench.program("removal"), mode, bench.new(f"rows-{mode}-{size}"), size],
                expect=size,
            ),
            sizes,
            # The largest one takes its time, and most of it is making what is removed.
            bench.rounds(2, 3) if mode == "library" else bench.rounds(9, 5),
        )
        yield figures.growth(name, "rows", samples)


GROWTH = (growth_entries, growth_output, growth_rows)
