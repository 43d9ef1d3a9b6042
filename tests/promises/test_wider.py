"""Never wider than needed: modes, planted links, and what is said of places open to others."""

import os
import re
import stat

from promise_case import PromiseCase, needs_strace
from support.repository import CUSTOMER


class ModesTest(PromiseCase):
    """Files 0600 and directories 0700, whatever the umask."""

    def modes(self):
        found = {self.base: os.lstat(self.base).st_mode}
        for directory, directories, names in os.walk(self.base):
            for name in directories + names:
                path = os.path.join(directory, name)
                found[path] = os.lstat(path).st_mode
        return found

    def test_of_everything_that_a_request_makes(self):
        seen = 0
        self.put()
        for mask in (0o000, 0o022, 0o077, 0o277, 0o777):
            with self.case(umask=oct(mask)):
                self.base = self.path(f"base-{mask:o}")
                result = self.run_command("--log-file", f"{self.base}/log", "run", "42",
                                          preexec_fn=lambda: os.mkdir(self.base, 0o700),
                                          umask=mask)
                os.chmod(self.base, 0o700)
                self.assertEqual(result.status, 0, result.error)
                modes = self.modes()
                self.assertGreaterEqual(len(modes), 12)
                for path, mode in modes.items():
                    wanted = 0o700 if stat.S_ISDIR(mode) else 0o600
                    self.assertEqual(oct(stat.S_IMODE(mode)), oct(wanted), path)
                seen += len(modes)
        self.figure(f"{seen} files and directories of requests under 5 umasks: all 0600 or 0700")


class LinksTest(PromiseCase):
    """A symbolic link that somebody has planted is never followed to write."""

    def setUp(self):
        super().setUp()
        self.put(text="echo done\n")
        self.assertEqual(self.run_command("--log-file", self.log_file, "run", "42").status, 0)

    @property
    def log_file(self):
        return self.path("log")

    def places(self):
        return {
            "the list": self.document_file("scripts-meta.xml"),
            "the data document": self.document_file("42.xml"),
            "the script": self.script_file("job.sh"),
            "the store": self.store_file(),
            "the store's journal": self.store_file() + "-journal",
            "the lock": f"{self.base}/client-data/{CUSTOMER}/varn-scripts.lock",
            "the log": self.log_file,
        }

    def check(self, name, place, target, content):
        if os.path.lexists(place):
            os.remove(place)
        os.symlink(target, place)
        if content is not None:
            self.write(target, content)
        self.put(text=f"echo done # {name} {target}\n", version=name + target)
        result = self.run_command("--log-file", self.log_file, "run", "42")
        self.assertIn(result.status, (0, 2, 3), result.error)
        if content is None:
            self.assertFalse(os.path.lexists(target), name)
        else:
            self.assertEqual(self.read(target), content, name)
        # What is fetched takes the link's place.
        if place.startswith((self.document_file(""), self.script_file(""))):
            self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
            self.assertFalse(os.path.islink(place), name)
        if os.path.islink(place):
            os.remove(place)

    def test_at_any_place_that_is_written(self):
        victims = {"nothing": None, "a text": b"kept\n", "an empty file": b"",
                   "a store": self.read(self.store_file())}
        count = 0
        for name, place in self.places().items():
            for kind, content in victims.items():
                with self.case(place=name, victim=kind):
                    self.check(name, place, self.path("victim " + kind), content)
                    count += 1
                    if os.path.exists(self.path("victim " + kind)):
                        os.remove(self.path("victim " + kind))
        result = self.run_command("run", "42")
        self.assertEqual(result.status, 0, result.error)
        self.figure(
            f"{count} planted links ({len(self.places())} places, {len(victims)} kinds of "
            "target): 0 followed to write")

    @needs_strace
    def test_nothing_is_made_through_a_name_that_may_be_a_link(self):
        # The temporary names are random, so nobody can plant a link at one in time; that no open
        # would follow it shows in the flags.
        self.put(text="echo done\n", version="2")
        result, lines = self.traced("open,openat,creat,mknod,link,symlink,truncate", "run", "42")
        self.assertEqual(result.status, 0, result.error)
        writing = [line for line in lines
                   if f'"{self.base}' in line
                   and re.search(r"O_CREAT|O_WRONLY|O_RDWR|O_TRUNC", line)]
        temporary = [line for line in writing if "/.varn-download-" in line]
        for line in writing:
            self.assertRegex(line, r"\bO_(NOFOLLOW|EXCL)\b")
            self.assertTrue("O_NOFOLLOW" in line or "O_CREAT" in line, line)
        self.assertGreaterEqual(len(temporary), 3)
        self.assertGreaterEqual(len(writing), 6)
        others = re.compile(r" (creat|mknod|link|symlink|truncate)\(")
        self.assertFalse([line for line in lines if others.search(line)])
        self.figure(
            f"{len(writing)} opens for writing in a request, {len(temporary)} of them of "
            "temporary names: all refuse a link")

    @needs_strace
    def test_no_mode_is_changed_through_a_name_that_may_be_a_link(self):
        self.base = self.path("new")
        result, lines = self.traced("mkdir,mkdirat,chmod,fchmod,fchmodat", "run", "42")
        self.assertEqual(result.status, 0, result.error)
        self.assertGreaterEqual(len([line for line in lines if re.search(r" mkdir(at)?\(", line)]), 6)
        self.assertGreaterEqual(len([line for line in lines if " fchmod(" in line]), 6)
        self.assertEqual([line for line in lines if re.search(r" (chmod|fchmodat)\(", line)], [])


class OpenPlacesTest(PromiseCase):
    """What its group may write is reported once, what all may write is refused."""

    def places(self):
        """A place, a mode in which its group may write, and one in which all may."""
        self.put()
        self.assertEqual(self.run_command("run", "42").status, 0)
        return {
            os.path.dirname(self.script_file("job.sh")): (0o770, 0o777),
            os.path.dirname(self.document_file("42.xml")): (0o770, 0o1707),
            os.path.dirname(self.store_file()): (0o720, 0o702),
            self.store_file(): (0o620, 0o602),
            self.document_file("42.xml"): (0o660, 0o602),
            self.script_file("job.sh"): (0o620, 0o606),
            f"{self.base}/client-data": (0o770, 0o777),
            self.base: (0o770, 0o707),
        }

    def test_each_is_one_line(self):
        places = self.places()
        for version in ("1", "2"):
            with self.case(version=version):
                self.put(version=version)
                for place, (mode, _) in places.items():
                    os.chmod(place, mode)
                result = self.run_json_log("run", "42")
                self.assertEqual(result.status, 0, result.error)
                said = [r["message"] for r in result.records
                        if "Writable by others" in r["message"]]
                self.assertEqual(sorted(said), sorted(
                    "Writable by others than its owner: " + place for place in places))
        self.figure(
            f"{len(places)} places open to their group, up to date and with a download: each is "
            "reported in one line")

    def test_none_that_is_open_to_all_is_used(self):
        places = self.places()
        for place, (_, mode) in places.items():
            for command in ("run", "plan"):
                with self.case(place=place, command=command):
                    kept = stat.S_IMODE(os.stat(place).st_mode)
                    os.chmod(place, mode)
                    result = self.run_command(command, "42")
                    os.chmod(place, kept)
                    refusal = f"Refused: {place} may be written to by all users"
                    self.assertEqual(result.status, 3, result.error)
                    if command == "plan":
                        self.assertEqual(result.output.splitlines()[-1],
                                         "not run:        " + refusal)
                        self.assertNotIn("interpreter:", result.output)
                    else:
                        self.assertEqual((result.output, result.error_lines[-1]), ("", refusal))
        self.figure(f"{len(places)} places open to all, in requests and plans: none is used, each "
                    "is named")

    def test_places_of_the_owner_alone_are_none(self):
        self.put()
        for _ in range(2):
            self.assertNotIn("Writable by others", self.run_command("run", "42").error)
