"""Requests that end without a run, the reason that is given, and what is left behind."""

import json
import os
import resource
import unittest

from support.case import CommandCase
from support.repository import CUSTOMER, LIST_PATH


class NotRunTest(CommandCase):
    """Each failure on the road of a request, with nginx as the server."""

    def setUp(self):
        super().setUp()
        self.web = self.serve()

    def assert_not_run(self, code, reason):
        """The request for 42 is not run for this reason, reported in every form."""
        result = self.run_command("run", "42", "--json")
        self.assertEqual(result.status, 3)
        self.assertEqual(json.loads(result.output), {
            "script_id": "42", "status": "not_run", "output": None, "reason": reason,
            "reason_code": code})
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (3, ""))
        self.assertEqual(result.error_lines[-1], reason)
        result = self.run_command("--quiet", "run", "42")
        self.assertEqual((result.status, result.output), (3, ""))
        self.assertEqual(result.error, reason + "\n")
        result = self.run_json_log("run", "42")
        self.assertEqual(result.records[-1]["message"], reason)
        self.assertEqual(result.records[-1]["level"], "error")

    def assert_list_unavailable(self, cause):
        self.assert_not_run("list_unavailable",
                            f"The list of customer {CUSTOMER} can't be fetched from "
                            f"{self.server}{LIST_PATH}: {cause}")

    def assert_checksum_mismatch(self, cause):
        self.assert_not_run("checksum_mismatch", f"{self.script_file('job.sh')} is not what the "
                                                 f"server's checksum says: {cause}")

    def test_a_script_that_is_not_in_the_list(self):
        self.put(script_id="43")
        self.assert_not_run("not_listed",
                            f"The server's list of customer {CUSTOMER} has no script 42")

    def test_a_list_that_is_missing(self):
        self.repository.remove(LIST_PATH)
        self.assert_list_unavailable("the server answered with status 404")
        self.assertIn("Script-Meta Download Failed", self.run_command("run", "42").error)

    def test_a_list_that_is_not_a_document(self):
        self.repository.write(LIST_PATH, "<scripts-meta><ScriptRepo>")
        self.assert_not_run("list_unreadable",
                            f"The list of customer {CUSTOMER} is no list of scripts; it is damaged, "
                            "or something else came in its place")

    def test_a_server_that_does_not_answer(self):
        self.put()
        self.web.stop()
        port = self.server.rsplit(":", 1)[1]
        result = json.loads(self.run_command("run", "42", "--json").output)
        # The port is curl's to name, how long it tried is not to be known.
        self.assertRegex(result["reason"], rf": Failed to connect to 127\.0\.0\.1 port {port} ")
        self.assertEqual(result["reason_code"], "list_unavailable")

    def test_a_data_document_that_is_missing(self):
        script = self.put()
        self.repository.remove(script.document_path)
        self.assert_not_run("document_unavailable",
                            "The data document of script 42 can't be fetched from "
                            f"{self.server}{script.document_path}: the server answered with status "
                            "404")
        self.assertEqual(self.listed(), [])

    def test_a_data_document_that_is_not_a_document(self):
        script = self.put()
        self.repository.write(script.document_path, "<script>")
        self.assert_not_run("document_unreadable",
                            "The data document of script 42 is no such document; it is damaged, or "
                            "something else came in its place")

    def test_a_script_file_that_is_missing(self):
        script = self.put()
        self.repository.remove(script.file_path)
        self.assert_not_run("script_unavailable",
                            "The file of script 42 can't be fetched from "
                            f"{self.server}{script.file_path}: the server answered with status 404")
        self.assertEqual(self.listed(), [])

    def test_a_script_file_that_does_not_match_its_checksum(self):
        script = self.put(text="touch ran\n")
        self.repository.write(script.file_path, "touch ran; echo changed\n")
        self.assert_checksum_mismatch("its content is another")
        self.assertEqual(self.listed(), [{"script_id": "42", "version": None,
                                          "script_path": self.script_file("job.sh"),
                                          "present": False}])
        self.assertFalse(os.path.exists(self.script_file("ran")))

    def test_a_checksum_of_an_unknown_kind(self):
        self.put(text="touch ran\n", checksum_type="CRC-32", checksum="00000000")
        self.assert_checksum_mismatch("the checksum's type is not known")
        self.assertFalse(os.path.exists(self.script_file("ran")))

    def test_a_file_name_without_an_interpreter(self):
        self.put(file_name="job.exe")
        self.assert_not_run("interpreter_unknown",
                            "No interpreter is known for job.exe; a script's name ends in .py, .sh, "
                            ".pl, .scpt")

    @unittest.skipIf(os.path.exists("/usr/bin/osascript"), "AppleScript runs here")
    def test_an_interpreter_that_is_missing(self):
        self.put(file_name="job.scpt")
        self.assert_not_run("interpreter_missing",
                            "/usr/bin/osascript is missing: AppleScript runs on macOS alone")

    def test_a_tampered_file_that_can_not_be_fetched_again(self):
        script = self.put(text="touch ran\n")
        self.assertEqual(self.run_command("run", "42").status, 0)
        os.remove(self.script_file("ran"))
        with open(self.script_file("job.sh"), "w", encoding="utf-8") as file:
            file.write("touch ran; echo tampered\n")
        self.repository.write(script.file_path, "touch ran; echo also wrong\n")
        self.assert_checksum_mismatch("its content is another")
        self.assertFalse(os.path.exists(self.script_file("ran")))

    def test_a_reason_of_two_lines_is_one_line_on_standard_error(self):
        result = self.run_command("--quiet", "run", "4\n2")
        self.assertEqual(result.error,
                         f"The server's list of customer {CUSTOMER} has no script 4\\n2\n")


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
        self.assertTrue(result.error_lines[-1].endswith("File too large"), result.error)


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
        self.assertEqual((result.status, result.output, result.error_lines[1:]), (3, "", [reason]))
        result = self.run_command("run", "42", "--json")
        self.assertEqual(result.status, 3)
        answer = json.loads(result.output)
        self.assertEqual((answer["reason"], answer["reason_code"]), (reason, "locked_out"))
