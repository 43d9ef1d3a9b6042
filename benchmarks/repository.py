"""The repositories that the bench measures with, and a web server for them."""

import contextlib
import hashlib
import os
import pathlib
import shutil
import socket
import subprocess
import time
import urllib.request

CUSTOMER = "7"
REPOSITORY = pathlib.Path("client-data") / CUSTOMER / "scriptrepo"
SCRIPT = b'#!/bin/sh\necho "script $0 is here"\n'

# About 630 bytes, as those of a server that describes its scripts are.
ENTRY = """  <ScriptRepo>
    <script_name>check-{0:07}.sh</script_name>
    <description>Looks after setting {0} &amp; reports what it finds, in one line of text.</description>
    <script_id>{0}</script_id>
    <script_file>check-{0:07}.sh</script_file>
    <db_updated_time>1795248929145</db_updated_time>
    <file_id>2{0}</file_id>
    <customer_id>7</customer_id>
    <os_platform>Linux</os_platform>
    <modified_time>1795248929145</modified_time>
    <created_time>1731916800000</created_time>
    <enc_type>none</enc_type>
    <ScriptPathMapping>
      <filepath>/client-data/7/scriptrepo/data/{0}.xml</filepath>
    </ScriptPathMapping>
  </ScriptRepo>
"""

DOCUMENT = """<?xml version="1.0" encoding="UTF-8"?>
<script>
  <ScriptRepo>
    <script_id>{0}</script_id>
    <script_name>check-{0:07}.sh</script_name>
    <file_id>2{0}</file_id>
    <db_updated_time>1795248929145</db_updated_time>
    <customer_id>7</customer_id>
    <script_type>sh</script_type>
    <description>Looks after a setting.</description>
    <os_platform>Linux</os_platform>
    <created_time>1731916800000</created_time>
    <script_file>check-{0:07}.sh</script_file>
    <script_args></script_args>
    <modified_time>1795248929145</modified_time>
    <script_mul_exit_code>0</script_mul_exit_code>
  </ScriptRepo>
  <ChecksumValues>
    <download_url_checksum/>
    <checksum_id>3{0}</checksum_id>
    <checksum_type>sha256</checksum_type>
    <download_url>/client-data/7/scriptrepo/files/check-{0:07}.sh</download_url>
    <checksum_val>{1}</checksum_val>
  </ChecksumValues>
  <VyFiles>
    <file_status_remarks/>
    <content_type>text/x-shellscript</content_type>
    <file_id>2{0}</file_id>
    <module_name>script-repository</module_name>
    <customer_id>7</customer_id>
    <content_length>{2}</content_length>
    <file_system_location>..\\webapps\\Quillandermoor\\client-data\\7\\scriptrepo\\files\\check-{0:07}.sh</file_system_location>
    <file_name>check-{0:07}.sh</file_name>
    <expiry_time/>
    <file_status>available</file_status>
    <CSToVyFiles>
      <checksum_id>3{0}</checksum_id>
    </CSToVyFiles>
  </VyFiles>
</script>
"""


def write_list(path, count):
    """A list of `count` entries; the result is its size in bytes."""
    path.parent.mkdir(parents=True, exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write('<?xml version="1.0" encoding="UTF-8"?>\n<scripts-meta>\n')
        for first in range(0, count, 1000):
            numbers = range(first + 1, min(first + 1000, count) + 1)
            file.write("".join(ENTRY.format(number) for number in numbers))
        file.write("</scripts-meta>\n")
    return path.stat().st_size


def checksum(content=SCRIPT):
    return hashlib.sha256(content).hexdigest()


def script_name(script):
    return f"check-{script:07}.sh"


def write_repository(root, count, script, content=SCRIPT):
    """A server's tree with `count` entries, of which one has its document and its file."""
    write_list(root / REPOSITORY / "scripts-meta.xml", count)
    for name, content in (
        (f"data/{script}.xml", DOCUMENT.format(script, checksum(content), len(content)).encode()),
        (f"files/{script_name(script)}", content),
    ):
        path = root / REPOSITORY / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    # As a published tree is: a client asks conditionally only for files that have settled.
    an_hour_ago = time.time() - 3600
    for path in root.rglob("*.*"):
        os.utime(path, (an_hour_ago, an_hour_ago))


class SignedTree:
    """A published tree of `count` scripts whose list is signed with the key `key`, made by the
    command. The one whose ID is `count` is another one after each change."""

    def __init__(self, command, directory, count):
        self.root = directory / "root"
        self.key = directory / "key"
        self._command = command
        self._source = directory / "source"
        self._count = count
        self._changes = 0
        self._source.mkdir(parents=True)
        self._run("key", "generate", self.key, "--no-passphrase")
        manifest = ""
        for number in range(1, count + 1):
            (self._source / script_name(number)).write_bytes(SCRIPT)
            manifest += f'[[script]]\nid = "{number}"\nfile = "{script_name(number)}"\n'
        (self._source / "scripts.toml").write_text(manifest, encoding="ascii")
        self.change()

    def change(self):
        self._changes += 1
        changed = self._source / script_name(self._count)
        changed.write_bytes(SCRIPT + f"# {self._changes}\n".encode())
        customer = ("--customer", CUSTOMER)
        self._run(*customer, "publish", self._source, self.root, "--sign-with", self.key)
        # A time of its own for each list, and one that has settled.
        moment = time.time() - 7200 + self._changes
        os.utime(self.root / REPOSITORY / "scripts-meta.xml", (moment, moment))

    def _run(self, *arguments):
        environment = {name: v for name, v in os.environ.items() if not name.startswith("VARN_")}
        subprocess.run(
            [str(self._command), *map(str, arguments)],
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            check=True,
        )


class Server:
    """nginx over a directory, on a free port of the loopback interface. With `counts` it keeps
    account of the requests."""

    MARK = "/mark-in-the-log"

    def __init__(self, directory, root, counts=False):
        self._log = directory / "requests"
        self._marks = 0
        log = f"log_format path $uri; access_log {self._log} path" if counts else "access_log off"
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        directory.mkdir()
        config = directory / "nginx.conf"
        user = "user root;" if os.geteuid() == 0 else ""
        temporary = "".join(
            f"  {name}_temp_path {directory}/{name};\n"
            for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
        )
        config.write_text(
            f"{user} daemon off; worker_processes 1; pid {directory}/pid; error_log stderr error;\n"
            f"events {{ worker_connections 64; }}\nhttp {{\n  {log}; sendfile on;\n"
            f"{temporary}  server {{ listen 127.0.0.1:{self.port}; root {root};"
            f" location = {self.MARK} {{ return 204; }} }}\n}}\n",
            encoding="utf-8",
        )
        self._process = subprocess.Popen(
            ["nginx", "-p", str(directory), "-c", str(config), "-e", "stderr"],
            stdin=subprocess.DEVNULL,
        )
        self.url = f"http://127.0.0.1:{self.port}"
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and self._process.poll() is None:
            with contextlib.suppress(OSError):
                socket.create_connection(("127.0.0.1", self.port), 1).close()
                return
            time.sleep(0.02)
        self.stop()
        raise RuntimeError("nginx did not start")

    def requests(self):
        """How many there were so far, but for those of this function."""
        direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        direct.open(self.url + self.MARK).close()
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline:
            paths = self._log.read_text(encoding="utf-8").splitlines()
            if paths.count(self.MARK) > self._marks:
                self._marks = paths.count(self.MARK)
                return len(paths) - self._marks
            time.sleep(0.01)
        raise RuntimeError("nginx wrote no log")

    @staticmethod
    def missing():
        return None if shutil.which("nginx") else "nginx is not installed"

    def stop(self):
        self._process.terminate()
        self._process.wait(20)
