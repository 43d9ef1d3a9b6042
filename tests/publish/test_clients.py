"""Clients of what `publish` makes: they run it, and go on running beside it."""

from client_case import PUBLISHINGS, ClientCase
from support.publish_case import PublishCase


class Client(PublishCase):
    def test_runs_what_was_published_and_then_what_is_published(self):
        self.write_script(text='printf "%s\\n" "$@"\nexit 3\n', arguments='-a "two words" ""',
                          accepted_codes="0,3")
        self.must_publish()
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "-a\ntwo words\n\n"))
        self.write_script(text="echo second\n")
        self.must_publish()
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "second\n"))
        self.write_script(text="echo second\n", accepted_codes="1")
        self.must_publish()
        self.assertEqual(self.run_command("run", "42").status, 1)

    def test_runs_scripts_of_any_id_and_file_name(self):
        names = {"a b": "with blank.sh", "50%41": "50%41.sh", "caf\u00e9": "caf\u00e9.sh",
                 "<&>'": "<&>'.sh", "#1?": "#1?.sh", ".x": ".sh", "back\\slash": "back\\slash.sh",
                 "x-": "-x.sh", "e\u0301t\u00e9": "\U0001F600.sh"}
        for script_id, file in names.items():
            self.write_script(script_id, file, f"echo {len(file)} of {len(names)}\n")
        self.must_publish()
        self.serve_output()
        for script_id, file in names.items():
            for _ in range(2):
                result = self.run_command("run", "--", script_id)
                self.assertEqual((result.status, result.output),
                                 (0, f"{len(file)} of {len(names)}\n"),
                                 script_id + "\n" + result.error)

    def test_is_content_with_every_digest(self):
        for digest in ("md5", "sha1", "sha224", "sha256", "sha384", "sha512"):
            self.write_script(text=f"echo {digest}\n")
            self.assertEqual(self.publish("--digest", digest).status, 0)
            result = self.run_command("run", "42")
            self.assertEqual((result.status, result.output), (0, digest + "\n"), result.error)

    def test_loses_what_was_dropped_and_nothing_else(self):
        self.write_script("1", "a.sh", "echo a\n")
        self.write_script("2", "b.sh", "echo b\n")
        self.must_publish()
        for script_id in ("1", "2"):
            self.assertEqual(self.run_command("run", script_id).status, 0)
        self.drop_script("1")
        self.must_publish()
        self.assertEqual(self.run_command("prune").status, 0)
        self.assertEqual([row["script_id"] for row in self.listed()], ["2"])

    def test_with_an_old_document_still_finds_the_script_that_it_names(self):
        self.write_script()
        self.must_publish("--keep-for", "0s")
        self.assertEqual(self.run_command("run", "42").status, 0)
        # Another description is another document, but not another version.
        for number in range(3):
            self.write_script(description=f"Text {number}")
            self.must_publish("--keep-for", "0s")
        with open(self.script_file("job.sh"), "w") as file:
            file.write("tampered")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"))


class ClientOfADirectory(ClientCase):
    def test_gets_the_old_or_the_new_script(self):
        # One list at most is replaced during a run, which is what the default keeps content for.
        self.run_beside(True)
        self.assertGreater(len(self.seen), PUBLISHINGS // 2)


class ClientOfAWebServer(ClientCase):
    def test_gets_the_old_or_the_new_script(self):
        self.serve_output()
        self.run_beside(True)
        self.assertGreater(len(self.seen), PUBLISHINGS // 2)


class ClientWhileStatesFlyBy(ClientCase):
    def test_gets_one_of_them(self):
        self.run_beside(False, "--keep-for", "1d", fresh=True)
        self.assertGreater(len(self.seen), 2)
