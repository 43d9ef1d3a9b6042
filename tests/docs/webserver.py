"""nginx with the server block of a page, on a socket in the test's directory."""

import http.client
import pathlib
import socket
import subprocess
import time

DEADLINE = 30.0


class _Connection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=DEADLINE)
        self._path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(DEADLINE)
        self.sock.connect(self._path)


class Server:
    """Serves `directory`/www as the block says that it serves /srv/www."""

    def __init__(self, nginx, block, directory):
        self._socket = f"{directory}/socket"
        block = block.replace("/srv/www", f"{directory}/www")
        block = block.replace("listen 80;", f"listen unix:{self._socket};")
        places = "".join(f"{kind}_temp_path {directory}/{kind};\n"
                         for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        configuration = pathlib.Path(directory, "nginx.conf")
        configuration.write_text(
            f"daemon off;\nmaster_process off;\npid {directory}/pid;\nevents {{}}\n"
            f"http {{\naccess_log off;\n{places}{block}}}\n")
        self._command = [nginx, "-e", "stderr", "-p", directory, "-c", configuration]

    def __enter__(self):
        self._process = subprocess.Popen(self._command, stderr=subprocess.PIPE)
        deadline = time.monotonic() + DEADLINE
        while True:
            try:
                self.get("/")
                return self
            except OSError as error:
                if self._process.poll() is not None or time.monotonic() > deadline:
                    self._process.kill()
                    reason = self._process.communicate()[1].decode()
                    raise AssertionError(f"nginx does not answer: {reason}") from error

    def __exit__(self, *unused):
        self._process.terminate()
        self._process.communicate(timeout=DEADLINE)

    def get(self, path):
        """The answer's status and its Cache-Control."""
        connection = _Connection(self._socket)
        try:
            connection.request("GET", path)
            answer = connection.getresponse()
            answer.read()
            return answer.status, answer.getheader("Cache-Control")
        finally:
            connection.close()
