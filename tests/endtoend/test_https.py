"""Requests over HTTPS with throwaway authorities, and redirects."""

import json
import os
import subprocess

from support.case import CommandCase
from support.certificates import Authority
from support.repository import LIST_PATH


class HttpsTest(CommandCase):
    """Which certificates are taken, and what is said of the others."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()

    def setUp(self):
        super().setUp()
        self.authority = Authority(self.path("authority"))
        self.put(text="echo safe\n")

    def assert_refused(self, *arguments, naming):
        """Nothing is fetched, and one line of the downloader names the cause: it is not tried
        again."""
        result = self.run_json_log("--retry", "2", *arguments, "run", "42", "--json")
        self.assertEqual(result.status, 3)
        self.assertEqual(json.loads(result.output)["status"], "not_run")
        causes = [r["message"] for r in result.records if r["source"] == "HttpHandlermac"]
        self.assertEqual(len(causes), 1, result.error)
        self.assertRegex(causes[0].lower(), naming)
        self.assertEqual(self.web.requests(), [])

    def test_a_server_of_a_given_authority_is_taken(self):
        self.web = self.serve(certificate=self.authority.sign("server"))
        result = self.run_command("--ca-file", self.authority.file, "run", "42")
        self.assertEqual((result.status, result.output), (0, "safe\n"), result.error)

    def test_a_server_of_an_unknown_authority_is_refused(self):
        self.web = self.serve(certificate=self.authority.sign("server"))
        self.assert_refused(naming="certificate|issuer|peer")

    def test_a_server_of_another_authority_is_refused(self):
        other = Authority(self.path("other"), "Other Authority")
        self.web = self.serve(certificate=self.authority.sign("server"))
        self.assert_refused("--ca-file", other.file, naming="certificate|issuer|peer")

    def test_a_certificate_for_another_host_is_refused(self):
        self.web = self.serve(
            certificate=self.authority.sign("server", "DNS:other.example,IP:127.0.0.2"))
        self.assert_refused("--ca-file", self.authority.file, naming="127\\.0\\.0\\.1|host|subject")

    def test_an_expired_certificate_is_refused(self):
        self.web = self.serve(certificate=self.authority.sign(
            "server", start="20200101000000Z", end="20200102000000Z"))
        self.assert_refused("--ca-file", self.authority.file, naming="expired")

    def test_a_certificate_of_the_future_is_refused(self):
        self.web = self.serve(certificate=self.authority.sign("server", start="20980101000000Z"))
        self.assert_refused("--ca-file", self.authority.file, naming="not yet valid")

    def test_a_ca_file_that_is_missing_trusts_nobody(self):
        self.web = self.serve(certificate=self.authority.sign("server"))
        self.assert_refused("--ca-file", self.path("missing.pem"), naming="ca|certificate")

    def test_a_server_that_asks_for_a_client_certificate_gets_it(self):
        self.web = self.serve(
            certificate=self.authority.sign("server"),
            extra=f"ssl_client_certificate {self.authority.file}; ssl_verify_client optional; "
                  f'location {LIST_PATH} {{ if ($ssl_client_verify != "SUCCESS") '
                  "{ return 403; } }")
        certificate, key = self.authority.sign("client")
        trusted = ["--ca-file", self.authority.file]
        self.assertEqual(self.run_command(*trusted, "run", "42").status, 3)
        result = self.run_command(*trusted, "--client-cert", certificate, "--client-key", key,
                                  "run", "42")
        self.assertEqual((result.status, result.output), (0, "safe\n"), result.error)


    def test_an_encrypted_client_key_is_a_mistake_in_the_settings(self):
        certificate, key = self.authority.sign("client")
        encrypted = self.path("encrypted.pem")
        for form in (["ec", "-aes256"], ["pkcs8", "-topk8"]):
            subprocess.run(["openssl", *form, "-passout", "pass:word", "-in", key,
                            "-out", encrypted], check=True, capture_output=True)
            os.chmod(encrypted, 0o600)
            result = self.run_command("--client-cert", certificate, "--client-key", encrypted,
                                      "run", "42")
            self.assertEqual((result.status, result.output), (2, ""))
            self.assertTrue(result.error.startswith(
                "varn-scripts: client_key (--client-key, VARN_CLIENT_KEY) holds an encrypted key"),
                result.error)

    def test_the_environment_sets_nothing_up_and_gets_no_keys(self):
        self.put(text='echo "$OPENSSL_CONF $SSLKEYLOGFILE"\n')
        self.web = self.serve(certificate=self.authority.sign("server"))
        # With these settings no connection comes to be.
        settings = self.path("openssl.cnf")
        with open(settings, "w", encoding="utf-8") as file:
            file.write("openssl_conf = a\n[a]\nproviders = b\n[b]\nnull = c\n[c]\nactivate = 1\n")
        keys = self.path("keys")
        result = self.run_command(
            "--ca-file", self.authority.file, "run", "42",
            environment=self.environment(OPENSSL_CONF=settings, SSLKEYLOGFILE=keys))
        self.assertEqual((result.status, result.output), (0, f"{settings} {keys}\n"), result.error)
        self.assertFalse(os.path.exists(keys))


class PlainTest(CommandCase):
    """Servers without a certificate."""

    def warnings(self, server):
        self.server = server
        records = self.run_json_log("run", "42", "--json").records
        return [record["message"] for record in records
                if record["source"] == "HttpHandlermac" and
                record["operation"] == "prepareDownloads()"]

    def test_one_line_warns_of_a_plain_server_elsewhere(self):
        # A name that nobody has, so that the test asks no server.
        self.assertEqual(
            self.warnings("http://user.invalid/path"),
            ["Plain http:// server: who is on the way to user.invalid decides what is run here"])
        for server in ("https://user.invalid", "http://127.0.0.1:1", "http://localhost:1",
                       "http://[::1]:1", "file:///nowhere"):
            self.assertEqual(self.warnings(server), [])


class RedirectTest(CommandCase):
    """Where a server may send a download."""

    def setUp(self):
        super().setUp()
        self.put(text="echo moved\n")

    def test_another_http_server_is_followed_to(self):
        target = self.serve("target")
        self.serve("front", extra=f"location /client-data/ {{ return 302 {target.url}$request_uri; }}")
        result = self.run_command("run", "42")
        self.assertEqual((result.status, result.output), (0, "moved\n"), result.error)

    def test_https_never_leads_to_http(self):
        authority = Authority(self.path("authority"))
        target = self.serve("target")
        self.serve("front", certificate=authority.sign("server"),
                   extra=f"location /client-data/ {{ return 302 {target.url}$request_uri; }}")
        result = self.run_json_log("--ca-file", authority.file, "run", "42", "--json")
        self.assertEqual(result.status, 3)
        self.assertEqual(
            len([r for r in result.records if r["source"] == "HttpHandlermac"]), 1, result.error)
        self.assertEqual(target.requests(), [])

    def test_the_client_certificate_is_for_the_configured_server_alone(self):
        authority = Authority(self.path("authority"))
        certificate, key = authority.sign("client")
        asks = f"ssl_client_certificate {authority.file}; ssl_verify_client optional; "
        target = self.serve(
            "target", certificate=authority.sign("target"),
            extra=asks + 'location / { if ($ssl_client_verify != "NONE") { return 403; } }')
        self.serve("front", certificate=authority.sign("front"),
                   extra=asks + 'location /client-data/ { if ($ssl_client_verify = "SUCCESS") '
                                f"{{ return 302 {target.url}$request_uri; }} return 403; }}")
        result = self.run_command("--ca-file", authority.file, "--client-cert", certificate,
                                  "--client-key", key, "run", "42")
        self.assertEqual((result.status, result.output), (0, "moved\n"), result.error)

    def test_http_never_leads_to_a_file(self):
        self.serve("front", extra="location /client-data/ { return 302 "
                                  f"file://{self.repository.root}$request_uri; }}")
        self.assertEqual(self.run_command("run", "42").status, 3)

    def test_a_circle_ends(self):
        front = self.serve("front", extra="location /client-data/ { return 302 $request_uri; }")
        self.assertEqual(self.run_command("run", "42").status, 3)
        self.assertEqual(front.paths(), [LIST_PATH] * 6)
