"""Reaching the server: further tries, headers and logins for it alone, and the name it is told."""

import contextlib
import json
import os
import re
import signal
import socket
import ssl
import subprocess
import threading

from support.case import CommandCase
from support.certificates import Authority
from support.relay import Relay, Reset
from support.repository import LIST_PATH

AGAIN = re.compile(r"Trying again in (\d+\.\d) s: the download of (\S+) failed: (.*)$")


class TriesCase(CommandCase):
    """With the tries that the command makes when nothing is said of them."""

    def environment(self, **variables):
        environment = super().environment(**variables)
        if "VARN_RETRY" not in variables:
            del environment["VARN_RETRY"]
        return environment

    def serve_busy(self, more=""):
        """A server that answers everything with 503 and ends the connection."""
        return self.serve("busy", extra="keepalive_timeout 0; "
                                        f"location /client-data/ {{ {more} return 503; }}")

    def relay(self, port, first):
        relay = Relay(port, first)
        self.addCleanup(relay.stop)
        self.server = f"http://127.0.0.1:{relay.port}"

    def tries(self, result):
        """Pause, path and cause of each further try that the log tells of."""
        return [found.groups() for line in result.error_lines if (found := AGAIN.search(line))]

    def temporary_files(self):
        return [name for _, _, names in os.walk(self.base) for name in names
                if name.startswith(".varn-download-")]


class RetryTest(TriesCase):
    """What is tried again."""

    def test_a_busy_server_is_asked_again(self):
        script = self.put()
        busy = self.serve_busy()
        web = self.serve()
        self.relay(web.port, [busy.port])
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
        self.assertEqual(busy.requests(), [f"GET {LIST_PATH} 503"])
        self.assertEqual(web.paths(), [LIST_PATH, script.document_path, script.file_path])
        (_, path, cause), = self.tries(result)
        self.assertEqual((path, cause), (LIST_PATH, "the server answered with status 503"))

    def test_a_busy_server_is_left_alone_as_long_as_it_asks(self):
        self.put()
        busy = self.serve_busy("add_header Retry-After 2 always;")
        web = self.serve()
        self.relay(web.port, [busy.port])
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
        (pause, _, _), = self.tries(result)
        self.assertGreaterEqual(float(pause), 2)

    def test_a_file_whose_connection_is_reset_is_fetched_whole(self):
        script = self.put(text="echo done\n#" + "x" * 300000 + "\n")
        web = self.serve()
        self.relay(web.port, [Reset(100000)])
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
        self.assertEqual(web.paths(), [LIST_PATH, script.document_path, script.file_path,
                                       script.file_path])
        (_, path, _), = self.tries(result)
        self.assertTrue(script.file_path.endswith(path), path)
        self.assertEqual(self.temporary_files(), [])

    def test_what_is_missing_is_asked_for_once(self):
        self.repository.remove(LIST_PATH)
        web = self.serve()
        result = self.run_command("run", "42")
        self.assertEqual((result.status, self.tries(result)), (3, []))
        self.assertEqual(web.paths(), [LIST_PATH])

    def test_a_server_that_stays_busy_is_asked_three_times(self):
        self.put()
        busy = self.serve_busy()
        result = self.run_command("run", "42", "--json")
        self.assertEqual(busy.paths(), [LIST_PATH] * 3)
        self.assertEqual(len(self.tries(result)), 2)
        answer = json.loads(result.output)
        self.assertEqual(answer["reason_code"], "list_unavailable")
        self.assertTrue(answer["reason"].endswith("the server answered with status 503"))
        # Each failed download is one result, whatever was tried before.
        self.assertEqual(result.error.count("Script-Meta Download Failed"), 1)

    def test_no_try_is_made_when_none_is_wanted(self):
        self.put()
        busy = self.serve_busy()
        self.assertEqual(self.run_command("--retry", "0", "run", "42").status, 3)
        self.assertEqual(busy.paths(), [LIST_PATH])

    def test_a_server_without_tls_is_asked_once(self):
        self.serve()
        self.server = self.server.replace("http://", "https://")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, self.tries(result)), (3, []))
        self.assertIn("SSL routines", result.error)

    def test_a_client_certificate_that_is_refused_is_shown_once(self):
        authority = Authority(self.path("authority"))
        stranger = Authority(self.path("stranger"), "Stranger")
        certificate, key = stranger.sign("client")
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*authority.sign("server"))
        context.load_verify_locations(authority.file)
        context.verify_mode = ssl.CERT_REQUIRED
        connections = []

        def serve(listening):
            with contextlib.suppress(OSError):
                while True:
                    accepted, _ = listening.accept()
                    connections.append(accepted)
                    with accepted.dup() as same:
                        with contextlib.suppress(OSError):
                            context.wrap_socket(accepted, server_side=True).close()
                        # A connection that is closed before all was read is reset, and the client
                        # may not see why.
                        while same.recv(1 << 16):
                            pass

        with socket.create_server(("127.0.0.1", 0)) as listening:
            server = threading.Thread(target=serve, args=(listening,))
            server.start()
            self.server = f"https://127.0.0.1:{listening.getsockname()[1]}"
            result = self.run_command("--ca-file", authority.file, "--client-cert", certificate,
                                      "--client-key", key, "run", "42")
            listening.shutdown(socket.SHUT_RDWR)
            server.join()
        self.assertEqual((result.status, self.tries(result)), (3, []), result.error)
        self.assertEqual(len(connections), 1)


class PauseTest(TriesCase):
    """The pause between two tries, here of at least a minute."""

    def setUp(self):
        super().setUp()
        self.put()
        self.busy = self.serve_busy("add_header Retry-After 60 always;")

    def start_and_pause(self, *arguments):
        process = self.start(*arguments)
        while not AGAIN.search(line := process.stderr.readline().decode()):
            self.assertNotEqual(line, "", "there is no pause")
        return process

    def test_a_signal_ends_the_command(self):
        for command in (("run", "42"), ("prune",), ("plan", "42")):
            with self.subTest(command=command):
                before = len(self.busy.paths())
                process = self.start_and_pause(*command)
                process.send_signal(signal.SIGTERM)
                self.assertEqual(self.finish(process).status, -signal.SIGTERM)
                self.assertEqual(self.busy.paths()[before:], [LIST_PATH])
                self.assertEqual(self.temporary_files(), [])

    def test_the_turn_is_kept(self):
        process = self.start_and_pause("run", "42")
        answer = json.loads(self.run_command("run", "42", "--no-wait", "--json").output)
        self.assertEqual(answer["reason_code"], "locked_out")
        process.send_signal(signal.SIGTERM)
        self.finish(process)


class SecretsCase(CommandCase):
    """Two servers, the first of which leads to the second."""

    def write_secret(self, text, mode=0o600):
        path = self.path("secrets")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, mode)
        return path

    def serve_redirect(self, first, second):
        """Both answer 403 to whom these conditions of nginx are true for."""
        target = self.serve("target", extra=f"location / {{ if ({second}) {{ return 403; }} }}")
        self.serve("front", extra=f"location /client-data/ {{ if ({first}) {{ return 403; }} "
                                  f"return 302 {target.url}$request_uri; }}")
        return target

    def assert_mistake(self, line, *arguments):
        result = self.run_command(*arguments, "run", "42")
        self.assertEqual((result.status, result.output, result.error),
                         (2, "", f"varn-scripts: {line}\n"))


class HeaderFileTest(SecretsCase):
    """--header-file"""

    def test_the_headers_are_for_the_configured_server_alone(self):
        self.put(text="env\n")
        target = self.serve_redirect('$http_x_token != "a secret"', '$http_x_token != ""')
        self.assertEqual(self.run_command("run", "42").status, 3)
        self.assertEqual(target.paths(), [])
        path = self.write_secret("# of the gate\nX-Token: a secret\n")
        result = self.run_json_log("--header-file", path, "run", "42", "--json")
        self.assertEqual(result.status, 0, result.error)
        self.assertEqual(len(target.paths()), 3)
        for text in (result.output, result.error):
            self.assertNotIn("a secret", text)

    def test_mistakes_are_named_without_the_secret(self):
        self.put()
        name = "header_file (--header-file, VARN_HEADER_FILE)"
        path = self.write_secret("X-Token: a secret\n", 0o640)
        self.assert_mistake(f"{name} {path} is refused: other users may read or write it; chmod 600 "
                            "keeps them out", "--header-file", path)
        for text, what in (("X-Token: 1\na secret\n", "line 2: it is no header, which is a name, a "
                                                       "colon and a value"),
                           ("Range: secret\n", "line 1: the header Range is the downloader's own"),
                           ("X-Token: secret\r\n",
                            "line 1: its value has a control character in it")):
            path = self.write_secret(text)
            self.assert_mistake(f"{name} {path}, {what}", "--header-file", path)
        os.chmod(self.directory, 0o777)
        self.assert_mistake(f"{name} is refused: {self.directory} may be written to by all users",
                            "--header-file", path)


class NetrcTest(SecretsCase):
    """--netrc-file"""

    def setUp(self):
        super().setUp()
        self.put()
        self.passwords = self.path("htpasswd")
        with open(self.passwords, "w", encoding="utf-8") as file:
            file.write("user:{PLAIN}a-secret\n")

    def login(self):
        return f"auth_basic scripts; auth_basic_user_file {self.passwords};"

    def test_a_server_that_asks_for_a_login_gets_it(self):
        web = self.serve(extra=f"location /client-data/ {{ {self.login()} }}")
        result = self.run_command("--retry", "2", "run", "42", "--json")
        self.assertTrue(json.loads(result.output)["reason"].endswith("status 401"), result.output)
        self.assertEqual(web.requests(), [f"GET {LIST_PATH} 401"])
        path = self.write_secret("machine 127.0.0.1\nlogin user\npassword a-secret\n")
        result = self.run_json_log("--netrc-file", path, "run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
        self.assertNotIn("a-secret", result.error)
        path = self.write_secret("machine 127.0.0.1 login user password wrong\n")
        self.assertEqual(self.run_command("--netrc-file", path, "run", "42").status, 3)

    def test_the_login_is_for_the_configured_server_alone(self):
        target = self.serve_redirect('$http_authorization = ""', '$http_authorization != ""')
        path = self.write_secret("machine 127.0.0.1 login user password a-secret\n")
        result = self.run_command("--netrc-file", path, "run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
        self.assertEqual(len(target.paths()), 3)

    def test_a_file_that_others_may_read_is_a_mistake(self):
        path = self.write_secret("machine 127.0.0.1 login user password a-secret\n", 0o644)
        self.assert_mistake(f"netrc_file (--netrc-file, VARN_NETRC_FILE) {path} is refused: other "
                            "users may read or write it; chmod 600 keeps them out",
                            "--netrc-file", path)


class UserAgentTest(CommandCase):
    def test_the_server_is_told_program_and_version(self):
        self.put()
        web = self.serve()
        self.assertEqual(self.run_command("run", "42").status, 0)
        version = subprocess.run([self.command, "--version"], check=True, capture_output=True,
                                 text=True).stdout.split()[1]
        self.assertEqual(web.agents(), [f"varn-scripts/{version}"] * 3)
