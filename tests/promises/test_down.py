"""Never down: whatever lies on the disk or stands in a document, a request ends by itself."""

import contextlib
import os
import resource
import shutil
import socket
import sqlite3
import subprocess

from promise_case import MEBIBYTE, OwnFileScript, PromiseCase
from support.repository import CUSTOMER

STATUSES = {0, 1, 2, 3}


class LocalFilesTest(PromiseCase):
    """Things that stand where a request expects its own files."""

    KINDS = ("directory", "full directory", "fifo", "socket", "link to /dev/null",
             "link to /dev/zero", "link to itself", "dangling link", "empty file", "random bytes",
             "large file", "file without rights")

    def place(self, kind, path):
        """Puts a thing of the kind at the path."""
        if kind == "directory":
            os.mkdir(path)
        elif kind == "full directory":
            self.write(path + "/file", b"x")
        elif kind == "fifo":
            os.mkfifo(path)
        elif kind == "socket":
            # By a short name: the path of a socket is limited.
            listener = socket.socket(socket.AF_UNIX)
            self.addCleanup(listener.close)
            short = self.path("s")
            listener.bind(short)
            os.rename(short, path)
        elif kind == "link to /dev/null":
            os.symlink("/dev/null", path)
        elif kind == "link to /dev/zero":
            os.symlink("/dev/zero", path)
        elif kind == "link to itself":
            os.symlink(os.path.basename(path), path)
        elif kind == "dangling link":
            os.symlink(self.path("missing"), path)
        else:
            contents = {"random bytes": os.urandom(100_000), "large file": b"x" * 64 * MEBIBYTE}
            self.write(path, contents.get(kind, b""))
            if kind == "file without rights":
                os.chmod(path, 0)

    @staticmethod
    def clear(path):
        if os.path.isdir(path) and not os.path.islink(path):
            shutil.rmtree(path)
        elif os.path.lexists(path):
            os.remove(path)

    def run_to_its_end(self, *arguments):
        process = self.start(*arguments)
        try:
            return self.finish(process)
        except subprocess.TimeoutExpired:
            # What hangs would keep the others from their turn.
            process.kill()
            raise

    def places(self):
        customer = f"{self.base}/client-data/{CUSTOMER}"
        return (self.document_file("scripts-meta.xml"), self.document_file("42.xml"),
                self.script_file("job.sh"), self.store_file(), self.store_file() + "-journal",
                os.path.dirname(self.store_file()), f"{customer}/varn-scripts.lock", customer,
                os.path.dirname(self.script_file("job.sh")),
                os.path.dirname(self.document_file("42.xml")))

    def test_a_request_ends_and_the_next_one_succeeds(self):
        self.put(text="echo genuine\n")
        self.assertEqual(self.run_command("run", "42").output, "genuine\n")
        kept = self.path("kept")
        shutil.copytree(self.base, kept)
        ran = count = 0
        for place in self.places():
            for kind in self.KINDS:
                with self.case(place=place, kind=kind):
                    self.clear(place)
                    self.place(kind, place)
                    for arguments in (["run", "42"], ["plan", "42"], ["list"], ["prune"]):
                        result = self.run_to_its_end(*arguments)
                        self.assertIn(result.status, STATUSES, result.error[-2000:])
                        if arguments[0] == "run":
                            self.assertIn(result.output, ("", "genuine\n"))
                            self.assertEqual(result.output != "", result.status == 0)
                            ran += result.output != ""
                        count += 1
                    self.clear(self.base)
                    shutil.copytree(kept, self.base)
                    result = self.run_command("run", "42")
                    self.assertEqual((result.status, result.output), (0, "genuine\n"))
        self.figure(
            f"{count} commands on {len(self.places())} places with {len(self.KINDS)} kinds of "
            f"things: 0 crashed, 0 hung, 0 ran anything but the verified script, "
            f"{ran} of {count // 4} requests ran it nevertheless")


class DocumentsTest(PromiseCase):
    """Values in well-formed documents that no publisher would write."""

    VALUES = ("", ".", "..", "/", "//", "./", "../job.sh", "../../../../../../job.sh",
              "/etc/passwd", "a/../../job.sh", "a/b/c.sh", "\n", "\t.sh", "-rf.sh", "$(id).sh",
              "`id`.sh", "%s%n.sh",
              "x" * 300 + ".sh", "x" * 5000 + ".sh", "é.sh", "\u202e.sh", "\U0001f600.sh",
              "job.sh/", "job.sh/.", "scripts-meta.xml", "../scripts-repository-data/42.xml",
              ".varn-download-abcdef", "a\\b.sh", "job", "job.", "job.sh.", "job.SH")

    def tree_outside(self):
        """What there is beside the base path and the repository."""
        return sorted(name for name in os.listdir(self.directory))

    def check(self, script):
        self.repository.put(script)
        before = self.tree_outside()
        result = self.run_command("run", script.script_id)
        self.assertIn(result.status, STATUSES, result.error[-2000:])
        self.assertIn(result.output, ("", "ran\n"), result.error[-2000:])
        self.assertEqual(self.tree_outside(), before)
        self.repository.drop(script.script_id)
        return result.status == 0

    def test_names_of_files(self):
        os.mkdir(self.base, 0o700)
        ran = sum(self.check(OwnFileScript("42", value, "echo ran\n", version=str(number)))
                  for number, value in enumerate(self.VALUES))
        self.figure(
            f"{len(self.VALUES)} unlikely file names: {ran} ran, the others were refused, 0 "
            "left the base path")

    def test_arguments(self):
        os.mkdir(self.base, 0o700)
        values = ('"', '""', '"' * 10001, " " * 100_000, "x" * 200_000, "x " * 2_000_000,
                  '" "' * 100_000, "\u0301", '"\u0301', "\u200d" * 100_000, "%s%n", "$(id)")
        ran = sum(self.check(OwnFileScript("42", "job.sh", "echo ran\n", arguments=value,
                                           version=str(number)))
                  for number, value in enumerate(values))
        self.assertEqual(ran, len(values) - 3)
        self.figure(
            f"{len(values)} unlikely argument texts, up to 4 MB: {ran} ran, the others are more "
            "than the system hands to a process")

    def test_checksums_and_codes(self):
        os.mkdir(self.base, 0o700)
        values = ("", "0", "x" * 1_000_000, "é" * 64, "00" * 32, "%n" * 32)
        for number, value in enumerate(values):
            self.assertFalse(self.check(OwnFileScript(
                "42", "job.sh", "echo ran\n", checksum=value or " ", version=f"c{number}")))
            self.assertFalse(self.check(OwnFileScript(
                "42", "job.sh", "echo ran\n", checksum_type=value, version=f"t{number}")))
        ran = sum(self.check(OwnFileScript("42", "job.sh", "echo ran\n", codes=value,
                                           version=f"e{number}"))
                  for number, value in enumerate(("", ",", "0," * 1_000_000, "-0", "00", "0 ")))
        self.assertEqual(ran, 1)
        self.figure(f"{2 * len(values)} unlikely checksums and digest names: 0 scripts ran")

    def test_a_document_larger_than_memory_is_told_in_every_line(self):
        self.put()
        self.assertEqual(self.run_command("run", "42").status, 0)
        sizes = {8 << 40: None}
        if not os.environ.get("VARN_SANITIZE"):
            sizes[900 * MEBIBYTE] = lambda: resource.setrlimit(resource.RLIMIT_AS,
                                                               (512 * MEBIBYTE,) * 2)
        for size, limit in sizes.items():
            with self.case(size=size):
                os.truncate(self.document_file("42.xml"), size)
                result = self.run_command("--log-format", "json", "run", "42", "--json",
                                          preexec_fn=limit)
                self.assertEqual(result.status, 3)
                messages = [message for _, _, message in result.steps]
                self.assertEqual(messages[-2], "Error while reading file "
                                 f"{self.document_file('42.xml')} Cannot allocate memory")
                self.assertRegex(messages[-1],
                                 "^Processing Script ID 42 .* status \\(nil, nil\\)$")
        self.figure(f"{len(sizes)} documents larger than memory: each is reported in every line")


class StoreTest(PromiseCase):
    """A store that is damaged or kept busy."""

    def setUp(self):
        super().setUp()
        self.put(text="echo done\n")
        self.assertEqual(self.run_command("run", "42").status, 0)

    def test_every_damage_of_a_page_is_survived(self):
        whole = self.read(self.store_file())
        damages = 0
        for start in range(0, len(whole), 512):
            for junk in (b"\0" * 64, b"\xff" * 64, os.urandom(64)):
                self.write(self.store_file(), whole[:start] + junk + whole[start + 64:])
                result = self.run_command("run", "42")
                self.assertIn((result.status, result.output), {(0, "done\n"), (3, "")},
                              result.error[-2000:])
                self.assertIn(self.run_command("list").status, STATUSES)
                damages += 1
        for length in (1, 15, 16, 99, 100, 4095, 4096, len(whole) - 1):
            self.write(self.store_file(), whole[:length])
            self.assertIn(self.run_command("run", "42").status, STATUSES)
            damages += 1
        self.write(self.store_file(), whole)
        self.assertEqual(self.run_command("run", "42").output, "done\n")
        self.figure(f"{damages} damaged stores: 0 crashes, 0 hangs")

    def test_a_store_that_is_a_program_is_not_run(self):
        endless = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT i, i FROM n"
        schemas = (
            "CREATE TABLE more (a, b); CREATE TRIGGER t BEFORE UPDATE ON ScriptToMeta "
            f"BEGIN INSERT INTO more SELECT * FROM ({endless}); END",
            f"DROP TABLE ScriptToMeta; CREATE VIEW ScriptToMeta (key, value) AS {endless}",
        )
        for schema in schemas:
            with contextlib.closing(sqlite3.connect(self.store_file())) as store:
                store.executescript(schema)
            result = self.run_command("run", "42")
            self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
            self.assertEqual(self.run_command("list").status, 3)
            self.assertEqual(self.run_command("prune").status, 3)
            self.assertEqual(self.run_command("plan", "42").status, 0)
        self.figure(f"{len(schemas)} stores that are endless programs: 0 hangs")

    def test_a_store_that_stays_busy_costs_its_waiting_time_alone(self):
        with contextlib.closing(sqlite3.connect(self.store_file())) as store:
            store.execute("BEGIN EXCLUSIVE")
            result = self.run_command("run", "42")
            self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
            store.rollback()
        self.assert_store_is_sound()
