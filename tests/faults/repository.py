"""A small repository, a computer that uses it, and what may be true of the two after a fault."""

import hashlib
import os
import shutil
import sqlite3
import stat
import time

from support.signing import comment

CUSTOMER = "7"
SCRIPT_ID = "42"
# What a request that went well leaves none of: downloads, and marks of documents.
TEMPORARY_PREFIXES = (".varn-download-", "varn-scripts.unrecorded-")


def script_text(version, marker):
    """A script that tells which version ran, and whether it ran to its end."""
    return (
        f"echo begin-{version} >> '{marker}'\n"
        + f"# {version} {'padding ' * 400}\n"
        + f"echo output-{version}\n"
        + f"echo end-{version} >> '{marker}'\n"
    )


class Server:
    """The server's tree in a directory, with one script in one version. With a key the list is
    signed, and what it names is named by its content."""

    def __init__(self, directory, marker, key=None):
        self.directory = directory
        self.marker = marker
        self.key = key
        self._serial = 0
        # Published long enough ago for a client to keep what says that nothing has changed, and for
        # thousands of versions a minute apart.
        self._published = int(time.time()) - 30 * 86400

    def publish(self, version):
        repo = os.path.join(self.directory, "client-data", CUSTOMER, "scriptrepo")
        os.makedirs(repo, exist_ok=True)
        self._published += 60
        script = script_text(version, self.marker).encode()
        digest = hashlib.sha256(script).hexdigest()
        script_name = f"{digest}.sh" if self.key else "clean.sh"
        document = self._document(version, digest, script_name).encode()
        document_name = f"{hashlib.sha256(document).hexdigest()}.xml" if self.key else "42.xml"
        content = self._list(version, document_name).encode()
        for name, bytes_of in ((script_name, script), (document_name, document)):
            self._write(os.path.join(repo, name), bytes_of)
            # Its name on the computer.
            self._write(os.path.join(repo, "clean.sh" if bytes_of is script else "42.xml"), bytes_of)
        if self.key:
            self._sign(repo, content)
        self._write(os.path.join(repo, "scripts-meta.xml"), content)

    def _sign(self, repo, content):
        self._serial += 1
        os.makedirs(os.path.join(repo, "signatures"), exist_ok=True)
        name = hashlib.sha256(content).hexdigest() + ".minisig"
        signature = self.key.sign(content, comment(self._serial, customer=CUSTOMER))
        self._write(os.path.join(repo, "signatures", name), signature.encode())

    def drop_all(self):
        self._published += 60
        repo = os.path.join(self.directory, "client-data", CUSTOMER, "scriptrepo")
        self._write(os.path.join(repo, "scripts-meta.xml"), b"<scripts-meta/>\n")

    def files(self):
        """The content of the three files, by the name they have on the computer."""
        repo = os.path.join(self.directory, "client-data", CUSTOMER, "scriptrepo")
        names = ("scripts-meta.xml", "42.xml", "clean.sh")
        return {name: read(os.path.join(repo, name)) for name in names}

    def _write(self, path, content):
        with open(path, "wb") as file:
            file.write(content)
        os.utime(path, (self._published, self._published))

    @staticmethod
    def _list(version, document_name):
        return (
            "<scripts-meta><ScriptRepo><script_id>42</script_id><file_id>f</file_id>"
            f"<modified_time>{version}</modified_time><ScriptPathMapping>"
            f"<filepath>/client-data/{CUSTOMER}/scriptrepo/{document_name}</filepath>"
            "</ScriptPathMapping></ScriptRepo></scripts-meta>\n"
        )

    @staticmethod
    def _document(version, digest, script_name):
        def elements(keys, values):
            return "".join(f"<{key}>{values.get(key, '')}</{key}>" for key in keys.split())

        repo = elements(
            "script_id script_name file_id db_updated_time customer_id script_type description"
            " os_platform created_time script_file script_args modified_time script_mul_exit_code",
            {"script_id": "42", "script_name": "clean.sh", "file_id": "f", "script_mul_exit_code": "0",
             "modified_time": version},
        )
        checksum = elements(
            "download_url_checksum checksum_id checksum_type download_url checksum_val",
            {"checksum_id": "c", "checksum_type": "SHA-256", "checksum_val": digest},
        )
        location = f"..\\webapps\\Quillandermoor\\client-data\\{CUSTOMER}\\scriptrepo\\{script_name}"
        file = elements(
            "file_status_remarks content_type file_id module_name customer_id content_length"
            " file_system_location file_name expiry_time file_status",
            {"file_id": "f", "file_system_location": location, "file_name": "clean.sh"},
        )
        return (
            f"<script><ScriptRepo>{repo}</ScriptRepo><ChecksumValues>{checksum}</ChecksumValues>"
            f"<VyFiles>{file}<CSToVyFiles><checksum_id>c</checksum_id></CSToVyFiles></VyFiles>"
            "</script>\n"
        )


def read(path):
    """The file's bytes, or None without such a file."""
    try:
        with open(path, "rb") as file:
            return file.read()
    except FileNotFoundError:
        return None


class Computer:
    """The agent's directories on the managed computer."""

    def __init__(self, directory):
        self.directory = directory

    @property
    def base(self):
        return os.path.join(self.directory, "base")

    @property
    def store(self):
        return os.path.join(self.base, "data", CUSTOMER, "Configuration-Framework",
                            "ScriptRepository")

    def path(self, name):
        customer = os.path.join(self.base, "client-data", CUSTOMER)
        if name == "clean.sh":
            return os.path.join(customer, "scripts-repository", name)
        return os.path.join(customer, "scripts-repository-data", name)

    def restore(self, snapshot):
        shutil.rmtree(self.base, ignore_errors=True)
        if os.path.isdir(snapshot):
            shutil.copytree(snapshot, self.base, symlinks=True)

    def snapshot(self, to):
        shutil.rmtree(to, ignore_errors=True)
        if os.path.isdir(self.base):
            shutil.copytree(self.base, to, symlinks=True)

    def temporary_files(self):
        found = []
        for directory, _, names in os.walk(self.base):
            found += [os.path.join(directory, n) for n in names if n.startswith(TEMPORARY_PREFIXES)]
        return found

    def problems(self, states):
        """What is torn or too open. `states` are the contents that a file may wholly have."""
        problems = []
        for name in ("scripts-meta.xml", "42.xml", "clean.sh"):
            content = read(self.path(name))
            if content is not None and content not in [state.get(name) for state in states]:
                problems.append(f"{name} is torn ({len(content)} bytes)")
        problems += self._store_problems()
        for directory, directories, names in os.walk(self.base):
            for name in directories + names:
                path = os.path.join(directory, name)
                if os.lstat(path).st_mode & (stat.S_IRWXG | stat.S_IRWXO):
                    problems.append(f"{path} is open to others")
        return problems

    def _store_problems(self):
        if not os.path.exists(self.store):
            return []
        connection = sqlite3.connect(self.store)
        try:
            verdict = connection.execute("PRAGMA integrity_check").fetchone()[0]
            return [] if verdict == "ok" else [f"store: {verdict}"]
        except sqlite3.DatabaseError as error:
            return [f"store: {error}"]
        finally:
            connection.close()
