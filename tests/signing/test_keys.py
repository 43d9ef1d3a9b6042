"""The commands of `key`: keys are made, shown and used, and minisign takes what is made here and
makes what is taken here. Passphrases come from a terminal or a file, and are shown nowhere."""

import contextlib
import datetime
import hashlib
import os
import pty
import re
import resource
import select
import shutil
import signal
import stat
import subprocess
import termios
import time
import unittest

from support.case import DEADLINE, CommandCase

MINISIGN = shutil.which("minisign")


def utc(**from_now):
    moment = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(**from_now)
    return moment.strftime("%Y-%m-%dT%H:%M:%SZ")


def comment(serial=1, published=None, expires=None):
    return "\t".join(("customer:acme", f"serial:{serial}",
                      f"published:{published or utc(minutes=-1)}",
                      f"expires:{expires or utc(days=30)}"))


class KeysCase(CommandCase):
    def setUp(self):
        super().setUp()
        self.secret = self.path("varn.key")
        self.public = self.secret + ".pub"
        self.list = self.path("scripts-meta.xml")
        self.write(self.list, "<scripts-meta/>\n")

    def write(self, path, text, mode=0o600):
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        os.chmod(path, mode)
        return path

    def read(self, path):
        with open(path, encoding="utf-8") as file:
            return file.read()

    def key(self, *arguments, **options):
        return self.run_command("key", *arguments, settings=(), **options)

    def generate(self, path=None, *options):
        result = self.key("generate", path or self.secret, *(options or ("--no-passphrase",)))
        self.assertEqual((result.status, result.error), (0, ""))
        return result.output

    def minisign(self, *arguments, words=""):
        done = subprocess.run([MINISIGN, *arguments], input=words, capture_output=True,
                              encoding="utf-8", timeout=DEADLINE, check=False)
        return done.returncode, done.stdout + done.stderr

    def sign(self, key, *options, name="", text=None):
        """Signs the list with minisign, into the place that belongs to it."""
        with open(self.list, "rb") as file:
            digest = hashlib.sha256(file.read()).hexdigest()
        os.makedirs(self.path("signatures"), exist_ok=True)
        place = self.path("signatures", f"{digest}{name}.minisig")
        status, said = self.minisign("-S", "-W", "-s", key, "-m", self.list, "-x", place,
                                     "-t", comment() if text is None else text, *options)
        self.assertEqual(status, 0, said)
        return place

    def assert_refused(self, status, sentence, *arguments):
        result = self.key(*arguments)
        self.assertEqual((result.status, result.output, result.error),
                         (status, "", f"varn-scripts: {sentence}\n"))


class GenerateTest(KeysCase):
    def test_makes_a_secret_file_and_a_public_one_and_prints_the_public_key(self):
        previous = os.umask(0)
        self.addCleanup(os.umask, previous)
        printed = self.generate()
        self.assertRegex(printed,
                         r"^untrusted comment: minisign public key [0-9A-F]{16}\nRW[^\n]{54}\n$")
        self.assertEqual(self.read(self.public), printed)
        self.assertEqual(stat.S_IMODE(os.stat(self.secret).st_mode), 0o600)
        self.assertEqual(stat.S_IMODE(os.stat(self.public).st_mode), 0o644)
        self.assertNotEqual(self.generate(self.path("other")), printed)

    def test_overwrites_no_file(self):
        for there in (self.secret, self.public):
            with self.subTest(there=there):
                self.write(there, "mine")
                self.assert_refused(
                    3, f"the key {there} can't be written: it is there already, and no key is "
                       "overwritten", "generate", self.secret, "--no-passphrase")
                self.assertEqual(self.read(there), "mine")
                os.unlink(there)
                self.assertEqual(os.listdir(self.directory),
                                 [name for name in os.listdir(self.directory)
                                  if not name.startswith("varn.key")])

    def test_takes_no_passphrase_from_the_command_line_or_the_environment(self):
        result = self.key("generate", self.secret, "--passphrase", "one")
        self.assertEqual(result.status, 2)
        environment = self.environment(VARN_PASSPHRASE="one", VARN_PASSPHRASE_FILE="one")
        result = self.key("generate", self.secret, environment=environment, start_new_session=True)
        self.assertEqual((result.status, result.error),
                         (3, "varn-scripts: the passphrase can't be asked for without a terminal: "
                             "give it with --passphrase-file\n"))
        self.assertFalse(os.path.exists(self.secret))

    def test_refuses_a_passphrase_file_that_is_empty_or_open_to_others(self):
        words = self.write(self.path("words"), "")
        self.assert_refused(3, "the passphrase is empty", "generate", self.secret,
                            "--passphrase-file", words)
        self.write(words, "one two\n", mode=0o644)
        self.assert_refused(
            3, f"the passphrase file {words} is not used: others than its owner may use it (mode "
               "0644); chmod 600 mends that", "generate", self.secret, "--passphrase-file", words)
        result = self.key("generate", self.secret, "--passphrase-file", words, "--no-passphrase")
        self.assertEqual(result.status, 2)
        self.assertFalse(os.path.exists(self.secret))


class PassphraseTest(KeysCase):
    def test_a_key_is_shown_with_its_passphrase_alone(self):
        words = self.write(self.path("words"), "one two\n")
        printed = self.generate(self.secret, "--passphrase-file", words)
        self.assertNotIn("one two", self.read(self.secret))
        # Through a descriptor that a shell has opened.
        reader, writer = os.pipe()
        os.write(writer, b"one two\nmore\n")
        os.close(writer)
        result = self.key("show", self.secret, "--passphrase-file", f"/dev/fd/{reader}",
                          pass_fds=[reader])
        os.close(reader)
        self.assertEqual((result.status, result.output, result.error), (0, printed, ""))
        self.write(words, "one  two\n")
        self.assert_refused(3, f"{self.secret}: the secret key can't be unlocked: the passphrase is "
                               "wrong, or the file is damaged",
                            "show", self.secret, "--passphrase-file", words)


    def test_weaker_protection_for_want_of_memory_is_told(self):
        words = self.write(self.path("words"), "one two\n")
        most = 700 << 20
        result = self.key("generate", self.secret, "--passphrase-file", words,
                          preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (most, most)))
        self.assertEqual(result.status, 0)
        self.assertEqual(result.error,
                         f"varn-scripts: there is too little memory to protect {self.secret} as well "
                         "as usual: to try a passphrase takes 512 MiB of it in place of 1024\n")
        self.assertEqual(self.read(self.public), result.output)
        self.assertEqual(self.key("show", self.secret, "--passphrase-file", words).output,
                         result.output)


class TerminalTest(KeysCase):
    """A person at a terminal."""

    def at_terminal(self, *arguments, core=None, user=None):
        """Starts the command with a terminal of its own; gives its process ID and the terminal."""
        child, terminal = pty.fork()
        if child == 0:
            if core is not None:
                resource.setrlimit(resource.RLIMIT_CORE, (core, core))
            if user is not None:
                os.setuid(user)
            # Whoever runs the tests in the background ignores what a terminal sends.
            for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGHUP):
                signal.signal(number, signal.SIG_DFL)
            os.execve(self.command, [self.command, *arguments], self.environment())
        self.addCleanup(os.close, terminal)
        self.shown = b""
        return child, terminal

    def status_of(self, child):
        """The exit status of the process, or the negative number of the signal that ended it."""
        ended = []
        self.wait_until(lambda: ended.extend(os.waitpid(child, os.WNOHANG)) or ended[-2],
                        "the end of the command")
        return os.waitstatus_to_exitcode(ended[-1])

    def read_until(self, terminal, words):
        deadline = time.monotonic() + DEADLINE
        while words not in self.shown:
            ready, _, _ = select.select([terminal], [], [], deadline - time.monotonic())
            self.assertTrue(ready, f"{words} was not shown: {self.shown}")
            try:
                more = os.read(terminal, 4096)
            except OSError:
                more = b""
            self.assertTrue(more, f"{words} was not shown: {self.shown}")
            self.shown += more

    def read_to_the_end(self, terminal):
        with contextlib.suppress(OSError):
            while more := os.read(terminal, 4096):
                self.shown += more

    def test_is_asked_twice_and_what_is_typed_is_not_shown(self):
        child, terminal = self.at_terminal("key", "generate", self.secret)
        self.read_until(terminal, f"Passphrase for {self.secret}: ".encode())
        os.write(terminal, b"one two\n")
        self.read_until(terminal, b"The same once more: ")
        os.write(terminal, b"one two\n")
        self.read_to_the_end(terminal)
        self.assertEqual(self.status_of(child), 0, self.shown)
        self.assertNotIn(b"one two", self.shown)
        self.assertIn(b"untrusted comment: minisign public key ", self.shown)

    def test_who_types_two_different_ones_is_told(self):
        child, terminal = self.at_terminal("key", "generate", self.secret)
        self.read_until(terminal, b"Passphrase for ")
        os.write(terminal, b"one\n")
        self.read_until(terminal, b"The same once more: ")
        os.write(terminal, b"two\n")
        self.read_to_the_end(terminal)
        self.assertEqual(self.status_of(child), 3)
        self.assertIn(b"varn-scripts: the two passphrases are not the same", self.shown)
        self.assertFalse(os.path.exists(self.secret))

    def test_an_interrupt_ends_it_and_leaves_the_terminal_as_it_was(self):
        for key, number in ((b"\x03", signal.SIGINT), (b"\x1c", signal.SIGQUIT)):
            with self.subTest(number=number):
                child, terminal = self.at_terminal("key", "generate", self.secret)
                self.read_until(terminal, b"Passphrase for ")
                self.assertFalse(termios.tcgetattr(terminal)[3] & termios.ECHO)
                os.write(terminal, b"on" + key)
                self.assertEqual(self.status_of(child), -number)
                self.assertTrue(termios.tcgetattr(terminal)[3] & termios.ECHO)
                self.assertFalse(os.path.exists(self.secret))


    @unittest.skipUnless(os.path.exists("/proc/self/limits"), "no /proc here")
    def test_secrets_are_in_no_core_dump(self):
        words = self.write(self.path("words"), "one two\n")
        locked = self.path("locked")
        self.generate(locked, "--passphrase-file", words)
        self.generate()
        os.mkdir(self.path("source"))
        self.write(self.path("source", "scripts.toml"), "")
        for arguments, question in (
                (("key", "generate", self.path("new")), b"Passphrase for "),
                (("key", "show", locked), b"Passphrase of "),
                (("--customer", "acme", "publish", "--allow-removal", self.path("source"),
                  self.path("output"), "--sign-with", self.secret, "--sign-with", locked),
                 b"Passphrase of ")):
            with self.subTest(arguments=arguments):
                child, terminal = self.at_terminal(*arguments, core=resource.RLIM_INFINITY)
                self.read_until(terminal, question)
                self.assertRegex(self.read(f"/proc/{child}/limits"),
                                 r"\nMax core file size +0 +0 ")
                os.write(terminal, b"\x1c")
                self.assertEqual(self.status_of(child), -signal.SIGQUIT)

    @unittest.skipUnless(os.geteuid() == 0 and os.path.exists("/proc/self/limits"),
                         "needs root, to be another user, and /proc")
    def test_who_may_trace_a_process_can_not_trace_one_with_secrets(self):
        # What the owner of a process can't trace is root's.
        os.chmod(self.directory, 0o755)
        place = self.path("place")
        os.mkdir(place)
        os.chown(place, 4242, 4242)
        child, terminal = self.at_terminal("key", "generate", os.path.join(place, "new"), user=4242)
        self.read_until(terminal, b"Passphrase for ")
        self.assertEqual(os.stat(f"/proc/{child}/mem").st_uid, 0)
        # Its own descriptors are its own all the same.
        os.write(terminal, b"\x03")
        self.assertEqual(self.status_of(child), -signal.SIGINT)
        reader, writer = os.pipe()
        os.fchown(reader, 4242, 4242)
        os.write(writer, b"one two\n")
        os.close(writer)
        result = self.key("generate", os.path.join(place, "new"), "--passphrase-file",
                          f"/dev/fd/{reader}", pass_fds=[reader], user=4242)
        os.close(reader)
        self.assertEqual((result.status, result.error), (0, ""))


class ShowTest(KeysCase):
    def test_prints_the_public_key_of_every_form_of_a_key(self):
        printed = self.generate()
        for given in (self.secret, self.public, printed.splitlines()[1]):
            with self.subTest(given=given):
                result = self.key("show", given)
                self.assertEqual((result.status, result.output, result.error), (0, printed, ""))

    def test_refuses_a_secret_key_that_others_may_read(self):
        self.generate()
        os.chmod(self.secret, 0o640)
        self.assert_refused(3, f"the secret key {self.secret} is not used: others than its owner "
                               "may use it (mode 0640); chmod 600 mends that",
                            "show", self.secret)

    def test_refuses_what_is_no_key(self):
        self.assert_refused(3, "the key none can't be read: No such file or directory",
                            "show", "none")
        self.assert_refused(3, f"{self.list}: the secret key is none: it has no comment line",
                            "show", self.write(self.list, "<scripts-meta/>\n"))


    def test_standard_input_is_said_not_to_be_read(self):
        printed = self.generate()
        unread = "it is standard input, from which nothing is read"
        for place in ("/dev/stdin", "/dev/fd/0"):
            with self.subTest(place=place), open(self.secret, "rb") as file:
                result = self.key("show", place, stdin=file)
                self.assertEqual((result.status, result.output, result.error),
                                 (3, "", f"varn-scripts: the key {place} can't be read: {unread}\n"))
                result = self.key("verify", self.list, "--trusted-key", place, stdin=file)
                self.assertIn(f"the key {place} can't be read: {unread}\n", result.error)
                result = self.key("generate", self.path("new"), "--passphrase-file", place,
                                  stdin=file)
                self.assertEqual((result.output, result.error),
                                 ("", f"varn-scripts: the passphrase file {place} can't be read: "
                                      f"{unread}; give a file, or a pipe such as /dev/fd/3\n"))
        # Of the null device itself that holds as well.
        self.assertIn(unread, self.key("show", "/dev/null").error)
        self.assertEqual(self.key("show", self.secret).output, printed)


@unittest.skipUnless(MINISIGN, "no minisign here")
class MinisignTest(KeysCase):
    """Both ways: minisign's keys and signatures here, and the keys made here in minisign."""

    def test_signs_with_a_key_made_here_what_is_verified_here_and_there(self):
        self.generate()
        place = self.sign(self.secret)
        status, said = self.minisign("-V", "-m", self.list, "-x", place, "-p", self.public)
        self.assertEqual(status, 0, said)
        result = self.key("verify", self.list, "--trusted-key", self.public)
        self.assertEqual(result.status, 0, result.error)
        number = self.read(self.public).splitlines()[0].rsplit(" ", 1)[1]
        self.assertRegex(result.output,
                         f"^{self.list}: signed by {number} for the customer acme, serial 1, "
                         "until 20[0-9T:-]*Z\n$")

    def test_unlocks_a_key_made_here_with_its_passphrase(self):
        words = self.write(self.path("words"), "one two\n")
        self.generate(self.secret, "--passphrase-file", words)
        status, said = self.minisign("-S", "-s", self.secret, "-m", self.list, "-x",
                                     self.path("there"), words="one two\n")
        self.assertEqual(status, 0, said)
        status, said = self.minisign("-V", "-m", self.list, "-x", self.path("there"),
                                     "-p", self.public)
        self.assertEqual(status, 0, said)

    def test_a_key_made_by_minisign_is_shown_here(self):
        self.minisign("-G", "-W", "-p", self.public, "-s", self.secret)
        result = self.key("show", self.secret)
        self.assertEqual(result.status, 0, result.error)
        # It writes the number without noughts before it.
        self.assertEqual(re.sub(" key 0+", " key ", result.output),
                         self.read(self.public))


@unittest.skipUnless(MINISIGN, "no minisign here")
class VerifyTest(KeysCase):
    def setUp(self):
        super().setUp()
        self.generate()
        self.number = self.read(self.public).splitlines()[0].rsplit(" ", 1)[1]

    def assert_verified(self, *options):
        result = self.key("verify", self.list, "--trusted-key", self.public, *options)
        self.assertEqual((result.status, result.error), (0, ""))

    def assert_not_verified(self, sentence, *options):
        self.assert_refused(1, f"{self.list}: {sentence}", "verify", self.list, "--trusted-key",
                            self.public, *options)

    def test_a_list_without_a_signature(self):
        self.assert_not_verified("the list is not signed")

    def test_a_list_that_was_changed(self):
        place = self.sign(self.secret)
        self.write(self.list, "<scripts-meta />\n")
        self.assert_not_verified("the list is not signed")
        self.assert_not_verified(f"the signature by the key {self.number} is not over this list",
                                 "--signature", place)

    def test_a_signature_that_has_expired_or_is_not_yet_made(self):
        past = utc(minutes=-1)
        self.sign(self.secret, text=comment(published=utc(days=-2), expires=past))
        self.assert_not_verified(f"the signature by the key {self.number} expired at {past}")
        future = utc(days=1)
        self.sign(self.secret, text=comment(published=future))
        result = self.key("verify", self.list, "--trusted-key", self.public)
        self.assertIn(f"was made at {future}, and the clock of this computer stands before that",
                      result.error)
        self.assertEqual(result.status, 1)

    def test_two_keys_where_two_are_needed(self):
        other = self.path("other")
        self.generate(other)
        number = self.read(other + ".pub").splitlines()[0].rsplit(" ", 1)[1]
        both = ("--trusted-key", other + ".pub", "--signatures-needed", "2")
        self.sign(self.secret)
        few = f"the list has 1 of the 2 signatures that are needed, and none by the key {number}"
        self.assert_not_verified(few, *both)
        self.sign(self.secret, name=f".{number}")
        self.assert_not_verified(few, *both)
        self.sign(other, name=f".{number}")
        self.assert_verified(*both)

    def test_another_customer(self):
        self.sign(self.secret)
        result = self.run_command("--customer", "other", "key", "verify", self.list,
                                  "--trusted-key", self.public, settings=())
        self.assertEqual((result.status, result.error),
                         (1, f"varn-scripts: {self.list}: the signature by the key {self.number} is "
                             "for the customer \"acme\", not for \"other\"\n"))

    def test_what_was_mistyped(self):
        self.sign(self.secret)
        trusted = "trusted_keys (--trusted-key, VARN_TRUSTED_KEYS): "
        self.assert_refused(2, trusted + "RWabc is neither the line of a public key nor a file that "
                               "is there",
                            "verify", self.list, "--trusted-key", "RWabc")
        self.assert_refused(2, f"{trusted}{self.secret}: the public key is a secret key, which belongs to "
                               "whoever signs alone",
                            "verify", self.list, "--trusted-key", self.secret)
        self.assert_refused(
            2, "signatures_needed (given by --signatures-needed) is more than there are "
               "trusted_keys: 1",
            "verify", self.list, "--trusted-key", self.public, "--signatures-needed", "2")
        self.assert_refused(3, f"the list {self.path('none')} can't be read: No such file or "
                               "directory",
                            "verify", self.path("none"), "--trusted-key", self.public)
        self.assert_refused(3, "the signature none can't be read: No such file or directory",
                            "verify", self.list, "--trusted-key", self.public, "--signature",
                            "none")

    def test_control_characters_in_a_comment_steer_no_terminal(self):
        self.sign(self.secret, text="customer:\x1b[2Jacme")
        result = self.key("verify", self.list, "--trusted-key", self.public)
        self.assertEqual(result.status, 1)
        self.assertNotIn("\x1b", result.error)
