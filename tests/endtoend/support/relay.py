"""A relay on 127.0.0.1 that counts what passes through it."""

import contextlib
import socket
import threading

# Far beyond what any step takes; reaching it is a failure.
_DEADLINE = 120


class Relay:
    """Passes connections on to `port` from construction until `stop`, and counts them and their
    bytes in both directions, TLS included."""

    def __init__(self, port):
        self._target = port
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
            threading.Thread(target=self._relay, args=(client,), daemon=True).start()

    def _relay(self, client):
        with client, socket.create_connection(("127.0.0.1", self._target)) as server:
            back = threading.Thread(target=self._pass, args=(server, client))
            back.start()
            self._pass(client, server)
            back.join()
        with self._changed:
            self._ended += 1
            self._changed.notify_all()

    def _pass(self, source, target):
        with contextlib.suppress(OSError):
            while data := source.recv(1 << 16):
                with self._changed:
                    self._bytes += len(data)
                target.sendall(data)
        with contextlib.suppress(OSError):
            target.shutdown(socket.SHUT_WR)
