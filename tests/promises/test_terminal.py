"""What others write into names, documents and replies steers no terminal."""

import json
import os
import unicodedata

from hostile_server import HostileServer
from support.case import CommandCase
from support.repository import LIST_PATH

# What an XML document may carry of them: DEL, C1, carriage returns, and what turns the text.
CONTROLS = "\x7f\x85\x9b\u061c\u200e\u2028\u2029\u202e\u2066\u2069"
IN_NAMES = f"a{CONTROLS}b"
# A reply's header may carry any byte but line ends and NUL.
IN_HEADERS = b"\x1b]0;owned\x07\x9b2J\x08\x7f"


def steering(text):
    """The characters of a text that steer a terminal or turn what it shows."""
    return [character for character in text
            if (unicodedata.category(character) in ("Cc", "Zl", "Zp") and character != "\n")
            or unicodedata.bidirectional(character) in
            ("RLE", "LRE", "RLO", "LRO", "PDF", "RLI", "LRI", "FSI", "PDI")
            or character in "\u061c\u200e\u200f"]


class TerminalCase(CommandCase):

    def assert_harmless(self, *texts):
        for text in texts:
            self.assertEqual(steering(text), [], text)


class DocumentTest(TerminalCase):
    """Controls in every text of the list and of a data document."""

    def setUp(self):
        super().setUp()
        self.put(script_id=IN_NAMES, file_name=f"{IN_NAMES}.sh", version=IN_NAMES,
                 arguments=IN_NAMES, codes=f"0,{IN_NAMES}", text="printf 'own \\033 output'\n")

    def every_command(self, *options):
        yield self.run_command(*options, "plan", IN_NAMES)
        yield self.run_command(*options, "run", IN_NAMES)
        yield self.run_command(*options, "plan", IN_NAMES)
        yield self.run_command(*options, "list")
        self.put(script_id=IN_NAMES, file_name=f"{IN_NAMES}.none", version="2" + IN_NAMES)
        yield self.run_command(*options, "run", IN_NAMES)
        self.repository.drop(IN_NAMES)
        yield self.run_command(*options, "run", IN_NAMES)
        yield self.run_command(*options, "prune")

    def assert_every_command_harmless(self, *options):
        statuses = []
        for result in self.every_command(*options):
            statuses.append(result.status)
            # The script's own output alone comes as it is.
            self.assert_harmless(result.output.replace("own \x1b output", ""), result.error)
        self.assertEqual(statuses, [0, 0, 0, 0, 3, 3, 0])

    def test_is_shown_without_them(self):
        self.assert_every_command_harmless()

    def test_is_logged_without_them(self):
        log = self.path("log")
        self.assert_every_command_harmless("--log-file", log)
        with open(log, encoding="utf-8") as file:
            text = file.read()
        self.assertIn("a??????????b", text)
        self.assert_harmless(text)

    def test_is_exact_in_json_and_harmless_too(self):
        plan = self.run_command("plan", "--json", IN_NAMES)
        self.assertEqual(json.loads(plan.output)["entry"]["modified_time"], IN_NAMES)
        run = self.run_json_log("run", "--json", IN_NAMES)
        self.assertEqual(json.loads(run.output)["script_id"], IN_NAMES)
        self.assertEqual(json.loads(run.output)["output"], "own \x1b output")
        self.assertTrue(any(IN_NAMES in message for _, _, message in run.steps), run.error)
        listed = self.run_command("list", "--json")
        self.assertEqual(json.loads(listed.output)[0]["version"], IN_NAMES)
        self.assert_harmless(plan.output, plan.error, run.output, run.error, listed.output)


class ReplyTest(TerminalCase):
    """Controls in the headers of a reply."""

    def setUp(self):
        super().setUp()
        self.hostile = HostileServer(self.repository.root)
        self.addCleanup(self.hostile.stop)
        self.server = self.hostile.url

    def test_are_told_without_them(self):
        replies = {
            "status line": b"HTTP/1.1 500 " + IN_HEADERS + b"\r\nContent-Length: 0\r\n\r\n",
            "coding": (b"HTTP/1.1 200 OK\r\nContent-Encoding: " + IN_HEADERS +
                       b"\r\nContent-Length: 1\r\n\r\nx"),
            "place": (b"HTTP/1.1 302 Found\r\nLocation: gopher://" + IN_HEADERS +
                      b"/\r\nContent-Length: 0\r\n\r\n"),
            "garbage": IN_HEADERS * 10 + b"\r\n\r\n",
        }
        for name, reply in replies.items():
            with self.subTest(reply=name):
                self.hostile.answer(LIST_PATH, [reply])
                result = self.run_command("run", "42")
                self.assertEqual(result.status, 3)
                self.assertIn("HttpHandlermac", result.error)
                self.assert_harmless(result.output, result.error)


class LocalTextTest(TerminalCase):
    """Controls in what this computer's own users name."""

    NAME = "n\x1b[2J\u202e\x9b\r"

    def test_a_command_line(self):
        for arguments in ([self.NAME], ["--" + self.NAME], ["run", "42", self.NAME],
                          ["--log-format", self.NAME, "run", "42"],
                          ["--config", self.path(self.NAME), "run", "42"],
                          ["--server", self.NAME, "run", "42"],
                          ["run", self.NAME], ["plan", self.NAME],
                          ["publish", self.path(self.NAME), self.path("out")]):
            with self.subTest(arguments=arguments):
                result = self.run_command(*arguments)
                self.assertNotEqual(result.status, 0)
                self.assertNotEqual(result.output + result.error, "")
                self.assert_harmless(result.output, result.error)

    def test_paths(self):
        self.put()
        self.base = self.path(self.NAME)
        run = self.run_command("run", "42")
        self.assertEqual((run.status, run.output), (0, "done\n"), run.error)
        listed = self.run_command("list")
        self.assert_harmless(run.error, listed.output, listed.error)
        os.chmod(self.base, 0o777)
        refused = self.run_command("run", "42")
        self.assertEqual(refused.status, 3)
        self.assertIn("n?[2J??\\r", refused.error_lines[-1])
        self.assert_harmless(refused.output, refused.error)

    def test_a_manifest(self):
        source = self.path(self.NAME)
        os.makedirs(source)
        with open(os.path.join(source, "scripts.toml"), "w", encoding="utf-8") as file:
            file.write('[[script]]\nid = "1\\u009b"\nfile = "\\u001b\\u202e.sh"\n"\\u0085" = 1\n')
        result = self.run_command("publish", source, self.path("out"),
                                  settings=["--customer", "7"])
        self.assertEqual(result.status, 2)
        self.assertGreaterEqual(len(result.error_lines), 2)
        self.assert_harmless(result.output, result.error)
