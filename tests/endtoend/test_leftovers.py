"""Script files that nobody may run: they do not stay where an interpreter would find them."""

import hashlib
import os
import sqlite3

from support.case import CommandCase
from support.repository import CUSTOMER


class LeftoversCase(CommandCase):

    def assert_scripts(self, *names):
        self.assertEqual(sorted(os.listdir(os.path.dirname(self.script_file("x")))), sorted(names))

    def record_path(self, path, script_id="42"):
        """Lets the record of the script name this path."""
        store = sqlite3.connect(self.store_file())
        with store:
            store.execute("UPDATE ScriptToMeta SET value = json_set(value, '$.scriptPath', ?)"
                          " WHERE key = ?", (path, script_id))
        store.close()


class RefusedTest(LeftoversCase):
    """A file whose checksum was not accepted."""

    def test_a_fetched_file_with_another_checksum_goes(self):
        self.put(file_name="json.py", checksum="0" * 64)
        self.assertEqual(self.run_command("run", "42").status, 3)
        self.assert_scripts()

    def test_a_fetched_file_without_a_known_digest_goes(self):
        self.put(file_name="json.py", checksum_type="none")
        self.assertEqual(self.run_command("run", "42").status, 3)
        self.assert_scripts()

    def test_a_changed_file_that_can_not_be_fetched_anew_goes(self):
        script = self.put()
        self.run_command("run", "42")
        self.repository.remove(script.file_path)
        with open(self.script_file("job.sh"), "a", encoding="utf-8") as file:
            file.write("echo changed\n")
        self.assertEqual(self.run_command("run", "42").status, 3)
        self.assert_scripts()

    def test_a_link_in_its_place_goes_and_its_target_stays(self):
        script = self.put()
        self.run_command("run", "42")
        self.repository.remove(script.file_path)
        os.remove(self.script_file("job.sh"))
        with open(self.path("victim"), "w", encoding="utf-8"):
            pass
        os.symlink(self.path("victim"), self.script_file("job.sh"))
        self.assertEqual(self.run_command("run", "42").status, 3)
        self.assert_scripts()
        self.assertTrue(os.path.exists(self.path("victim")))


class OutgrownTest(LeftoversCase):
    """The file of a script that is published under another name by now."""

    def publish_and_run(self, file_name, version, **values):
        self.put(file_name=file_name, text="ls\n", version=version, **values)
        return self.run_command("run", "42")

    def test_it_is_gone_before_the_new_one_runs(self):
        self.publish_and_run("json.sh", "1")
        result = self.publish_and_run("job.sh", "2")
        self.assertEqual((result.status, result.output), (0, "job.sh\n"), result.error)

    def test_it_goes_when_the_new_one_is_refused(self):
        self.publish_and_run("json.sh", "1")
        self.assertEqual(self.publish_and_run("job.sh", "2", checksum="0" * 64).status, 3)
        self.assert_scripts()

    def test_it_goes_after_a_kill_too(self):
        self.publish_and_run("json.sh", "1")
        old = self.script_file("json.sh")
        self.put(file_name="job.sh", text="ls\n", version="2")
        self.record_path(self.script_file("job.sh"))
        mark = hashlib.sha256(b"42").hexdigest()
        with open(f"{self.base}/client-data/{CUSTOMER}/varn-scripts.unrecorded-{mark}", "w",
                  encoding="utf-8") as file:
            file.write(old)
        self.assertEqual(self.run_command("run", "42").output, "job.sh\n")

    def test_it_stays_when_another_record_names_it(self):
        self.put(script_id="43", file_name="./JSON.sh")
        self.run_command("run", "43")
        self.publish_and_run("json.sh", "1")
        self.assertEqual(self.publish_and_run("job.sh", "2").status, 0)
        self.assert_scripts("JSON.sh", "job.sh", "json.sh")

    def test_it_stays_when_it_lies_elsewhere(self):
        os.mkdir(self.path("outside"))
        victim = self.path("outside", "victim.sh")
        with open(victim, "w", encoding="utf-8"):
            pass
        self.publish_and_run("job.sh", "1")
        os.symlink(self.path("outside"), self.script_file("link"))
        for number, path in enumerate((victim, self.script_file("link/victim.sh"),
                                       self.script_file("../../../../outside/victim.sh"),
                                       self.script_file(""), self.script_file("."))):
            with self.subTest(path=path):
                self.record_path(path)
                result = self.publish_and_run("job.sh", f"2-{number}")
                self.assertEqual((result.status, result.output), (0, "job.sh\nlink\n"))
                self.assertTrue(os.path.exists(victim))
