"""What `publish` makes of a directory of scripts, what it leaves alone, and what it refuses."""

import fcntl
import hashlib
import os
import resource
import signal
import stat
import subprocess
import sys
import time

from support.publish_case import LOCK_NAME, PublishCase
from support.repository import CUSTOMER, DIRECTORY


def sha256(text):
    return hashlib.sha256(text.encode()).hexdigest()


class PublishedTree(PublishCase):
    def test_has_a_list_a_document_and_the_script_each_readable_by_a_web_server(self):
        self.write_script(arguments='-a "two words"', accepted_codes="0,3", name="Job",
                          description="A job.")
        output = self.must_publish()
        self.assertEqual(output, "+ 42\n"
                                 "Published 1 script for customer 7: 2 files written, "
                                 "the list replaced, 0 files removed.\n")
        script = f"files/{sha256('echo done' + chr(10))}.sh"
        document = self.entries()["42"]["filepath"].removeprefix(DIRECTORY + "/")
        self.assertEqual(self.files(), {"scripts-meta.xml", script, document})
        for name, (mode, *_) in self.tree().items():
            expected = 0o755 if stat.S_ISDIR(mode) else 0o644
            if name not in (".", os.path.join(DIRECTORY[1:], LOCK_NAME)):
                self.assertEqual(stat.S_IMODE(mode), expected, name)

    def test_names_every_file_but_the_list_by_its_content(self):
        self.write_script("1", "a.sh", "echo a\n")
        self.write_script("2", "b.py", "print(1)\n")
        self.must_publish()
        self.assertEqual(len(self.content()), 4)
        for name in self.content():
            with open(f"{self.output}{DIRECTORY}/{name}", "rb") as file:
                digest = hashlib.sha256(file.read()).hexdigest()
            self.assertEqual(os.path.basename(name).split(".")[0], digest)

    def test_has_the_documents_of_the_script(self):
        self.write_script(arguments='-a "two words"', accepted_codes="0,3", name="Job",
                          description="A <job> & more\n", platform="Mac")
        self.must_publish()
        entry = self.entries()["42"]
        self.assertEqual(
            {key: entry[key] for key in ("script_name", "description", "script_file", "file_id",
                                         "customer_id", "os_platform")},
            {"script_name": "Job", "description": "A <job> & more\n", "script_file": "job.sh",
             "file_id": "42", "customer_id": "7", "os_platform": "Mac"})
        document = self.document()
        self.assertEqual(document["ScriptRepo"]["script_args"], '-a "two words"')
        self.assertEqual(document["ScriptRepo"]["script_mul_exit_code"], "0,3")
        self.assertEqual(document["ScriptRepo"]["modified_time"], entry["modified_time"])
        self.assertEqual(document["ChecksumValues"]["checksum_type"], "sha256")
        self.assertEqual(document["ChecksumValues"]["checksum_val"], sha256("echo done\n"))
        self.assertEqual(document["VyFiles"]["file_system_location"],
                         "..\\webapps\\Quillandermoor\\client-data\\7\\scriptrepo\\files\\"
                         + sha256("echo done\n") + ".sh")

    def test_has_the_digest_that_was_chosen(self):
        self.write_script()
        self.must_publish("--digest", "SHA-512")
        checksum = self.document()["ChecksumValues"]
        self.assertEqual(checksum["checksum_type"], "sha512")
        self.assertEqual(checksum["checksum_val"], hashlib.sha512(b"echo done\n").hexdigest())

    def test_does_not_depend_on_the_place_or_the_time(self):
        self.write_script()
        self.must_publish()
        first = {name: values[-1] for name, values in self.tree().items()}
        os.utime(self.source + "/job.sh", (1, 1))
        self.output = self.path("deep/other/output")
        self.must_publish()
        self.assertEqual({name: values[-1] for name, values in self.tree().items()}, first)

    def test_of_one_customer_leaves_that_of_another_alone(self):
        self.write_script()
        self.must_publish()
        before = self.tree(self.output + "/client-data/7")
        self.write_script(text="echo other\n")
        result = self.run_command("publish", self.source, self.output,
                                  settings=["--customer", "other one"])
        self.assertEqual(result.status, 0)
        self.assertEqual(self.tree(self.output + "/client-data/7"), before)
        self.assertTrue(os.path.exists(
            self.output + "/client-data/other one/scriptrepo/scripts-meta.xml"))


class Repeated(PublishCase):
    def test_without_a_change_rewrites_nothing(self):
        self.write_script("1", "a.sh", "echo a\n")
        self.write_script("2", "b.sh", "echo b\n")
        self.must_publish()
        before = self.tree()
        self.assertEqual(self.must_publish(),
                         "Published 2 scripts for customer 7: nothing has changed.\n")
        os.utime(self.source + "/a.sh", (1, 1))
        self.must_publish()
        self.assertEqual(self.tree(), before)

    def test_with_one_changed_script_adds_its_files_and_replaces_the_list(self):
        for number in range(5):
            self.write_script(str(number), f"{number}.sh", f"echo {number}\n")
        self.must_publish()
        before = self.tree()
        versions = {key: entry["modified_time"] for key, entry in self.entries().items()}
        self.write("3.sh", "echo changed\n")
        self.assertEqual(self.must_publish(),
                         "~ 3 (script)\n"
                         "Published 5 scripts for customer 7: 2 files written, the list replaced, "
                         "0 files removed.\n")
        after = self.tree()
        self.assertEqual(before.keys() - after.keys(), set())
        self.assertEqual({os.path.splitext(name)[1] for name in after.keys() - before.keys()},
                         {".sh", ".xml"})
        self.assertEqual(len(after.keys() - before.keys()), 2)
        # What has dropped out of the list has the time of that.
        changed = {name for name in before if before[name][-1] != after[name][-1]}
        self.assertEqual(changed, {"client-data/7/scriptrepo/scripts-meta.xml"})
        touched = {name for name in before if stat.S_ISREG(before[name][0])
                   and before[name] != after[name]} - changed
        self.assertEqual(sorted(os.path.splitext(name)[1] for name in touched), [".sh", ".xml"])
        changed_versions = {key for key, entry in self.entries().items()
                            if entry["modified_time"] != versions[key]}
        self.assertEqual(changed_versions, {"3"})

    def test_changes_the_version_exactly_when_what_runs_changes(self):
        self.write_script()
        self.must_publish()
        seen = [self.version()]
        for change in ({"text": "echo 2\n"}, {"file": "job2.sh"}, {"arguments": "x"},
                       {"accepted_codes": "1"}):
            self.write_script(**change)
            self.must_publish()
            self.assertNotIn(self.version(), seen, change)
            seen.append(self.version())
        self.write_script()
        self.must_publish()
        self.assertEqual(self.version(), seen[0])
        for change in ({"name": "n"}, {"description": "d"}, {"platform": "p"}):
            self.write_script(**change)
            self.must_publish()
            self.assertEqual(self.version(), seen[0], change)
        self.must_publish("--digest", "sha384")
        self.assertEqual(self.version(), seen[0])

    def damage(self, names):
        for name in names:
            with open(f"{self.output}{DIRECTORY}/{name}", "w") as file:
                file.write("damaged")

    def test_mends_content_that_was_damaged(self):
        self.write_script()
        self.must_publish()
        before = {name: values[-1] for name, values in self.tree().items()}
        self.damage(self.content())
        self.assertEqual(self.must_publish(),
                         "Published 1 script for customer 7: 2 files written, the list unchanged, "
                         "0 files removed.\n")
        self.assertEqual({name: values[-1] for name, values in self.tree().items()}, before)

    def test_mends_one_file_among_very_many(self):
        for number in range(1200):
            self.write_script(str(number), f"{number}.sh", f"echo {number}\n")
        self.must_publish()
        before = {name: values[-1] for name, values in self.tree().items()}
        entries = self.entries()
        damaged = [entries["0"]["filepath"].removeprefix(DIRECTORY + "/"),
                   f"files/{sha256('echo 700' + chr(10))}.sh",
                   entries["1199"]["filepath"].removeprefix(DIRECTORY + "/")]
        self.damage(damaged)
        self.assertEqual(self.must_publish(),
                         "Published 1200 scripts for customer 7: 3 files written, "
                         "the list unchanged, 0 files removed.\n")
        self.assertEqual({name: values[-1] for name, values in self.tree().items()}, before)
        self.assertEqual(self.must_publish(),
                         "Published 1200 scripts for customer 7: nothing has changed.\n")

    def test_names_every_fault_of_very_many_scripts_in_the_order_of_the_manifest(self):
        for number in range(1200):
            self.write_script(str(number), f"{number}.sh", f"echo {number}\n")
        faulty = [3, 400, 599, 600, 1000, 1199]
        for number in faulty:
            os.unlink(f"{self.source}/{number}.sh")
        result = self.publish()
        self.assertEqual(result.status, 2)
        named = [line for line in result.error.splitlines() if "is not in" in line]
        self.assertEqual([line.split('"')[1] for line in named],
                         [f"{number}.sh" for number in faulty])

class Retention(PublishCase):
    def publish_text(self, text, *options):
        """Publishes a script of this text; gives the two content names of it."""
        self.write_script(text=f"echo {text}\n")
        self.must_publish(*options)
        return {self.entries()["42"]["filepath"].removeprefix(DIRECTORY + "/"),
                f"files/{sha256(f'echo {text}' + chr(10))}.sh"}

    def test_keeps_what_the_last_two_lists_named(self):
        first = self.publish_text("1")
        second = self.publish_text("2")
        self.assertEqual(self.content(), first | second)
        third = self.publish_text("3")
        self.assertEqual(self.content(), second | third)
        # The same list again is not one more list.
        self.must_publish()
        self.assertEqual(self.content(), second | third)

    def age(self, names, seconds):
        """Makes files look as if they had last been modified that long ago."""
        for name in names:
            then = time.time() - seconds
            os.utime(f"{self.output}{DIRECTORY}/{name}", (then, then))

    def test_keeps_for_as_long_as_asked_for_what_has_dropped_out(self):
        first = self.publish_text("1")
        # As old as it may be: what counts is when it dropped out.
        self.age(first, 10**6)
        second = self.publish_text("2", "--keep-for", "1h")
        third = self.publish_text("3", "--keep-for", "1h")
        fourth = self.publish_text("4", "--keep-for", "1h")
        self.assertEqual(self.content(), first | second | third | fourth)
        self.age(first, 3700)
        self.age(second, 3500)
        fifth = self.publish_text("5", "--keep-for", "1h")
        self.assertEqual(self.content(), second | third | fourth | fifth)
        # Also when there is nothing new.
        self.age(second | fifth, 3700)
        self.assertEqual(self.must_publish("--keep-for", "1h"),
                         "Published 1 script for customer 7: 0 files written, the list unchanged, "
                         "2 files removed.\n")
        self.assertEqual(self.content(), third | fourth | fifth)

    def test_without_a_time_keeps_what_the_replaced_list_named(self):
        self.publish_text("1", "--keep-for", "7d")
        second = self.publish_text("2", "--keep-for", "7d")
        third = self.publish_text("3")
        self.assertEqual(self.content(), second | third)

    def test_of_no_time_keeps_what_the_replaced_list_named_until_the_next_publishing(self):
        first = self.publish_text("1")
        second = self.publish_text("2", "--keep-for", "0s")
        self.assertEqual(self.content(), first | second)
        self.must_publish("--keep-for", "0s")
        self.assertEqual(self.content(), second)

    def test_of_a_thousand_changes_adds_nothing_to_the_list(self):
        self.publish_text("1")
        with open(self.list_path, encoding="utf-8") as file:
            first = file.read()
        for number in range(2, 6):
            self.publish_text(str(number), "--keep-for", "7d")
        with open(self.list_path, encoding="utf-8") as file:
            self.assertEqual(len(file.read()), len(first))

    def test_that_was_interrupted_gives_what_drops_out_its_time(self):
        first = self.publish_text("1")
        self.age(first, 10**6)
        os.mkdir(self.list_path + ".gz")  # the list can't be replaced
        self.write_script(text="echo 2\n")
        self.assertEqual(self.publish("--keep-for", "1h").status, 3)
        for name in first:
            self.assertLess(time.time() - os.stat(f"{self.output}{DIRECTORY}/{name}").st_mtime, 600)

    def test_counts_from_the_newest_list_that_named_it(self):
        first = self.publish_text("1")
        second = self.publish_text("2")
        self.publish_text("1")
        self.assertEqual(self.content(), first | second)
        third = self.publish_text("3")
        self.assertEqual(self.content(), first | third)

    def test_keeps_what_a_dropped_script_had_for_as_long(self):
        self.write_script("1", "a.sh", "echo a\n")
        self.write_script("2", "b.sh", "echo b\n")
        self.must_publish()
        both = self.content()
        self.drop_script("2")
        self.must_publish()
        self.assertEqual(self.content(), both)
        self.assertEqual(self.entries().keys(), {"1"})
        self.write("a.sh", "echo c\n")
        self.must_publish()
        self.assertNotIn(f"files/{sha256('echo b' + chr(10))}.sh", self.content())

    def test_keeps_a_script_that_another_one_still_is(self):
        self.write_script("1", "a.sh", "echo same\n")
        self.write_script("2", "b.sh", "echo same\n")
        self.must_publish()
        self.assertEqual(len(self.content()), 3)
        self.drop_script("1")
        self.must_publish()
        self.must_publish("--keep-for", "0s")
        self.assertEqual(len(self.content()), 2)
        self.assertIn(f"files/{sha256('echo same' + chr(10))}.sh", self.content())

    def test_leaves_files_alone_that_it_has_not_made(self):
        first = self.publish_text("1")
        foreign = {"robots.txt", "data/42.xml", "files/job.sh"}
        for name in foreign:
            with open(f"{self.output}{DIRECTORY}/{name}", "w") as file:
                file.write("foreign")
        second = self.publish_text("2")
        self.assertEqual(self.content(), first | second | foreign)
        self.must_publish("--keep-for", "0s")
        self.assertEqual(self.content(), second | foreign)

    def test_sweeps_what_an_interrupted_publishing_left(self):
        names = self.publish_text("1")
        for name in (".publishing-0", "data/.publishing-3", f"files/{'0' * 64}.sh"):
            with open(f"{self.output}{DIRECTORY}/{name}", "w") as file:
                file.write("left")
        self.assertEqual(self.must_publish(),
                         "Published 1 script for customer 7: 0 files written, the list unchanged, "
                         "2 files removed.\n")
        # What no list has named goes when there is another list.
        second = self.publish_text("2")
        self.assertEqual(self.content(), names | second)

    def test_starts_anew_over_a_list_that_cannot_be_read(self):
        self.publish_text("1")
        with open(self.list_path, "w") as file:
            file.write("<scripts-meta><ScriptRepo>")
        second = self.publish_text("2", "--allow-removal")
        self.assertEqual(self.content(), second)


class CompressedCopy(PublishCase):
    """What an administrator compressed for the web server, which does not look at its age."""

    def setUp(self):
        super().setUp()
        self.write_script()
        self.must_publish()
        self.copies = {self.list_path + suffix for suffix in (".gz", ".br", ".zst")}
        for copy in self.copies:
            with open(copy, "w") as file:
                file.write("the list, compressed")

    def test_goes_with_the_list_that_it_was_made_of(self):
        self.write_script(text="echo other\n")
        self.assertEqual(self.must_publish(),
                         "~ 42 (script)\n"
                         "Published 1 script for customer 7: 2 files written, the list replaced and "
                         "its compressed copy removed, 0 files removed.\n")
        self.assertEqual([], [copy for copy in self.copies if os.path.exists(copy)])

    def test_stays_as_long_as_the_list(self):
        before = self.tree()
        self.assertEqual(self.must_publish(),
                         "Published 1 script for customer 7: nothing has changed.\n")
        self.assertEqual(self.tree(), before)

    def test_that_cannot_be_removed_keeps_the_old_list(self):
        copy = self.list_path + ".gz"
        os.remove(copy)
        os.mkdir(copy)
        before = self.entries()
        self.write_script(text="echo other\n")
        result = self.publish()
        self.assertEqual((result.status, result.output, result.error),
                         (3, "~ 42 (script)\n", f"varn-scripts: {copy} can't be written: Is a directory\n"))
        self.assertEqual(self.entries(), before)
        os.rmdir(copy)
        self.must_publish()
        self.assertNotEqual(self.entries(), before)


class Refused(PublishCase):
    def test_publishes_nothing_and_says_why(self):
        self.write_script()
        self.must_publish()
        before = self.tree()
        self.write_script("1", "a.rb", accepted_codes="256")
        result = self.publish()
        manifest = f"{self.source}/scripts.toml"
        self.assertEqual((result.status, result.output), (2, ""))
        self.assertEqual(result.error_lines, [
            f'{manifest}:7: the extension of "a.rb" has no interpreter; end the name in .py, .sh, '
            ".pl or .scpt",
            f'{manifest}:8: warning: no run matches the accepted code "256", because it is larger '
            "than 255; write whole numbers from 0 to 255 with nothing but a comma between them",
            "varn-scripts: nothing is published: 1 refusal and 1 warning"])
        self.assertEqual(self.tree(), before)

    def test_does_not_even_make_the_output_directory(self):
        self.write("scripts.toml", "x = 1\n")
        result = self.publish()
        self.assertEqual(result.status, 2)
        self.assertEqual(result.error_lines, [
            f'{self.source}/scripts.toml:1: unknown key "x"; the manifest\'s keys are digest and '
            "script",
            "varn-scripts: nothing is published: 1 refusal"])
        self.assertFalse(os.path.exists(self.output))

    def test_a_manifest_that_is_a_fifo_is_not_waited_for(self):
        os.mkfifo(f"{self.source}/scripts.toml")
        result = self.publish()
        self.assertEqual((result.status, result.error_lines[0]), (
            2, f"{self.source}/scripts.toml: the manifest can't be read: it is not a regular file; "
               "publish takes a directory with a manifest of this name"))

    def test_a_script_larger_than_the_computers_take_is_known_by_their_setting(self):
        self.write_script(text="echo 1\n")
        self.must_publish("--max-download", "7")
        result = self.publish("--max-download", "6")
        self.assertEqual((result.status, result.error_lines[0]), (
            2, f'{self.source}/scripts.toml:3: the file "job.sh" has more than 6 bytes, which is '
               "the most that computers take; make it smaller, or give --max-download as the "
               "computers have it"))

    def test_names_findings_in_the_order_of_the_lines(self):
        self.write("scripts.toml", '[[script]]\nplatform = 1\nname = 2\nid = "1"\nfile = "x.sh"\n')
        result = self.publish()
        self.assertEqual([line.split(":")[1] for line in result.error_lines[:-1]], ["2", "3", "5"])

    def test_a_manifest_without_a_script_needs_leave_to_remove_all(self):
        self.write_script()
        self.must_publish()
        before = self.tree()
        for manifest in ("", "script = []\n", "# all of them\n"):
            self.write("scripts.toml", manifest)
            for options in ([], ["--check"], ["--strict"]):
                result = self.publish(*options)
                self.assertEqual((result.status, result.output), (2, ""))
                self.assertEqual(result.error_lines, [
                    f"{self.source}/scripts.toml: the manifest lists no script, and every computer "
                    "would remove all that it has; list at least one, or give --allow-removal",
                    "varn-scripts: nothing is published: 1 refusal"])
                self.assertEqual(self.tree(), before)
        os.remove(f"{self.source}/job.sh")
        result = self.publish("--check", "--allow-removal", "--strict")
        self.assertEqual((result.status, result.output, result.error),
                         (4, "- 42\nChecked 0 scripts: nothing to say; 0 files to be written, the "
                             "list to be replaced.\n", ""))
        self.assertEqual(self.tree(), before)
        self.must_publish("--allow-removal")
        self.assertEqual(self.entries(), {})

    def test_a_manifest_that_no_memory_holds_is_told(self):
        self.write_script()
        manifest = f"{self.source}/scripts.toml"
        os.truncate(manifest, 8 << 40)
        result = self.publish()
        self.assertEqual(result.status, 2)
        self.assertTrue(result.error_lines[0].startswith(f"{manifest}: "), result.error)
        self.assertIn("Cannot allocate memory", result.error_lines[0])

    def test_the_environment_does_not_set_up_its_digests(self):
        settings = self.path("openssl.cnf")
        with open(settings, "w", encoding="utf-8") as file:
            file.write("openssl_conf = a\n[a]\nproviders = b\n[b]\nnull = c\n[c]\nactivate = 1\n")
        self.write_script()
        result = self.publish(environment=self.environment(OPENSSL_CONF=settings))
        self.assertEqual((result.status, result.error), (0, ""))

    def test_warnings_do_not_keep_it_from_publishing(self):
        self.write_script(text="echo a\r\n")
        result = self.publish()
        self.assertEqual(result.status, 0)
        self.assertEqual(result.error_lines, [
            f"{self.source}/job.sh:1: warning: the line ends in CR LF, and the shell takes the CR "
            "for a part of the line; save the file with LF at the ends of its lines"])
        self.assertEqual(self.entries().keys(), {"42"})

    def test_every_module_of_this_python_is_warned_of(self):
        if not (3, 10) <= sys.version_info < (3, 14):
            self.skipTest("a Python that does not tell its modules, or has new ones")
        names = sorted(sys.stdlib_module_names)
        self.assertGreater(len(names), 250)
        for name in names:
            self.write_script(name, f"{name}.py", "print(1)\n")
        result = self.publish("--check")
        self.assertEqual(result.output, f"Checked {len(names)} scripts: {len(names)} warnings.\n")

    def test_warnings_are_refused_by_strict(self):
        self.write_script(text="echo a\r\n", accepted_codes="0,")
        result = self.publish("--strict")
        self.assertEqual((result.status, result.output), (2, ""))
        self.assertEqual(len(result.error_lines), 3)
        self.assertEqual(
            result.error_lines[-1],
            "varn-scripts: nothing is published: 0 refusals and 2 warnings, refused by --strict")
        self.assertFalse(os.path.exists(self.output))

    def test_strict_publishes_what_has_no_warning(self):
        self.write_script()
        self.must_publish("--strict")
        self.assertEqual(self.entries().keys(), {"42"})

    def test_a_missing_customer_is_a_settings_error(self):
        self.write_script()
        result = self.run_command("publish", self.source, self.output, settings=[])
        self.assertEqual((result.status, result.error),
                         (2, "varn-scripts: customer is not set: give it with --customer, with "
                             "VARN_CUSTOMER in the environment, or as customer in the settings "
                             "file (--config, VARN_CONFIG)\n"))

    def test_the_customer_must_be_able_to_name_a_directory(self):
        self.write_script()
        no_directory = ("customer (given by --customer) must be the name of a directory, without a "
                        "slash")
        for customer, complaint in (
                ("..", no_directory), ("a/b", no_directory),
                ("a\\b", 'the customer "a\\b" contains a backslash; no server tree can have a '
                         "directory of this name"),
                ("a%20b", 'the customer "a%20b" contains a percent sign; no server tree can have a '
                          "directory of this name")):
            result = self.run_command("publish", self.source, self.output,
                                      settings=["--customer", customer])
            self.assertEqual((result.status, result.error), (2, f"varn-scripts: {complaint}\n"))
        self.assertFalse(os.path.exists(self.output))

    def test_the_time_that_content_stays_must_be_one(self):
        self.write_script()
        for time_text in ("7", "-1d", "x", "7w", "", "99999999999d"):
            result = self.publish("--keep-for=" + time_text)
            self.assertEqual(result.status, 2, time_text)
            self.assertIn("--keep-for", result.error)
        self.assertFalse(os.path.exists(self.output))

    def test_both_directories_must_be_named(self):
        result = self.run_command("publish", self.source, settings=["--customer", "7"])
        self.assertEqual(result.status, 2)
        self.assertIn("OUTPUT_DIR is required", result.error)


class Check(PublishCase):
    def test_writes_nothing(self):
        self.write_script()
        result = self.publish("--check")
        self.assertEqual((result.status, result.output, result.error),
                         (0, "Checked 1 script: nothing to say.\n", ""))
        self.assertFalse(os.path.exists(self.output))
        self.must_publish()
        before, source = self.tree(), self.tree(self.source)
        self.write_script(text="echo other\n")
        source = self.tree(self.source)
        self.assertEqual(self.publish("--check").status, 4)
        self.assertEqual(self.tree(), before)
        self.assertEqual(self.tree(self.source), source)

    def test_finds_what_publishing_would_find(self):
        self.write_script(text="echo a\r\n")
        result = self.publish("--check")
        self.assertEqual((result.status, result.output), (0, "Checked 1 script: 1 warning.\n"))
        self.assertEqual(len(result.error_lines), 1)
        self.assertEqual(self.publish("--check", "--strict").status, 2)
        self.write_script(file="a.SH")
        self.assertEqual(self.publish("--check").status, 2)
        self.assertFalse(os.path.exists(self.output))


class Changes(PublishCase):
    """What becomes of each ID is said before it becomes so."""

    def setUp(self):
        super().setUp()
        for number in ("17", "18", "42"):
            self.write_script(number, f"{number}.sh", f"echo {number}\n")
        self.must_publish()

    def change(self):
        self.drop_script("17")
        self.write_script("42", "42.sh", "echo other\n", arguments="x")
        self.write_script("43", "43.sh", "echo 43\n")

    LINES = "~ 42 (script, arguments)\n+ 43\n- 17\n"

    def test_are_told_for_each_id(self):
        self.change()
        self.assertEqual(self.must_publish(),
                         self.LINES + "Published 3 scripts for customer 7: 4 files written, the "
                                      "list replaced, 0 files removed.\n")
        self.assertEqual(self.must_publish(),
                         "Published 3 scripts for customer 7: nothing has changed.\n")

    def test_are_told_by_a_check_that_writes_nothing(self):
        self.change()
        before = self.tree()
        result = self.publish("--check")
        self.assertEqual((result.status, result.error), (4, ""))
        self.assertEqual(result.output, self.LINES + "Checked 3 scripts: nothing to say; 4 files to "
                                                     "be written, the list to be replaced.\n")
        self.assertEqual(self.tree(), before)
        self.must_publish()
        result = self.publish("--check")
        self.assertEqual((result.status, result.output),
                         (0, "Checked 3 scripts: nothing to say.\n"))

    def test_of_a_digest_are_those_of_every_script(self):
        lines = "".join(f"~ {number} (digest)\n" for number in ("17", "18", "42"))
        self.assertTrue(self.must_publish("--digest", "sha512").startswith(lines + "Published"))

    def test_of_the_order_alone_replace_the_list_and_name_nobody(self):
        scripts = list(self._scripts.items())
        self._scripts = dict(reversed(scripts))
        self._write_manifest()
        self.assertEqual(self.publish("--check").output,
                         "Checked 3 scripts: nothing to say; 0 files to be written, the list to be "
                         "replaced.\n")
        self.assertEqual(self.publish("--check").status, 4)
        self.assertEqual(self.must_publish(),
                         "Published 3 scripts for customer 7: 0 files written, the list replaced, "
                         "0 files removed.\n")

    def test_that_mend_the_tree_alone_are_pending_and_name_nobody(self):
        for name in self.content():
            os.remove(f"{self.output}{DIRECTORY}/{name}")
        result = self.publish("--check")
        self.assertEqual((result.status, result.output),
                         (4, "Checked 3 scripts: nothing to say; 6 files to be written, the list "
                             "unchanged.\n"))

    def test_of_a_document_that_was_damaged_name_what_the_list_tells(self):
        with open(self.output + self.entries()["42"]["filepath"], "w") as file:
            file.write("damaged")
        self.write_script("42", "42.sh", "echo other\n", name="Other")
        self.assertEqual(self.publish("--check").output.splitlines()[0], "~ 42 (name)")

    def test_are_checked_without_a_turn_and_without_the_right_to_write(self):
        self.change()
        lock = open(f"{self.output}{DIRECTORY}/{LOCK_NAME}", "r+b")
        self.addCleanup(lock.close)
        fcntl.lockf(lock, fcntl.LOCK_EX)
        before = self.tree()
        self.assertEqual(self.publish("--check").status, 4)
        self.assertEqual(self.tree(), before)
        os.remove(f"{self.output}{DIRECTORY}/{LOCK_NAME}")
        before = self.tree()
        self.assertEqual(self.publish("--check").status, 4)
        self.assertEqual(self.tree(), before)

    def test_are_made_also_when_nobody_reads_them(self):
        self.change()
        with open("/dev/full", "wb") as full:
            result = self.publish(stdout=full)
        self.assertEqual((result.status, result.error),
                         (3, "varn-scripts: standard output can't be written: No space left on "
                             "device\n"))
        self.assertEqual(self.entries().keys(), {"18", "42", "43"})


class Guarded(PublishCase):
    """What looks like a mistake needs leave."""

    def refusal(self, sentence, lines=""):
        for options in ([], ["--check"], ["--strict"]):
            before = self.tree()
            result = self.publish(*options)
            self.assertEqual((result.status, result.output, result.error_lines),
                             (2, lines, [sentence, "varn-scripts: nothing is published: 1 refusal"]),
                             options)
            self.assertEqual(self.tree(), before)

    def dropping(self, what):
        return (f"{self.source}/scripts.toml: the manifest drops {what}, and every computer would "
                "remove what it has of them; list them, or give --allow-removal")

    def test_dropping_every_script_for_others(self):
        self.write_script("1", "a.sh")
        self.write_script("2", "b.sh")
        self.must_publish()
        for script_id in ("1", "2"):
            self.drop_script(script_id)
        self.write_script("3", "c.sh")
        self.refusal(self.dropping("2 of 2 published scripts"), "+ 3\n- 1\n- 2\n")
        self.assertTrue(self.must_publish("--allow-removal").startswith("+ 3\n- 1\n- 2\n"))
        self.assertEqual(self.entries().keys(), {"3"})

    def test_dropping_more_than_a_third_of_ten_or_more(self):
        for number in range(12):
            self.write_script(str(number), f"{number}.sh")
        self.must_publish()
        for number in range(4):
            self.drop_script(str(number))
        self.assertEqual(self.publish("--check").status, 4)
        self.drop_script("4")
        self.refusal(self.dropping("5 of 12 published scripts"),
                     "".join(f"- {number}\n" for number in range(5)))
        self.must_publish("--allow-removal")
        self.assertEqual(len(self.entries()), 7)
        # Of seven it is no longer many.
        for number in range(5, 9):
            self.drop_script(str(number))
        self.must_publish()

    def test_a_tree_whose_lock_was_left_out_of_the_copy(self):
        self.write_script("1", "a.sh")
        self.must_publish()
        os.remove(f"{self.output}{DIRECTORY}/{LOCK_NAME}")
        self.drop_script("1")
        self.write_script("2", "b.sh")
        self.refusal(self.dropping("1 of 1 published script"), "+ 2\n- 1\n")

    def foreign(self, complaint):
        return (f"{self.list_path}: the list there was not made by publish: {complaint}; publish to "
                "another directory, or give --allow-removal to replace it")

    def put_list(self, text):
        if os.path.lexists(self.list_path):
            os.remove(self.list_path)
        os.makedirs(os.path.dirname(self.list_path), exist_ok=True)
        with open(self.list_path, "w", encoding="utf-8") as file:
            file.write(text)

    def test_a_list_of_somebody_else(self):
        self.write_script("1", "a.sh")
        for text, complaint in (
                ("", "it can't be decoded"),
                ("<scripts-meta><ScriptRepo>", "it can't be decoded"),
                ("<html><body>Not found</body></html>", "its top element is not scripts-meta"),
                ("<scripts-meta><ScriptRepo><script_id>1</script_id><file_id>1</file_id>"
                 "<modified_time>1</modified_time></ScriptRepo></scripts-meta>",
                 'the entry of "1" names no data document'),
                ("<scripts-meta><ScriptRepo><script_id>1</script_id><file_id>1</file_id>"
                 "<modified_time>1</modified_time><ScriptPathMapping><filepath>"
                 f"{DIRECTORY}/data/1.xml</filepath></ScriptPathMapping></ScriptRepo>"
                 "</scripts-meta>",
                 f'the entry of "1" names the data document "{DIRECTORY}/data/1.xml"')):
            self.put_list(text)
            self.refusal(self.foreign(complaint))
        self.must_publish("--allow-removal")
        self.must_publish()

    def test_the_tree_of_another_customer(self):
        self.write_script("1", "a.sh")
        self.must_publish()
        other = self.output + "/client-data/8"
        os.rename(self.output + "/client-data/7", other)
        os.makedirs(self.output + DIRECTORY)
        os.rename(other + "/scriptrepo/scripts-meta.xml", self.list_path)
        document = self.entries()["1"]["filepath"]
        with open(self.list_path, encoding="utf-8") as file:
            text = file.read()
        self.put_list(text.replace(document, document.replace("/7/", "/8/")))
        self.refusal(self.foreign('the entry of "1" names the data document "'
                                  + document.replace("/7/", "/8/") + '"'))

    def test_a_link_in_the_place_of_the_list(self):
        self.write_script("1", "a.sh")
        self.must_publish()
        os.rename(self.list_path, self.path("elsewhere.xml"))
        os.symlink(self.path("elsewhere.xml"), self.list_path)
        self.refusal(self.foreign("it is no regular file"))
        with open(self.path("elsewhere.xml"), "rb") as file:
            before = file.read()
        self.write_script("2", "b.sh")
        self.must_publish("--allow-removal")
        self.assertFalse(os.path.islink(self.list_path))
        with open(self.path("elsewhere.xml"), "rb") as file:
            self.assertEqual(file.read(), before)

    def test_a_list_that_no_memory_holds_is_no_missing_one(self):
        self.write_script("1", "a.sh")
        self.must_publish()
        os.truncate(self.list_path, 8 << 40)
        for options in ([], ["--check"], ["--allow-removal"]):
            result = self.publish(*options)
            self.assertEqual((result.status, result.output, result.error),
                             (3, "", f"varn-scripts: {self.list_path} can't be read: Cannot allocate "
                                     "memory\n"))

    def test_an_empty_list_of_its_own_is_filled_again(self):
        self.write_script("1", "a.sh")
        self.must_publish()
        self.drop_script("1")
        self.must_publish("--allow-removal")
        self.write_script("1", "a.sh")
        self.assertTrue(self.must_publish().startswith("+ 1\nPublished 1 script"))


class Mistakes(PublishCase):
    """What the interpreters say of the scripts, and when they are asked."""

    def setUp(self):
        super().setUp()
        self.write_script("1", "a.sh", "if true\n")
        self.write_script("2", "b.py", "print 1\n")

    def shown(self, result):
        return [line.split(" can't read")[0] for line in result.error_lines]

    EXPECTED = ["S/a.sh:2: warning: /bin/sh", "S/b.py:1: warning: /usr/bin/python3"]

    def expected(self):
        return [line.replace("S", self.source, 1) for line in self.EXPECTED]

    def test_are_warned_of_and_refused_by_strict(self):
        strict = self.publish("--strict")
        self.assertEqual((strict.status, self.shown(strict)[:2]), (2, self.expected()))
        self.assertEqual(
            strict.error_lines[-1],
            "varn-scripts: nothing is published: 0 refusals and 2 warnings, refused by --strict")
        self.assertFalse(os.path.exists(self.output))
        # Each once, though the source is looked at twice.
        first = self.publish()
        self.assertEqual((first.status, self.shown(first)), (0, self.expected()))

    def test_are_looked_for_in_what_is_not_published_yet_or_when_asked(self):
        self.publish()
        self.assertEqual(self.publish().error, "")
        check = self.publish("--check")
        self.assertEqual((check.status, check.output), (0, "Checked 2 scripts: 2 warnings.\n"))
        self.assertEqual(self.shown(check), self.expected())
        self.assertEqual(self.publish("--strict").status, 2)
        self.write_script("2", "b.py", "print 2\n")
        again = self.publish()
        self.assertEqual((again.status, self.shown(again)), (0, self.expected()[1:]))

    def test_in_what_runs_while_it_is_looked_at_do_nothing(self):
        self.write_script("1", "a.sh", f"touch {self.path('touched')}\n")
        self.write_script("2", "b.py", f"open({self.path('touched')!r}, 'w')\n")
        self.write_script("3", "c.pl", f"BEGIN {{ open F, '>', '{self.path('touched')}' }}\n")
        self.must_publish("--strict")
        self.assertFalse(os.path.exists(self.path("touched")))


class Failures(PublishCase):
    def test_a_full_disk_leaves_the_old_state(self):
        self.write_script()
        self.must_publish()
        before = self.tree()
        self.write_script(text="echo " + "x" * 100000 + "\n")

        def small_files_only():
            # As a full disk does, this ends a write with an error; without it, with a signal.
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (50000, 50000))

        result = self.publish(preexec_fn=small_files_only)
        self.assertEqual((result.status, result.output), (3, "~ 42 (script)\n"))
        self.assertEqual(result.error,
                         f"varn-scripts: {self.output}{DIRECTORY}/files/.publishing-0 can't be "
                         "written: File too large\n")
        after = self.tree()
        for name, values in before.items():
            if stat.S_ISREG(values[0]):
                self.assertEqual(after[name], values)
        self.assertEqual(after.keys(), before.keys())

    def test_an_output_that_is_a_file_cannot_be_written(self):
        self.write_script()
        with open(self.output, "w"):
            pass
        result = self.publish()
        self.assertEqual((result.status, result.error),
                         (3, f"varn-scripts: {self.output}/client-data can't be written: "
                             "Not a directory\n"))


# Holds the lock in the file that it is given, until its standard input ends.
HOLDER = """import fcntl, sys
lock = open(sys.argv[1], "r+b")
fcntl.lockf(lock, fcntl.LOCK_EX)
print(flush=True)
sys.stdin.read()"""


class Turns(PublishCase):
    def test_are_taken_and_the_last_one_publishes_what_is_there_then(self):
        self.write_script(text="echo 1\n")
        self.must_publish()
        holder = subprocess.Popen(
            [sys.executable, "-c", HOLDER, f"{self.output}{DIRECTORY}/{LOCK_NAME}"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.addCleanup(self._end, holder)
        holder.stdout.readline()
        before = self.tree()
        self.write_script(text="echo 2\n")
        process = self.start("publish", self.source, self.output,
                             settings=["--customer", CUSTOMER])
        self.assertEqual(process.stderr.readline().decode(),
                         f"varn-scripts: waiting for process {holder.pid}, which publishes to "
                         f"{self.output}{DIRECTORY}\n")
        self.assertEqual(self.tree(), before)
        # What the waiting one has seen is no longer what is to be published.
        self.write_script(text="echo 3\n")
        holder.stdin.close()
        self.assertEqual(self.finish(process).status, 0)
        self.assertEqual(self.document()["ChecksumValues"]["checksum_val"], sha256("echo 3\n"))
        self.assertNotIn(f"files/{sha256('echo 2' + chr(10))}.sh", self.content())

    def test_are_nobodys_who_may_only_read_the_tree(self):
        self.write_script()
        self.must_publish()
        directory = os.open(self.output + DIRECTORY, os.O_RDONLY)
        self.addCleanup(os.close, directory)
        fcntl.flock(directory, fcntl.LOCK_EX)
        self.must_publish()

    def test_many_at_once_leave_one_whole_state(self):
        for number in range(20):
            self.write_script(str(number), f"{number}.sh", f"echo {number}\n")
        processes = [self.start("publish", self.source, self.output,
                                settings=["--customer", CUSTOMER]) for _ in range(8)]
        outputs = sorted(self.finish(process).output for process in processes)
        nothing = "Published 20 scripts for customer 7: nothing has changed.\n"
        everything = ("".join(f"+ {number}\n" for number in range(20)) +
                      "Published 20 scripts for customer 7: 40 files written, the list replaced, "
                      "0 files removed.\n")
        self.assertEqual(sorted(outputs), [everything] + [nothing] * 7)
        self.assertEqual(len(self.content()), 40)
