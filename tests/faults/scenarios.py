"""The requests that faults are put into, each with what may and what must be true afterwards."""

import os

from support.signing import Key

from repository import Computer, Server, read


class Scenario:
    """One request on a prepared computer.

    `allowed` is what the request may have run when it was disturbed; `expected` is what the next,
    undisturbed request must run. With `rolls_back` the server has the version before again by then.
    With `signed` the computer trusts a key, by which the list is signed.
    """

    def __init__(self, name, arguments, allowed, expected, rolls_back=False, signed=False):
        self.name = name
        self.arguments = arguments
        self.allowed = allowed
        self.expected = expected
        self.rolls_back = rolls_back
        self.signed = signed
        self.states = []

    def __repr__(self):
        return self.name


SCENARIOS = (
    Scenario("fresh", ["run", "42"], {"1"}, "1"),
    Scenario("up-to-date", ["run", "42"], {"1"}, "1"),
    Scenario("new-version", ["run", "42"], {"2"}, "2"),
    Scenario("rollback", ["run", "42"], {"2"}, "1", rolls_back=True),
    Scenario("re-download", ["run", "42"], {"1"}, "1"),
    Scenario("removal", ["prune"], set(), None),
    Scenario("signed", ["run", "42"], {"2"}, "2", signed=True),
)

TAMPERED = b"echo begin-evil >> '%s'\n"


def prepare(scenario, directory, run):
    """Lays out server and computer for the scenario below `directory` and keeps a snapshot of the
    computer. `run(computer, server, arguments)` makes an undisturbed request."""
    marker = os.path.join(directory, "marker")
    server = Server(os.path.join(directory, "server"), marker, Key() if scenario.signed else None)
    computer = Computer(os.path.join(directory, "computer"))
    os.makedirs(computer.directory)
    server.publish("1")
    states = [server.files()]
    if scenario.name != "fresh":
        run(computer, server, ["run", "42"])
    if scenario.name in ("new-version", "rollback", "signed"):
        server.publish("2")
        states.append(server.files())
    if scenario.name == "re-download":
        tampered = TAMPERED % marker.encode()
        with open(computer.path("clean.sh"), "wb") as file:
            file.write(tampered)
        states.append({"clean.sh": tampered})
    if scenario.name == "removal":
        server.drop_all()
        states.append(server.files())
    snapshot = os.path.join(directory, "snapshot")
    computer.snapshot(snapshot)
    return server, computer, snapshot, marker, states


def runs_in(marker):
    """The versions that began and that ended, from the marker file."""
    lines = (read(marker) or b"").decode(errors="replace").split()
    began = [line[len("begin-"):] for line in lines if line.startswith("begin-")]
    ended = [line[len("end-"):] for line in lines if line.startswith("end-")]
    return began, ended
