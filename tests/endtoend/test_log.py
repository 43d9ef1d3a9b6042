"""The log lines of a request: their exact order, their form, and where they go."""

import datetime
import json
import os
import re
import stat

from support.case import CommandCase

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

    def test_standard_output_carries_the_scripts_output_alone(self):
        self.put(text="echo out; echo err >&2\n")
        result = self.run_command("run", "42")
        self.assertEqual(result.output, "out\nerr\n")
        self.assertNotEqual(result.error, "")

    def test_quiet_writes_nothing_to_standard_error(self):
        self.put(text="echo out\n")
        result = self.run_command("--quiet", "run", "42")
        self.assertEqual((result.status, result.output, result.error), (0, "out\n", ""))

    def test_a_log_file_takes_the_lines(self):
        self.put()
        log = self.path("log")
        result = self.run_command("--log-file", log, "run", "42")
        self.assertEqual((result.status, result.error), (0, ""))
        with open(log, encoding="utf-8") as file:
            lines = file.read().splitlines()
        self.assertEqual(len(lines), 7)
        self.assertTrue(lines[-1].endswith(
            'Local Version -- status (Optional(true), Optional("done\\n"))'), lines[-1])
        self.assertEqual(stat.S_IMODE(os.stat(log).st_mode), 0o600)

    def test_quiet_leaves_a_log_file_alone(self):
        self.put()
        log = self.path("log")
        self.run_command("--quiet", "--log-file", log, "run", "42")
        with open(log, encoding="utf-8") as file:
            self.assertEqual(len(file.read().splitlines()), 7)

    def test_nothing_of_a_terminal_is_written_elsewhere(self):
        self.put()
        result = self.run_command("run", "42")
        self.assertIsNone(re.search("[\r\x1b]", result.error))
        self.assertNotIn("Script is running", result.error)
