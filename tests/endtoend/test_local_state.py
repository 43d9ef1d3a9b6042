"""The commands `prune` and `list`."""

import json
import os
import shutil
import sqlite3

from support.case import UNVERIFIED, CommandCase
from support.repository import CUSTOMER, LIST_PATH


class StateCase(CommandCase):
    """A test that can tell whether anything here has changed."""

    def traces(self):
        """All that anybody could notice of the base path."""
        found = {}
        for directory, directories, files in os.walk(self.base):
            for path in [directory, *(os.path.join(directory, name)
                                      for name in directories + files)]:
                status = os.lstat(path)
                found[path] = (status.st_mode, status.st_ino, status.st_size, status.st_mtime_ns,
                               status.st_ctime_ns)
        return found


class PruneTest(StateCase):
    """Removal of what the server's list lacks."""

    def setUp(self):
        super().setUp()
        self.put(script_id="1", file_name="one.sh")
        self.put(script_id="2", file_name="two.sh")
        for script_id in ("1", "2"):
            self.assertEqual(self.run_command("run", script_id).status, 0)

    def test_a_dropped_script_is_removed_and_the_others_stay(self):
        self.repository.drop("1")
        result = self.run_json_log("prune")
        self.assertEqual((result.status, result.output), (0, ""))
        self.assertEqual(result.steps, [
            UNVERIFIED,
            ("ScriptRepositoryMetaProcessor", "downloadScriptRepoMeta()",
             "Script-Meta Download Success"),
            ("ScriptRepositoryProcessor", "removeServerRemovedScripts()",
             'Script Repository Processing: Removing ["1"] Scripts'),
            ("ScriptRepositoryProcessor", "removeScriptData()",
             "Removing File " + self.script_file("one.sh")),
            ("ScriptRepositoryProcessor", "removeScriptData()",
             "Removing File " + self.document_file("1.xml")),
        ])
        self.assertFalse(os.path.exists(self.script_file("one.sh")))
        self.assertFalse(os.path.exists(self.document_file("1.xml")))
        self.assertTrue(os.path.exists(self.script_file("two.sh")))
        self.assertTrue(os.path.exists(self.document_file("2.xml")))
        self.assertEqual([row["script_id"] for row in self.listed()], ["2"])

    def record(self, value, script_id="1"):
        store = sqlite3.connect(self.store_file())
        with store:
            store.execute("INSERT OR REPLACE INTO ScriptToMeta VALUES (?, ?)",
                          (script_id, json.dumps(value)))
        store.close()

    def test_a_file_elsewhere_that_a_record_names_stays_and_is_told_of(self):
        victim = self.path("victim.sh")
        with open(victim, "w", encoding="utf-8"):
            pass
        os.symlink(self.directory, self.script_file("link"))
        self.repository.drop("1")
        for path in (victim, self.script_file("link/victim.sh"), self.script_file("")):
            with self.subTest(path=path):
                self.record({"version": "1", "scriptPath": path})
                result = self.run_json_log("prune")
                self.assertEqual(result.status, 0)
                directory = os.path.dirname(self.script_file("x"))
                self.assertIn(f"Leaving File {path} of Script ID 1, it is not below {directory}",
                              [record["message"] for record in result.records])
                self.assertTrue(os.path.exists(victim))
                self.assertTrue(os.path.exists(self.script_file("two.sh")))
                self.assertEqual([row["script_id"] for row in self.listed()], ["2"])

    def test_a_document_elsewhere_that_an_id_leads_to_stays_and_is_told_of(self):
        victim = self.path("victim.xml")
        with open(victim, "w", encoding="utf-8"):
            pass
        script_id = "../" * 4 + "victim"
        self.record({"version": "1"}, script_id)
        result = self.run_json_log("prune")
        self.assertEqual(result.status, 0)
        self.assertIn("Leaving File ", result.error)
        self.assertTrue(os.path.exists(victim))
        self.assertEqual([row["script_id"] for row in self.listed()], ["1", "2"])

    def test_nothing_to_remove_is_said(self):
        result = self.run_json_log("prune")
        self.assertEqual(result.status, 0)
        self.assertEqual(result.records[-1]["message"], "No Scripts to remove from Script Repo")
        self.assertEqual(len(self.listed()), 2)

    def test_an_empty_list_removes_every_script(self):
        self.repository.drop("1")
        self.repository.drop("2")
        self.assertEqual(self.run_command("prune").status, 0)
        self.assertEqual(self.listed(), [])

    def test_a_list_that_can_not_be_had_removes_nothing(self):
        self.repository.remove(LIST_PATH)
        result = self.run_json_log("prune")
        self.assertEqual(result.status, 3)
        self.assertEqual([record["message"] for record in result.records[-2:]],
                         ["Removing Local Scripts, Script Repo Meta Data Not available, will be "
                          "processed later",
                          f"The list of customer {CUSTOMER} can't be fetched from "
                          f"{self.server}{LIST_PATH}: {self.repository.root}{LIST_PATH}: No such "
                          "file or directory"])
        self.assertEqual(len(self.listed()), 2)

    def test_a_dry_run_names_what_a_removal_then_removes(self):
        self.repository.drop("1")
        before = self.traces()
        for options, shown in (([], "1\n"),
                               (["--json"], '{"dry_run":true,"removed":["1"]}\n')):
            result = self.run_command("--quiet", "prune", "--dry-run", *options)
            self.assertEqual((result.status, result.output, result.error), (0, shown, ""))
        self.assertEqual(self.traces(), before)
        result = self.run_command("--quiet", "prune", "--json")
        self.assertEqual((result.status, result.output, result.error),
                         (0, '{"dry_run":false,"removed":["1"]}\n', ""))
        self.assertEqual([row["script_id"] for row in self.listed()], ["2"])
        for options, shown in ((["--dry-run"], ""),
                               (["--dry-run", "--json"], '{"dry_run":true,"removed":[]}\n'),
                               (["--json"], '{"dry_run":false,"removed":[]}\n')):
            result = self.run_command("--quiet", "prune", *options)
            self.assertEqual((result.status, result.output, result.error), (0, shown, ""))

    def test_a_dry_run_does_not_wait_for_a_script(self):
        started, go = self.fifo("started"), self.fifo("go")
        self.put(script_id="1", file_name="one.sh", version="2",
                 text=f"echo $$ >{started}\nread line <{go}\n")
        running = self.start("run", "1")
        self.end_process_at_end(int(self.read_line_from(started)))
        self.repository.drop("1")
        result = self.run_command("--quiet", "prune", "--dry-run")
        self.assertEqual((result.status, result.output), (0, "1\n"), result.error)
        with open(go, "w", encoding="utf-8") as file:
            file.write("go\n")
        self.assertEqual(self.finish(running).status, 0)

    def test_a_dry_run_guesses_nothing(self):
        def expect(sentence, code):
            for dry_run in (True, False):
                option = ["--dry-run"] if dry_run else []
                result = self.run_command("--quiet", "prune", *option)
                self.assertEqual((result.status, result.output, result.error),
                                 (3, "", sentence + "\n"))
                result = self.run_command("--quiet", "prune", "--json", *option)
                self.assertEqual((result.status, result.error), (3, ""))
                self.assertEqual(json.loads(result.output), {
                    "dry_run": dry_run, "removed": [], "reason": sentence, "reason_code": code})
            self.assertEqual(len(self.listed()), 2)

        with open(self.repository.root + LIST_PATH, encoding="utf-8") as file:
            kept = file.read()
        self.repository.write(LIST_PATH, "<html>Sign in</html>")
        expect(f"The list of customer {CUSTOMER} is no list of scripts; it is damaged, or something "
               "else came in its place", "list_unreadable")
        self.repository.remove(LIST_PATH)
        path = self.repository.root + LIST_PATH
        expect(f"The list of customer {CUSTOMER} can't be fetched from {self.server}{LIST_PATH}: "
               f"{path}: No such file or directory", "list_unavailable")
        self.repository.write(LIST_PATH, kept)
        os.chmod(path, 0o666)
        expect(f"Refused: {path} may be written to by all users", "unsafe_directory")
        os.chmod(path, 0o644)
        documents = os.path.dirname(self.document_file("x"))
        os.chmod(documents, 0o777)
        expect(f"Refused: {documents} may be written to by all users", "unsafe_directory")
        os.chmod(documents, 0o700)

    def test_a_dry_run_with_a_store_that_can_not_be_read_says_so(self):
        with open(self.store_file(), "wb") as file:
            file.write(b"this is no database" * 100)
        result = self.run_command("--quiet", "prune", "--dry-run", "--json")
        answer = json.loads(result.output)
        self.assertEqual((result.status, answer["removed"], answer["reason_code"]),
                         (3, [], "local_state_failed"))
        self.assertTrue(answer["reason"].startswith(
            f"The store {self.store_file()} can't be read: "), answer)

    def test_with_a_store_that_can_not_be_read_nothing_is_removed_and_it_says_so(self):
        with open(self.store_file(), "wb") as file:
            file.write(b"this is no database" * 100)
        result = self.run_command("--quiet", "prune", "--json")
        answer = json.loads(result.output)
        self.assertEqual((result.status, answer["removed"], answer["reason_code"]),
                         (3, [], "local_state_failed"))
        self.assertEqual(answer["reason"], f"Nothing is removed: Store {self.store_file()} can't be "
                                           "opened: file is not a database")
        result = self.run_json_log("prune")
        self.assertEqual((result.status, result.records[-1]["message"]), (3, answer["reason"]))
        self.assertIn("No ScriptIDs found in the storage.",
                      [record["message"] for record in result.records])

    def test_a_list_that_does_not_decode_removes_nothing(self):
        self.repository.write(LIST_PATH, "<scripts-meta><ScriptRepo/></scripts-meta>")
        result = self.run_json_log("prune")
        self.assertEqual(result.status, 3)
        self.assertEqual([record["message"] for record in result.records[-2:]],
                         ["Removing Local Scripts, Script Repo Meta Data Not available, will be "
                          "processed later",
                          f"The list of customer {CUSTOMER} is no list of scripts; it is damaged, "
                          "or something else came in its place"])
        self.assertEqual(len(self.listed()), 2)


class FirstPruneTest(CommandCase):
    """A removal before any request."""

    def test_the_two_directories_are_created(self):
        result = self.run_command("prune")
        self.assertEqual(result.status, 0, result.error)
        self.assertEqual(sorted(os.listdir(self.base + "/client-data/7")),
                         ["scripts-repository", "scripts-repository-data"])


class ListTest(CommandCase):
    """The local records."""

    def test_a_table_by_script_id_tells_version_path_and_file(self):
        self.put(script_id="b", file_name="two.sh", version="2024-01-01")
        self.put(script_id="a", file_name="one.sh", version="7")
        for script_id in ("b", "a"):
            self.run_command("run", script_id)
        os.remove(self.script_file("two.sh"))
        result = self.run_command("list")
        self.assertEqual((result.status, result.error), (0, ""))
        self.assertEqual(result.output, (
            "SCRIPT ID  VERSION     FILE     PATH\n"
            f"a          7           present  {self.script_file('one.sh')}\n"
            f"b          2024-01-01  missing  {self.script_file('two.sh')}\n"))

    def test_json_is_an_array_by_script_id(self):
        self.put(script_id="b", file_name="two.sh")
        self.put(script_id="a", file_name="one.sh")
        for script_id in ("b", "a"):
            self.run_command("run", script_id)
        self.assertEqual(self.run_command("list", "--json").output, (
            f'[{{"script_id":"a","version":"1","script_path":"{self.script_file("one.sh")}",'
            '"present":true},'
            f'{{"script_id":"b","version":"1","script_path":"{self.script_file("two.sh")}",'
            '"present":true}]\n'))

    def test_without_a_store_nothing_is_listed_and_nothing_created(self):
        os.mkdir(self.base)
        result = self.run_command("list")
        self.assertEqual((result.status, result.output, result.error), (0, "", ""))
        result = self.run_command("list", "--json")
        self.assertEqual((result.status, result.output, result.error), (0, "[]\n", ""))
        self.assertEqual(os.listdir(self.base), [])

    def test_a_base_or_data_path_that_does_not_exist_is_told_of(self):
        data = self.path("data")
        for options, missing in (([], f"base_path {self.base}"),
                                 (["--data-path", data], f"data_path {data}")):
            remark = (f"varn-scripts: {missing} does not exist; without it there is nothing to "
                      "list\n")
            for form, output in (([], ""), (["--json"], "[]\n")):
                result = self.run_command("list", *form, *options)
                self.assertEqual((result.status, result.output, result.error), (0, output, remark))
            result = self.run_command("--quiet", "list", *options)
            self.assertEqual((result.status, result.output, result.error), (0, "", ""))
        self.assertFalse(os.path.exists(self.base))

    def test_a_file_in_place_of_the_base_or_data_path_is_a_settings_error(self):
        file = self.path("file")
        with open(file, "w", encoding="utf-8"):
            pass
        base = ["--base-path", file]
        data = ["--base-path", self.base, "--data-path", file]
        below = ["--base-path", file + "/below"]
        for options, said in (
                (base, f"base_path (--base-path, VARN_BASE_PATH) is no directory: {file}"),
                (data, f"data_path (--data-path, VARN_DATA_PATH) is no directory: {file}"),
                (below, f"base_path (--base-path, VARN_BASE_PATH) is no directory: {file}/below: "
                        "Not a directory")):
            settings = ["--customer", CUSTOMER, "--server", self.server, *options]
            for command in (["list"], ["list", "--server"], ["run", "42"], ["plan", "42"],
                            ["prune"], ["prune", "--dry-run"]):
                result = self.run_command(*command, settings=settings)
                self.assertEqual((result.status, result.output, result.error),
                                 (2, "", f"varn-scripts: {said}\n"), command)

    def test_the_data_path_is_enough(self):
        self.put()
        self.run_command("run", "42")
        result = self.run_command("list", settings=["--data-path", self.base + "/data/7"])
        self.assertEqual(result.status, 0, result.error)
        self.assertIn("job.sh", result.output)
        result = self.run_command("list", settings=["--base-path", self.base])
        self.assertEqual(result.status, 2)
        self.assertIn("customer is not set", result.error)

    def test_a_row_that_does_not_decode_is_listed_by_its_id(self):
        self.put()
        self.run_command("run", "42")
        store = sqlite3.connect(self.store_file())
        with store:
            store.execute("UPDATE ScriptToMeta SET value = 'damaged'")
        store.close()
        self.assertEqual(self.listed(), [{"script_id": "42", "version": None,
                                          "script_path": None, "present": False}])

    def test_a_store_that_is_none_is_an_error(self):
        os.makedirs(os.path.dirname(self.store_file()))
        with open(self.store_file(), "w", encoding="utf-8") as file:
            file.write("this is no database, and it is long enough to be looked at as one\n" * 20)
        result = self.run_command("list")
        self.assertEqual((result.status, result.output), (3, ""))
        self.assertTrue(result.error.startswith(
            f"The store {self.store_file()} can't be read: "), result.error)


class ServerListTest(StateCase):
    """What the server lists, and what of it is here."""

    def rows(self):
        result = self.run_command("--quiet", "list", "--server", "--json")
        self.assertEqual((result.status, result.error), (0, ""))
        return json.loads(result.output)

    def states(self):
        return {row["script_id"]: row["state"] for row in self.rows()}

    def test_tells_of_each_script_whether_this_computer_has_it(self):
        for script_id, version in (("b", "1"), ("a", "2024-01-01"), ("c", "3"), ("d", "4")):
            self.put(script_id=script_id, file_name=script_id + ".sh", version=version)
        for script_id in ("b", "c", "d"):
            self.assertEqual(self.run_command("run", script_id).status, 0)
        self.put(script_id="b", file_name="b.sh", version="2")
        os.remove(self.document_file("c.xml"))
        self.put(script_id="more", file_name="more.py")
        before = self.traces()
        result = self.run_command("--quiet", "list", "--server")
        self.assertEqual((result.status, result.error), (0, ""))
        self.assertEqual(result.output, (
            "SCRIPT ID  VERSION     HERE        PLATFORM  NAME\n"
            "b          2           outdated    Mac       b.sh\n"
            "a          2024-01-01  absent      Mac       a.sh\n"
            "c          3           incomplete  Mac       c.sh\n"
            "d          4           up to date  Mac       d.sh\n"
            "more       1           absent      Mac       more.py\n"))
        self.assertEqual(self.rows()[0], {
            "script_id": "b", "name": "b.sh", "version": "2", "platform": "Mac",
            "state": "outdated", "local_version": "1"})
        self.assertEqual(self.traces(), before)

    def test_agrees_with_the_plan(self):
        self.put()
        steps = {"absent": "download", "outdated": "download", "incomplete": "download",
                 "up_to_date": "up_to_date"}

        def expect(state):
            self.assertEqual(self.states(), {"42": state})
            plan = json.loads(self.run_command("--quiet", "plan", "42", "--json").output)
            self.assertEqual(plan["step"], steps[state])

        expect("absent")
        self.run_command("run", "42")
        expect("up_to_date")
        # A server that goes back is another version, too.
        self.put(version="0")
        expect("outdated")
        self.run_command("run", "42")
        expect("up_to_date")
        os.remove(self.document_file("42.xml"))
        expect("incomplete")
        self.run_command("run", "42")
        expect("up_to_date")
        os.remove(self.script_file("job.sh"))
        self.assertEqual(self.states(), {"42": "incomplete"})

    def test_of_a_computer_that_has_nothing_creates_nothing(self):
        self.put()
        self.assertEqual(self.states(), {"42": "absent"})
        self.assertFalse(os.path.exists(self.base))

    def test_of_a_web_server_is_the_same(self):
        self.put()
        self.serve()
        self.run_command("run", "42")
        before = self.traces()
        self.assertEqual(self.states(), {"42": "up_to_date"})
        self.assertEqual(self.traces(), before)

    def test_an_empty_list_gives_nothing(self):
        result = self.run_command("--quiet", "list", "--server")
        self.assertEqual((result.status, result.output, result.error), (0, "", ""))
        self.assertEqual(self.rows(), [])

    def test_without_the_list_says_why_and_lists_nothing(self):
        self.put()
        self.run_command("run", "42")
        self.repository.remove(LIST_PATH)
        path = self.repository.root + LIST_PATH
        for form in ([], ["--json"]):
            result = self.run_command("--quiet", "list", "--server", *form)
            self.assertEqual((result.status, result.output, result.error), (
                3, "", f"The list of customer {CUSTOMER} can't be fetched from "
                       f"{self.server}{LIST_PATH}: {path}: No such file or directory\n"))

    def test_without_a_readable_store_says_so(self):
        self.put()
        os.makedirs(os.path.dirname(self.store_file()))
        with open(self.store_file(), "wb") as file:
            file.write(b"this is no database" * 100)
        result = self.run_command("--quiet", "list", "--server")
        self.assertEqual((result.status, result.output), (3, ""))
        self.assertTrue(result.error.startswith(
            f"The store {self.store_file()} can't be read: "), result.error)

    def test_needs_what_a_request_needs_and_takes_the_setting_of_the_same_name(self):
        self.put()
        settings = ["--base-path", self.base, "--customer", CUSTOMER]
        result = self.run_command("list", "--server", settings=settings)
        self.assertEqual((result.status, result.output), (2, ""))
        self.assertIn("server is not set: give it with --server", result.error)
        result = self.run_command("list", "--server", "--server", self.server, "--json",
                                  settings=settings)
        self.assertEqual([row["script_id"] for row in json.loads(result.output)], ["42"])
        # Behind the command, too, a URL makes it the setting.
        os.mkdir(self.base)
        result = self.run_command("list", "--server", self.server, settings=settings)
        self.assertEqual((result.status, result.output, result.error), (0, "", ""))


class StoreTest(CommandCase):
    """The store file, which other programs read."""

    def test_a_row_is_a_json_object_of_version_and_path(self):
        self.put(version="5")
        self.run_command("run", "42")
        store = sqlite3.connect(self.store_file())
        rows = store.execute("SELECT key, value FROM ScriptToMeta").fetchall()
        store.close()
        self.assertEqual(rows, [
            ("42", f'{{"version":"5","scriptPath":"{self.script_file("job.sh")}"}}')])


class CustomersTest(CommandCase):
    """Two customers whose scripts have the same IDs, on one computer."""

    def request(self, customer, *arguments, options=()):
        return self.run_command(*options, *arguments, settings=[
            "--base-path", self.base, "--customer", customer, "--server", self.servers[customer]])

    def setUp(self):
        super().setUp()
        self.put(script_id="1", text="echo first\n")
        self.put(script_id="2", file_name="two.sh")
        # The other one's tree is the same but for its place, and lacks a script.
        other = self.path("other")
        shutil.copytree(self.repository.root + "/client-data/7", other + "/client-data/8")
        shutil.copytree(self.repository.root + "/client-data/7", other + "/client-data/7")
        self.repository.drop("2")
        shutil.copyfile(self.repository.root + LIST_PATH,
                        other + "/client-data/8/scriptrepo/scripts-meta.xml")
        self.servers = {"7": "file://" + other, "8": "file://" + other}

    def test_have_a_record_each(self):
        for customer, script_id in (("7", "1"), ("7", "2"), ("8", "1")):
            self.assertEqual(self.request(customer, "run", script_id).status, 0)
        self.assertEqual(self.request("8", "prune").status, 0)
        self.assertTrue(os.path.exists(self.script_file("two.sh")))
        listed = {customer: [row["script_id"] for row in
                             json.loads(self.request(customer, "list", "--json").output)]
                  for customer in ("7", "8")}
        self.assertEqual(listed, {"7": ["1", "2"], "8": ["1"]})

    def test_keep_the_record_that_is_there_already(self):
        options = ["--data-path", self.base + "/data"]
        self.assertEqual(self.request("7", "run", "1", options=options).status, 0)
        self.assertEqual(self.request("7", "run", "2").status, 0)
        listed = json.loads(self.request("7", "list", "--json", options=options).output)
        self.assertEqual([row["script_id"] for row in listed], ["1", "2"])
        self.assertEqual(os.listdir(self.base + "/data"), ["Configuration-Framework"])
        # It needs no customer to be found.
        result = self.run_command("list", settings=["--base-path", self.base])
        self.assertIn("two.sh", result.output)

    def test_do_not_share_a_record(self):
        options = ["--data-path", self.path("shared")]
        self.assertEqual(self.request("7", "run", "1", options=options).status, 0)
        before = json.loads(self.request("7", "list", "--json", options=options).output)
        complaint = (f"data_path {self.path('shared')} holds the record of another customer's "
                     f"script {self.script_file('job.sh')}; give each customer a data_path of its "
                     "own")
        result = self.request("8", "run", "1", options=options)
        self.assertEqual((result.status, result.output, result.error_lines[-1]),
                         (3, "", complaint))
        result = self.request("8", "run", "1", "--json", options=options)
        self.assertEqual(json.loads(result.output)["reason"], complaint)
        result = self.request("8", "prune", options=options)
        self.assertEqual((result.status, result.error_lines[-1]),
                         (3, complaint))
        result = self.request("8", "plan", "1", options=options)
        self.assertEqual((result.status, result.output.splitlines()[-1]),
                         (3, "not run:        " + complaint))
        self.assertEqual(json.loads(self.request("7", "list", "--json", options=options).output),
                         before)
        self.assertEqual(self.request("7", "run", "2", options=options).status, 0)

    def test_do_not_share_the_record_of_an_older_installation(self):
        self.assertEqual(self.request("7", "run", "1",
                                      options=["--data-path", self.base + "/data"]).status, 0)
        result = self.request("8", "run", "1")
        self.assertEqual(result.status, 3)
        self.assertTrue(result.error_lines[-1].startswith(f"data_path {self.base}/data holds "))
        self.assertEqual(self.request("8", "run", "1",
                                      options=["--data-path", self.base + "/data/8"]).status, 0)
