"""Requests that end without a run, the reason that is given, and what is left behind."""

import json
import os
import resource

from support.case import CommandCase
from support.repository import LIST_PATH

NO_ENTRY = "Processing Script ID 42 not able to get server script repo meta to procees"


class NotRunTest(CommandCase):
    """Each failure on the road of a request, with nginx as the server."""

    def setUp(self):
        super().setUp()
        self.web = self.serve()

    def assert_not_run(self, reason):
        """The request for 42 is not run for this reason, reported three ways."""
        result = self.run_command("run", "42", "--json")
        self.assertEqual(result.status, 3)
        self.assertEqual(json.loads(result.output), {"script_id": "42", "status": "not_run",
                                                     "output": None, "reason": reason})
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (3, ""))
        self.assertEqual(result.error_lines[-1], reason)
        result = self.run_command("--quiet", "run", "42")
        self.assertEqual((result.status, result.output), (3, ""))
        self.assertEqual(result.error, reason + "\n")

    def test_a_script_that_is_not_in_the_list(self):
        self.put(script_id="43")
        self.assert_not_run(NO_ENTRY)

    def test_a_list_that_is_missing(self):
        self.repository.remove(LIST_PATH)
        self.assert_not_run(NO_ENTRY)
        self.assertIn("Script-Meta Download Failed", self.run_command("run", "42").error)

    def test_a_list_that_is_not_a_document(self):
        self.repository.write(LIST_PATH, "<scripts-meta><ScriptRepo>")
        self.assert_not_run(NO_ENTRY)

    def test_a_server_that_does_not_answer(self):
        self.put()
        self.web.stop()
        self.assert_not_run(NO_ENTRY)

    def test_a_data_document_that_is_missing(self):
        script = self.put()
        self.repository.remove(script.document_path)
        self.assert_not_run("Download failure of script data")
        self.assertEqual(self.listed(), [])

    def test_a_data_document_that_is_not_a_document(self):
        script = self.put()
        self.repository.write(script.document_path, "<script>")
        self.assert_not_run("Unable to get script items data")

    def test_a_script_file_that_is_missing(self):
        script = self.put()
        self.repository.remove(script.file_path)
        self.assert_not_run("Download failure of script")
        self.assertEqual(self.listed(), [])

    def test_a_script_file_that_does_not_match_its_checksum(self):
        script = self.put(text="touch ran\n")
        self.repository.write(script.file_path, "touch ran; echo changed\n")
        self.assert_not_run("Not able to compute checksum processing")
        self.assertEqual(self.listed(), [{"script_id": "42", "version": None,
                                          "script_path": self.script_file("job.sh")}])
        self.assertFalse(os.path.exists(self.script_file("ran")))

    def test_a_checksum_of_an_unknown_kind(self):
        self.put(text="touch ran\n", checksum_type="CRC-32", checksum="00000000")
        self.assert_not_run("Not able to compute checksum processing")
        self.assertFalse(os.path.exists(self.script_file("ran")))

    def test_a_file_name_without_an_interpreter(self):
        self.put(file_name="job.exe")
        self.assert_not_run("Unable to get launch path for job.exe")

    def test_a_tampered_file_that_can_not_be_fetched_again(self):
        script = self.put(text="touch ran\n")
        self.assertEqual(self.run_command("run", "42").status, 0)
        os.remove(self.script_file("ran"))
        with open(self.script_file("job.sh"), "w", encoding="utf-8") as file:
            file.write("touch ran; echo tampered\n")
        self.repository.write(script.file_path, "touch ran; echo also wrong\n")
        self.assert_not_run("Not able to compute checksum processing after redownloading")
        self.assertFalse(os.path.exists(self.script_file("ran")))

    def test_a_reason_of_two_lines_is_one_line_on_standard_error(self):
        result = self.run_command("--quiet", "run", "4\n2")
        self.assertEqual(result.error, "Processing Script ID 4\\n2 not able to get server script "
                                       "repo meta to procees\n")


class RecoveryTest(CommandCase):
    """A failed request does not spoil the next one."""

    def test_the_next_request_succeeds_once_the_server_is_mended(self):
        script = self.put(text="echo mended\n")
        self.repository.write(script.file_path, "echo broken\n")
        self.assertEqual(self.run_command("run", "42").status, 3)
        self.put(text="echo mended\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "mended\n"), result.error)

    def test_a_failed_new_version_keeps_the_recorded_one(self):
        self.put(text="echo one\n", version="1")
        self.run_command("run", "42")
        script = self.put(text="echo two\n", version="2")
        self.repository.remove(script.file_path)
        self.assertEqual(self.run_command("run", "42").status, 3)
        self.assertEqual(self.listed()[0]["version"], "1")


class LimitTest(CommandCase):
    """The most that one download may write."""

    def test_a_script_above_the_limit_is_not_run(self):
        self.put(text="echo done\n#" + "x" * 20000 + "\n")
        self.assertEqual(self.run_command("--max-download", "20000", "run", "42").status, 3)
        self.assertFalse(os.path.exists(self.script_file("job.sh")))
        self.assertEqual(self.run_command("--max-download", "30000", "run", "42").status, 0)


class FileSizeTest(CommandCase):
    """A limit on how large this process may make a file."""

    def test_it_is_the_reason_and_not_the_end(self):
        self.put(text="echo done\n" + "#" * 100000)
        result = self.run_command(
            "run", "42",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (50000, 50000)))
        self.assertEqual(result.status, 3)
        self.assertIn("File too large", result.error)
        self.assertEqual(result.error_lines[-1], "Download failure of script")


class LockFailureTest(CommandCase):
    """A request that can't have its turn is not run."""

    def test_a_lock_file_that_can_not_be_made(self):
        self.put()
        os.makedirs(self.base)
        with open(self.base + "/client-data", "w", encoding="utf-8"):
            pass
        reason = (f"Request lock {self.base}/client-data/7/varn-scripts.lock can't be taken: "
                  "Not a directory")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output, result.error), (3, "", reason + "\n"))
        result = self.run_command("run", "42", "--json")
        self.assertEqual(result.status, 3)
        self.assertEqual(json.loads(result.output)["reason"], reason)
