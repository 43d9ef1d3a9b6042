"""A relay on 127.0.0.1 that counts what passes through it."""

import contextlib
import dataclasses
import socket
import struct
import threading

# Far beyond what any step takes; reaching it is a failure.
_DEADLINE = 120


@dataclasses.dataclass
class Reset:
    """A connection that is reset after so many bytes of the server's."""

    after: int


class Relay:
    """Passes connections on to `port` from construction until `stop`, and counts them and their
    bytes in both directions, TLS included.

    The first connections go where `first` says, one after the other: to another port, or, with a
    `Reset`, to the same one until so many bytes of the answers have passed."""

    def __init__(self, port, first=()):
        self._target = port
        self._first = list(first)
        self._changed = threading.Condition()
        self._connections = 0
        self._ended = 0
        self._bytes = 0
        self._stopping = False
        self._listening = socket.create_server(("127.0.0.1", 0))
        self.port = self._listening.getsockname()[1]
        self._thread = threading.Thread(target=self._serve)
        self._thread.start()

    def totals(self):
        """Connections and bytes so far, once all connections have ended."""
        with self._changed:
            ended = self._changed.wait_for(lambda: self._ended == self._connections, _DEADLINE)
            if not ended:
                raise TimeoutError("a connection through the relay does not end")
            return self._connections, self._bytes

    def stop(self):
        self._stopping = True
        socket.create_connection(("127.0.0.1", self.port)).close()
        self._thread.join(_DEADLINE)
        self._listening.close()

    def _serve(self):
        while True:
            client, _ = self._listening.accept()
            if self._stopping:
                client.close()
                return
            with self._changed:
                self._connections += 1
            place = self._first.pop(0) if self._first else self._target
            threading.Thread(target=self._relay, args=(client, place), daemon=True).start()

    def _relay(self, client, place):
        most = None
        if isinstance(place, Reset):
            place, most = self._target, place.after
        with client, socket.create_connection(("127.0.0.1", place)) as server:
            back = threading.Thread(target=self._pass, args=(server, client, most))
            back.start()
            self._pass(client, server)
            back.join()
        with self._changed:
            self._ended += 1
            self._changed.notify_all()

    def _pass(self, source, target, most=None):
        passed = 0
        with contextlib.suppress(OSError):
            while data := source.recv(1 << 16):
                data = data[:most - passed] if most is not None else data
                passed += len(data)
                with self._changed:
                    self._bytes += len(data)
                target.sendall(data)
                if passed == most:
                    target.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                      struct.pack("ii", 1, 0))
                    # Ends the other direction, and with it the connection.
                    source.shutdown(socket.SHUT_RDWR)
                    target.shutdown(socket.SHUT_RD)
                    return
        with contextlib.suppress(OSError):
            target.shutdown(socket.SHUT_WR)
