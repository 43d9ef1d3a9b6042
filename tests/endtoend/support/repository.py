"""A repository as a server keeps it: the list of scripts, one data document per script, the files.

The tree can be served by a web server or through file://.
"""

import dataclasses
import hashlib
import os
from xml.sax.saxutils import escape

CUSTOMER = "7"
DIRECTORY = f"/client-data/{CUSTOMER}/scriptrepo"
LIST_PATH = f"{DIRECTORY}/scripts-meta.xml"


@dataclasses.dataclass
class Script:
    script_id: str
    file_name: str
    text: str
    arguments: str = ""
    codes: str = "0"
    version: str = "1"
    # The published checksum; that of the text when absent.
    checksum: str | None = None
    checksum_type: str = "SHA-256"
    # Whether the list says where the data document is.
    mapped: bool = True

    @property
    def document_path(self):
        """The server path of the data document."""
        return f"{DIRECTORY}/{self.script_id}.xml"

    @property
    def file_path(self):
        """The server path of the script file."""
        return f"{DIRECTORY}/files/{self.file_name}"

    @property
    def location(self):
        """The server path in the server's own notation."""
        return "..\\webapps\\Quillandermoor" + self.file_path.replace("/", "\\")


def _elements(values):
    return "".join(f"<{key}>{escape(value)}</{key}>" for key, value in values.items())


def _list_entry(script):
    values = {
        "script_name": script.file_name,
        "description": "",
        "script_id": script.script_id,
        "script_file": script.file_name,
        "file_id": "f" + script.script_id,
        "customer_id": CUSTOMER,
        "os_platform": "Mac",
        "modified_time": script.version,
    }
    mapping = (f"<ScriptPathMapping><filepath>{escape(script.document_path)}</filepath>"
               "</ScriptPathMapping>" if script.mapped else "")
    return f"<ScriptRepo>{_elements(values)}{mapping}</ScriptRepo>"


def _data_document(script):
    checksum = script.checksum or hashlib.sha256(script.text.encode()).hexdigest()
    definition = {
        "script_id": script.script_id,
        "script_name": script.file_name,
        "file_id": "f" + script.script_id,
        "db_updated_time": "0",
        "customer_id": CUSTOMER,
        "script_type": "1",
        "description": "",
        "os_platform": "Mac",
        "created_time": "0",
        "script_file": script.file_name,
        "script_args": script.arguments,
        "modified_time": script.version,
        "script_mul_exit_code": script.codes,
    }
    checksums = {
        "download_url_checksum": "",
        "checksum_id": "c1",
        "checksum_type": script.checksum_type,
        "download_url": "",
        "checksum_val": checksum,
    }
    file = {
        "file_status_remarks": "",
        "content_type": "text/plain",
        "file_id": "f" + script.script_id,
        "module_name": "scripts",
        "customer_id": CUSTOMER,
        "content_length": str(len(script.text.encode())),
        "file_system_location": script.location,
        "file_name": script.file_name,
        "expiry_time": "0",
        "file_status": "1",
    }
    return (
        '<?xml version="1.0" encoding="UTF-8"?>\n<script>'
        f"<ScriptRepo>{_elements(definition)}</ScriptRepo>"
        f"<ChecksumValues>{_elements(checksums)}</ChecksumValues>"
        f"<VyFiles>{_elements(file)}<CSToVyFiles><checksum_id>c1</checksum_id></CSToVyFiles></VyFiles>"
        "</script>\n"
    )


class Repository:
    """The served tree under `root`. Every change is written at once."""

    def __init__(self, root):
        self.root = root
        self._scripts = {}
        self._more = []
        self._write_list()

    def put(self, script):
        """Publishes the script, in place of one with the same ID."""
        self._scripts[script.script_id] = script
        self.write(script.document_path, _data_document(script))
        self.write(script.file_path, script.text)
        self._write_list()

    def drop(self, script_id):
        """Takes the script off the list and removes its files."""
        script = self._scripts.pop(script_id)
        self.remove(script.document_path)
        self.remove(script.file_path)
        self._write_list()

    def list_more(self, count):
        """Lists that many scripts more, without their documents and files."""
        self._more = [Script(f"more-{number}", f"more-{number}.sh", "") for number in range(count)]
        self._write_list()

    def write(self, server_path, text):
        path = self.root + server_path
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8", newline="") as file:
            file.write(text)

    def remove(self, server_path):
        os.remove(self.root + server_path)

    def _write_list(self):
        entries = "".join(_list_entry(script) for script in [*self._scripts.values(), *self._more])
        self.write(
            LIST_PATH,
            f'<?xml version="1.0" encoding="UTF-8"?>\n<scripts-meta>{entries}</scripts-meta>\n',
        )
