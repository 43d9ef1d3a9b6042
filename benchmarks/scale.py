#!/usr/bin/env python3
"""Measures what one static server carries: publishes repositories of several sizes, serves them
with nginx on 127.0.0.1, polls them with the command and loads them with wrk, and prints the tables
of docs/maintaining/scale.md.

    benchmarks/scale.py --command build/release/bin/varn-scripts [--counts 100,10000,100000]

Needs nginx, wrk and openssl. Works in a temporary directory that it removes, on ports that were
free, and ends only what it started. Every load has a time limit; the whole takes a few minutes.
"""

import argparse
import contextlib
import gzip
import os
import pathlib
import platform
import random
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

CUSTOMER = "7"
REPOSITORY = pathlib.Path("client-data") / CUSTOMER / "scriptrepo"
LIST_PATH = f"/{REPOSITORY}/scripts-meta.xml"

# How nginx sends the list: as it lies there, from a file compressed beforehand, compressed anew for
# each request.
FORMS = ("plain", "gzip_static", "gzip on")

# The assumed network: one link, of which this part carries bodies. The rest is for packet headers,
# retransmissions, other files and uneven moments.
LINK_BITS = 1_000_000_000
USABLE = 0.7
# The part of one core that a server may be busy on average.
BUSY = 0.5

STEP_SECONDS = 900


def fail(text):
    sys.exit(f"scale.py: {text}")


def environment():
    """The environment without settings of the command or a proxy."""
    return {
        name: value
        for name, value in os.environ.items()
        if not name.startswith("VARN_") and "proxy" not in name.lower()
    }


# Runs its arguments and writes what they cost to a descriptor. A small process does this, because
# what a child counts as its most memory includes that of the process it was started from.
METER = """
import os, sys, time
began = time.monotonic()
child = os.fork()
if child == 0:
    os.execvp(sys.argv[2], sys.argv[2:])
_, status, usage = os.wait4(child, 0)
seconds = time.monotonic() - began
cost = f"{seconds} {usage.ru_utime + usage.ru_stime} {usage.ru_maxrss * 1024}"
os.write(int(sys.argv[1]), cost.encode())
os._exit(os.waitstatus_to_exitcode(status) & 255)
"""


def execute(arguments, expected=0):
    """Runs a command. The result is its output, its seconds, processor seconds, and most memory."""
    costs, given = os.pipe()
    meter = [sys.executable, "-I", "-S", "-c", METER, str(given)]
    child = subprocess.Popen(
        meter + [str(argument) for argument in arguments],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        env=environment(),
        pass_fds=[given],
        start_new_session=True,
    )
    os.close(given)
    try:
        output = child.communicate(timeout=STEP_SECONDS)[0].decode("utf-8", "replace")
    except subprocess.TimeoutExpired:
        os.killpg(child.pid, signal.SIGKILL)
        fail(f"{arguments[0]} has not ended after {STEP_SECONDS} s")
    with open(costs, encoding="ascii") as reading:
        seconds, processor, memory = reading.read().split()
    if child.returncode != expected:
        fail(f"{arguments[0]} ended with {child.returncode}: {output[-2000:]}")
    return output, float(seconds), float(processor), int(memory)


def write_source(directory, count):
    """A manifest and `count` small scripts, each with other bytes."""
    directory.mkdir()
    with open(directory / "scripts.toml", "w", encoding="utf-8") as manifest:
        for number in range(1, count + 1):
            name = f"check-{number:06}.sh"
            (directory / name).write_text(
                f"#!/bin/sh\n# Check {number}.\nlimit=${{1:-90}}\n"
                f'[ "$limit" -gt 0 ] || exit 3\necho "check {number}: ok"\n',
                encoding="utf-8",
            )
            manifest.write(
                f'[[script]]\nid = "{100000 + number}"\nfile = "{name}"\narguments = "80"\n'
                f'accepted_codes = "0,3"\nname = "Check {number}"\n'
                f'description = "Looks after setting {number} and reports it."\n'
                f'platform = "Linux"\n\n'
            )


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Server:
    """nginx with one working process, and for each form a port without and one with TLS."""

    def __init__(self, directory, root, certificate, key):
        self.ports = {(form, tls): free_port() for form in FORMS for tls in (False, True)}
        config = directory / "nginx.conf"
        config.write_text(self._config(directory, root, certificate, key), encoding="utf-8")
        self._master = subprocess.Popen(
            ["nginx", "-p", str(directory), "-c", str(config), "-e", "stderr"],
            stdin=subprocess.DEVNULL,
        )
        self._worker = self._wait_for_worker()

    def _config(self, directory, root, certificate, key):
        settings = {
            "plain": "gzip off;",
            "gzip_static": "gzip_static on;",
            "gzip on": "gzip on; gzip_types text/xml;",
        }
        servers = ""
        for (form, tls), port in self.ports.items():
            servers += f"  server {{ listen 127.0.0.1:{port}{' ssl' if tls else ''} backlog=1024; "
            servers += f"root {root}; {settings[form]} }}\n"
        user = "user root;" if os.geteuid() == 0 else ""
        return f"""{user} daemon off; worker_processes 1; pid {directory}/nginx.pid;
error_log stderr error;
events {{ worker_connections 1024; }}
http {{
  access_log off; sendfile on; tcp_nopush on;
  types {{ text/xml xml; }} default_type application/octet-stream;
  client_body_temp_path {directory}/t1; proxy_temp_path {directory}/t2;
  fastcgi_temp_path {directory}/t3; uwsgi_temp_path {directory}/t4; scgi_temp_path {directory}/t5;
  ssl_certificate {certificate}; ssl_certificate_key {key};
  ssl_protocols TLSv1.2; ssl_session_cache off; ssl_session_tickets off;
{servers}}}
"""

    def _wait_for_worker(self):
        children = pathlib.Path(f"/proc/{self._master.pid}/task/{self._master.pid}/children")
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and self._master.poll() is None:
            with contextlib.suppress(OSError, IndexError):
                worker = int(children.read_text().split()[0])
                socket.create_connection(("127.0.0.1", self.port("plain", False)), 1).close()
                return worker
            time.sleep(0.02)
        self.stop()
        return fail("nginx did not start")

    def port(self, form, tls):
        return self.ports[(form, tls)]

    def busy(self):
        """Seconds that the working process has been on a processor."""
        return int(pathlib.Path(f"/proc/{self._worker}/schedstat").read_text().split()[0]) / 1e9

    def stop(self):
        self._master.terminate()
        self._master.wait(20)


class Relay:
    """Passes one connection after another on to a port and counts the bytes, TLS included."""

    def __init__(self, port):
        self.up = self.down = 0
        self._closing = False
        self._port = port
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def _serve(self):
        while True:
            client, _ = self._listener.accept()
            with client, socket.create_connection(("127.0.0.1", self._port)) as server:
                if self._closing:
                    return
                back = threading.Thread(target=self._pass, args=(server, client, "down"))
                back.start()
                self._pass(client, server, "up")
                back.join()

    def _pass(self, source, target, counter):
        with contextlib.suppress(OSError):
            while data := source.recv(1 << 16):
                setattr(self, counter, getattr(self, counter) + len(data))
                target.sendall(data)
            target.shutdown(socket.SHUT_WR)

    def close(self):
        self._closing = True
        socket.create_connection(("127.0.0.1", self.port)).close()
        self._thread.join(20)
        self._listener.close()


class Client:
    """A managed computer: directories of its own and the command."""

    def __init__(self, command, directory, certificate, script):
        self._directory = directory
        self._arguments = [command, "--quiet", "--customer", CUSTOMER, "--ca-file", certificate]
        self._arguments += ["--base-path", directory]
        self._script = script
        directory.mkdir(mode=0o700)

    def poll(self, port):
        at = ["--server", f"https://127.0.0.1:{port}"]
        output, *cost = execute([*self._arguments, *at, "run", self._script])
        if output != f"check {int(self._script) - 100000}: ok\n":
            fail(f"the script wrote something else: {output}")
        return cost

    def forget(self):
        """Removes the list, so that the next poll fetches it."""
        data = self._directory / "client-data" / CUSTOMER / "scripts-repository-data"
        (data / "scripts-meta.xml").unlink()

    def idle(self):
        """What a run of the command costs that asks no server."""
        return execute([*self._arguments, "list"])[1:]


def poll_costs(server, client, form, polls):
    """What polls cost that fetch the list, and such that find nothing changed."""
    # The script is here from now on, and no list of that URL: the first poll fetches it.
    client.poll(server.port(form, True))
    relay = Relay(server.port(form, True))
    client.poll(relay.port)
    whole = (relay.down, relay.up)
    client.poll(relay.port)
    relay.close()
    unchanged = (relay.down - whole[0], relay.up - whole[1])
    client.poll(server.port(form, True))
    return {
        "fetched": some_polls(server, client, form, polls, whole, client.forget),
        "unchanged": some_polls(server, client, form, polls, unchanged, lambda: None),
    }


def some_polls(server, client, form, polls, transferred, prepare):
    """Medians of polls before each of which `prepare` is called."""
    seconds, processor, memory, busy = [], [], [], []
    for _ in range(polls):
        prepare()
        before = server.busy()
        elapsed, spent, most = client.poll(server.port(form, True))
        # The working process may still be closing the connection; that is in the next difference.
        busy.append(server.busy() - before)
        seconds.append(elapsed)
        processor.append(spent)
        memory.append(most)
    return {
        "down": transferred[0],
        "up": transferred[1],
        "seconds": statistics.median(seconds),
        "client": statistics.median(processor),
        "memory": max(memory),
        "server": statistics.mean(busy),
        "spread": (min(processor), max(processor)),
    }


def load(server, form, tls, connections, seconds):
    """One run of wrk with a new connection for each request: requests per second, and the server's
    processor seconds per request."""
    url = f"http{'s' if tls else ''}://127.0.0.1:{server.port(form, tls)}{LIST_PATH}"
    headers = ["-H", "Connection: close"]
    if form != "plain":
        headers += ["-H", "Accept-Encoding: gzip"]
    before = server.busy()
    text = execute(
        ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--timeout", "30s", *headers, url]
    )[0]
    busy = server.busy() - before
    done = int(re.search(r"(\d+) requests in", text).group(1))
    if "Non-2xx" in text or done == 0:
        fail(f"wrk: {text}")
    return float(re.search(r"Requests/sec:\s*([\d.]+)", text).group(1)), busy / done


def loads(server, form, tls, connections, seconds, rounds):
    results = [load(server, form, tls, connections, seconds) for _ in range(rounds)]
    rates = [rate for rate, _ in results]
    return {
        "rate": statistics.median(rates),
        "low": min(rates),
        "high": max(rates),
        "server": statistics.median(cost for _, cost in results),
    }


def measure(count, options, directory, certificate, key):
    """Everything about a repository of `count` scripts."""
    print(f"{count} scripts ...", file=sys.stderr, flush=True)
    source, root = directory / "source", directory / "root"
    write_source(source, count)
    publish = [options.command, "--customer", CUSTOMER, "publish", source, root]
    first = execute(publish)[1:]
    again = execute(publish)[1:]
    (source / "check-000001.sh").write_text("#!/bin/sh\necho changed\n", encoding="utf-8")
    changed = execute(publish)[1:]
    shutil.rmtree(source)

    document = root / REPOSITORY / "scripts-meta.xml"
    plain = document.read_bytes()
    compressed = gzip.compress(plain, 9, mtime=0)
    beforehand = document.parent / "scripts-meta.xml.gz"
    beforehand.write_bytes(compressed)
    # A client asks for a list whole until it is a minute old.
    hour_ago = time.time() - 3600
    for path in (document, beforehand):
        os.utime(path, (hour_ago, hour_ago))

    server = Server(directory, root, certificate, key)
    try:
        client = Client(
            options.command, directory / "client", certificate, str(100000 + (count + 1) // 2)
        )
        result = {
            "count": count,
            "plain": len(plain),
            "gzip": len(compressed),
            "publish": (first, again, changed),
            "polls": {form: poll_costs(server, client, form, options.polls) for form in FORMS},
            "idle": statistics.median(client.idle()[1] for _ in range(options.polls)),
        }
        if options.only_polls:
            return result
        # So few at a time that each request is answered well within the time of a run.
        connections = 16 if len(plain) < 1 << 20 else 2
        result["loads"] = {
            (form, tls): loads(server, form, tls, connections, options.seconds, options.rounds)
            for form in FORMS
            for tls in (False, True)
        }
    finally:
        server.stop()
    return result


def make_certificate(directory):
    certificate, key = directory / "server.pem", directory / "server.key"
    execute(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
        + ["-nodes", "-days", "1", "-subj", "/CN=127.0.0.1"]
        + ["-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate]
    )
    return certificate, key


def size(count):
    if count < 10_000:
        return f"{count} B"
    if count < 10_000_000:
        return f"{count / 1000:.1f} kB"
    return f"{count / 1_000_000:.1f} MB"


def duration(seconds):
    if seconds < 0.001:
        return f"{seconds * 1e6:.0f} µs"
    if seconds < 1:
        return f"{seconds * 1000:.1f} ms"
    return f"{seconds:.1f} s"


def rounded(number):
    """Two digits: no more is known."""
    digits = max(len(str(int(number))) - 2, 0)
    return f"{int(number // 10**digits) * 10**digits:,}"


def print_table(title, head, rows):
    print(f"\n**{title}**\n")
    print("| " + " | ".join(head) + " |")
    print("|" + "|".join("---" if column == 0 else "--:" for column in range(len(head))) + "|")
    for row in rows:
        print("| " + " | ".join(str(cell) for cell in row) + " |")


def print_publishing(results):
    print_table(
        "The list, and the processor time of publishing it",
        ["scripts", "list", "list, gzip", "first publish", "nothing changed", "one changed"]
        + ["memory"],
        [
            [f"{r['count']:,}", size(r["plain"]), size(r["gzip"])]
            + [duration(cost[1]) for cost in r["publish"]]
            + [size(max(cost[2] for cost in r["publish"]))]
            for r in results
        ],
    )


def print_tables(results):
    print_publishing(results)
    print_polls(results)
    print_table(
        "The list under load, one nginx process, a new connection for each request",
        ["scripts", "sent as", "HTTP requests/s (least to most)", "processor each"]
        + ["HTTPS requests/s (least to most)", "processor each"],
        [
            [f"{r['count']:,}", form] + load_cells(r, form, False) + load_cells(r, form, True)
            for r in results
            for form in FORMS
        ],
    )
    print_computers("each poll fetches the list", "fetched", results)
    print_computers("nothing has changed", "unchanged", results)


def print_polls(results):
    print_table(
        "One poll over HTTPS",
        ["scripts", "sent as", "the list is", "to the client", "to the server", "time"]
        + ["client processor (least to most)", "client memory", "server processor"],
        [
            [f"{r['count']:,}", form, kind, size(p["down"]), size(p["up"]), duration(p["seconds"])]
            + [" ".join([duration(p["client"]), f"({' to '.join(map(duration, p['spread']))})"])]
            + [size(p["memory"]), duration(p["server"])]
            for r in results
            for form, kinds in r["polls"].items()
            for kind, p in kinds.items()
        ],
    )
    idle = statistics.median(r["idle"] for r in results)
    print(f"\nStarting the command and asking no server takes {duration(idle)} of the processor.")


def print_computers(what, kind, results):
    print_table(
        f"Computers for one server, HTTPS, one script each, {what}",
        ["scripts", "sent as", "hourly, by the link", "hourly, by one core", "daily, by the link"]
        + ["daily, by one core"],
        [
            [f"{r['count']:,}", form] + carried(r, form, kind, 3600) + carried(r, form, kind, 86400)
            for r in results
            for form in FORMS
        ],
    )


def load_cells(result, form, tls):
    measured = result["loads"][(form, tls)]
    digits = 0 if measured["rate"] >= 100 else 1
    low, rate, high = (f"{measured[key]:,.{digits}f}" for key in ("low", "rate", "high"))
    return [f"{rate} ({low} to {high})", duration(measured["server"])]


def carried(result, form, kind, period):
    poll = result["polls"][form][kind]
    by_link = LINK_BITS * USABLE / 8 * period / poll["down"]
    each = poll["server"]
    if kind == "fetched":
        # Under load the server's caches are warm; single polls cost it more.
        each = max(each, result["loads"][(form, True)]["server"])
    return [rounded(by_link), rounded(BUSY * period / each)]


def print_spread(computers):
    """Draws a delay for each computer, once in the hour, as the timer example does."""
    rows = []
    for count in computers:
        draw = random.Random(count)
        seconds = [0] * 3600
        for _ in range(count):
            seconds[draw.randrange(3600)] += 1
        rows.append([f"{count:,}", f"{count / 3600:.2f}", max(seconds)])
    print_table(
        "Polls in a second when each computer draws its moment of the hour (drawn, not measured)",
        ["computers", "on average", "in the busiest second"],
        rows,
    )


def versions(options):
    nginx = subprocess.run(["nginx", "-v"], capture_output=True, text=True, check=True).stderr
    nginx = nginx.strip().removeprefix("nginx version: ")
    if options.only_polls:
        return nginx
    # Prints its version and ends with 1.
    wrk = subprocess.run(["wrk", "-v"], capture_output=True, text=True, check=False).stdout
    return f"{nginx}, {' '.join(wrk.split()[:2])}"


def loads_text(options):
    if options.only_polls:
        return ""
    return f", {options.rounds} runs of wrk of {options.seconds} s of each kind"


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", maxsplit=1)[0])
    parser.add_argument("--command", required=True, type=pathlib.Path, help="varn-scripts")
    parser.add_argument("--counts", default="100,10000,100000", help="scripts in each repository")
    parser.add_argument("--polls", type=int, default=10, help="polls of each kind")
    parser.add_argument("--only-polls", action="store_true", help="publishing and polls, no load")
    parser.add_argument("--seconds", type=int, default=4, help="of one run of wrk")
    parser.add_argument("--rounds", type=int, default=3, help="runs of wrk of each kind")
    options = parser.parse_args()
    options.command = options.command.resolve()
    if not os.access(options.command, os.X_OK):
        parser.error(f"{options.command} is no command")
    options.counts = [int(count) for count in options.counts.split(",")]
    if not all(1 <= count <= 200_000 for count in options.counts):
        parser.error("a repository has 1 to 200000 scripts here")
    for needed in ("nginx", "openssl") if options.only_polls else ("nginx", "wrk", "openssl"):
        if shutil.which(needed) is None:
            parser.error(f"{needed} is not installed")
    return options


def main():
    options = arguments()
    began = [f"{load:.1f}" for load in os.getloadavg()]
    results = []
    with tempfile.TemporaryDirectory(prefix="varn-scale-") as work:
        certificate, key = make_certificate(pathlib.Path(work))
        for count in options.counts:
            directory = pathlib.Path(work) / str(count)
            directory.mkdir()
            results.append(measure(count, options, directory, certificate, key))
            shutil.rmtree(directory)
    ended = [f"{load:.1f}" for load in os.getloadavg()]
    print(
        f"{os.cpu_count()} cores, {platform.machine()}, Linux {platform.release().split('-')[0]}, "
        f"{versions(options)}; {options.polls} polls of each kind{loads_text(options)}; load average "
        f"{began[0]} at the beginning and {ended[0]} at the end."
    )
    if options.only_polls:
        print_publishing(results)
        print_polls(results)
        print_computers("nothing has changed", "unchanged", results)
        return
    print_tables(results)
    print_spread([1_000, 10_000, 100_000])


if __name__ == "__main__":
    main()
