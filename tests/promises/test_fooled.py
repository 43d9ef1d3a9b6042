"""Never fooled by the network: each hostile server costs one line, and no more memory."""

import gzip
import itertools
import json
import os
import socket
import threading
import time

from hostile_server import HostileServer, answer
from promise_case import MEBIBYTE, PromiseCase
from support.certificates import Authority, self_signed
from support.repository import LIST_PATH

# Beside what the program itself takes.
MOST_MEMORY = 96 * MEBIBYTE


class RefusalCase(PromiseCase):
    """Requests that get no list. The computer has an older one, which must stay."""

    def setUp(self):
        super().setUp()
        self.put(text="echo done\n")
        self.assertEqual(self.run_command("run", "42").status, 0)
        self.list = self.read(self.document_file("scripts-meta.xml"))
        self.web = HostileServer(self.repository.root)
        self.addCleanup(self.web.stop)
        self.server = self.web.url

    def causes(self, result):
        return [r["message"] for r in result.records if r["source"] == "HttpHandlermac"]

    def assert_refused(self, name, *options):
        """One line, nothing changed, little memory; gives the memory."""
        result, memory = self.run_measured(
            "--log-format", "json", "--max-download", "1000000", *options, "run", "42", "--json")
        self.assertEqual(
            (result.status, json.loads(result.output)["status"]), (3, "not_run"), name)
        causes = self.causes(result)
        self.assertEqual(len(causes), 1, (name, result.error))
        self.assertRegex(causes[0], rf"\ADownload of {LIST_PATH} failed: .")
        self.assertEqual(self.read(self.document_file("scripts-meta.xml")), self.list, name)
        self.assertEqual(self.temporary_files(), [], name)
        self.assert_memory(memory, MOST_MEMORY, name)
        return memory


class HostileServerTest(RefusalCase):
    """Answers that are none."""

    def answers(self):
        """Name, pieces, and what follows them."""
        ok = b"HTTP/1.1 200 OK\r\n"
        chunked = ok + b"Transfer-Encoding: chunked\r\n\r\n"
        packed = "Content-Encoding: gzip"
        forever = itertools.repeat
        bomb = gzip.compress(bytes(256 * MEBIBYTE))
        # A bomb of bombs: each member is another one.
        bombs = gzip.compress(bytes(16 * MEBIBYTE)) * 64
        whole = answer("200 OK", self.list)
        return (
            ("truncated", [whole[:-1]], "close"),
            ("truncated at once", [whole[:-len(self.list)]], "close"),
            ("too long", [whole + b"x"], "close"),
            ("chunked, cut in a chunk", [chunked, b"10\r\nabc"], "close"),
            ("chunked, cut after a chunk", [chunked, b"3\r\nabc\r\n"], "close"),
            ("chunked, cut in its end", [chunked, b"3\r\nabc\r\n0\r\n"], "close"),
            ("chunked, a size that is none", [chunked, b"zz\r\nabc\r\n0\r\n\r\n"], "close"),
            ("chunked, a size without end", [chunked, b"f" * 100_000], "close"),
            ("reset in the body", [whole[:-10]], "reset"),
            ("reset at once", [], "reset"),
            ("nothing", [], "close"),
            ("no HTTP", [b"hello\r\n\r\n"], "close"),
            ("a status without end", [b"HTTP/1.1 200 ", b"O" * 2 * MEBIBYTE], "close"),
            ("1 MiB of headers", [ok, b"X: y\r\n" * (MEBIBYTE // 6), b"\r\n"], "close"),
            ("1 MiB of one header", [ok, b"X: " + b"y" * MEBIBYTE, b"\r\n\r\n"], "close"),
            ("headers without end", itertools.chain([ok], forever(b"X: y\r\n" * 1000)), "close"),
            ("interim answers without end",
             forever(b"HTTP/1.1 100 Continue\r\nX: y\r\n\r\n" * 100), "close"),
            ("a body without end", itertools.chain([ok + b"\r\n"], forever(b"x" * 65536)), "close"),
            ("chunks without end",
             itertools.chain([chunked], forever(b"10000\r\n" + b"x" * 65536 + b"\r\n")), "close"),
            ("trailers without end",
             itertools.chain([chunked, b"1\r\nx\r\n0\r\n"], forever(b"X: y\r\n" * 1000)), "close"),
            ("an announced terabyte",
             [ok + b"Content-Length: 1099511627776\r\n\r\n", b"x" * 4096], "close"),
            ("two lengths", [ok + b"Content-Length: 3\r\nContent-Length: 4\r\n\r\nabc"], "close"),
            ("a compressed bomb", [answer("200 OK", bomb, packed)], "close"),
            ("a compressed bomb of many members", [answer("200 OK", bombs, packed)], "close"),
            ("a compressed body cut short", [answer("200 OK", bomb[:1000], packed)], "close"),
            ("a compressed body of nothing without end",
             itertools.chain([ok + b"Content-Encoding: gzip\r\n\r\n"],
                             forever(gzip.compress(b"") * 1000)), "close"),
            ("an unknown encoding", [answer("200 OK", b"abc", "Content-Encoding: br")], "close"),
            ("a redirect loop", [answer("302 Found", b"", f"Location: {LIST_PATH}")], "close"),
            ("a redirect loop of many headers",
             [answer("302 Found", b"", f"Location: {LIST_PATH}", *["X: " + "y" * 1000] * 200)],
             "close"),
            ("a redirect to a file",
             [answer("302 Found", b"", f"Location: file://{self.repository.root}{LIST_PATH}")],
             "close"),
            ("a redirect to nowhere", [answer("302 Found", b"")], "close"),
            ("a redirect of 1 MiB",
             [answer("302 Found", b"", "Location: /" + "x" * MEBIBYTE)], "close"),
            ("an error page without end",
             itertools.chain([b"HTTP/1.1 500 Error\r\n\r\n"], forever(b"x" * 65536)), "close"),
        )

    def test_each_is_refused_in_one_line_and_little_memory(self):
        answers = self.answers()
        most = 0
        for name, pieces, then in answers:
            with self.case(answer=name):
                self.web.answer(LIST_PATH, pieces, then)
                most = max(most, self.assert_refused(name))
        self.web.forget(LIST_PATH)
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
        self.figure(
            f"{len(answers)} hostile answers: 0 accepted, 0 targets touched, one line each, at "
            f"most {most / MEBIBYTE:.0f} MiB of memory")


class CertificateTest(RefusalCase):
    """Servers of another name, time or authority than they say."""

    def test_each_is_refused_in_one_line(self):
        authority = Authority(self.path("authority"))
        other = Authority(self.path("other"), "Other Authority")
        alone = self_signed(self.path("alone"))
        trust = ["--ca-file", authority.file]
        servers = (
            ("wrong host name", authority.sign("host", "DNS:other.example,IP:127.0.0.2"), trust),
            ("expired",
             authority.sign("old", start="20200101000000Z", end="20200102000000Z"), trust),
            ("of the future", authority.sign("new", start="20980101000000Z"), trust),
            ("self-signed", alone, trust),
            ("self-signed, system's authorities", alone, []),
            ("another authority's", other.sign("server"), trust),
            ("unknown authority's", authority.sign("unknown"), []),
            ("the authority's own for a server",
             (authority.file, self.path("authority", "ca.key")), trust),
        )
        for number, (name, certificate, options) in enumerate(servers):
            with self.case(certificate=name):
                web = self.serve(f"server-{number}", certificate=certificate)
                self.assert_refused(name, *options)
                self.assertEqual(web.requests(), [])
        self.serve("good", certificate=authority.sign("good"))
        result = self.run_command(*trust, "run", "42")
        self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
        self.figure(f"{len(servers)} wrong certificates: 0 accepted, 0 requests sent")

    def test_an_answer_that_is_cut_in_its_headers_is_refused(self):
        authority = Authority(self.path("authority"))
        web = HostileServer(certificate=authority.sign("server"))
        self.addCleanup(web.stop)
        self.server = web.url
        head = b"HTTP/1.1 200 OK\r\nETag: \"v1\"\r\nX-Filler: x\r\n\r\n"
        lengths = [0, 15, 16, 17, 20, 30, len(head) - 3, len(head) - 2, len(head) - 1]
        for length in lengths:
            with self.case(head=head[:length]):
                web.answer(LIST_PATH, [head[:length]])
                self.assert_refused(str(length), "--ca-file", authority.file)
        self.figure(f"{len(lengths)} answers over HTTPS that end in their headers: 0 accepted")

    def test_https_leads_to_nothing_less(self):
        authority = Authority(self.path("authority"))
        for name, target in (("http", self.web.url + LIST_PATH),
                             ("file", f"file://{self.repository.root}{LIST_PATH}")):
            with self.case(target=name):
                self.serve(name, certificate=authority.sign(name),
                           extra=f"location /client-data/ {{ return 302 {target}; }}")
                self.assert_refused(name, "--ca-file", authority.file)
        self.assertEqual(self.web.connections, 0)
        self.figure("redirects from https to http and to a file: 0 followed")


class DamageTest(PromiseCase):
    """Answers that come damaged with the genuine validators of what they were."""

    VALIDATORS = {
        "tag": ('ETag: "v1"',),
        "date": ("Date: Sun, 06 Nov 1994 08:49:37 GMT",
                 "Last-Modified: Sun, 06 Nov 1994 07:00:00 GMT"),
    }

    def setUp(self):
        super().setUp()
        script = self.put()
        self.paths = {"list": LIST_PATH, "data document": script.document_path,
                      "script": script.file_path}
        self.web = HostileServer(self.repository.root)
        self.addCleanup(self.web.stop)
        self.server = self.web.url
        self.tried = 0

    def assert_heals(self, damaged, damage):
        """A request gets the damaged answer and fails; the next one, of an honest server, runs."""
        path = self.paths[damaged]
        for kind, self.web.validators in self.VALIDATORS.items():
            with self.case(damaged=damaged, validators=kind):
                self.tried += 1
                self.base = self.path(f"base-{self.tried}")
                body = damage(self.read(self.repository.root + path))
                self.web.answer(path, [answer("200 OK", body, *self.web.validators)])
                self.assertEqual(self.run_command("run", "42").status, 3)
                self.web.forget(path)
                result = self.run_command("run", "42")
                self.assertEqual((result.status, result.output), (0, "done\n"), result.error)
                # It is asked for conditionally again, once it is right.
                os.remove(self.store_file())
                before = len(self.web.not_modified)
                self.assertEqual(self.run_command("run", "42").output, "done\n")
                self.assertEqual(set(self.web.not_modified[before:]), set(self.paths.values()))

    def test_whatever_does_not_fit_is_asked_for_whole(self):
        for damaged in self.paths:
            self.assert_heals(damaged, lambda body: bytes([body[0] ^ 1]) + body[1:])
            self.assert_heals(damaged, lambda body: body[:-1] + bytes([body[-1] ^ 1]))
            self.assert_heals(damaged, lambda body: bytes(byte ^ 1 for byte in body))
        self.figure(f"{self.tried} damaged answers with genuine validators: each cost one request")

    def test_documents_of_another_kind_and_wrong_checksums_are_too(self):
        for damaged in ("list", "data document"):
            self.assert_heals(damaged, lambda body: b"<html><body>Please log in</body></html>")
        for right, wrong in ((b"<checksum_val>", b"<checksum_val>0"), (b"SHA-256", b"SHA-25")):
            self.assert_heals("data document", lambda body: body.replace(right, wrong))


class StallTest(RefusalCase):
    """Servers that fall silent. The limits are 30 s for a connection and 60 s for a silence."""

    def silent_listener(self):
        """Accepts connections and says nothing; its port."""
        listener = socket.create_server(("127.0.0.1", 0))
        accepted = []

        def accept():
            try:
                while True:
                    accepted.append(listener.accept()[0])
            except OSError:
                pass  # the test is over

        thread = threading.Thread(target=accept)
        thread.start()

        def stop():
            listener.shutdown(socket.SHUT_RDWR)
            thread.join()
            for connection in (listener, *accepted):
                connection.close()

        self.addCleanup(stop)
        return listener.getsockname()[1]

    def full_listener(self):
        """Lets no connection come to be: its queue is full; its port."""
        listener = socket.create_server(("127.0.0.1", 0), backlog=0)
        self.addCleanup(listener.close)
        for _ in range(8):
            waiting = socket.socket()
            waiting.setblocking(False)
            waiting.connect_ex(listener.getsockname())
            self.addCleanup(waiting.close)
        return listener.getsockname()[1]

    def test_each_ends_after_its_limit(self):
        head = b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n"
        stalls = {
            "before the answer": [b""],
            "in the headers": [head],
            "before the body": [head + b"\r\n"],
            "in the body": [head + b"\r\n", b"x" * 50],
            "in a chunk": [b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10\r\nabc"],
        }
        servers = {}
        for name, pieces in stalls.items():
            web = HostileServer()
            self.addCleanup(web.stop)
            web.answer(LIST_PATH, pieces, "stall")
            servers[name] = web.url
        servers["in the TLS handshake"] = f"https://127.0.0.1:{self.silent_listener()}"
        servers["before the connection"] = f"http://127.0.0.1:{self.full_listener()}"
        began = time.monotonic()
        requests = {}
        for number, (name, url) in enumerate(servers.items()):
            base = self.path(f"base-{number}")
            requests[name] = self.start("--log-format", "json", "run", "42", "--json", settings=[
                "--base-path", base, "--customer", "7", "--server", url])
        for name, process in requests.items():
            with self.case(stall=name):
                result = self.finish(process)
                self.assertEqual(result.status, 3, result.error)
                causes = self.causes(result)
                self.assertEqual(len(causes), 1, result.error)
                self.assertRegex(causes[0], "(?i)too slow|time")
        self.figure(
            f"{len(servers)} servers that fall silent: each is given up, the last one after "
            f"{time.monotonic() - began:.0f} s")
