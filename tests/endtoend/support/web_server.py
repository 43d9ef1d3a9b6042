"""nginx on 127.0.0.1, with its configuration, logs and process in a directory of the test."""

import os
import shutil
import socket
import ssl
import subprocess
import urllib.request

_MARKER = "/end-of-requests"


class WebServer:
    """Serves the directory `root` from construction until `stop`.

    The listening socket is made here and inherited by nginx, so that no port is guessed and the
    first request may come at once. One process serves everything in turn.
    """

    def __init__(self, directory, root, certificate=None, extra=""):
        """With `certificate`, a pair of certificate and key file, speaks HTTPS. `extra` is added to
        the configuration's server block."""
        os.makedirs(directory)
        self._log = os.path.join(directory, "access.log")
        self._agents = os.path.join(directory, "agents.log")
        self._errors = os.path.join(directory, "error.log")
        self._secure = certificate is not None
        with socket.socket() as listening:
            listening.bind(("127.0.0.1", 0))
            listening.listen(64)
            self.port = listening.getsockname()[1]
            config = os.path.join(directory, "nginx.conf")
            with open(config, "w", encoding="utf-8") as file:
                file.write(self._configuration(directory, root, certificate, extra))
            program = shutil.which("nginx") or "/usr/sbin/nginx"
            self._process = subprocess.Popen(
                [program, "-p", directory, "-c", config, "-e", self._errors],
                pass_fds=[listening.fileno()], stdin=subprocess.DEVNULL,
                env={"NGINX": f"{listening.fileno()};", "PATH": os.environ.get("PATH", "")})

    @property
    def url(self):
        return f"{'https' if self._secure else 'http'}://127.0.0.1:{self.port}"

    def requests(self):
        """The requests so far, as texts such as "GET /a.xml 200"."""
        # Everything that was answered before this request has been logged when it is answered.
        context = ssl.create_default_context()
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        opener = urllib.request.build_opener(
            urllib.request.ProxyHandler({}), urllib.request.HTTPSHandler(context=context))
        with opener.open(self.url + _MARKER, timeout=60) as answer:
            answer.read()
        with open(self._log, encoding="utf-8") as log:
            return [line.rstrip("\n") for line in log if _MARKER not in line]

    def paths(self):
        """The requested paths so far."""
        return [request.split()[1] for request in self.requests()]

    def agents(self):
        """How the clients of the requests so far have named themselves."""
        self.requests()
        with open(self._agents, encoding="utf-8") as log:
            return [line.rstrip("\n").split(" ", 1)[1] for line in log if _MARKER not in line]

    def stop(self):
        self._process.terminate()
        try:
            self._process.wait(timeout=30)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait(timeout=30)

    def _configuration(self, directory, root, certificate, extra):
        listen = f"127.0.0.1:{self.port}"
        tls = ""
        if certificate:
            listen += " ssl"
            tls = f"ssl_certificate {certificate[0]}; ssl_certificate_key {certificate[1]};"
        places = " ".join(
            f"{name}_temp_path {directory}/{name};"
            for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        # Workers of a server that root starts run as another user, who can't read the test's files.
        user = "user root;\n" if os.geteuid() == 0 else ""
        return f"""
daemon off;
{user}worker_processes 1;
pid {directory}/nginx.pid;
error_log {self._errors};
events {{ worker_connections 64; }}
http {{
  {places}
  log_format plain '$request_method $request_uri $status';
  log_format agents '$request_uri $http_user_agent';
  access_log {self._log} plain;
  access_log {self._agents} agents;
  server {{
    listen {listen};
    {tls}
    root {root};
    location = {_MARKER} {{ return 200; }}
    {extra}
  }}
}}
"""
