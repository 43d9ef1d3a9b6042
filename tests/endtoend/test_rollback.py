"""A server that goes back to an older version after an upgrade that did not come to its end."""

import glob
import os

from support.case import CommandCase
from support.repository import CUSTOMER


class RollbackTest(CommandCase):
    """Version TWO replaces the data document and is not recorded; then the server has ONE again."""

    def setUp(self):
        super().setUp()
        self.server = "file://" + self.path("www")

    def publish(self, text):
        os.makedirs(self.path("source"), exist_ok=True)
        with open(self.path("source", "scripts.toml"), "w", encoding="utf-8") as manifest:
            manifest.write('[[script]]\nid = "42"\nfile = "job.sh"\n')
        with open(self.path("source", "job.sh"), "w", encoding="utf-8") as script:
            script.write(text)
        result = self.run_command("publish", self.path("source"), self.path("www"),
                                  settings=["--customer", CUSTOMER])
        self.assertEqual(result.status, 0, result.error)

    def published(self, text):
        """The script file with this text in the served tree."""
        for path in glob.glob(self.path("www", "client-data", CUSTOMER, "scriptrepo", "files", "*")):
            with open(path, encoding="utf-8") as file:
                if file.read() == text:
                    return path
        self.fail(f"no file with {text!r} is published")

    def marks(self):
        return glob.glob(f"{self.base}/client-data/{CUSTOMER}/varn-scripts.unrecorded-*")

    def fail_upgrade(self):
        """ONE is recorded, TWO's document arrives and its script does not; TWO is whole again."""
        self.publish("echo ONE\n")
        self.assertEqual(self.run_command("run", "42").output, "ONE\n")
        self.publish("echo TWO\n")
        script = self.published("echo TWO\n")
        os.rename(script, self.path("kept"))
        self.assertEqual(self.run_command("run", "42").status, 3)
        os.rename(self.path("kept"), script)

    def test_the_version_that_the_server_has_runs(self):
        self.fail_upgrade()
        self.publish("echo ONE\n")
        for _ in range(2):
            result = self.run_command("run", "42")
            self.assertEqual((result.status, result.output), (0, "ONE\n"), result.error)
        self.assertIn("Proceeding without Downloading Script", result.error)

    def test_the_version_that_the_server_has_runs_when_the_other_is_gone(self):
        self.fail_upgrade()
        os.remove(self.published("echo TWO\n"))
        self.publish("echo ONE\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "ONE\n"), result.error)

    def test_over_http_no_kept_document_comes_back(self):
        self.repository.root = self.path("www")
        self.serve()
        self.fail_upgrade()
        self.publish("echo ONE\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "ONE\n"), result.error)

    def test_the_failed_upgrade_leaves_the_record_as_it_is(self):
        self.publish("echo ONE\n")
        self.run_command("run", "42")
        before = self.listed()
        self.fail_upgrade()
        self.assertEqual(self.listed(), before)

    def test_the_plan_says_that_the_document_is_fetched_and_changes_nothing(self):
        self.fail_upgrade()
        self.publish("echo ONE\n")
        marks = self.marks()
        plan = self.run_command("plan", "42")
        self.assertRegex(plan.output, "step: +download: the data document's version is not recorded")
        self.assertEqual(self.marks(), marks)
        self.assertEqual(self.run_command("run", "42").output, "ONE\n")

    def test_a_version_that_is_recorded_leaves_no_mark(self):
        self.fail_upgrade()
        self.assertEqual(len(self.marks()), 1)
        self.assertEqual(self.run_command("run", "42").output, "TWO\n")
        self.assertEqual(self.marks(), [])

    def test_a_mark_that_can_not_be_removed_is_the_reason(self):
        self.fail_upgrade()
        [mark] = self.marks()
        os.remove(mark)
        os.mkdir(mark)
        self.publish("echo ONE\n")
        result = self.run_command("run", "42", "--json")
        self.assertEqual(result.status, 3)
        self.assertIn(mark, result.output)
        self.assertIn("Is a directory", result.output)
        os.rmdir(mark)
        self.assertEqual(self.run_command("run", "42").output, "ONE\n")

    def test_prune_removes_the_mark_with_the_script(self):
        self.fail_upgrade()
        self.publish("echo ONE\n")
        with open(self.path("source", "scripts.toml"), "w", encoding="utf-8") as manifest:
            manifest.write('[[script]]\nid = "43"\nfile = "job.sh"\n')
        self.run_command("publish", self.path("source"), self.path("www"), "--allow-removal",
                         settings=["--customer", CUSTOMER])
        self.assertEqual(self.run_command("prune").status, 0)
        self.assertEqual(self.marks(), [])
        self.assertFalse(os.path.exists(self.document_file("42.xml")))
