"""Never unverified: what runs is covered by the checksum of the document that was fetched."""

import itertools
import json
import os
import re
import threading
from concurrent.futures import ThreadPoolExecutor

from promise_case import TELL_COVERED, OwnFileScript, PromiseCase
from support.repository import Repository, Script


class FlippingServer:
    """Whole sets of documents and script, each in a version of its own, one served at a time: a
    link to the set is replaced in one step, a few times for every request that begins."""

    FLIPS_PER_REQUEST = 3

    def __init__(self, case):
        self._case = case
        self._numbers = itertools.count(1)
        self._due = threading.Semaphore(0)
        self._stops = False
        self._thread = threading.Thread(target=self._flip_on)
        self.root = case.path("served")
        self.flips = 0
        self.last = ""
        self.flip()

    def flip(self):
        self.last = str(next(self._numbers))
        directory = self._case.path("sets", self.last)
        text = f"echo version {self.last}\n" + TELL_COVERED % "42" + "# padding\n" * 2000
        Repository(directory).put(Script("42", "job.sh", text, version=self.last))
        os.symlink(directory, self.root + ".next")
        os.rename(self.root + ".next", self.root)
        self.flips += 1

    def request_begins(self):
        self._due.release(self.FLIPS_PER_REQUEST)

    def _flip_on(self):
        while True:
            self._due.acquire()
            if self._stops:
                return
            self.flip()

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stops = True
        self._due.release()
        self._thread.join()


class FlipTest(PromiseCase):
    """Requests for one ID at the same time, while the server goes from version to version."""

    CLIENTS = 4
    REQUESTS = 20  # of each client

    def client(self, _):
        results = []
        for _ in range(self.REQUESTS):
            self.flipping.request_begins()
            results.append(self.run_command("--quiet", "run", "42", "--json"))
        return results

    def check(self, transport):
        with self.flipping, ThreadPoolExecutor(self.CLIENTS) as clients:
            results = list(itertools.chain(*clients.map(self.client, range(self.CLIENTS))))
        answers = [json.loads(result.output) for result in results]
        ran = [answer for answer in answers if answer["status"] != "not_run"]
        for answer in ran:
            self.assertRegex(answer["output"], r"\Aversion \d+\ncovered\n\Z")
        self.assertLessEqual({answer["reason_code"] for answer in answers
                              if answer["status"] == "not_run"}, {"checksum_mismatch"})
        self.assertTrue(ran)
        self.assertGreater(self.flipping.flips, 20)

        last = self.run_command("--quiet", "run", "42")
        self.assertEqual((last.status, last.output),
                         (0, f"version {self.flipping.last}\ncovered\n"), last.error)
        self.assertEqual(self.listed()[0]["version"], self.flipping.last)
        self.assertEqual(self.temporary_files(), [])
        self.assert_store_is_sound()
        versions = {re.match(r"version (\d+)", answer["output"])[1] for answer in ran}
        self.figure(
            f"{len(answers)} requests of {self.CLIENTS} clients over {transport} while the "
            f"server flipped {self.flipping.flips} times: {len(ran)} ran, in {len(versions)} "
            f"versions, {len(answers) - len(ran)} refused a set that was half old and half new, "
            "0 ran what its document does not cover; the next request ran the last version")

    def setUp(self):
        super().setUp()
        self.flipping = FlippingServer(self)
        self.repository.root = self.flipping.root

    def test_over_http(self):
        self.serve()
        self.check("HTTP")

    def test_from_a_directory(self):
        self.server = "file://" + self.flipping.root
        self.check("file")


class SharedFileTest(PromiseCase):
    """Two IDs whose scripts have one file on this computer, each with its own bytes."""

    def put_sharing(self, script_id, file_name="job.sh", **values):
        script = OwnFileScript(script_id, file_name,
                               f"echo {script_id}\n" + TELL_COVERED % script_id, **values)
        self.repository.put(script)
        return script

    def test_each_request_runs_its_own_bytes(self):
        rounds = 25
        for script_id in ("a", "b"):
            self.put_sharing(script_id)

        def client(script_id):
            return [(script_id, self.run_command("run", script_id)) for _ in range(rounds)]

        with ThreadPoolExecutor(4) as clients:
            results = list(itertools.chain(*clients.map(client, ("a", "b", "a", "b"))))
        fetched = 0
        for script_id, result in results:
            self.assertEqual((result.status, result.output), (0, f"{script_id}\ncovered\n"),
                             result.error)
            fetched += "redownloading script" in result.error
        self.figure(
            f"{len(results)} requests of 4 clients for two IDs with one file: every one ran its "
            f"own bytes; {fetched} times the other's were found and replaced first")

    def hold(self, script_id):
        """Starts a request and holds it where its checksum has been tested and its interpreter
        has not been started: the line in between is longer than the pipe that it goes to."""
        process = self.start("run", script_id)
        self.log = b""
        while b"Script Name: " not in self.log:
            piece = os.read(process.stderr.fileno(), 4096)
            self.assertTrue(piece, self.log)
            self.log += piece
        return process

    def check_held(self, file_name, recorded):
        # In words of 40 KB: one word may not be longer than the system's limit for one.
        self.put_sharing("held", arguments=" ".join(["x" * 40_000] * 10))
        self.put_sharing("other", file_name)
        if recorded:
            self.assertEqual(self.run_command("run", "other").status, 0)
        held = self.hold("held")
        before = self.read(self.script_file("job.sh"))
        other = self.start("run", "other")
        self.wait_until(lambda: self.waits_for_a_lock(other) or other.poll() is not None,
                        "the other request's wait")
        self.assertIsNone(other.poll(), "the other request did not wait")
        self.assertEqual(self.read(self.script_file("job.sh")), before)
        result = self.finish(held)
        self.assertEqual((result.status, result.output), (0, "held\ncovered\n"))
        result = self.finish(other)
        self.assertEqual((result.status, result.output), (0, "other\ncovered\n"), result.error)
        return (f"a request held between checksum test and start: the other ID's, which "
                f"{'tests' if recorded else 'fetches'} {file_name}, waited for it")

    def test_a_download_waits_between_checksum_test_and_start(self):
        self.figure(self.check_held("job.sh", recorded=False))

    def test_a_fetch_of_a_recorded_script_waits_too(self):
        self.figure(self.check_held("job.sh", recorded=True))

    def test_another_spelling_of_the_file_name_waits_too(self):
        waits = []
        for spelling in ("./job.sh", ".//./job.sh"):
            with self.case(spelling=spelling):
                waits.append(self.check_held(spelling, recorded=False))
        for wait in waits:
            self.figure(wait)
