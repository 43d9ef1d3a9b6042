"""One request after another against a repository: fresh, up to date, new version, changed file."""

import datetime
import json
import os
import stat

from support.case import CommandCase
from support.repository import CUSTOMER, LIST_PATH


class Requests:
    """The road of a request, whatever serves the repository."""

    def test_a_first_run_fetches_runs_and_records_the_script(self):
        self.put(text="echo first\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "first\n"), result.error)
        self.assertEqual(self.listed(), [{"script_id": "42", "version": "1",
                                          "script_path": self.script_file("job.sh"),
                                          "present": True}])
        with open(self.script_file("job.sh"), encoding="utf-8") as file:
            self.assertEqual(file.read(), "echo first\n")

    def test_an_up_to_date_run_runs_the_script_again(self):
        self.put(text="echo again\n")
        for _ in range(2):
            result = self.run_command("run", "42")
            self.assertEqual((result.status, result.output), (0, "again\n"), result.error)
        self.assertIn("Local Version 1 Proceeding without Downloading Script", result.error)

    def test_an_up_to_date_run_needs_no_document_path_in_the_list(self):
        self.put(text="echo again\n")
        self.assertEqual(self.run_command("run", "42").status, 0)
        self.put(text="echo again\n", mapped=False)
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "again\n"), result.error)

    def test_a_new_version_replaces_script_and_record(self):
        self.put(text="echo old\n", version="1")
        self.assertEqual(self.run_command("run", "42").output, "old\n")
        self.put(text="echo new\n", version="2")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "new\n"), result.error)
        self.assertIn("Server Version 2 Local Version 1 Downloading and Executing Script",
                      result.error)
        self.assertEqual(self.listed()[0]["version"], "2")

    def test_a_changed_server_file_under_the_same_version_is_not_fetched(self):
        script = self.put(text="echo old\n")
        self.run_command("run", "42")
        self.repository.write(script.file_path, "echo changed\n")
        self.assertEqual(self.run_command("run", "42").output, "old\n")

    def test_a_tampered_local_file_is_fetched_again_and_not_run(self):
        self.put(text="echo genuine\n")
        self.run_command("run", "42")
        with open(self.script_file("job.sh"), "w", encoding="utf-8") as file:
            file.write("echo tampered\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "genuine\n"), result.error)
        self.assertIn("Not able to compute checksum processing, redownloading script",
                      result.error)
        with open(self.script_file("job.sh"), encoding="utf-8") as file:
            self.assertEqual(file.read(), "echo genuine\n")

    def test_a_deleted_local_file_is_fetched_again(self):
        self.put(text="echo back\n")
        self.run_command("run", "42")
        os.remove(self.script_file("job.sh"))
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "back\n"), result.error)

    def test_a_deleted_data_document_means_a_download(self):
        self.put()
        self.run_command("run", "42")
        os.remove(self.document_file("42.xml"))
        result = self.run_command("run", "42")
        self.assertEqual(result.status, 0, result.error)
        self.assertIn("Local Version 1 Downloading and Executing Script", result.error)

    def test_unusual_names_are_found_on_the_server(self):
        self.put(script_id="100% disk#1?", file_name="a b%zz#c?ü.sh", text="echo odd\n")
        result = self.run_command("run", "100% disk#1?")
        self.assertEqual((result.status, result.output), (0, "odd\n"), result.error)

    def test_a_percent_escape_in_a_server_path_is_left_alone(self):
        script = self.put(file_name="a%20b.sh", text="echo escaped\n")
        os.rename(self.repository.root + script.file_path,
                  self.repository.root + script.file_path.replace("%20", " "))
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "escaped\n"), result.error)
        self.assertTrue(os.path.exists(self.script_file("a%20b.sh")))

    def test_two_scripts_do_not_disturb_each_other(self):
        self.put(script_id="1", file_name="one.sh", text="echo one\n")
        self.put(script_id="2", file_name="two.sh", text="echo two\n")
        self.assertEqual(self.run_command("run", "1").output, "one\n")
        self.assertEqual(self.run_command("run", "2").output, "two\n")
        self.assertEqual([row["script_id"] for row in self.listed()], ["1", "2"])


class DirectoryRequestsTest(Requests, CommandCase):
    """The repository is a directory, reached through file://."""

    def test_a_server_directory_with_a_trailing_slash_serves(self):
        self.put()
        self.server += "/"
        self.assertEqual(self.run_command("run", "42").output, "done\n")


class HttpRequestsTest(Requests, CommandCase):
    """The repository is served by nginx."""

    def setUp(self):
        super().setUp()
        self.web = self.serve()

    def test_a_first_run_asks_for_list_document_and_script_once(self):
        script = self.put()
        self.run_command("run", "42")
        self.assertEqual(self.web.requests(), [f"GET {LIST_PATH} 200",
                                               f"GET {script.document_path} 200",
                                               f"GET {script.file_path} 200"])

    def test_an_up_to_date_run_asks_for_the_list_alone(self):
        self.put()
        self.run_command("run", "42")
        before = len(self.web.requests())
        self.run_command("run", "42")
        self.assertEqual(self.web.requests()[before:], [f"GET {LIST_PATH} 200"])

    def test_a_tampered_file_means_one_download_of_the_script_alone(self):
        script = self.put()
        self.run_command("run", "42")
        with open(self.script_file("job.sh"), "a", encoding="utf-8") as file:
            file.write("echo more\n")
        before = len(self.web.requests())
        self.run_command("run", "42")
        self.assertEqual(self.web.requests()[before:],
                         [f"GET {LIST_PATH} 200", f"GET {script.file_path} 200"])

    def test_a_path_below_the_server_is_kept(self):
        self.put()
        os.rename(self.repository.root, self.path("moved"))
        os.makedirs(self.repository.root)
        os.rename(self.path("moved"), self.repository.root + "/below")
        self.server += "/below"
        self.assertEqual(self.run_command("run", "42").output, "done\n")


class FilesTest(CommandCase):
    """What a request leaves on this computer."""

    def test_files_and_directories_are_for_the_owner_alone(self):
        self.put()
        result = self.run_command("run", "42", umask=0)
        self.assertEqual(result.status, 0, result.error)
        found = {}
        for directory, names, files in os.walk(self.base):
            for name in names + files:
                path = os.path.join(directory, name)
                mode = os.lstat(path).st_mode
                found[os.path.relpath(path, self.base)] = oct(stat.S_IMODE(mode))
        self.assertEqual(found, {
            "client-data": "0o700",
            "client-data/7": "0o700",
            "client-data/7/varn-scripts.lock": "0o600",
            "client-data/7/scripts-repository": "0o700",
            "client-data/7/scripts-repository/job.sh": "0o600",
            "client-data/7/scripts-repository-data": "0o700",
            "client-data/7/scripts-repository-data/42.xml": "0o600",
            "client-data/7/scripts-repository-data/scripts-meta.xml": "0o600",
            "data": "0o700",
            "data/7": "0o700",
            "data/7/Configuration-Framework": "0o700",
            "data/7/Configuration-Framework/ScriptRepository": "0o600",
        })

    def test_the_data_path_can_lie_elsewhere(self):
        self.put()
        elsewhere = self.path("elsewhere")
        result = self.run_command("--data-path", elsewhere, "run", "42")
        self.assertEqual(result.status, 0, result.error)
        self.assertTrue(
            os.path.exists(elsewhere + "/Configuration-Framework/ScriptRepository"))
        self.assertFalse(os.path.exists(self.base + "/data"))

    def test_a_relative_base_path_begins_at_the_current_directory(self):
        self.put(text="pwd\n")
        self.base = "base"
        result = self.run_command("run", "42")
        self.assertEqual(result.output,
                         self.path("base/client-data/7/scripts-repository") + "\n", result.error)


class ResultTest(CommandCase):
    """Exit status and JSON result of a request."""

    def result_of(self, *arguments):
        result = self.run_command("run", "42", "--json", *arguments)
        return result.status, result.output

    def test_an_accepted_run(self):
        self.put(text='echo "a \\"quoted\\" text"\necho zweite Zeile ü\n', version="5")
        before = datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(milliseconds=1)
        status, output = self.result_of()
        after = datetime.datetime.now(datetime.timezone.utc)
        self.assertEqual(status, 0)
        self.assertTrue(output.startswith(
            '{"script_id":"42","status":"accepted",'
            '"output":"a \\"quoted\\" text\\nzweite Zeile ü\\n",'
            '"exit_code":0,"timed_out":false,"started":"'), output)
        answer = json.loads(output)
        self.assertEqual(list(answer), ["script_id", "status", "output", "exit_code", "timed_out",
                                        "started", "duration_ms", "version", "path", "output_bytes",
                                        "dropped_bytes"])
        self.assertEqual((answer["version"], answer["path"], answer["output_bytes"],
                          answer["dropped_bytes"]), ("5", self.script_file("job.sh"), 32, 0))
        started = datetime.datetime.strptime(answer["started"], "%Y-%m-%dT%H:%M:%S.%f%z")
        self.assertTrue(before <= started <= after, (before, started, after))
        self.assertTrue(0 <= answer["duration_ms"] <= (after - before).total_seconds() * 1000)

    def test_a_rejected_run(self):
        self.put(text="echo bad\nexit 3\n")
        result = self.run_command("run", "42", "--json")
        answer, run = self.answer(result)
        self.assertEqual((result.status, answer, run["exit_code"]),
                         (1, {"script_id": "42", "status": "rejected", "output": "bad\n"}, 3))

    def test_a_run_that_a_signal_ended(self):
        self.put(text="kill -9 $$\n")
        result = self.run_command("run", "42", "--json")
        answer, run = self.answer(result)
        self.assertEqual((result.status, answer["status"], run["signal"]), (1, "rejected", 9))
        self.assertNotIn("exit_code", run)

    def test_a_rejected_run_still_hands_out_the_output(self):
        self.put(text="echo bad\nexit 3\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (1, "bad\n"))

    def test_a_run_without_output(self):
        self.put(text="exit 0\n")
        answer, run = self.answer(self.run_command("run", "42", "--json"))
        self.assertEqual(answer, {"script_id": "42", "status": "accepted", "output": ""})
        self.assertEqual((run["exit_code"], run["output_bytes"]), (0, 0))

    def test_a_script_that_was_not_run(self):
        self.assertEqual(self.result_of(), (
            3, '{"script_id":"42","status":"not_run","output":null,"reason":"The server\'s list of '
               f'customer {CUSTOMER} has no script 42","reason_code":"not_listed"}}\n'))

    def test_the_servers_codes_decide(self):
        self.put(text="exit 3\n", codes="0,3")
        self.assertEqual(self.result_of()[0], 0)

    def test_accepted_codes_replace_the_servers(self):
        self.put(text="exit 3\n", codes="3")
        for codes, status in (("0,3", 0), ("3", 0), ("0", 1), ("", 1), ("0, 3", 2), ("03", 2)):
            with self.subTest(codes=codes):
                self.assertEqual(self.result_of("--accept-codes", codes)[0], status)

    def test_an_empty_list_is_an_override(self):
        self.put(text="exit 0\n")
        result = self.run_command("run", "42", "--accept-codes", "")
        self.assertEqual(result.status, 1)
        self.assertIn("Script Return Code did not match expected overriden exit code: []",
                      result.error)

    def test_output_that_is_not_text_is_never_half_a_json(self):
        self.put(text="printf 'a\\377b'; exit 0\n")
        result = self.run_command("run", "42", "--json")
        self.assertEqual(result.status, 0)
        answer, run = self.answer(result)
        self.assertEqual(answer, {"script_id": "42", "status": "accepted", "output": ""})
        self.assertEqual((run["output_bytes"], run["dropped_bytes"]), (0, 3))
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.error_lines[-1]), (
            0, "varn-scripts: 3 bytes of output are left out: they are not UTF-8"))
        self.assertEqual(self.run_command("--quiet", "run", "42").error, "")
