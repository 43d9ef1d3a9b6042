"""Publishing with signatures: keys, what the tree has of signatures, and what computers say of it."""

import datetime
import hashlib
import os
import re
import shutil
import subprocess

from support.case import DEADLINE
from support.publish_case import PublishCase
from support.repository import CUSTOMER, DIRECTORY

MINISIGN = shutil.which("minisign")


def utc(**from_now):
    moment = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(**from_now)
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


class SigningCase(PublishCase):
    def setUp(self):
        super().setUp()
        self.key = self.make_key("release.key")
        self.write_script()

    def make_key(self, name):
        path = self.path(name)
        result = self.run_command("key", "generate", path, "--no-passphrase", settings=())
        self.assertEqual((result.status, result.error), (0, ""))
        return path

    def number(self, key):
        """The number that the key's signatures carry."""
        with open(key + ".pub", encoding="utf-8") as file:
            return file.readline().split()[-1]

    def sign(self, *options, keys=None):
        """Publishes with these keys, or the usual one; gives what was said."""
        return self.must_publish(*self.with_keys(keys or [self.key]), *options)

    @staticmethod
    def with_keys(keys):
        return [word for key in keys for word in ("--sign-with", key)]

    def renew(self, *options, key=None, **values):
        return self.run_command("publish", "--renew", "--sign-with", key or self.key, *options,
                                self.output, settings=["--customer", CUSTOMER], **values)

    # The tree.

    def list_digest(self):
        with open(self.list_path, "rb") as file:
            return hashlib.sha256(file.read()).hexdigest()

    def signature_path(self, key=None):
        """The file of the list's first signature, or of that of a further key."""
        further = "" if key is None else "." + self.number(key)
        return f"{self.output}{DIRECTORY}/signatures/{self.list_digest()}{further}.minisig"

    def signatures(self):
        return {name for name in self.files() if name.startswith("signatures/")}

    def said_in(self, path):
        """The comment that was signed, as a mapping of its fields."""
        with open(path, encoding="utf-8") as file:
            comment = file.read().splitlines()[2].removeprefix("trusted comment: ")
        return dict(field.split(":", 1) for field in comment.split("\t"))

    def said(self, key=None):
        return self.said_in(self.signature_path(key))

    def serial(self, key=None):
        return int(self.said(key)["serial"])

    # Those who trust keys.

    def verified(self, *keys, needed=1):
        """What `key verify` says of the published list to whom trusts these keys."""
        trusted = [word for key in keys for word in ("--trusted-key", key + ".pub")]
        return self.run_command("key", "verify", self.list_path, *trusted, "--signatures-needed",
                                str(needed), settings=["--customer", CUSTOMER])

    def assert_verified(self, *keys, needed=1):
        result = self.verified(*(keys or [self.key]), needed=needed)
        self.assertEqual((result.status, result.error), (0, ""))
        return result.output

    # Elsewhere.

    def minisign(self, *arguments):
        done = subprocess.run([MINISIGN, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                              encoding="utf-8", timeout=DEADLINE, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout + done.stderr

    def sign_elsewhere(self, path, **fields):
        """Puts minisign's signature over the published list there, with these fields."""
        said = {"customer": CUSTOMER, "serial": "1", "published": utc(minutes=-1),
                "expires": utc(days=30), **fields}
        os.makedirs(os.path.dirname(path), exist_ok=True)
        comment = "\t".join(f"{name}:{value}" for name, value in said.items())
        self.minisign("-S", "-W", "-s", self.key, "-m", self.list_path, "-x", path, "-t", comment)

    # What was said.

    def assert_signed(self, output, keys, first):
        """The output is the line `first` and one that names the keys; gives serial and expiry."""
        by = " and ".join(map(self.number, keys))
        found = re.fullmatch(re.escape(first) + rf"Signed by {by} with the serial ([0-9]+) until "
                             r"(20[0-9-]{8}T[0-9:]{8}Z)\.\n", output)
        self.assertTrue(found, output)
        return int(found[1]), found[2]

    def assert_refused(self, result, sentence, status=2):
        self.assertEqual((result.status, result.output, result.error),
                         (status, "", f"varn-scripts: {sentence}\n"))
