"""The log lines of a request: their exact order, their form, and where they go."""

import datetime
import json
import os
import re
import stat

from support.case import UNVERIFIED, CommandCase

PROCESSOR = "ScriptRepositoryProcessor"
METADATA = "ScriptRepositoryMetaProcessor"
RUNNER = "ScriptRepositoryUtil"
SHELL = "shell(launchPath:commandPath:arguments:executeInDirectory:timeoutIn:)"


class SequenceTest(CommandCase):
    """Source, operation and message of every line, in order."""

    def setUp(self):
        super().setUp()
        self.put(text='echo "$1"\n', arguments='"two words" -b', codes="0,1")

    def run_lines(self):
        directory = f"{self.base}/client-data/7/scripts-repository"
        return [
            (PROCESSOR, "executeScript(scriptData:)",
             'Script Name: job.sh Args: "two words" -b Expected Exit Code: 0,1'),
            (RUNNER, SHELL,
             f"Execute /bin/sh command: {directory}/job.sh, arguments: "
             f'["two words", "-b"], in directory {directory}, timeoutIn 600'),
            (RUNNER, SHELL, "availableOutput"),
            (PROCESSOR, "executeScript(scriptData:)",
             "Script Output: two words\n Exit Code: 0"),
        ]

    def test_a_first_run(self):
        result = self.run_json_log("run", "42")
        self.assertEqual(result.steps, [
            UNVERIFIED,
            (METADATA, "downloadScriptRepoMeta()", "Script-Meta Download Success"),
            (PROCESSOR, "processScript()",
             "Processing Script ID 42 Server Version 1 Local Version -- Downloading and Executing "
             "Script"),
            *self.run_lines(),
            (PROCESSOR, "processScript()",
             "Processing Script ID 42 Server Version 1 Local Version -- status "
             '(Optional(true), Optional("two words\n"))'),
        ])

    def test_an_up_to_date_run(self):
        self.run_command("run", "42")
        result = self.run_json_log("run", "42")
        self.assertEqual(result.steps, [
            UNVERIFIED,
            (METADATA, "downloadScriptRepoMeta()", "Script-Meta Download Success"),
            (PROCESSOR, "processScript()",
             "Processing Script ID 42 Server Version 1 Local Version 1 Proceeding without "
             "Downloading Script"),
            *self.run_lines(),
            (PROCESSOR, "processScript()",
             "Processing Script ID 42 Server Version 1 Local Version 1 status "
             '(Optional(true), Optional("two words\n"))'),
        ])


class FormTest(CommandCase):
    """The two forms of a line."""

    def test_json_has_exactly_six_keys_in_order(self):
        result = self.run_json_log("run", "42", "--json")
        self.assertEqual(result.status, 3)
        self.assertGreaterEqual(len(result.records), 2)
        for record in result.records:
            self.assertEqual(list(record),
                             ["time", "level", "source", "operation", "line", "message"])
            self.assertRegex(record["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z$")
            self.assertEqual(record["level"], "info")
            self.assertIsInstance(record["line"], int)
            self.assertGreater(record["line"], 0)

    def test_the_time_is_utc_wherever_the_computer_stands(self):
        self.put()
        before = datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(milliseconds=1)
        result = self.run_command("--log-format", "json", "run", "42",
                                  environment=self.environment(TZ="JST-9"))
        after = datetime.datetime.now(datetime.timezone.utc)
        self.assertEqual(result.status, 0, result.error)
        for record in result.records:
            time = datetime.datetime.strptime(record["time"], "%Y-%m-%dT%H:%M:%S.%f%z")
            self.assertTrue(before <= time <= after, (before, record["time"], after))

    def test_text_is_one_line_per_record(self):
        self.put(text="echo one; echo two\n")
        result = self.run_command("run", "42")
        self.assertEqual(len([line for line in result.error_lines if "Script Output: " in line]), 1)
        self.assertIn("Script Output: one\\ntwo\\n Exit Code: 0", result.error)

    def test_bytes_that_are_not_utf8_do_not_break_a_json_line(self):
        result = self.run_json_log("run", b"4\xff2", "--json")
        self.assertEqual(result.status, 3)
        self.assertEqual(
            result.records[-1]["message"],
            "Processing Script ID 4\ufffd2 not able to get server script repo meta to procees")
        self.assertEqual(json.loads(result.output)["script_id"], "4\ufffd2")


class DestinationTest(CommandCase):
    """Where lines go."""

    verbose = False

    def test_standard_output_carries_the_scripts_output_alone(self):
        self.put(text="echo out; echo err >&2\n")
        result = self.run_command("-v", "run", "42")
        self.assertEqual(result.output, "out\nerr\n")
        self.assertGreaterEqual(len(result.error_lines), 8)

    def test_nothing_is_logged_where_no_log_is_asked_for(self):
        self.put(text="echo out\n")
        for options in ([], ["--log-level", "info"], ["--quiet"]):
            with self.subTest(options=options):
                result = self.run_command(*options, "run", "42")
                self.assertEqual((result.status, result.output, result.error), (0, "out\n", ""))

    def test_a_form_asks_for_the_log(self):
        self.put()
        self.assertEqual(len(self.run_json_log("run", "42").records), 8)
        result = self.run_command("--log-format", "text", "run", "42")
        self.assertEqual(len(result.error_lines), 8)

    def test_quiet_wins_over_verbose(self):
        self.put()
        for options in (["-v", "--quiet"], ["--quiet", "-v"], ["--quiet", "--log-format", "json"]):
            result = self.run_command(*options, "run", "42")
            self.assertEqual((result.status, result.error), (0, ""), options)
        nearer = self.run_command("-v", "run", "42",
                                  environment=self.environment(VARN_QUIET="true"))
        self.assertEqual(len(nearer.error_lines), 8)

    def test_a_log_file_takes_the_lines(self):
        self.put()
        log = self.path("log")
        result = self.run_command("--log-file", log, "run", "42")
        self.assertEqual((result.status, result.error), (0, ""))
        with open(log, encoding="utf-8") as file:
            lines = file.read().splitlines()
        self.assertEqual(len(lines), 8)
        self.assertTrue(lines[-1].endswith(
            'Local Version -- status (Optional(true), Optional("done\\n"))'), lines[-1])
        self.assertEqual(stat.S_IMODE(os.stat(log).st_mode), 0o600)

    def test_verbose_shows_what_a_log_file_takes(self):
        self.put()
        log = self.path("log")
        result = self.run_command("-v", "--log-format", "json", "--log-file", log, "run", "42")
        with open(log, encoding="utf-8") as file:
            self.assertEqual(result.error, file.read())
        self.assertEqual(len(result.records), 8)

    def test_quiet_leaves_a_log_file_alone(self):
        self.put()
        log = self.path("log")
        self.run_command("--quiet", "--log-file", log, "run", "42")
        with open(log, encoding="utf-8") as file:
            self.assertEqual(len(file.read().splitlines()), 8)

    def test_nothing_of_a_terminal_is_written_elsewhere(self):
        self.put()
        result = self.run_command("-v", "run", "42")
        self.assertIsNone(re.search("[\r\x1b]", result.error))
        self.assertNotIn("Script is running", result.error)

    def test_a_journal_that_the_build_does_not_know_is_refused(self):
        self.put()
        result = self.run_command("--log-target", "journald", "run", "42")
        if result.status == 0:
            self.skipTest("this build knows it")
        self.assertEqual((result.status, result.output, result.error), (
            2, "", "varn-scripts: log_target (--log-target, VARN_LOG_TARGET) can't be had: this "
                   "build can't write to the journal by itself; syslog reaches it, too\n"))


class LevelTest(CommandCase):
    """How much of the log is written: failures are warnings, whatever a line calls them."""

    verbose = False

    def messages(self, level, *arguments):
        result = self.run_json_log("--log-level", level, *arguments)
        return result.status, [(r["level"], r["message"]) for r in result.records]

    def test_of_a_run_that_goes_well_warnings_are_nothing(self):
        self.put()
        self.assertEqual(self.messages("warning", "run", "42"), (0, []))

    def test_a_rejection_is_a_warning(self):
        self.put(text="exit 3\n")
        self.assertEqual(self.messages("warning", "run", "42"), (1, [
            ("info", 'Script Return Code did not match expected exit code: ["0"]')]))
        self.assertEqual(self.messages("error", "run", "42"), (1, []))

    def test_a_request_that_fails_has_warnings_and_the_reason_as_an_error(self):
        self.server = "file://" + self.path("none")
        path = self.path("none/client-data/7/scriptrepo/scripts-meta.xml")
        status, messages = self.messages("warning", "run", "42")
        reason = ("error", f"The list of customer 7 can't be fetched from file://{path}: {path}: No "
                           "such file or directory")
        self.assertEqual((status, messages[1:]), (3, [
            ("info", "Script-Meta Download Failed"),
            ("info",
             "Processing Script ID 42 not able to get server script repo meta to procees"),
            reason]))
        self.assertTrue(messages[0][1].startswith("Download of "), messages[0])
        self.assertEqual(self.messages("error", "run", "42"), (3, [reason]))


class WarningTest(CommandCase):
    """What is said without a log: what is amiss, and the reason."""

    verbose = False

    def test_a_request_that_fails_says_the_reason_alone(self):
        self.server = "file://" + self.path("none")
        path = self.path("none/client-data/7/scriptrepo/scripts-meta.xml")
        reason = (f"The list of customer 7 can't be fetched from file://{path}: {path}: No such "
                  "file or directory\n")
        for options in ([], ["--quiet"]):
            for command in (["run", "42"], ["prune"]):
                result = self.run_command(*options, *command)
                self.assertEqual((result.status, result.output, result.error), (3, "", reason))

    def test_a_rejection_is_told(self):
        self.put(text="echo out; exit 3\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output, result.error),
                         (1, "out\n", "varn-scripts: rejected: the exit code is 3\n"))
        self.put(version="2", text="kill -9 $$\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.error),
                         (1, "varn-scripts: rejected: the script was ended by signal 9\n"))
        for options in (["--quiet", "run", "42"], ["run", "42", "--json"]):
            result = self.run_command(*options)
            self.assertEqual((result.status, result.error), (1, ""))

    def test_what_others_may_write_to_is_told(self):
        self.put()
        os.makedirs(self.base, mode=0o700)
        os.chmod(self.base, 0o770)
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output, result.error), (
            0, "done\n",
            f"varn-scripts: Writable by others than its owner: {self.base}\n"))
        self.assertEqual(self.run_command("--quiet", "run", "42").error, "")
        log = self.path("log")
        in_file = self.run_command("--log-file", log, "run", "42")
        self.assertEqual(in_file.error, result.error)
        with open(log, encoding="utf-8") as file:
            self.assertIn("Writable by others than its owner: ", file.read())
        # In the log alone, where that stands beside it.
        verbose = self.run_command("-v", "run", "42")
        self.assertEqual(verbose.error.count("Writable by others"), 1)
