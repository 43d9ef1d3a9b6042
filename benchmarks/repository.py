"""The repositories that the bench measures with, and a web server for them."""

import contextlib
import hashlib
import os
import pathlib
import shutil
import socket
import subprocess
import time

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


class Server:
    """nginx over a directory, on a free port of the loopback interface."""

    def __init__(self, directory, root):
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
            f"events {{ worker_connections 64; }}\nhttp {{\n  access_log off; sendfile on;\n"
            f"{temporary}  server {{ listen 127.0.0.1:{self.port}; root {root}; }}\n}}\n",
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

    @staticmethod
    def missing():
        return None if shutil.which("nginx") else "nginx is not installed"

    def stop(self):
        self._process.terminate()
        self._process.wait(20)
