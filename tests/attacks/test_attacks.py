"""Another user of this computer against root: whatever is theirs, open to them, or led elsewhere by
them on the way to a script is refused with a line that names it, whoever it is that reads it."""

import os
import shutil
import signal
import struct
import subprocess
import unittest

from support.case import DEADLINE, CommandCase
from support.repository import CUSTOMER, LIST_PATH, Repository, Script

OTHER = 4242


def journal_that_names(victim, store):
    """The journal of an interrupted transaction over several databases. Who rolls it back removes
    the file that it names, which should have been the list of all their journals."""
    page_size, sector = 4096, 512
    pages = os.path.getsize(store) // page_size
    magic = bytes.fromhex("d9d505f920a163d7")
    header = magic + struct.pack(">IIIII", 0, 1, pages, sector, page_size)
    name = victim.encode()
    lock_page = 0x40000000 // page_size + 1
    return (header.ljust(sector, b"\0") + struct.pack(">I", lock_page) + name
            + struct.pack(">II", len(name), sum(name)) + magic)


@unittest.skipUnless(os.geteuid() == 0, "only root can be attacked by another user")
class AttackCase(CommandCase):
    """What every attack begins with: a computer that has run its script, all of it root's."""

    def setUp(self):
        super().setUp()
        os.chmod(self.directory, 0o755)
        self.tree = self.path("tree")
        self.base = self.path("tree", "opt", "varn")
        self.data = self.path("tree", "var", "varn")
        self.repository = Repository(self.path("tree", "srv", "www"))
        self.server = "file://" + self.repository.root
        self.victim = self.path("tree", "victim")
        self.log_file = self.path("tree", "log", "varn.log")
        self.given = {name: self.path("tree", "etc", name)
                      for name in ("varn.toml", "ca.pem", "client.pem", "client.key")}
        for path in (self.victim, self.log_file, *self.given.values()):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            self.write(path, b"")
        with open(self.given["varn.toml"], "w", encoding="utf-8") as file:
            file.write(f'base_path = "{self.base}"\ndata_path = "{self.data}"\n'
                       f'customer = "{CUSTOMER}"\nserver = "{self.server}"\n'
                       f'ca_file = "{self.given["ca.pem"]}"\n'
                       f'client_cert = "{self.given["client.pem"]}"\n'
                       f'client_key = "{self.given["client.key"]}"\n'
                       f'log_file = "{self.log_file}"\n')
        self.script = self.put(file_name="job.py", text="import json\nprint('done')\n")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
        self.assertEqual(self.run_command("run", "42").status, 0)
        self.tried = 0
        self.got_through = []

    def settings(self):
        return ["--config", self.given["varn.toml"]]

    def store_file(self):
        return f"{self.data}/Configuration-Framework/ScriptRepository"

    def restore(self):
        if not os.path.exists(self.path("sound")):
            self.copy(self.tree, self.path("sound"))
        shutil.rmtree(self.tree)
        self.copy(self.path("sound"), self.tree)

    @staticmethod
    def copy(source, target):
        subprocess.run(["cp", "-a", source, target], check=True, timeout=DEADLINE)

    def as_other(self, action):
        """A process of the other user's that does `action`; its ID."""
        pid = os.fork()
        if pid == 0:
            status = 1
            try:
                os.setgroups([])
                os.setgid(OTHER)
                os.setuid(OTHER)
                action()
                status = 0
            finally:
                os._exit(status)
        return pid

    def open_sticky(self, directory):
        """Lets all reach the directory and add files to it."""
        for path in self.directories_of([directory]):
            os.chmod(path, 0o755)
        os.chmod(directory, 0o1777)

    def do_as_other(self, action):
        _, status = os.waitpid(self.as_other(action), 0)
        self.assertEqual(status, 0)

    @staticmethod
    def write(path, content):
        with open(path, "wb") as file:
            file.write(content)

    # What is on the way.

    def kept_files(self):
        return [self.script_file("job.py"), self.document_file("42.xml"),
                self.document_file("scripts-meta.xml"), self.store_file(), self.log_file,
                f"{self.base}/client-data/{CUSTOMER}/varn-scripts.lock"]

    def journals(self):
        return [self.store_file() + suffix for suffix in ("-journal", "-wal", "-shm")]

    def served_files(self):
        root = self.repository.root
        return [root + path for path in (LIST_PATH, self.script.document_path,
                                         self.script.file_path)]

    def directories_of(self, paths):
        """Every directory from the tree's top down to the files."""
        found = set()
        for path in paths:
            while path != self.tree:
                path = os.path.dirname(path)
                found.add(path)
        return sorted(found)

    # Ways to attack one thing; each gives what the refusal must say of it.

    def give_away(self, path):
        os.lchown(path, OTHER, OTHER)
        return f"{path} belongs to user {OTHER}"

    def open_to_all(self, path):
        os.chmod(path, os.stat(path).st_mode | 0o002)
        return f"{path} may be written to by all users"

    def lead_elsewhere(self, path):
        """A link of the other user's to a faithful copy."""
        if os.path.exists(path):
            os.rename(path, path + ".copy")
        os.symlink(path + ".copy", path)
        os.lchown(path, OTHER, OTHER)
        return f"{path} is a symbolic link of user {OTHER}"

    def name_twice(self, path):
        os.link(path, self.path("tree", "second"))
        return f"{path} has 2 names"

    def plant_theirs(self, path):
        self.write(path, b"planted")
        return self.give_away(path)

    def plant_second_name(self, path):
        os.link(self.victim, path)
        return f"{path} has 2 names"

    # Trying.

    def expect_refusal(self, attack, said, *command):
        self.tried += 1
        result = self.run_command(*command)
        # What a plan has to say it says on standard output, and that is all that it has.
        told, expected = result.error, ""
        if command[0] == "plan" and result.status == 3:
            told, expected = result.output, "script:         42\nnot run:        Refused: "
        refused = (result.status in (2, 3) and said in told
                   and result.output[:len(expected) or None] == expected)
        alive = os.path.exists(self.victim)
        if not refused or not alive:
            self.got_through.append(f"{attack}, {' '.join(command)}: status {result.status}, "
                                    f"victim {'kept' if alive else 'removed'}, "
                                    f"{result.error or result.output}")

    def attack(self, way, path, *commands):
        for command in commands or (("run", "42"),):
            self.restore()
            said = way(path)
            self.expect_refusal(f"{way.__name__} {os.path.relpath(path, self.tree)}", said,
                                *command)

    def conclude(self):
        refused = self.tried - len(self.got_through)
        print(f"figure: {self.tried} attacks tried, {refused} refused, "
              f"{len(self.got_through)} got through", flush=True)
        self.assertEqual(self.got_through, [])


class DirectoriesTest(AttackCase):
    """Every directory on the way."""

    def test_of_what_is_kept_here(self):
        of_base = self.directories_of([self.script_file("job.py"), self.document_file("42.xml")])
        of_data = self.directories_of([self.store_file()])
        for path in sorted({*of_base, *of_data}):
            commands = [("run", "42"), ("plan", "42"), ("prune",)]
            if path in of_data:
                commands.append(("list",))
            for way in (self.give_away, self.open_to_all, self.lead_elsewhere):
                if path != self.tree or way != self.lead_elsewhere:
                    self.attack(way, path, *commands)
        self.conclude()

    def test_of_what_is_given(self):
        for path in self.directories_of([self.log_file, *self.given.values()]):
            if path != self.tree:
                for way in (self.give_away, self.open_to_all, self.lead_elsewhere):
                    self.attack(way, path, ("run", "42"), ("list",))
        self.conclude()

    def test_of_the_server_s_tree(self):
        os.remove(self.store_file())
        for path in self.directories_of(self.served_files()):
            if path != self.tree:
                for way in (self.give_away, self.open_to_all, self.lead_elsewhere):
                    # A plan fetches the documents, but not the script.
                    plan = [] if path.endswith("/files") else [("plan", "42")]
                    self.attack(way, path, ("run", "42"), *plan)
        self.conclude()


class FilesTest(AttackCase):
    """Every file on the way."""

    def test_that_is_kept_here(self):
        for path in self.kept_files():
            for way in (self.give_away, self.open_to_all, self.lead_elsewhere, self.name_twice):
                self.attack(way, path)
        self.conclude()

    def test_beside_the_store(self):
        commands = [("run", "42"), ("plan", "42"), ("prune",), ("list",)]
        for path in self.journals():
            for way in (self.plant_theirs, self.plant_second_name, self.lead_elsewhere):
                self.attack(way, path, *commands)
        self.conclude()

    def test_that_is_given(self):
        for path in self.given.values():
            for way in (self.give_away, self.open_to_all, self.lead_elsewhere):
                self.attack(way, path)
        self.conclude()

    def test_of_the_server(self):
        os.remove(self.store_file())
        for path in self.served_files():
            for way in (self.give_away, self.open_to_all, self.lead_elsewhere):
                self.attack(way, path)
        self.conclude()


class PlantedTest(AttackCase):
    """What the other user does in a directory that is open to all, sticky or not."""

    def test_a_journal_that_names_a_file_to_remove(self):
        directory = os.path.dirname(self.store_file())
        for command in (("run", "42"), ("plan", "42"), ("prune",), ("list",)):
            self.restore()
            self.open_sticky(directory)
            content = journal_that_names(self.victim, self.store_file())
            self.do_as_other(lambda: self.write(self.store_file() + "-journal", content))
            self.expect_refusal("a journal", directory, *command)
        self.conclude()

    def test_a_module_beside_the_script(self):
        self.restore()
        directory = os.path.dirname(self.script_file("job.py"))
        self.open_sticky(directory)
        self.do_as_other(lambda: self.write(directory + "/json.py", b"print('theirs')"))
        self.expect_refusal("a module", directory, "run", "42")
        self.conclude()

    def test_a_base_path_in_a_sticky_directory(self):
        self.restore()
        shutil.move(self.base, self.path("tree", "away"))
        os.chmod(os.path.dirname(self.base), 0o1777)
        self.do_as_other(lambda: os.mkdir(self.base))
        self.expect_refusal("their base path", f"{self.base} belongs to user {OTHER}", "run", "42")
        self.conclude()

    def test_a_name_that_changes_all_the_time(self):
        """Their link in a sticky directory comes and goes; no request ever follows it."""
        self.restore()
        theirs = self.path("tree", "theirs")
        Repository(theirs).put(Script("42", "job.py", "print('theirs')\n"))
        subprocess.run(["chown", "-R", f"{OTHER}:{OTHER}", theirs], check=True, timeout=DEADLINE)
        os.rename(self.repository.root, self.path("tree", "away"))
        os.chmod(os.path.dirname(self.repository.root), 0o1777)
        os.remove(self.store_file())

        def flip():
            while True:
                os.symlink(theirs, self.repository.root)
                os.remove(self.repository.root)

        flipping = self.as_other(flip)
        self.addCleanup(os.waitpid, flipping, 0)
        self.addCleanup(os.kill, flipping, signal.SIGKILL)
        for _ in range(20):
            self.expect_refusal("a link that changes", self.repository.root, "run", "42")
        self.conclude()
