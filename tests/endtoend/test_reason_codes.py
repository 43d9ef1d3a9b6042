"""Every code of a reason, each produced once by a request of the built command."""

import contextlib
import hashlib
import json
import os
import pathlib
import re
import resource
import sqlite3

from support.case import CommandCase
from support.repository import CUSTOMER, LIST_PATH, Repository
from support.signing import Key

PAGE = pathlib.Path(__file__).parents[2] / "docs/operating.md"


def documented_codes():
    """The codes of the operator's table."""
    table = PAGE.read_text(encoding="utf-8").partition("| `reason_code` |")[2].partition("\n\n")[0]
    return re.findall(r"(?m)^\| `([a-z_]+)` \|", table)


class ReasonCodes(CommandCase):
    """Each method makes a request for 42 that ends with the code that it is named after."""

    verbose = False

    def run_42(self, *options, **more):
        result = self.run_command("run", "42", "--json", *options, **more)
        self.assertEqual(result.status, 3, result.error)
        return json.loads(result.output)

    def change(self, path, old, new):
        """Replaces `old`, which is there, in a file of the server."""
        with open(self.repository.root + path, encoding="utf-8") as file:
            text = file.read()
        self.assertIn(old, text)
        self.repository.write(path, text.replace(old, new))

    def make_list_unavailable(self):
        self.repository.remove(LIST_PATH)
        return self.run_42()

    def make_list_untrusted(self):
        self.put()
        return self.run_42("--trusted-key", Key().line)

    def make_list_unreadable(self):
        self.repository.write(LIST_PATH, "<html><body>Please sign in</body></html>")
        return self.run_42()

    def make_not_listed(self):
        self.put(script_id="43")
        return self.run_42()

    def make_document_unlisted(self):
        self.put()
        self.change(LIST_PATH, "ScriptPathMapping>", "Elsewhere>")
        return self.run_42()

    def make_document_unavailable(self):
        self.repository.remove(self.put().document_path)
        return self.run_42()

    def make_document_unreadable(self):
        self.repository.write(self.put().document_path, "<html></html")
        return self.run_42()

    def make_document_incomplete(self):
        script = self.put()
        self.change(script.document_path, "<file_id>f42</file_id>", "<file_id>f43</file_id>")
        return self.run_42()

    def make_script_unavailable(self):
        self.repository.remove(self.put().file_path)
        return self.run_42()

    def make_checksum_mismatch(self):
        self.repository.write(self.put().file_path, "echo changed\n")
        return self.run_42()

    def make_interpreter_unknown(self):
        self.put(file_name="job.exe")
        return self.run_42()

    def make_interpreter_missing(self):
        self.put(file_name="job.scpt")
        return self.run_42()

    def make_start_failed(self):
        # More than the system hands to a process as one argument.
        self.put(arguments="x" * 200_000)
        return self.run_42()

    def make_locked_out(self):
        os.makedirs(self.base)
        with open(self.base + "/client-data", "w", encoding="utf-8"):
            pass
        return self.run_42()

    def make_unsafe_directory(self):
        os.makedirs(os.path.dirname(self.script_file("x")))
        os.chmod(os.path.dirname(self.script_file("x")), 0o777)
        return self.run_42()

    def make_foreign_record(self):
        # Of two customers that were given one record.
        self.put()
        shared = ["--data-path", self.base + "/shared"]
        self.assertEqual(self.run_command(*shared, "run", "42").status, 0)
        path = self.base + "/shared/Configuration-Framework/ScriptRepository"
        record = json.dumps({"scriptPath": "/other/client-data/8/scripts-repository/job.sh"})
        with contextlib.closing(sqlite3.connect(path)) as store, store:
            store.execute("UPDATE ScriptToMeta SET value = ?", (record,))
        return self.run_42(*shared)

    def make_local_state_failed(self):
        # An interrupted request has left its mark, and a document that can't be removed.
        self.put()
        self.assertEqual(self.run_command("run", "42").status, 0)
        mark = f"varn-scripts.unrecorded-{hashlib.sha256(b'42').hexdigest()}"
        with open(f"{self.base}/client-data/{CUSTOMER}/{mark}", "w", encoding="utf-8"):
            pass
        os.remove(self.document_file("42.xml"))
        os.mkdir(self.document_file("42.xml"))
        return self.run_42()

    def make_out_of_memory(self):
        # Few bytes of a document, and many times as many as a list of arguments.
        self.put(arguments="a " * 4_000_000)
        most = 120 << 20
        return self.run_42(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (most, most)))

    def test_each_of_the_operators_table_is_produced(self):
        codes = documented_codes()
        self.assertEqual(sorted(codes), sorted(name.removeprefix("make_") for name in dir(self)
                                               if name.startswith("make_")))
        with open(self.command, "rb") as program:
            content = program.read()
        if b"__asan_init" in content or b"__tsan_init" in content:
            # A sanitizer has memory of its own, more than any limit.
            codes.remove("out_of_memory")
        for code in codes:
            with self.subTest(code=code):
                self.repository = Repository(self.path(code, "repository"))
                self.server = "file://" + self.repository.root
                self.base = self.path(code, "base")
                answer = getattr(self, "make_" + code)()
                self.assertEqual((answer["status"], answer["reason_code"]), ("not_run", code),
                                 answer["reason"])
                self.assertTrue(answer["reason"])
