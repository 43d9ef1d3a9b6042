"""Never torn: what killed requests leave behind is swept, and what lives is left alone."""

import os

from hostile_server import HostileServer
from promise_case import OwnFileScript, PromiseCase


class SweepTest(PromiseCase):
    """Temporary files of killed requests go with the next successful one."""

    def setUp(self):
        super().setUp()
        self.put(script_id="43", file_name="other.sh", text="echo other\n")
        self.assertEqual(self.run_command("run", "43").status, 0)
        self.script = OwnFileScript("42", "job.sh", "echo done\n" * 1000)
        self.repository.put(self.script)
        self.web = HostileServer(self.repository.root)
        self.addCleanup(self.web.stop)
        self.server = self.web.url

    def start_and_stop_in(self, server_path):
        """A request for 42 that has received a part of the file at `server_path` and waits."""
        before = set(self.temporary_files())
        body = self.read(self.repository.root + server_path)
        head = f"HTTP/1.1 200 OK\r\nContent-Length: {len(body)}\r\n\r\n".encode()
        self.web.answer(server_path, [head + body[:100]], "stall")
        process = self.start("run", "42")
        # Whoever asks for this file has the list already, whose own temporary file is gone.
        self.wait_until(lambda: server_path in self.web.requested
                        and set(self.temporary_files()) - before, "a temporary file")
        return process

    def leave_temporary_files(self):
        # In this order, because a download sweeps its own directory.
        for server_path in (self.script.file_path, self.script.document_path):
            process = self.start_and_stop_in(server_path)
            process.kill()
            process.wait()
            self.web.forget(server_path)
            self.web.requested.clear()
        self.assertEqual(len(self.temporary_files()), 2)

    def test_a_request_that_fetches_nothing_but_the_list_sweeps(self):
        self.leave_temporary_files()
        result = self.run_command("run", "43")
        self.assertEqual((result.status, result.output), (0, "other\n"), result.error)
        self.assertEqual(self.temporary_files(), [])
        self.assert_store_is_sound()
        self.figure(
            "2 requests killed in the middle of a download left 2 temporary files; the next "
            "request, of another ID that was up to date, left 0")

    def test_a_removal_sweeps(self):
        self.leave_temporary_files()
        result = self.run_command("prune")
        self.assertEqual(result.status, 0, result.error)
        self.assertEqual(self.temporary_files(), [])

    def test_a_download_that_is_under_way_is_left_alone(self):
        for server_path in (self.script.document_path, self.script.file_path):
            with self.case(path=server_path):
                process = self.start_and_stop_in(server_path)
                names = self.temporary_files()
                self.assertEqual(self.run_command("run", "43").status, 0)
                self.assertEqual(self.run_command("prune").status, 0)
                self.assertEqual(self.temporary_files(), names)
                process.kill()
                process.wait()
                self.web.forget(server_path)
                self.web.requested.clear()
                self.assertEqual(self.run_command("run", "43").status, 0)
                self.assertEqual(self.temporary_files(), [])

    def test_the_request_after_a_killed_one_is_whole(self):
        self.leave_temporary_files()
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n" * 1000), result.error)
        self.assertEqual(self.temporary_files(), [])
        self.assertEqual(self.read(self.script_file("job.sh")), self.script.text.encode())
        self.assert_store_is_sound()
        self.assertEqual(os.listdir(os.path.dirname(self.store_file())), ["ScriptRepository"])
