"""Signs lists as minisign does, by libsodium, and makes repositories whose paths carry digests."""

import base64
import ctypes
import ctypes.util
import dataclasses
import datetime
import hashlib
import json
import os

from .case import CommandCase
from .repository import CUSTOMER, DIRECTORY, LIST_PATH, Script, _data_document


def sodium():
    return ctypes.CDLL(ctypes.util.find_library("sodium") or "libsodium.so.23")


def utc(**from_now):
    moment = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(**from_now)
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


def comment(serial, customer=CUSTOMER, published=None, expires=None):
    return "\t".join((f"customer:{customer}", f"serial:{serial}",
                      f"published:{published or utc(minutes=-1)}",
                      f"expires:{expires or utc(days=30)}"))


class Key:
    """A key, made anew."""

    def __init__(self, number=None):
        public, self._secret = (ctypes.create_string_buffer(size) for size in (32, 64))
        if sodium().crypto_sign_keypair(public, self._secret) != 0:
            raise RuntimeError("no key")
        self.number = number or os.urandom(8)
        self.line = base64.b64encode(b"Ed" + self.number + public.raw).decode()
        self.name = self.number[::-1].hex().upper()

    @classmethod
    def under_another_number(cls, other):
        """The key `other` with the number of a new one."""
        key = cls()
        point = base64.b64decode(other.line)[10:]
        key._secret, key.line = other._secret, base64.b64encode(b"Ed" + key.number + point).decode()
        return key

    def _signature(self, data):
        signature = ctypes.create_string_buffer(64)
        sodium().crypto_sign_detached(signature, None, data, ctypes.c_ulonglong(len(data)),
                                      self._secret)
        return signature.raw

    def sign(self, content, words):
        """The file of a signature over `content` with the comment `words`."""
        over = self._signature(hashlib.blake2b(content).digest())
        return "\n".join(("untrusted comment: of a test",
                          base64.b64encode(b"ED" + self.number + over).decode(),
                          "trusted comment: " + words,
                          base64.b64encode(self._signature(over + words.encode())).decode(), ""))


@dataclasses.dataclass
class BoundScript(Script):
    """A script whose files are named by their content, as publish names them."""

    @property
    def document_path(self):
        digest = hashlib.sha256(_data_document(self).encode()).hexdigest()
        return f"{DIRECTORY}/data/{digest}.xml"

    @property
    def file_path(self):
        return f"{DIRECTORY}/files/{hashlib.sha256(self.text.encode()).hexdigest()}.sh"


class SignedCase(CommandCase):
    """A repository with a signed list, and a computer that trusts its key."""

    verbose = False

    def setUp(self):
        super().setUp()
        self.key = Key()
        self.trusted = [self.key]
        self.serial = 0

    def settings(self):
        return [*super().settings(),
                *(part for key in self.trusted for part in ("--trusted-key", key.line))]

    def content(self, path=LIST_PATH):
        with open(self.repository.root + path, "rb") as file:
            return file.read()

    def signature_path(self, name=""):
        return f"{DIRECTORY}/signatures/{hashlib.sha256(self.content()).hexdigest()}{name}.minisig"

    def put_bound(self, text="echo done\n", version=None, **values):
        """Puts a script as `put` does, and leaves the list unsigned."""
        script = BoundScript("42", "job.sh", text, version=version or text, **values)
        self.repository.put(script)
        return script

    def sign(self, key=None, name="", **words):
        """Signs the list as it is, under the next serial."""
        self.serial += 1
        words.setdefault("serial", self.serial)
        self.repository.write(self.signature_path(name),
                              (key or self.key).sign(self.content(), comment(**words)))

    def publish(self, text="echo done\n", **values):
        script = self.put_bound(text, **values)
        self.sign()
        return script

    def state_file(self):
        return f"{self.base}/data/{CUSTOMER}/Configuration-Framework/AcceptedLists"

    def run_json(self, *options, **more):
        result = self.run_command("run", "42", "--json", *options, **more)
        return json.loads(result.output)

    def assert_runs(self, output, *options):
        answer = self.run_json(*options)
        self.assertEqual((answer["status"], answer["output"]), ("accepted", output), answer)
        return answer

    def assert_untrusted(self, cause, *options):
        """Nothing runs, since the list does not count, and what was there stays."""
        path = self.document_file("scripts-meta.xml")
        before = self.bytes_of(path)
        answer = self.run_json(*options)
        self.assertEqual((answer["status"], answer.get("reason_code")),
                         ("not_run", "list_untrusted"), answer)
        self.assertEqual(answer["reason"], f"The list of customer {CUSTOMER} from "
                                           f"{self.server}{LIST_PATH} is not trusted: {cause}")
        self.assertNotIn("signed_by", answer)
        self.assertEqual(self.bytes_of(path), before)

    @staticmethod
    def bytes_of(path):
        try:
            with open(path, "rb") as file:
                return file.read()
        except FileNotFoundError:
            return None
