"""Tests of the examples: the manifest of the example scripts is published, each script does its job, and the command runs each of them to the verdict that examples/README.md names.

The command under test is the environment variable VARN_TESTED_COMMAND. Every test works in a
temporary directory of its own.
"""

import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import time
import tomllib
import unittest

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"
SCRIPTS = EXAMPLES / "scripts"

# What examples/README.md promises: script ID, file, accepted codes, verdict.
DOCUMENTED = [
    ("101", "disk-space.sh", "0", "accepted"),
    ("102", "pending-updates.sh", "0,100", "accepted"),
    ("103", "certificate-expiry.py", "0,3", "accepted"),
    ("104", "large-logs.pl", "0", "accepted"),
    ("105", "open-accounts.sh", "1", "accepted"),
    ("106", "asset-tag.sh", "0", "rejected"),
]
EXIT_STATUS = {"accepted": 0, "rejected": 1, "not_run": 3}
INTERPRETERS = {".sh": "/bin/sh", ".py": "/usr/bin/python3", ".pl": "/usr/bin/perl"}


def environment(**added):
    """The environment without settings of the command, which would win over a settings file."""
    kept = {name: value for name, value in os.environ.items() if not name.startswith("VARN_")}
    return {**kept, **added}


def execute(arguments, **added):
    return subprocess.run(
        [str(argument) for argument in arguments],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        encoding="utf-8",
        env=environment(**added),
        timeout=240,
        check=False,
    )


def tested_command():
    return pathlib.Path(os.environ["VARN_TESTED_COMMAND"])


class DirectoryCase(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="varn examples ")
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)

    def file(self, name, content=""):
        path = self.directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(content, encoding="utf-8")
        return path


class Manifest(DirectoryCase):
    def test_it_is_published_without_a_warning(self):
        result = execute([tested_command(), "--customer", "acme", "publish", "--check", "--strict",
                          SCRIPTS, self.directory / "server"])
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertEqual(result.stdout, "Checked 6 scripts: nothing to say.\n")

    def test_the_readme_names_each_script_with_its_arguments_and_codes(self):
        rows = []
        for line in (EXAMPLES / "README.md").read_text(encoding="utf-8").splitlines():
            cells = [cell.strip().strip("`") for cell in line.strip("|").split("|")]
            if len(cells) == 6 and cells[0].isdigit():
                rows.append((cells[0], cells[1], cells[3], cells[4], cells[5]))
        manifest = tomllib.loads((SCRIPTS / "scripts.toml").read_text(encoding="utf-8"))
        self.assertEqual(
            [row[:4] for row in rows],
            [(script["id"], script["file"], script["arguments"], script.get("accepted_codes", "0"))
             for script in manifest["script"]])
        self.assertEqual([(*row[:2], *row[3:]) for row in rows], DOCUMENTED)


class Scripts(DirectoryCase):
    def run_script(self, script_id, *arguments, **added):
        script = SCRIPTS / next(name for known, name, _, _ in DOCUMENTED if known == script_id)
        return execute([INTERPRETERS[script.suffix], script, *arguments], **added)

    def test_disk_space_passes_with_room_and_names_the_volume_that_runs_short(self):
        enough = self.run_script("101", "0", "/", "system volume")
        self.assertEqual(enough.returncode, 0)
        self.assertRegex(enough.stdout, r"^system volume \(/\): ok, \d+ MiB free, \d+% used\n$")

        short = self.run_script("101", "9000000000", "/", "system volume")
        self.assertEqual(short.returncode, 1)
        self.assertIn("system volume (/): SHORT, ", short.stdout)

    def test_disk_space_says_which_path_cannot_be_asked(self):
        missing = self.directory / "none"
        result = self.run_script("101", "0", missing, "nowhere", "/", "system volume")
        self.assertEqual(result.returncode, 2)
        self.assertIn("nowhere (", result.stdout)
        self.assertIn("system volume (/): ok", result.stdout)

    def test_disk_space_refuses_a_limit_that_is_no_number(self):
        self.assertEqual(self.run_script("101", "many", "/", "system volume").returncode, 2)

    def answer_of_apt(self, text, status=0):
        program = self.file("bin/apt-get", f"#!/bin/sh\ncat <<'END'\n{text}\nEND\nexit {status}\n")
        program.chmod(0o755)
        return {"PATH": f"{program.parent}:/usr/bin:/bin"}

    def test_pending_updates_counts_and_names_as_many_as_asked_for(self):
        answer = "Inst bash [5.1] (5.2 Debian)\nInst curl [7] (8 Debian)\nInst vim [8] (9 Debian)"
        answer += "\nConf bash (5.2 Debian)"
        result = self.run_script("102", "2", **self.answer_of_apt(answer))
        self.assertEqual(result.returncode, 100)
        self.assertIn(
            "apt: 3 waiting to be installed\n  bash\n  curl\n  and 1 more\n", result.stdout
        )

    def test_pending_updates_is_content_when_nothing_waits(self):
        result = self.run_script("102", "2", **self.answer_of_apt("Reading package lists..."))
        self.assertEqual(result.returncode, 0)
        self.assertIn("apt: no updates wait.\n", result.stdout)

    def test_pending_updates_fails_when_the_package_manager_does(self):
        result = self.run_script("102", "2", **self.answer_of_apt("E: broken", status=100))
        self.assertEqual(result.returncode, 1)
        self.assertIn("E: broken", result.stdout)

    def certificate(self, name, days):
        path = self.directory / "certificates" / f"{name}.pem"
        path.parent.mkdir(exist_ok=True)
        made = execute(
            ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", days]
            + ["-subj", f"/O=Acme/CN={name}", "-keyout", self.directory / "key", "-out", path]
        )
        self.assertEqual(made.returncode, 0, made.stderr)
        return path

    def test_certificate_expiry_names_the_certificate_that_is_due_and_no_other(self):
        self.certificate("soon.example.org", 10)
        self.certificate("later.example.org", 400)
        copied = self.certificate("copied.example.org", 20)
        shutil.copy(copied, self.directory / "certificates/b.crt")
        result = self.run_script("103", "--days", "45", self.directory / "certificates")
        self.assertEqual(result.returncode, 3, result.stdout + result.stderr)
        self.assertIn("3 certificates looked at, 2 due within 45 days\n", result.stdout)
        self.assertIn("  soon.example.org  (", result.stdout)
        self.assertEqual(result.stdout.count("copied.example.org  ("), 1)
        self.assertNotIn("later.example.org", result.stdout)

    def test_certificate_expiry_dates_agree_with_openssl(self):
        path = self.certificate("a.example.org", 5)
        said = execute(["openssl", "x509", "-in", path, "-noout", "-enddate"]).stdout
        end = time.strptime(said.strip(), "notAfter=%b %d %H:%M:%S %Y GMT")
        result = self.run_script("103", "--days", "45", path)
        self.assertIn(f"  expires {time.strftime('%Y-%m-%d', end)}  a.example.org", result.stdout)

    def test_certificate_expiry_is_content_when_nothing_is_due_or_there(self):
        path = self.certificate("later.example.org", 400)
        result = self.run_script("103", "--days", "45", path, self.directory / "none")
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stdout, "1 certificates looked at, 0 due within 45 days\n")

    def test_certificate_expiry_fails_on_a_file_that_is_no_certificate(self):
        block = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"
        result = self.run_script("103", "--days", "45", self.file("broken.pem", block))
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        self.assertIn("not readable: ", result.stdout)

    def test_large_logs_finds_the_large_and_the_old_file(self):
        with open(self.file("logs/deep/large.log"), "r+b") as large:
            large.truncate(3 * 1024 * 1024)
        old = self.file("logs/old.log", "x")
        os.utime(old, (time.time() - 40 * 86400,) * 2)
        self.file("logs/plain.log", "x")
        result = self.run_script("104", self.directory / "logs", "2", "30")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn("3 files, 3.0 MiB; 2 of at least 2 MiB or untouched for 30 ", result.stdout)
        self.assertRegex(result.stdout, r" 3\.0 MiB +0 days  .*/deep/large\.log\n")
        self.assertRegex(result.stdout, r" 0\.0 MiB +40 days  .*/old\.log\n")
        self.assertNotIn("plain.log", result.stdout)

    def test_large_logs_does_not_follow_links_out_of_the_directory(self):
        self.file("elsewhere/old.log", "x")
        (self.directory / "logs").mkdir()
        (self.directory / "logs/link").symlink_to(self.directory / "elsewhere")
        result = self.run_script("104", self.directory / "logs", "0", "0")
        self.assertIn("0 files, 0.0 MiB; 0 of ", result.stdout)

    def test_large_logs_fails_without_its_directory(self):
        self.assertEqual(self.run_script("104", self.directory / "none", "1", "1").returncode, 2)

    def test_open_accounts_exits_with_1_when_it_finds_none(self):
        accounts = "# a comment\nroot:x:0:0:root:/root:/bin/sh\nsync:x:4:65534::/bin:/bin/sync\n"
        result = self.run_script("105", self.file("passwd", accounts))
        self.assertEqual(result.returncode, 1)
        self.assertIn("None of the 2 accounts in ", result.stdout)

    def test_open_accounts_names_what_it_finds(self):
        accounts = "root:x:0:0:root:/root:/bin/sh\nguest::7:7:::\nsecond:x:0:0:::\n"
        result = self.run_script("105", self.file("passwd", accounts))
        self.assertEqual(result.returncode, 0)
        self.assertEqual(
            result.stdout, "without a password: guest\nhas the user ID of root: second\n"
        )

    def test_open_accounts_fails_without_its_file(self):
        self.assertEqual(self.run_script("105", self.directory / "none").returncode, 2)

    def test_asset_tag_prints_the_tag_and_fails_without_one(self):
        there = self.run_script("106", self.file("asset tag", "A-1701\n"))
        self.assertEqual((there.returncode, there.stdout), (0, "Asset tag: A-1701\n"))
        missing = self.run_script("106", self.directory / "none")
        self.assertEqual(missing.returncode, 4)
        self.assertIn("No asset tag: ", missing.stderr)


class Verdicts(DirectoryCase):
    def setUp(self):
        super().setUp()
        self.server = self.directory / "server"
        published = execute([tested_command(), "--customer", "acme", "publish", SCRIPTS, self.server])
        self.assertEqual(published.returncode, 0, published.stderr)

    def request(self, script_id):
        # The directory's name holds blanks, which a URL must not.
        server = f"file://{self.server}".replace(" ", "%20")
        return execute([tested_command(), "--base-path", self.directory / "computer",
                        "--customer", "acme", "--server", server, "-v", "run", script_id, "--json"])

    def test_the_command_runs_every_example_to_its_documented_verdict(self):
        for script_id, name, codes, verdict in DOCUMENTED:
            with self.subTest(script_id):
                result = self.request(script_id)
                self.assertEqual(result.returncode, EXIT_STATUS[verdict], result.stderr)
                answer = json.loads(result.stdout)
                self.assertEqual((answer["script_id"], answer["status"]), (script_id, verdict))
                self.assertTrue(answer["output"])
                self.assertIn(f"Expected Exit Code: {codes}", result.stderr)

    def test_the_command_does_not_run_an_example_whose_checksum_is_wrong(self):
        (script,) = self.server.glob("client-data/acme/scriptrepo/files/*.pl")
        script.write_text(script.read_text() + "print 'changed';\n")
        result = self.request("104")
        self.assertEqual(result.returncode, 3, result.stderr)
        self.assertEqual(json.loads(result.stdout)["reason_code"], "checksum_mismatch")
        self.assertIn("Checksum mismatch ID ", result.stderr)


class Settings(DirectoryCase):
    def list_with(self, config):
        return execute(
            [tested_command(), "--config", config, "--data-path", self.directory, "list", "--json"]
        )

    def test_the_example_settings_are_accepted(self):
        result = self.list_with(EXAMPLES / "varn-scripts.toml")
        self.assertEqual((result.returncode, json.loads(result.stdout)), (0, []), result.stderr)

    def test_every_key_that_is_commented_out_is_a_setting(self):
        text = (EXAMPLES / "varn-scripts.toml").read_text(encoding="utf-8")
        lines = [line[2:] if line.startswith("# ") and " = " in line else line
                 for line in text.splitlines()]
        keys = [line.split(" = ")[0] for line in lines if " = " in line]
        text = "\n".join(lines).replace("/var/log", str(self.directory))
        key = "RWRM5lKOZrw8KQB1mikK8fWAfBHNJrKomQDsjzUSTit4pqCza1LpOEgl"
        for name, content in (("headers", ""), ("netrc", ""), ("release.pub", key)):
            path = self.file(name, content)
            path.chmod(0o600)
            text = text.replace(f"/etc/varn-scripts/{name}", str(path))
        config = self.file("all.toml", text)
        result = self.list_with(config)
        self.assertEqual((result.returncode, json.loads(result.stdout)), (0, []), result.stderr)
        self.assertEqual(
            sorted(keys),
            ["base_path", "ca_file", "client_cert", "client_key", "customer", "data_path"]
            + ["header_file", "log_file", "log_format", "log_level", "log_target", "max_download"]
            + ["max_output", "netrc_file", "proxy", "quiet", "retry", "server"]
            + ["signatures_needed", "trusted_keys", "verbose"],
        )


class Demo(DirectoryCase):
    def demo(self, command, directory):
        return execute([EXAMPLES / "demo", command, directory])

    def test_the_demonstration_goes_as_described_also_a_second_time(self):
        for _ in range(2):
            result = self.demo(tested_command(), self.directory / "demo")
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
            self.assertIn("\nAll 10 steps went as described. ", result.stdout)

    def test_the_demonstration_fails_with_a_command_that_does_nothing(self):
        program = self.file("nothing", "#!/bin/sh\nexit 0\n")
        program.chmod(0o755)
        result = self.demo(program, self.directory / "demo")
        self.assertEqual(result.returncode, 1)
        self.assertIn("demo: not as described: ", result.stderr)

    def test_the_demonstration_leaves_a_directory_of_somebody_else_alone(self):
        precious = self.file("home/precious", "mine")
        result = self.demo(tested_command(), precious.parent)
        self.assertEqual(result.returncode, 2)
        self.assertEqual(precious.read_text(), "mine")
