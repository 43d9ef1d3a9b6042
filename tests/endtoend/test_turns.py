"""Two invocations at the same time."""

import json
import os

from support.case import CommandCase


class TurnsTest(CommandCase):
    """Requests for one script ID take turns; others run side by side."""

    def setUp(self):
        super().setUp()
        self.started = self.fifo("started")

    def put_waiting(self, script_id):
        """A script that tells that it began, waits to be let go, and tells that it ended."""
        go = self.path("go")
        self.put(script_id=script_id, file_name=f"{script_id}.sh",
                 text=f"echo begin >>{self.path('journal')}\n"
                      f"mkfifo {go}.$$\necho $$ >{self.started}\nread line <{go}.$$\n"
                      f"echo end >>{self.path('journal')}\n")

    def wait_for_script(self):
        """The number of the script that has begun."""
        script = int(self.read_line_from(self.started))
        self.end_process_at_end(script)
        return script

    def let_go(self, script):
        with open(self.path(f"go.{script}"), "w", encoding="utf-8") as file:
            file.write("go\n")

    def journal(self):
        with open(self.path("journal"), encoding="utf-8") as file:
            return file.read().split()

    def local_script(self, name):
        with open(self.script_file(name), encoding="utf-8") as file:
            return file.read()

    def test_the_same_id_waits_for_its_turn(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        second = self.start("run", "42")
        self.wait_until(lambda: self.waits_for_a_lock(second), "the second request's wait")
        self.assertEqual(self.journal(), ["begin"])
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)
        self.let_go(self.wait_for_script())
        self.assertEqual(self.finish(second).status, 0)
        self.assertEqual(self.journal(), ["begin", "end", "begin", "end"])

    def test_whoever_waits_says_for_whom(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        second = self.start("--log-file", self.path("log"), "run", "42",
                            environment=self.environment(VARN_VERBOSE="false"))
        self.assertEqual(second.stderr.readline().decode(),
                         f"varn-scripts: waiting for process {first.pid}\n")
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)
        self.let_go(self.wait_for_script())
        self.assertEqual(self.finish(second).status, 0)

    def test_whoever_must_not_wait_is_locked_out(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        result = self.run_command("--quiet", "run", "42", "--no-wait", "--json")
        self.assertEqual((result.status, json.loads(result.output)), (3, {
            "script_id": "42", "status": "not_run", "output": None,
            "reason": f"Script 42 is in use by process {first.pid}", "reason_code": "locked_out"}))
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)
        self.assertEqual(self.journal(), ["begin", "end"])

    def test_a_file_of_another_id_locks_out_whoever_must_not_wait(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        self.put(script_id="43", file_name="42.sh", text="echo other\n")
        result = self.run_command("--quiet", "run", "43", "--no-wait", "--json")
        self.assertEqual((result.status, json.loads(result.output)), (3, {
            "script_id": "43", "status": "not_run", "output": None,
            "reason": f"{self.script_file('42.sh')} is in use by process {first.pid}",
            "reason_code": "locked_out"}))
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)

    def test_another_id_does_not_wait(self):
        self.put_waiting("42")
        self.put(script_id="43", file_name="other.sh", text="echo beside\n")
        first = self.start("run", "42")
        script = self.wait_for_script()
        result = self.run_command("run", "43")
        self.assertEqual((result.status, result.output), (0, "beside\n"), result.error)
        self.assertIsNone(first.poll())
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)

    def test_a_script_stays_while_it_runs_when_another_id_has_its_file_name(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        running = self.local_script("42.sh")
        self.put(script_id="43", file_name="42.sh", text="echo other\n")
        second = self.start("run", "43")
        self.wait_until(lambda: self.waits_for_a_lock(second), "the second request's wait")
        self.assertEqual(self.local_script("42.sh"), running)
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)
        done = self.finish(second)
        self.assertEqual((done.status, done.output), (0, "other\n"), done.error)

    def test_a_script_stays_while_it_runs_when_the_base_path_is_reached_by_a_link(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        running = self.local_script("42.sh")
        self.put(script_id="43", file_name="42.sh", text="echo other\n")
        os.symlink(self.base, self.path("link"))
        self.base = self.path("link")
        second = self.start("run", "43")
        self.wait_until(lambda: self.waits_for_a_lock(second), "the second request's wait")
        self.assertEqual(self.local_script("42.sh"), running)
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)
        self.assertEqual(self.finish(second).output, "other\n")

    def test_a_removal_waits_for_the_scripts_that_it_removes(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        self.repository.drop("42")
        removal = self.start("prune")
        self.wait_until(lambda: self.waits_for_a_lock(removal), "the removal's wait")
        self.assertTrue(os.path.exists(self.script_file("42.sh")))
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)
        self.assertEqual(self.finish(removal).status, 0)
        self.assertFalse(os.path.exists(self.script_file("42.sh")))

    def test_a_removal_waits_for_another_script_with_the_file_name(self):
        self.put(script_id="41", file_name="42.sh")
        self.assertEqual(self.run_command("run", "41").status, 0)
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        self.repository.drop("41")
        removal = self.start("prune")
        self.wait_until(lambda: self.waits_for_a_lock(removal), "the removal's wait")
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)
        self.assertEqual(self.finish(removal).status, 0)

    def test_another_base_path_does_not_wait(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        self.base = self.path("other base")
        second = self.start("run", "42")
        other = self.wait_for_script()
        self.assertEqual(self.journal(), ["begin", "begin"])
        self.let_go(script)
        self.let_go(other)
        self.assertEqual(self.finish(first).status, 0)
        self.assertEqual(self.finish(second).status, 0)

    def test_a_waiting_request_can_be_stopped(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        script = self.wait_for_script()
        second = self.start("run", "42")
        self.wait_until(lambda: self.waits_for_a_lock(second), "the second request's wait")
        second.terminate()
        self.assertEqual(self.finish(second).status, -15)
        self.let_go(script)
        self.assertEqual(self.finish(first).status, 0)
        self.assertEqual(self.journal(), ["begin", "end"])

    def test_the_lock_of_a_killed_request_is_free(self):
        self.put_waiting("42")
        first = self.start("run", "42")
        self.wait_for_script()
        first.kill()
        first.wait()
        second = self.start("run", "42")
        self.let_go(self.wait_for_script())
        self.assertEqual(self.finish(second).status, 0)
