"""The base of the publishing tests: a source directory, an output directory, and looks at trees."""

import hashlib
import os
import stat
import xml.etree.ElementTree as ElementTree

from support.case import CommandCase
from support.repository import CUSTOMER, DIRECTORY, LIST_PATH
from support.web_server import WebServer

LOCK_NAME = ".publishing.lock"


def toml(text):
    """The text as a TOML string."""
    escapes = {"\\": "\\\\", '"': '\\"', "\n": "\\n", "\t": "\\t", "\r": "\\r"}
    return '"' + "".join(escapes.get(c, c) for c in text) + '"'


class PublishCase(CommandCase):
    def setUp(self):
        super().setUp()
        self.source = self.path("source")
        self.output = self.path("output")
        os.mkdir(self.source)
        self.server = "file://" + self.output
        self._scripts = {}

    # The source.

    def write(self, name, content):
        mode = "wb" if isinstance(content, bytes) else "w"
        with open(os.path.join(self.source, name), mode) as file:
            file.write(content)

    def write_script(self, script_id="42", file="job.sh", text="echo done\n", **keys):
        """Puts the script and its entry of the manifest; in place of one with the same ID."""
        if script_id in self._scripts:
            self._remove_file(script_id)
        self._scripts[script_id] = {"id": script_id, "file": file, **keys}
        self.write(file, text)
        self._write_manifest()

    def drop_script(self, script_id):
        self._remove_file(script_id)
        del self._scripts[script_id]
        self._write_manifest()

    def _remove_file(self, script_id):
        path = os.path.join(self.source, self._scripts[script_id]["file"])
        if os.path.exists(path):
            os.remove(path)

    def _write_manifest(self):
        tables = ("".join(f"{key} = {toml(value)}\n" for key, value in script.items())
                  for script in self._scripts.values())
        self.write("scripts.toml", "\n".join("[[script]]\n" + table for table in tables))

    # The command.

    def publish(self, *options, **values):
        return self.run_command("publish", *options, self.source, self.output,
                                settings=["--customer", CUSTOMER], **values)

    def must_publish(self, *options):
        result = self.publish(*options)
        self.assertEqual((result.status, result.error), (0, ""))
        return result.output

    def serve_output(self):
        server = WebServer(self.path("web"), self.output)
        self.addCleanup(server.stop)
        self.server = server.url

    # The output.

    @property
    def list_path(self):
        return self.output + LIST_PATH

    def tree(self, root=None):
        """What the tree is, as far as anybody could notice a change: kinds, modes, times, bytes."""
        root = root or self.output
        found = {}
        for directory, directories, files in os.walk(root):
            for name in directories + files + ["."]:
                path = os.path.normpath(os.path.join(directory, name))
                status = os.lstat(path)
                content = os.readlink(path) if stat.S_ISLNK(status.st_mode) else None
                if stat.S_ISREG(status.st_mode):
                    with open(path, "rb") as file:
                        content = hashlib.sha256(file.read()).hexdigest()
                found[os.path.relpath(path, root)] = (
                    status.st_mode, status.st_ino, status.st_mtime_ns, status.st_ctime_ns, content)
        return found

    def files(self):
        """The names of all files below the repository's directory, but that of the lock."""
        root = self.output + DIRECTORY
        return {os.path.relpath(os.path.join(directory, name), root)
                for directory, _, names in os.walk(root) for name in names} - {LOCK_NAME}

    def content(self):
        return self.files() - {"scripts-meta.xml"}

    def entries(self):
        """The list's entries by script ID, each a mapping of its values."""
        with open(self.list_path, "rb") as file:
            root = ElementTree.fromstring(file.read())
        self.assertEqual(root.tag, "scripts-meta")
        return {entry.findtext("script_id"): {
            **{child.tag: child.text or "" for child in entry},
            "filepath": entry.findtext("ScriptPathMapping/filepath")} for entry in root}

    def version(self, script_id="42"):
        return self.entries()[script_id]["modified_time"]

    def document(self, script_id="42"):
        """The script's data document: definition, checksum and file, each a mapping."""
        with open(self.output + self.entries()[script_id]["filepath"], "rb") as file:
            root = ElementTree.fromstring(file.read())
        return {part: {child.tag: child.text or "" for child in root.find(part)}
                for part in ("ScriptRepo", "ChecksumValues", "VyFiles")}
