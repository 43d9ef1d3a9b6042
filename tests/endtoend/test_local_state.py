"""The commands `prune` and `list`."""

import json
import os
import shutil
import sqlite3

from support.case import CommandCase
from support.repository import CUSTOMER, LIST_PATH


class PruneTest(CommandCase):
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
        result = self.run_command("list")
        self.assertEqual((result.status, result.output, result.error), (0, "", ""))
        result = self.run_command("list", "--json")
        self.assertEqual((result.status, result.output, result.error), (0, "[]\n", ""))
        self.assertFalse(os.path.exists(self.base))

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
