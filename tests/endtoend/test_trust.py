"""A computer that trusts keys runs what they have signed, and nothing else, whatever the server
does."""

import hashlib
import json
import os
import random
import shutil
import time

from support.repository import CUSTOMER, DIRECTORY, LIST_PATH, Repository
from support.signing import BoundScript, Key, SignedCase, comment, utc

HOUR = 3600


class SignedTest(SignedCase):
    """Signed as it must be."""

    def setUp(self):
        super().setUp()
        self.web = self.serve()
        self.seen = 0

    def asked(self):
        """Path and status of the requests since the last call."""
        requests = self.web.requests()
        new, self.seen = requests[self.seen:], len(requests)
        return [tuple(request.split()[1:]) for request in new]

    def age_list(self):
        """A file that has just changed is not asked for conditionally."""
        moment = time.time() - HOUR
        os.utime(self.repository.root + LIST_PATH, (moment, moment))

    def test_runs_and_tells_who_has_signed(self):
        script = self.publish()
        answer = self.assert_runs("done\n")
        self.assertEqual((answer["signed_by"], answer["serial"]), ([self.key.name], 1))
        self.assertEqual(self.asked(), [(LIST_PATH, "200"), (self.signature_path(), "200"),
                                        (script.document_path, "200"), (script.file_path, "200")])
        self.assertEqual(os.stat(self.state_file()).st_mode & 0o777, 0o600)

    def test_an_unchanged_poll_costs_one_request(self):
        self.publish()
        self.age_list()
        self.assert_runs("done\n")
        self.asked()
        answer = self.assert_runs("done\n")
        self.assertEqual(self.asked(), [(LIST_PATH, "304")])
        self.assertEqual((answer["signed_by"], answer["serial"]), ([self.key.name], 1))

    def test_a_changed_list_costs_one_request_more_than_without_keys(self):
        self.publish(text="echo one\n")
        self.assert_runs("one\n")
        script = self.publish(text="echo two\n")
        self.asked()
        self.assert_runs("two\n")
        self.assertEqual(self.asked(), [(LIST_PATH, "200"), (self.signature_path(), "200"),
                                        (script.document_path, "200"), (script.file_path, "200")])

    def test_without_keys_no_signature_is_asked_for(self):
        self.publish()
        self.trusted = []
        answer = self.assert_runs("done\n")
        self.assertNotIn("signed_by", answer)
        self.assertEqual([path for path, _ in self.asked() if "/signatures/" in path], [])
        self.assertFalse(os.path.exists(self.state_file()))

    def test_the_log_says_whether_lists_are_verified(self):
        self.publish()
        result = self.run_json_log("run", "42")
        self.assertEqual(result.steps[0], (
            "DownloadTrust", "prepareDownloads()",
            "Lists are verified: signatures by 1 of 1 trusted keys are needed"))
        self.assertIn(f"The list is signed by {self.key.name} for the customer {CUSTOMER}, serial 1, "
                      "until ", result.error)
        self.trusted = []
        self.assertEqual(self.run_json_log("run", "42").steps[0][2],
                         "Lists are not verified: no key is trusted")
        # Nothing of it is a warning.
        self.assertEqual(self.run_command("run", "42").error, "")

    def test_a_renewed_expiry_costs_a_request_when_the_old_one_has_run_out(self):
        self.put_bound()
        self.age_list()
        self.sign(expires=utc(seconds=3))
        self.assert_runs("done\n")
        self.wait_until(lambda: self.run_json()["status"] == "not_run", "the expiry")
        self.sign(expires=utc(days=1))
        self.asked()
        self.assert_runs("done\n")
        self.assertEqual(self.asked(), [(LIST_PATH, "304"), (self.signature_path(), "200")])
        self.assert_runs("done\n")
        self.assertEqual(self.asked(), [(LIST_PATH, "304")])

    def test_a_server_that_goes_on_answering_304_does_not_hide_the_expiry(self):
        frozen = self.path("frozen")
        self.serve("frozen-server", extra=f"if (-f {frozen}) {{ return 304; }}")
        self.put_bound()
        self.age_list()
        end = utc(seconds=3)
        self.sign(expires=end)
        self.assert_runs("done\n")
        with open(frozen, "w", encoding="utf-8"):
            pass
        answer = {}

        def expired():
            answer.update(self.run_json())
            return answer["status"] == "not_run"

        self.wait_until(expired, "the expiry")
        sentence = (
            f"The list of customer {CUSTOMER} can't be fetched from {self.server}{LIST_PATH}: the "
            "server answered with status 304; the list that was accepted last counts no more: the "
            f"signature by the key {self.key.name} expired at {end}")
        self.assertEqual(answer["reason"], sentence)
        self.assertEqual(json.loads(self.run_command("plan", "42", "--json").output)["problem"],
                         sentence)

    def test_two_keys_where_two_are_needed(self):
        second = Key()
        self.trusted.append(second)
        both = ("--signatures-needed", "2")
        self.publish()
        self.assert_untrusted("the list has 1 of the 2 signatures that are needed, and none by the "
                              f"key {second.name}", *both)
        self.sign(second, serial=1, name="." + second.name)
        answer = self.assert_runs("done\n", *both)
        self.assertEqual(sorted(answer["signed_by"]), sorted([self.key.name, second.name]))

    def test_plan_and_list_tell_who_has_signed_and_remember_nothing(self):
        self.publish()
        result = self.run_command("plan", "42")
        self.assertEqual(result.status, 0, result.error)
        self.assertIn(f"list:           signed by {self.key.name}, serial 1, until ", result.output)
        plan = json.loads(self.run_command("plan", "42", "--json").output)
        self.assertEqual((plan["signed_by"], plan["serial"]), ([self.key.name], 1))
        result = self.run_command("list", "--server")
        self.assertEqual(result.status, 0, result.error)
        self.assertIn(f"varn-scripts: the list is signed by {self.key.name}, serial 1, until ",
                      result.error)
        self.assertFalse(os.path.exists(self.base))
        self.trusted = []
        plan = self.run_command("plan", "42")
        self.assertNotIn("signed by", plan.output)
        self.assertEqual(self.run_command("list", "--server").error, "")

    def test_plan_and_list_hold_the_list_against_what_is_remembered(self):
        self.publish(text="echo one\n")
        old = self.path("old")
        shutil.copytree(self.repository.root, old)
        self.publish(text="echo two\n")
        self.assert_runs("two\n")
        state = self.bytes_of(self.state_file())
        self.server = "file://" + old
        cause = (f"the list is an older one: it has the serial 1 by the key {self.key.name}, and 2 "
                 "was accepted before")
        sentence = f"The list of customer {CUSTOMER} from {self.server}{LIST_PATH} is not trusted: {cause}"
        plan = json.loads(self.run_command("plan", "42", "--json").output)
        self.assertEqual((plan["problem"], plan["reason_code"]), (sentence, "list_untrusted"))
        result = self.run_command("list", "--server")
        self.assertEqual((result.status, result.error), (3, sentence + "\n"))
        dry = json.loads(self.run_command("prune", "--dry-run", "--json").output)
        self.assertEqual(dry["reason_code"], "list_untrusted")
        self.assertEqual(self.bytes_of(self.state_file()), state)


class RefusedTest(SignedCase):
    """What nobody has signed is not run, and each refusal has its sentence."""

    def setUp(self):
        super().setUp()
        self.serve()
        self.publish()
        self.assert_runs("done\n")

    def test_a_list_without_a_signature(self):
        self.put_bound(text="echo evil\n")
        digest = hashlib.sha256(self.content()).hexdigest()
        self.assert_untrusted(f"the list is not signed: signatures/{digest}.minisig: the server "
                              "answered with status 404")

    def test_signatures_that_do_not_count(self):
        self.put_bound(text="echo evil\n")
        by = f"the signature by the key {self.key.name}"
        stranger = Key()
        impostor = Key(number=self.key.number)
        past = utc(minutes=-2)
        future = utc(minutes=6)
        words = comment(2)
        good = self.key.sign(self.content(), words)
        digest = hashlib.sha256(self.content()).hexdigest()
        none = f"the list is not signed: signatures/{digest}.minisig: "
        rows = [
            ("", none + "the signature file is empty"),
            (good[:100], none + "the signature file is cut: it has 2 of four lines"),
            (good + "x\n", none + "the signature file has more than four lines"),
            (stranger.sign(self.content(), words),
             f"the key {stranger.name}, by which the list is signed, is not trusted"),
            (impostor.sign(self.content(), words), f"{by} is not over this list"),
            (self.key.sign(b"<other/>", words), f"{by} is not over this list"),
            (good.replace("serial:2", "serial:3"), f"the comment of {by} was changed"),
            (self.key.sign(self.content(), words.rpartition("\t")[0]),
             f"in {by}, the signed comment has no expires"),
            (self.key.sign(self.content(), comment(2, published=utc(days=-2), expires=past)),
             f"{by} expired at {past}"),
            (self.key.sign(self.content(), comment(2, customer="other")),
             f"{by} is for the customer \"other\", not for \"{CUSTOMER}\""),
            (self.key.sign(self.content(), comment(1)),
             f"the list is another one under the same serial: it has 1 by the key {self.key.name}, "
             "and 1 was accepted before"),
            (self.key.sign(self.content(), comment(0)),
             f"the list is an older one: it has the serial 0 by the key {self.key.name}, and 1 was "
             "accepted before"),
        ]
        for serial in ("-1", "one", str(2 ** 64)):
            rows.append((self.key.sign(self.content(), comment(serial)),
                         f"in {by}, the signed comment has serial that is no whole number from 0 to "
                         f"18446744073709551615: \"{serial}\""))
        for signature, cause in rows:
            with self.subTest(cause=cause):
                self.repository.write(self.signature_path(), signature)
                self.assert_untrusted(cause)
        self.repository.write(self.signature_path(),
                              self.key.sign(self.content(), comment(2, published=future)))
        answer = self.run_json()
        self.assertIn(f"{by} was made at {future}, and the clock of this computer stands before that",
                      answer["reason"])
        self.repository.write(self.signature_path(), good)
        self.assert_runs("evil\n")

    def test_an_earlier_publication(self):
        old = self.path("old")
        shutil.copytree(self.repository.root, old)
        self.publish(text="echo new\n")
        self.assert_runs("new\n")
        shutil.copytree(old, self.repository.root, dirs_exist_ok=True)
        self.assert_untrusted(f"the list is an older one: it has the serial 1 by the key "
                              f"{self.key.name}, and 2 was accepted before")

    def test_a_stolen_key_is_healed_by_trusting_another(self):
        self.put_bound(text="echo stolen\n")
        self.sign(serial=2 ** 64 - 1)
        self.assert_runs("stolen\n")
        self.put_bound(text="echo healed\n")
        fresh = Key()
        self.sign(fresh, serial=3)
        self.trusted = [self.key, fresh]
        self.assertEqual(self.run_json()["reason_code"], "list_untrusted")
        self.trusted = [fresh]
        self.assert_runs("healed\n")

    def test_the_tree_of_another_customer(self):
        root = self.repository.root
        shutil.copytree(f"{root}/client-data/{CUSTOMER}", f"{root}/client-data/8")
        settings = ["8" if value == CUSTOMER else value for value in self.settings()]
        result = self.run_command("run", "42", "--json", settings=settings)
        answer = json.loads(result.output)
        self.assertEqual(answer["reason_code"], "list_untrusted")
        self.assertIn(f"is for the customer \"{CUSTOMER}\", not for \"8\"", answer["reason"])

    def test_the_record_of_accepted_lists(self):
        whole = self.bytes_of(self.state_file())
        start = "the record of accepted lists "
        for content, mode, cause in (
                (whole[:-9], 0o600, f"{start}is cut or damaged ({self.state_file()})"),
                (b"foreign", 0o600,
                 f"{start}is none: it holds something else ({self.state_file()})"),
                (whole, 0o620,
                 f"{start}{self.state_file()} is not used: others may write to it")):
            with self.subTest(cause=cause):
                with open(self.state_file(), "wb") as file:
                    file.write(content)
                os.chmod(self.state_file(), mode)
                self.assert_untrusted(cause)
                self.assertEqual(self.bytes_of(self.state_file()), content)
        os.chmod(self.state_file(), 0o602)
        answer = self.run_json()
        self.assertEqual(answer["reason_code"], "unsafe_directory")
        self.assertIn(self.state_file(), answer["reason"])

    def test_prune_removes_nothing_by_a_list_that_does_not_count(self):
        self.repository.write(LIST_PATH, "<scripts-meta></scripts-meta>\n")
        result = self.run_command("prune", "--json")
        self.assertEqual(result.status, 3)
        self.assertEqual(json.loads(result.output)["reason_code"], "list_untrusted")
        self.assertEqual([record["script_id"] for record in self.listed()], ["42"])
        self.sign()
        result = self.run_command("prune", "--json")
        self.assertEqual(json.loads(result.output)["removed"], ["42"])


class BelowTheListTest(SignedCase):
    """Documents and scripts count by their content, here and on the server."""

    def setUp(self):
        super().setUp()
        self.serve()

    def test_a_local_document_that_was_altered_is_fetched(self):
        self.publish(text="echo \"done $1\"\n", arguments="well")
        self.assert_runs("done well\n")
        path = self.document_file("42.xml")
        with open(path, encoding="utf-8") as file:
            text = file.read()
        with open(path, "w", encoding="utf-8") as file:
            file.write(text.replace("<script_args>well<", "<script_args>evil<"))
        plan = self.run_command("plan", "42").output
        self.assertIn("step:           download: the data document is not the one that the list "
                      "names\n", plan)
        listed = json.loads(self.run_command("list", "--server", "--json").output)
        self.assertEqual(listed[0]["state"], "incomplete")
        self.assert_runs("done well\n")
        self.assertEqual(self.bytes_of(path).decode(), text)

    def test_a_document_from_a_time_without_keys_does_not_stay(self):
        evil = self.put_bound(text="echo evil\n", version="1")
        self.trusted = []
        self.assert_runs("evil\n")
        self.trusted = [self.key]
        self.publish(text="echo good\n", version="1")
        self.assert_runs("good\n")
        self.assertNotEqual(evil.document_path, "")

    def test_content_under_another_name(self):
        script = self.publish()
        for path, code, what in ((script.document_path, "document_unavailable", "data document"),
                                 (script.file_path, "script_unavailable", "file")):
            with self.subTest(path=path):
                whole = self.content(path)
                self.repository.write(path, "other")
                answer = self.run_json()
                self.assertEqual(answer["reason_code"], code)
                self.assertEqual(
                    answer["reason"],
                    f"The {what} of script 42 can't be fetched from {self.server}{path}: what came "
                    f"for {path.lstrip('/') if code[0] == 's' else path} is not what the signed list "
                    f"names: its SHA-256 is {hashlib.sha256(b'other').hexdigest()}")
                self.repository.write(path, whole.decode())
        self.assert_runs("done\n")

    def test_a_path_without_a_digest(self):
        self.put()
        self.sign()
        answer = self.run_json()
        self.assertEqual(answer["reason_code"], "document_unavailable")
        self.assertIn(f"{DIRECTORY}/42.xml is not bound to the signed list: its name has no SHA-256 of "
                      "its content", answer["reason"])


class SettingsTest(SignedCase):
    """Which keys are trusted, from every place."""

    def assert_refused(self, line, *options, environment=None):
        result = self.run_command(*options, "run", "42", environment=environment)
        self.assertEqual((result.status, result.output, result.error),
                         (2, "", f"varn-scripts: {line}\n"))

    def setUp(self):
        super().setUp()
        self.publish()
        self.trusted = []

    def key_file(self, mode=0o644):
        path = self.path("release.pub")
        with open(path, "w", encoding="utf-8") as file:
            file.write(f"untrusted comment: a key\n{self.key.line}\n")
        os.chmod(path, mode)
        return path

    def settings_file(self, text):
        path = self.path("varn.toml")
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return ("--config", path)

    def test_lines_and_files_from_every_place(self):
        for options, variables in (
                (("--trusted-key", self.key.line), {}),
                (("--trusted-key", self.key_file()), {}),
                ((), {"VARN_TRUSTED_KEYS": f"{Key().line} {self.key.line}"}),
                (self.settings_file(f'trusted_keys = ["{self.key.line}"]\n'), {}),
                (self.settings_file(f'trusted_keys = ["{Key().line}", "{self.key_file()}"]\n'), {})):
            with self.subTest(options=options, variables=variables):
                answer = json.loads(self.run_command(
                    *options, "run", "42", "--json",
                    environment=self.environment(**variables)).output)
                self.assertEqual(answer["signed_by"], [self.key.name])

    def test_a_nearer_place_wins_whole(self):
        stranger = Key()
        answer = self.run_json("--trusted-key", stranger.line,
                               environment=self.environment(VARN_TRUSTED_KEYS=self.key.line))
        self.assertEqual(answer["reason_code"], "list_untrusted")

    def test_what_was_mistyped(self):
        places = "(--trusted-key, VARN_TRUSTED_KEYS)"
        self.assert_refused(
            f"trusted_keys {places}: RWabc is neither the line of a public key nor a file that is "
            "there", "--trusted-key", "RWabc")
        self.assert_refused(
            "trusted_keys (given by VARN_TRUSTED_KEYS) is empty: give at least one, or leave it out",
            environment=self.environment(VARN_TRUSTED_KEYS=""))
        self.assert_refused(
            "signatures_needed (given by --signatures-needed) has no use without trusted_keys",
            "--signatures-needed", "1")
        self.assert_refused(
            "signatures_needed (--signatures-needed, VARN_SIGNATURES_NEEDED) is more than there are "
            "trusted_keys: 1",
            "--trusted-key", self.key.line, "--trusted-key", self.key_file(),
            "--signatures-needed", "2")
        twin = Key.under_another_number(self.key)
        self.assert_refused(
            f"trusted_keys {places}: the keys {self.key.name} and {twin.name} are one key under two "
            "numbers",
            "--trusted-key", self.key.line, "--trusted-key", twin.line, "--signatures-needed", "2")
        path = self.key_file(0o666)
        self.assert_refused(
            f"trusted_keys {places} is refused: {path} may be written to by all users",
            "--trusted-key", path)


class HostileServerTest(SignedCase):
    """The server does what it wants with everything but the key, in an order of chance."""

    STEPS = 12
    SEEDS = range(1, 5)

    def forget(self):
        """A new publisher, and a computer that has seen nothing."""
        for path in (self.base, self.repository.root):
            shutil.rmtree(path, ignore_errors=True)
        self.repository = Repository(self.repository.root)
        self.serial = 0
        self.states = []

    def keep(self):
        """Remembers the tree as it is, for its return."""
        path = self.path(f"states-{self.seed}", str(len(self.states)))
        shutil.copytree(self.repository.root, path)
        self.states.append(path)

    def restore(self, path):
        shutil.copytree(path, self.repository.root, dirs_exist_ok=True)

    def replay(self):
        self.restore(self.chance.choice(self.states))

    def mix(self):
        signature = self.content(self.signature_path())
        with open(self.chance.choice(self.states) + LIST_PATH, encoding="utf-8") as file:
            self.repository.write(LIST_PATH, file.read())
        self.repository.write(self.signature_path(), signature.decode())

    def drop_signatures(self):
        shutil.rmtree(self.repository.root + DIRECTORY + "/signatures")

    def write_own_list(self):
        number = self.chance.choice((None, self.key.number))
        self.repository.put(BoundScript("42", "job.sh", "echo evil\n", version="evil"))
        self.repository.write(self.signature_path(),
                              Key(number).sign(self.content(), comment(self.serial + 1)))

    def swap_content(self):
        for kind in ("data", "files"):
            directory = f"{self.repository.root}{DIRECTORY}/{kind}"
            for name in os.listdir(directory):
                self.repository.write(f"{DIRECTORY}/{kind}/{name}", "echo evil\n")

    def alter_what_lies_here(self):
        for path, content in ((self.script_file("job.sh"), "echo evil\n"),
                              (self.document_file("42.xml"), "<script/>"),
                              (self.document_file("scripts-meta.xml"), "<scripts-meta/>")):
            if os.path.exists(path) and self.chance.random() < 0.5:
                with open(path, "w", encoding="utf-8") as file:
                    file.write(content)

    def test_no_byte_runs_that_the_key_has_not_signed_and_no_serial_goes_back(self):
        self.serve()
        self.ran = self.refused = 0
        attacks = (self.replay, self.mix, self.drop_signatures, self.write_own_list,
                   self.swap_content, self.alter_what_lies_here)
        for seed in self.SEEDS:
            with self.subTest(seed=seed):
                self.seed, self.chance = seed, random.Random(seed)
                self.forget()
                last = 0
                for step in range(self.STEPS):
                    if self.states:
                        self.restore(self.states[-1])
                    if step % 3 == 0:
                        self.publish(text=f"echo {self.serial + 1}\n")
                        self.keep()
                    else:
                        self.chance.choice(attacks)()
                    answer = self.run_json()
                    if answer["status"] == "not_run":
                        self.refused += 1
                        continue
                    self.ran += 1
                    self.assertRegex(answer["output"], r"^\d+\n$")
                    self.assertGreaterEqual(int(answer["output"]), last)
                    last = int(answer["output"])
                self.restore(self.states[-1])
                self.assert_runs(f"{self.serial}\n")
        print(f"figure: {len(self.SEEDS)} sequences with the command before nginx, {self.ran} requests "
              f"ran what is signed, {self.refused} ran nothing, 0 ran anything else or went back",
              flush=True)
