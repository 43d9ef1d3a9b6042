"""What `plan` tells, and that nothing on the computer changes by it."""

import json
import os
import sqlite3

from support.publish_case import PublishCase
from support.repository import CUSTOMER, DIRECTORY


# Its name keeps it out of ./dev valgrind: one test takes the directory for temporary files away, and
# Valgrind itself can't start without.
class Plan(PublishCase):
    def setUp(self):
        super().setUp()
        self.temporary = self.path("tmp")
        os.mkdir(self.temporary)
        self.write_script(arguments='-a "two words"', accepted_codes="0,3", name="Job")
        self.must_publish()

    def plan(self, *arguments, **options):
        """Runs `plan` and checks that neither the base path nor the data path changes, and that no
        temporary file stays."""
        before = self.tree(self.base) if os.path.exists(self.base) else None
        result = self.run_command("--quiet", "plan", *arguments,
                                  environment=self.environment(TMPDIR=self.temporary), **options)
        after = self.tree(self.base) if os.path.exists(self.base) else None
        self.assertEqual(after, before)
        self.assertEqual(os.listdir(self.temporary), [])
        return result

    def plan_json(self, script_id="42"):
        result = self.plan(script_id, "--json")
        self.assertEqual(result.error, "")
        plan = json.loads(result.output)
        self.assertEqual(result.status, 3 if plan["problem"] else 0)
        return plan

    def run_script(self):
        self.assertEqual(self.run_command("run", "42").status, 0)

    def script_location(self):
        return self.document()["VyFiles"]["file_system_location"].replace(
            "..\\webapps\\Quillandermoor\\", "").replace("\\", "/")

    def test_of_a_first_run_is_a_download_that_leaves_no_trace(self):
        self.assertEqual(self.plan_json(), {
            "script_id": "42",
            "entry": {
                "script_name": "Job", "description": "", "script_id": "42",
                "script_file": "job.sh", "file_id": "42", "customer_id": CUSTOMER,
                "os_platform": "Mac", "modified_time": self.version(),
                "ScriptPathMapping": [{"filepath": self.entries()["42"]["filepath"]}]},
            "local_version": None,
            "step": "download",
            "reason": "no version is recorded",
            "downloads": [self.entries()["42"]["filepath"], self.script_location()],
            "script_file": self.script_file("job.sh"),
            "interpreter": "/bin/sh",
            "arguments": ["-a", "two words"],
            "accepted_codes": ["0", "3"],
            "waits_for": None,
            "problem": None,
            "reason_code": None})
        self.assertFalse(os.path.exists(self.base))

    def test_is_a_text_for_people(self):
        result = self.plan("42")
        self.assertEqual((result.status, result.error), (0, ""))
        self.assertEqual(result.output.splitlines(), [
            "script:         42",
            "name:           Job",
            f"server version: {self.version()}",
            "local version:  none",
            "step:           download: no version is recorded",
            f"fetch:          {self.entries()['42']['filepath']}",
            f"fetch:          {self.script_location()}",
            f"script file:    {self.script_file('job.sh')}",
            "interpreter:    /bin/sh",
            'arguments:      ["-a","two words"]',
            'accepted codes: ["0","3"]'])

    def test_after_a_run_is_up_to_date(self):
        self.run_script()
        plan = self.plan_json()
        self.assertEqual((plan["step"], plan["reason"], plan["downloads"]),
                         ("up_to_date", None, []))
        self.assertEqual(plan["local_version"], self.version())
        self.assertEqual(plan["arguments"], ["-a", "two words"])
        self.assertIn("step:           up to date\n", self.plan("42").output)

    def test_of_a_new_version_is_a_download_with_the_new_arguments(self):
        self.run_script()
        old = self.version()
        self.write_script(arguments="new")
        self.must_publish()
        plan = self.plan_json()
        self.assertEqual((plan["step"], plan["reason"], plan["local_version"]),
                         ("download", "the versions differ", old))
        self.assertEqual(plan["entry"]["modified_time"], self.version())
        self.assertEqual(plan["arguments"], ["new"])

    def test_without_the_data_document_is_a_download(self):
        self.run_script()
        os.remove(self.document_file("42.xml"))
        plan = self.plan_json()
        self.assertEqual((plan["step"], plan["reason"]),
                         ("download", "the data document is missing"))
        self.assertEqual(len(plan["downloads"]), 2)

    def test_without_the_script_fetches_the_script_again(self):
        self.run_script()
        os.remove(self.script_file("job.sh"))
        plan = self.plan_json()
        self.assertEqual((plan["step"], plan["reason"], plan["downloads"]),
                         ("up_to_date", "the script file is missing; it would be fetched again",
                          [self.script_location()]))

    def test_with_a_changed_script_fetches_the_script_again(self):
        self.run_script()
        with open(self.script_file("job.sh"), "a") as file:
            file.write("echo more\n")
        plan = self.plan_json()
        self.assertEqual((plan["step"], plan["reason"], plan["downloads"]),
                         ("up_to_date",
                          f"{self.script_file('job.sh')} is not what the server's checksum says: "
                          "its content is another; it would be fetched again",
                          [self.script_location()]))

    def test_of_an_unknown_script_says_so(self):
        result = self.plan("43")
        self.assertEqual((result.status, result.output),
                         (3, "script:         43\n"
                             f"not run:        The server's list of customer {CUSTOMER} has no "
                             "script 43\n"))
        plan = self.plan_json("43")
        self.assertEqual(plan["problem"],
                         f"The server's list of customer {CUSTOMER} has no script 43")
        self.assertIsNone(plan["entry"])

    def test_without_the_servers_list_says_so(self):
        os.remove(self.list_path)
        self.assertEqual(
            self.plan_json()["problem"],
            f"The list of customer {CUSTOMER} can't be fetched from file://{self.list_path}: "
            f"{self.list_path}: No such file or directory")

    def test_with_a_damaged_list_says_so(self):
        with open(self.list_path, "w") as file:
            file.write("<scripts-meta><ScriptRepo>")
        self.assertEqual(
            self.plan_json()["problem"],
            f"The list of customer {CUSTOMER} is no list of scripts; it is damaged, or something "
            "else came in its place")

    def test_without_the_data_document_on_the_server_says_so(self):
        document = self.output + self.entries()["42"]["filepath"]
        os.remove(document)
        self.assertEqual(
            self.plan_json()["problem"],
            f"The data document of script 42 can't be fetched from file://{document}: {document}: "
            "No such file or directory")

    def test_with_a_damaged_data_document_says_so(self):
        self.run_script()
        with open(self.document_file("42.xml"), "w") as file:
            file.write("<script>")
        plan = self.plan_json()
        self.assertEqual((plan["step"], plan["problem"]),
                         ("up_to_date", "The data document of script 42 is no such document; it is "
                                        "damaged, or something else came in its place"))

    def change_document(self, old, new):
        path = self.output + self.entries()["42"]["filepath"]
        with open(path, encoding="utf-8") as file:
            text = file.read()
        self.assertIn(old, text)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace(old, new))

    def test_with_a_data_document_that_no_memory_holds_says_so(self):
        self.run_script()
        os.truncate(self.document_file("42.xml"), 8 << 40)
        result = self.run_command("plan", "--json", "42")
        self.assertEqual((result.status, json.loads(result.output)["problem"]),
                         (3, f"The data document of script 42, {self.document_file('42.xml')}, "
                             "can't be read: Cannot allocate memory"))

    def test_of_what_no_run_would_come_to_says_why(self):
        changes = (
            ("<script_name>job.sh<", "<script_name>job.rb<",
             "No interpreter is known for job.rb; a script's name ends in .py, .sh, .pl, .scpt"),
            ("<script_name>job.rb<", "<script_name>job.scpt<",
             "/usr/bin/osascript is missing: AppleScript runs on macOS alone"),
            ("<script_id>42<", "<script_id>43<",
             "The data document of script 42 does not define the script"),
            ("<CSToVyFiles>\n      <checksum_id>1<", "<CSToVyFiles>\n      <checksum_id>2<",
             "The data document of script 42 has no checksum of the script's file"),
            ("<file_id>42<", "<file_id>43<", "The data document of script 42 has no file 42"),
        )
        for old, new, problem in changes:
            self.change_document(old, new)
            self.assertEqual(self.plan_json()["problem"], problem)

    def test_of_an_entry_without_a_document_says_so(self):
        with open(self.list_path, encoding="utf-8") as file:
            text = file.read()
        begin, end = text.index("<ScriptPathMapping>"), text.index("</ScriptPathMapping>")
        with open(self.list_path, "w", encoding="utf-8") as file:
            file.write(text[:begin] + text[end + len("</ScriptPathMapping>"):])
        self.assertEqual(self.plan_json()["problem"], 
                         "The server's list names no data document of script 42")

    def test_leaves_an_interrupted_transaction_of_the_store_to_others(self):
        self.run_script()
        # A writer that died inside a transaction leaves its journal; whoever opens the store next
        # in its place rolls back.
        store = self.store_file()
        connection = sqlite3.connect(store, isolation_level=None)
        connection.execute("PRAGMA journal_mode=PERSIST")
        connection.execute("PRAGMA cache_size=1")
        connection.execute("PRAGMA cache_spill=1")
        connection.execute("BEGIN")
        connection.execute("UPDATE ScriptToMeta SET value='{\"version\":\"torn\"}'")
        for number in range(2000):
            connection.execute("INSERT INTO ScriptToMeta VALUES (?, ?)",
                               (f"other {number}", "{}" + " " * 1000))
        with open(store, "rb") as file, open(store + "-journal", "rb") as journal:
            database, rollback = file.read(), journal.read()
        connection.execute("ROLLBACK")
        connection.close()
        self.assertGreater(len(database), 100000)
        with open(store, "wb") as file:
            file.write(database)
        with open(store + "-journal", "wb") as file:
            file.write(rollback)
        plan = self.plan_json()
        self.assertEqual((plan["step"], plan["local_version"]), ("up_to_date", self.version()))

    def test_reads_a_store_with_a_write_ahead_log(self):
        self.run_script()
        store = self.store_file()
        connection = sqlite3.connect(store, isolation_level=None)
        self.addCleanup(connection.close)
        connection.execute("PRAGMA journal_mode=WAL")
        connection.execute("UPDATE ScriptToMeta SET value='{\"version\":\"in the log\"}'")
        self.assertTrue(os.path.getsize(store + "-wal") > 0)
        self.assertEqual(self.plan_json()["local_version"], "in the log")

    def test_takes_a_damaged_store_for_none(self):
        self.run_script()
        with open(self.store_file(), "wb") as file:
            file.write(b"no store at all" * 1000)
        plan = self.plan_json()
        self.assertEqual((plan["step"], plan["reason"]), ("download", "no version is recorded"))

    def test_of_what_a_web_server_serves_is_the_same(self):
        self.serve_output()
        self.assertEqual(self.plan_json()["arguments"], ["-a", "two words"])
        self.run_script()
        self.assertEqual(self.plan_json()["step"], "up_to_date")

    def test_needs_a_script_id(self):
        result = self.plan("")
        self.assertEqual(result.status, 2)
        self.assertEqual(result.error_lines[0], "varn-scripts: SCRIPT_ID must not be empty")

    def test_without_a_place_for_temporary_files_says_so(self):
        result = self.run_command("plan", "42", environment=self.environment(
            TMPDIR=self.path("missing")))
        reason = "No temporary directory can be made: No such file or directory"
        self.assertEqual((result.status, result.error_lines[1:]), (3, [reason]))
        result = self.run_command("--log-format", "json", "plan", "42",
                                  environment=self.environment(TMPDIR=self.path("missing")))
        self.assertEqual((result.status, result.records[-1]["message"]), (3, reason))
