"""What `plan` says beforehand of a request that will be refused is what `run` says afterwards."""

import hashlib
import json
import os
import shutil
import sqlite3
import stat
import subprocess
import unittest

from support.case import CommandCase
from support.repository import CUSTOMER

OTHER = 4242


class ForesightCase(CommandCase):
    """A plan and then a request, which must agree; the plan must leave no trace."""

    def setUp(self):
        super().setUp()
        self.put()
        os.mkdir(self.path("tmp"))
        os.chmod(self.path("tmp"), 0o1777)

    def traces(self):
        """All that anybody could notice of the base path, and what is in the place of temporary
        files."""
        found = {"temporary": os.listdir(self.path("tmp"))}
        for directory, directories, files in os.walk(self.base):
            for path in [directory, *(os.path.join(directory, name)
                                      for name in directories + files)]:
                status = os.lstat(path)
                content = None
                if stat.S_ISREG(status.st_mode):
                    with open(path, "rb") as file:
                        content = hashlib.sha256(file.read()).hexdigest()
                found[path] = (status.st_mode, status.st_uid, status.st_ino, status.st_size,
                               status.st_mtime_ns, status.st_ctime_ns, content,
                               tuple(os.listxattr(path, follow_symlinks=False)))
        return found

    def ask(self, *arguments, **options):
        options.setdefault("environment", self.environment(TMPDIR=self.path("tmp")))
        return self.run_command("--quiet", *arguments, **options)

    def plan(self, *arguments, **options):
        before = self.traces()
        result = self.ask("plan", "42", *arguments, **options)
        self.assertEqual(self.traces(), before)
        return result

    def foreseen(self, **options):
        """The sentence and the code that plan and request agree in."""
        told = self.plan("--json", **options)
        self.assertEqual((told.status, told.error), (3, ""))
        plan = json.loads(told.output)
        text = self.plan(**options)
        self.assertEqual((text.status, text.error), (3, ""))
        self.assertEqual(text.output.splitlines()[-1], "not run:        " + plan["problem"])
        answer = json.loads(self.ask("run", "42", "--json", **options).output)
        self.assertEqual((plan["problem"], plan["reason_code"]),
                         (answer["reason"], answer["reason_code"]))
        return plan["problem"], plan["reason_code"]

    def run_once(self, **options):
        result = self.ask("run", "42", **options)
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)

    def customer_directory(self):
        return f"{self.base}/client-data/{CUSTOMER}"

    def lock_reason(self, cause):
        return (f"Request lock {self.customer_directory()}/varn-scripts.lock can't be taken: "
                + cause, "locked_out")


class OwnFilesTest(ForesightCase):
    """What lies on the way, whoever asks."""

    def test_a_request_that_is_not_refused_has_no_code(self):
        for _ in range(2):
            plan = json.loads(self.plan("--json").output)
            self.assertEqual((plan["problem"], plan["reason_code"], plan["waits_for"]),
                             (None, None, None))
            self.run_once()

    def test_a_directory_that_is_open_to_all(self):
        self.run_once()
        scripts = os.path.dirname(self.script_file("job.sh"))
        os.chmod(scripts, 0o777)
        self.assertEqual(self.foreseen(), (f"Refused: {scripts} may be written to by all users",
                                           "unsafe_directory"))

    def test_a_script_file_with_two_names(self):
        self.run_once()
        os.link(self.script_file("job.sh"), self.path("second"))
        unsafe = (f"Refused: {self.script_file('job.sh')} has 2 names (hard links)",
                  "unsafe_directory")
        self.assertEqual(self.foreseen(), unsafe)
        # Also when it would be replaced.
        self.put(version="2")
        self.assertEqual(self.foreseen(), unsafe)

    def test_a_server_s_file_that_is_open_to_all(self):
        path = self.repository.root + "/client-data/7/scriptrepo/scripts-meta.xml"
        os.chmod(path, 0o666)
        self.assertEqual(self.foreseen(), (f"Refused: {path} may be written to by all users",
                                           "unsafe_directory"))

    def test_the_record_of_another_customer(self):
        other = self.path("other", "client-data", "8", "scripts-repository", "job.sh")
        shared = ["--data-path", self.base + "/shared"]
        self.assertEqual(self.ask(*shared, "run", "42").status, 0)
        store = sqlite3.connect(self.base + "/shared/Configuration-Framework/ScriptRepository")
        with store:
            store.execute("UPDATE ScriptToMeta SET value = ?", (json.dumps({"scriptPath": other}),))
        store.close()
        self.assertEqual(
            self.foreseen(settings=self.settings() + shared),
            (f"data_path {self.base}/shared holds the record of another customer's script {other}; "
             "give each customer a data_path of its own", "foreign_record"))

    def test_a_file_in_place_of_a_directory(self):
        os.makedirs(self.base)
        with open(self.base + "/client-data", "w", encoding="utf-8"):
            pass
        self.assertEqual(self.foreseen(), self.lock_reason("Not a directory"))

    def test_a_directory_in_place_of_the_lock(self):
        os.makedirs(self.customer_directory() + "/varn-scripts.lock")
        self.assertEqual(self.foreseen(), self.lock_reason("Is a directory"))

    def test_a_link_in_place_of_the_lock(self):
        os.makedirs(self.customer_directory())
        os.symlink(self.path("elsewhere"), self.customer_directory() + "/varn-scripts.lock")
        self.assertEqual(self.foreseen(), self.lock_reason("Too many levels of symbolic links"))

    def test_a_directory_in_place_of_the_list(self):
        os.makedirs(self.document_file("scripts-meta.xml"))
        sentence, code = self.foreseen()
        self.assertEqual(code, "list_unavailable")
        self.assertTrue(sentence.endswith(
            f": {self.document_file('scripts-meta.xml')} is not a file and stays"), sentence)

    def test_a_directory_in_place_of_the_script(self):
        os.makedirs(self.script_file("job.sh"))
        sentence, code = self.foreseen()
        self.assertEqual(code, "script_unavailable")
        self.assertTrue(sentence.endswith(
            f": {self.script_file('job.sh')} is not a file and stays"), sentence)

    def test_a_script_file_that_would_lie_elsewhere(self):
        self.put(file_name="../job.sh")
        sentence, code = self.foreseen()
        self.assertEqual(code, "script_unavailable")
        self.assertTrue(sentence.endswith(
            f": the target leads out of its directory: {self.script_file('../job.sh')}"), sentence)

    def test_a_document_of_an_interrupted_request_that_stays(self):
        self.run_once()
        mark = (self.customer_directory() + "/varn-scripts.unrecorded-"
                + hashlib.sha256(b"42").hexdigest())
        with open(mark, "w", encoding="utf-8"):
            pass
        os.remove(self.document_file("42.xml"))
        os.mkdir(self.document_file("42.xml"))
        self.assertEqual(
            self.foreseen(),
            (f"Data document of script 42, whose version is not recorded, or {mark} can't be "
             "removed: Is a directory", "local_state_failed"))

    def test_a_changed_script_would_be_fetched_again(self):
        for served in (False, True):
            with self.subTest(served=served):
                if served:
                    # A server's word for files that have just been written is not taken.
                    for directory, _, files in os.walk(self.repository.root):
                        for name in files:
                            os.utime(os.path.join(directory, name), (1, 1))
                    self.serve()
                    shutil.rmtree(self.base)
                self.run_once()
                with open(self.script_file("job.sh"), "a", encoding="utf-8") as file:
                    file.write("echo more\n")
                # Only what HTTP brought has anything to be asked conditionally with.
                self.assertEqual(bool(os.listxattr(self.script_file("job.sh"))), served)
                plan = json.loads(self.plan("--json").output)
                self.assertEqual(
                    (plan["step"], plan["reason"], plan["problem"], plan["reason_code"]),
                    ("up_to_date",
                     f"{self.script_file('job.sh')} is not what the server's checksum says: its "
                     "content is another; it would be fetched again", None, None))
                self.run_once()
                plan = json.loads(self.plan("--json").output)
                self.assertEqual((plan["reason"], plan["downloads"]), (None, []))


class TurnTest(ForesightCase):
    """Another process runs the script."""

    def test_it_says_that_the_request_waits_and_what_one_says_that_must_not(self):
        started, go = self.fifo("started"), self.fifo("go")
        self.put(text=f"echo $$ >{started}\nread line <{go}\n")
        first = self.start("run", "42")
        self.end_process_at_end(int(self.read_line_from(started)))
        plan = json.loads(self.plan("--json").output)
        self.assertEqual(plan["problem"], None)
        self.assertEqual(plan["waits_for"], {
            "reason": f"Script 42 is in use by process {first.pid}", "reason_code": "locked_out"})
        self.assertIn(f"waits:          Script 42 is in use by process {first.pid} (with --no-wait "
                      "it is not run)\n", self.plan().output)
        answer = json.loads(self.ask("run", "42", "--no-wait", "--json").output)
        self.assertEqual({key: answer[key] for key in ("reason", "reason_code")},
                         plan["waits_for"])
        with open(go, "w", encoding="utf-8") as file:
            file.write("go\n")
        self.assertEqual(self.finish(first).status, 0)
        self.assertIsNone(json.loads(self.plan("--json").output)["waits_for"])


@unittest.skipUnless(os.geteuid() == 0, "only root can become another user")
class OtherUserTest(ForesightCase):
    """Whoever asks is not root."""

    AS_OTHER = {"user": OTHER, "group": OTHER, "extra_groups": []}

    def setUp(self):
        super().setUp()
        os.chmod(self.directory, 0o755)

    def give_base_away(self):
        for directory, directories, files in os.walk(self.base):
            for path in [directory, *(os.path.join(directory, name) for name in files)]:
                os.chown(path, OTHER, OTHER)

    def test_who_may_not_make_the_base_path(self):
        self.assertEqual(self.foreseen(**self.AS_OTHER), self.lock_reason("Permission denied"))

    def test_who_may_not_enter_roots_base_path(self):
        self.run_once()
        self.assertEqual(self.foreseen(**self.AS_OTHER), self.lock_reason("Permission denied"))

    def test_who_may_only_read_roots_files(self):
        self.run_once()
        for directory, _, files in os.walk(self.base):
            os.chmod(directory, 0o755)
            for name in files:
                os.chmod(os.path.join(directory, name), 0o644)
        self.assertEqual(self.foreseen(**self.AS_OTHER), self.lock_reason("Permission denied"))

    def test_each_directory_that_its_owner_may_not_write_to_or_enter(self):
        self.run_once()
        self.give_base_away()
        self.put(version="2")
        places = {
            self.customer_directory(): "document_unavailable",
            os.path.dirname(self.document_file("x")): "list_unavailable",
            os.path.dirname(self.script_file("x")): "script_unavailable",
        }
        for place, code in places.items():
            for mode in (0o500, 0o400, 0o000):
                with self.subTest(place=place, mode=oct(mode)):
                    os.chmod(place, mode)
                    sentence, told = self.foreseen(**self.AS_OTHER)
                    os.chmod(place, 0o700)
                    # Without a way into the customer's directory the lock can't be reached.
                    entered = place != self.customer_directory() or mode & 0o100
                    self.assertEqual(told, code if entered else "locked_out")
                    self.assertTrue(sentence.endswith(": Permission denied"), sentence)
        self.run_once(**self.AS_OTHER)

    def test_a_removed_right_to_put_an_interrupted_request_right(self):
        self.run_once()
        mark = (self.customer_directory() + "/varn-scripts.unrecorded-"
                + hashlib.sha256(b"42").hexdigest())
        with open(mark, "w", encoding="utf-8"):
            pass
        self.give_base_away()
        for place in (self.customer_directory(), os.path.dirname(self.document_file("x"))):
            os.chmod(place, 0o500)
            sentence, code = self.foreseen(**self.AS_OTHER)
            os.chmod(place, 0o700)
            self.assertEqual(code, "local_state_failed")
            self.assertTrue(sentence.endswith("removed: Permission denied"), sentence)
            # The request may have removed the document before it failed.
            with open(self.document_file("42.xml"), "a", encoding="utf-8"):
                os.chown(self.document_file("42.xml"), OTHER, OTHER)


class ReadOnlyDiskTest(ForesightCase):
    """The base path lies on a disk that can't be written to."""

    def setUp(self):
        super().setUp()
        self.run_once()
        command = self.command
        # In a mount namespace of its own, so that nobody else sees it.
        self.command = self.path("on-a-read-only-disk")
        with open(self.command, "w", encoding="utf-8") as file:
            file.write(f'#!/bin/sh\nexec unshare -m sh -c \'mount --bind "$0" "$0" && '
                       f'mount -o remount,bind,ro "$0" && exec "$@"\' "{self.base}" "{command}" '
                       '"$@"\n')
        os.chmod(self.command, 0o755)
        if subprocess.run([self.command, "--version"], capture_output=True,
                          check=False).returncode != 0:
            self.skipTest("nothing can be mounted here")

    def test_is_told(self):
        self.assertEqual(self.foreseen(), self.lock_reason("Read-only file system"))

    def test_is_told_of_a_base_path_that_would_be_made_there(self):
        top, self.base = self.base, self.base + "/below"
        self.assertEqual(self.foreseen(), self.lock_reason("Read-only file system"))
        self.base = top
