"""A server on 127.0.0.1 that serves a directory, and scripted bytes for some of its paths."""

import contextlib
import os
import re
import socket
import ssl
import struct
import threading


class HostileServer:
    """Each connection has a thread of its own; all end with `stop`.

    `answer(path, pieces, then)` makes `path` answered with the bytes of `pieces`, which may never
    end, and after them: "close", "reset", or "stall", which keeps the connection open in silence.
    With `validators`, header lines that tell of every file of the directory, a request that asks
    with one of them is told that the file has not changed. With `certificate`, a pair of certificate
    and key file, it speaks HTTPS.
    """

    def __init__(self, root=None, certificate=None):
        self._root = root
        self.validators = ()
        self._answers = {}
        self._open = []
        self._lock = threading.Lock()
        self._stops = threading.Event()
        self._listener = socket.socket()
        self._listener.bind(("127.0.0.1", 0))
        self._listener.listen(64)
        self.connections = 0
        self.requested = []  # the paths so far
        self.not_modified = []  # those of them that were told so
        self._tls = None
        if certificate:
            self._tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self._tls.load_cert_chain(*certificate)
        self.url = f"http{'s' if certificate else ''}://127.0.0.1:{self._listener.getsockname()[1]}"
        self._threads = [threading.Thread(target=self._accept)]
        self._threads[0].start()

    def answer(self, path, pieces, then="close"):
        self._answers[path] = (pieces, then)

    def forget(self, path):
        del self._answers[path]

    def stop(self):
        self._stops.set()
        self._listener.shutdown(socket.SHUT_RDWR)
        with self._lock:
            for connection in self._open:
                try:
                    connection.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass  # it is gone already
        for thread in self._threads:
            thread.join()
        self._listener.close()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            with self._lock:
                self.connections += 1
                self._open.append(connection)
                thread = threading.Thread(target=self._serve, args=(connection,))
                self._threads.append(thread)
            thread.start()

    def _serve(self, accepted):
        connection = accepted
        with contextlib.ExitStack() as stack:
            stack.enter_context(connection)
            try:
                if self._tls:
                    connection = stack.enter_context(
                        self._tls.wrap_socket(connection, server_side=True))
                pieces, then = self._answer_to(connection)
                for piece in pieces:
                    connection.sendall(piece)
                if self._tls and then == "close":
                    connection.unwrap()  # the end that TLS can tell from a cut
                if then == "stall":
                    self._stops.wait()
                if then == "reset":
                    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                          struct.pack("ii", 1, 0))
            except OSError:
                pass  # the client has had enough
            with self._lock:
                self._open.remove(accepted)

    def _answer_to(self, connection):
        head = b""
        while b"\r\n\r\n" not in head:
            piece = connection.recv(65536)
            if not piece:
                return [], "close"
            head += piece
        path = head.split()[1].decode()
        self.requested.append(path)
        if path in self._answers:
            return self._answers[path]
        conditions = re.findall(r"\r\nIf-[A-Za-z-]+: (.*)\r\n", head.decode())
        if any(line.endswith(": " + known) for line in self.validators for known in conditions):
            self.not_modified.append(path)
            return [answer("304 Not Modified", b"", *self.validators)], "close"
        try:
            with open(self._root + path, "rb") as file:
                return [answer("200 OK", file.read(), *self.validators)], "close"
        except (OSError, TypeError):
            return [answer("404 Not Found", b"")], "close"


def answer(status, body, *headers):
    """A whole answer with its length, after which the connection ends."""
    lines = [f"HTTP/1.1 {status}", f"Content-Length: {len(body)}", "Connection: close", *headers]
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body
