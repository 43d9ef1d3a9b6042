"""What goes over the wire: a poll that finds nothing changed costs next to nothing, and one that
finds a change finds it at once."""

import os
import time

from support.case import CommandCase
from support.certificates import Authority
from support.relay import Relay
from support.repository import LIST_PATH

# The most that a poll without a change may move, both ways together, and the entries of its list.
MOST_BYTES = 4096
# Newer TLS libraries offer a key in a handshake that alone takes 2.3 KB both ways together.
MOST_SECURE_BYTES = MOST_BYTES + 2560
MANY_ENTRIES = 100_000

HOUR = 3600


class Polls:
    """The command reaches the server through a relay that counts."""

    def setUp(self):
        super().setUp()
        self.seen = []

    def serve_counted(self, **options):
        self.web = self.serve(**options)
        self.relay = Relay(self.web.port)
        self.addCleanup(self.relay.stop)
        self.server = f"{self.server.rsplit(':', 1)[0]}:{self.relay.port}"

    def list_file(self):
        return self.repository.root + LIST_PATH

    def set_list_time(self, moment):
        os.utime(self.list_file(), (moment, moment))

    def moved_by(self, *arguments):
        """Runs the command with success; its result, and the connections and bytes it took."""
        before = self.relay.totals()
        result = self.run_command(*arguments)
        self.assertEqual(result.status, 0, result.error)
        connections, transferred = (b - a for a, b in zip(before, self.relay.totals()))
        return result, connections, transferred

    def answers(self):
        """Path and status of the requests since the last call."""
        new = self.web.requests()[len(self.seen):]
        self.seen += new
        return [tuple(request.split()[1:]) for request in new]


class PollTest(Polls, CommandCase):
    """Over plain HTTP."""

    def setUp(self):
        super().setUp()
        self.serve_counted()

    def test_an_unchanged_list_is_not_sent_again(self):
        self.put()
        self.set_list_time(time.time() - HOUR)
        self.run_command("run", "42")
        self.answers()
        before = os.stat(self.document_file("scripts-meta.xml"))
        result, connections, transferred = self.moved_by("run", "42")
        self.assertEqual(result.output, "done\n")
        self.assertEqual(self.answers(), [(LIST_PATH, "304")])
        self.assertEqual(connections, 1)
        self.assertLess(transferred, 1024)
        after = os.stat(self.document_file("scripts-meta.xml"))
        self.assertEqual((after.st_ino, after.st_mtime_ns, after.st_mode),
                         (before.st_ino, before.st_mtime_ns, before.st_mode))

    def test_the_log_does_not_tell_the_two_apart(self):
        self.put()
        self.run_command("run", "42")
        whole = self.run_json_log("run", "42").steps
        self.set_list_time(time.time() - HOUR)
        self.run_command("run", "42")
        self.answers()
        self.assertEqual(self.run_json_log("run", "42").steps, whole)
        self.assertEqual(self.answers(), [(LIST_PATH, "304")])

    def test_a_run_with_many_entries_and_no_change_moves_less_than_4_kib(self):
        self.put()
        self.repository.list_more(MANY_ENTRIES - 1)
        self.set_list_time(time.time() - HOUR)
        _, _, first = self.moved_by("run", "42")
        result, _, transferred = self.moved_by("run", "42")
        size = os.path.getsize(self.list_file())
        print(f"{MANY_ENTRIES} entries, {size} bytes: the first run moved {first} bytes, the next "
              f"one {transferred}", flush=True)
        self.assertEqual(result.output, "done\n")
        self.assertGreater(first, size)
        self.assertLess(transferred, MOST_BYTES)

    def test_a_change_is_found_at_once(self):
        self.put(text="echo one\n")
        self.set_list_time(time.time() - 3 * HOUR)
        self.run_command("run", "42")
        self.put(text="echo two\n", version="2")
        self.set_list_time(time.time() - 2 * HOUR)
        self.assertEqual(self.run_command("run", "42").output, "two\n")
        self.answers()
        self.assertEqual(self.run_command("run", "42").output, "two\n")
        self.assertEqual(self.answers(), [(LIST_PATH, "304")])

    def test_a_list_that_goes_back_in_time_is_found_at_once(self):
        self.put(text="echo one\n")
        self.set_list_time(time.time() - 2 * HOUR)
        self.run_command("run", "42")
        self.put(text="echo old\n", version="0")
        self.set_list_time(time.time() - 3 * HOUR)
        self.assertEqual(self.run_command("run", "42").output, "old\n")

    def test_two_changes_within_one_second_are_found(self):
        # The server makes its tag of the list's size and of its time in seconds; both stay.
        now = int(time.time())
        self.put(text="echo one\n")
        self.set_list_time(now)
        self.run_command("run", "42")
        size = os.path.getsize(self.list_file())
        self.put(text="echo two\n", version="2")
        self.set_list_time(now)
        self.assertEqual(os.path.getsize(self.list_file()), size)
        self.assertEqual(self.run_command("run", "42").output, "two\n")

    def test_a_list_that_is_not_as_it_came_is_fetched_whole(self):
        self.put()
        self.set_list_time(time.time() - HOUR)
        self.run_command("run", "42")
        path = self.document_file("scripts-meta.xml")

        def tamper():
            with open(path, "r+b") as file:
                file.write(b"<?XML")

        for spoil in (tamper, lambda: os.remove(path), lambda: os.chmod(path, 0o644)):
            spoil()
            self.answers()
            self.assertEqual(self.run_command("run", "42").output, "done\n")
            self.assertEqual(self.answers(), [(LIST_PATH, "200")])
            self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)
        self.run_command("run", "42")
        self.assertEqual(self.answers(), [(LIST_PATH, "304")])

    def test_a_tampered_script_is_fetched_whole(self):
        script = self.put()
        for path in (LIST_PATH, script.file_path):
            os.utime(self.repository.root + path, (0, 0))
        self.run_command("run", "42")
        with open(self.script_file("job.sh"), "w", encoding="utf-8") as file:
            file.write("echo evil\n")
        self.answers()
        self.assertEqual(self.run_command("run", "42").output, "done\n")
        self.assertEqual(self.answers(), [(LIST_PATH, "304"), (script.file_path, "200")])


class CompressedPollTest(Polls, CommandCase):
    """The server compresses what it sends."""

    def test_a_list_comes_compressed_and_once(self):
        self.serve_counted(extra="gzip on; gzip_types *;")
        self.put()
        self.repository.list_more(1000)
        self.set_list_time(time.time() - HOUR)
        _, _, first = self.moved_by("run", "42")
        self.assertLess(first, os.path.getsize(self.list_file()) / 5)
        self.answers()
        result, _, transferred = self.moved_by("run", "42")
        self.assertEqual(result.output, "done\n")
        self.assertEqual(self.answers(), [(LIST_PATH, "304")])
        self.assertLess(transferred, MOST_BYTES)


class SecurePollTest(Polls, CommandCase):
    """Over HTTPS."""

    def test_one_connection_serves_the_three_downloads_of_a_request(self):
        authority = Authority(self.path("authority"))
        self.serve_counted(certificate=authority.sign("server"))
        script = self.put()
        _, connections, _ = self.moved_by("--ca-file", authority.file, "run", "42")
        self.assertEqual(self.answers(), [(LIST_PATH, "200"), (script.document_path, "200"),
                                          (script.file_path, "200")])
        self.assertEqual(connections, 1)

    def test_a_poll_without_a_change_is_little_more_than_the_handshake(self):
        authority = Authority(self.path("authority"))
        self.serve_counted(certificate=authority.sign("server"))
        self.put()
        self.repository.list_more(1000)
        self.set_list_time(time.time() - HOUR)
        self.moved_by("--ca-file", authority.file, "run", "42")
        _, connections, transferred = self.moved_by("--ca-file", authority.file, "run", "42")
        print(f"a poll without a change over HTTPS moved {transferred} bytes", flush=True)
        self.assertEqual(connections, 1)
        self.assertLess(transferred, MOST_SECURE_BYTES)
