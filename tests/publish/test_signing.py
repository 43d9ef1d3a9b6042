"""What `publish` signs, renews, takes in and refuses, with keys on the built command."""

import os
import resource
import shutil
import signal
import stat
import subprocess
import time
import unittest

from signing_case import MINISIGN, SigningCase, utc
from support.publish_case import LOCK_NAME
from support.repository import CUSTOMER, DIRECTORY
from support.terminal import Terminal

PUBLISHED = "Published 1 script for customer 7: "
FIRST = "+ 42\n" + PUBLISHED + "2 files written, the list replaced, 0 files removed.\n"
CHANGED = "~ 42 (script)\n" + PUBLISHED + "2 files written, the list replaced, {} files removed.\n"


class Signed(SigningCase):
    def test_tree_has_one_more_file_that_a_web_server_can_read(self):
        before = int(time.time())
        serial, expires = self.assert_signed(self.sign(), [self.key], FIRST)
        signature = f"signatures/{self.list_digest()}.minisig"
        self.assertEqual(self.signatures(), {signature})
        self.assertEqual(len(self.files()), 4)
        for name, (mode, *_) in self.tree().items():
            expected = 0o755 if stat.S_ISDIR(mode) else 0o644
            if name not in (".", os.path.join(DIRECTORY[1:], LOCK_NAME)):
                self.assertEqual(stat.S_IMODE(mode), expected, name)
        said = self.said()
        self.assertEqual(said.keys(), {"customer", "serial", "published", "expires"})
        self.assertEqual((said["customer"], said["serial"], said["expires"]),
                         (CUSTOMER, str(serial), expires))
        self.assertTrue(before <= serial <= int(time.time()))
        self.assertIn(expires[:10], (utc(days=30)[:10], utc(days=30, seconds=-60)[:10]))
        self.assertIn(f"serial {serial}, until {expires}", self.assert_verified())

    def test_for_a_time_of_ones_own(self):
        self.sign("--expires", "12h")
        self.assertIn(self.said()["expires"][:13], (utc(hours=12)[:13], utc(hours=12, seconds=-60)[:13]))

    def test_without_a_change_nothing_is_written(self):
        self.sign()
        before = self.tree()
        self.assertEqual(self.sign(), PUBLISHED + "nothing has changed.\n")
        self.assertEqual(self.tree(), before)

    def test_a_time_that_is_not_taken_is_told(self):
        self.sign()
        remark = ("varn-scripts: --expires changes nothing: the signature stays as it is; publish "
                  "--renew makes a new one\n")
        for options in ([], ["--check"]):
            result = self.publish("--sign-with", self.key, "--expires", "90d", *options)
            self.assertEqual((result.status, result.error), (0, remark), options)
        self.write_script(text="echo 2\n")
        self.sign("--expires", "90d")

    def test_each_publication_has_a_higher_serial(self):
        serials = []
        for text in ("1", "2", "1", "2"):
            self.write_script(text=f"echo {text}\n")
            self.sign()
            self.assert_verified()
            serials.append(self.serial())
        self.assertEqual(serials, sorted(set(serials)))

    def test_without_the_signatures_of_before_the_serial_grows_all_the_same(self):
        self.sign()
        before = self.serial()
        shutil.rmtree(f"{self.output}{DIRECTORY}/signatures")
        self.write_script(text="echo 2\n")
        self.sign()
        self.assertGreaterEqual(self.serial(), before)
        # So it does when the whole tree is lost.
        shutil.rmtree(self.output)
        self.write_script(text="echo 3\n")
        self.sign()
        self.assertGreaterEqual(self.serial(), before)

    def test_a_tree_that_was_not_is_from_then_on(self):
        self.must_publish()
        before = self.tree()
        check = self.publish("--check", "--sign-with", self.key)
        self.assertEqual(check.status, 4)
        self.assert_signed(check.output.replace(", to be signed", ".\nSigned"), [self.key],
                           "Checked 1 script: nothing to say; 0 files to be written, the list "
                           "unchanged.\n")
        self.assertEqual(self.tree(), before)
        self.assert_signed(self.sign(), [self.key],
                           PUBLISHED + "0 files written, the list unchanged, 0 files removed.\n")
        self.assert_verified()

    def test_a_check_says_with_what(self):
        self.sign()
        self.write_script(text="echo 2\n")
        before = self.tree()
        result = self.publish("--check", "--sign-with", self.key)
        self.assertEqual((result.status, result.error), (4, ""))
        self.assertRegex(result.output,
                         r"^~ 42 \(script\)\nChecked 1 script: nothing to say; 2 files to be "
                         "written, the list to be replaced, to be signed by "
                         f"{self.number(self.key)} with the serial [0-9]+ until [^ ]*Z\\.\n$")
        self.assertEqual(self.tree(), before)

    def test_of_before_stay_as_long_as_the_content(self):
        self.sign()
        first = self.signatures()
        self.write_script(text="echo 2\n")
        self.assert_signed(self.sign(), [self.key], CHANGED.format(0))
        second = self.signatures() - first
        self.assertEqual(len(self.signatures()), 2)
        self.write_script(text="echo 3\n")
        self.assert_signed(self.sign(), [self.key], CHANGED.format(3))
        self.assertEqual(len(self.signatures()), 2)
        self.assertLess(second, self.signatures())
        # As long as was asked for, and that of the list for ever.
        self.write_script(text="echo 4\n")
        self.sign("--keep-for", "1h")
        self.assertEqual(len(self.signatures()), 3)
        for name in self.signatures():
            os.utime(f"{self.output}{DIRECTORY}/{name}", (1, 1))
        self.sign("--keep-for", "1h")
        self.assertEqual(self.signatures(), {f"signatures/{self.list_digest()}.minisig"})

    def test_place_is_not_followed_through_a_link(self):
        self.sign()
        path = self.signature_path()
        elsewhere = self.path("elsewhere")
        os.rename(path, elsewhere)
        os.symlink(elsewhere, path)
        with open(elsewhere, "rb") as file:
            before = file.read()
        self.sign()
        self.assertFalse(os.path.islink(path))
        with open(elsewhere, "rb") as file:
            self.assertEqual(file.read(), before)
        self.assert_verified()

    def test_by_others_is_left_alone(self):
        self.sign()
        os.rename(self.signature_path(), self.path("theirs"))
        other = self.make_key("other.key")
        self.sign(keys=[other])
        theirs = self.signature_path()
        with open(theirs, "rb") as file:
            before = file.read()
        self.sign()
        with open(theirs, "rb") as file:
            self.assertEqual(file.read(), before)
        for key in (self.key, other):
            self.assert_verified(key)


class Unsigned(SigningCase):
    """A tree that is signed does not lose that by mistake."""

    def test_list_takes_the_place_of_a_signed_one_only_when_asked(self):
        self.sign()
        before = self.tree()
        self.write_script(text="echo 2\n")
        for options in ([], ["--allow-removal"]):
            result = self.publish(*options)
            self.assertEqual((result.status, result.output, result.error_lines), (2, "", [
                f"{self.list_path}: the list there is signed, and computers that trust a key "
                "refuse one that is not; give --sign-with, or --unsigned to publish without a "
                "signature",
                "varn-scripts: nothing is published: 1 refusal"]))
            self.assertEqual(self.tree(), before)
        self.assertEqual(self.must_publish("--unsigned"), CHANGED.format(0))
        self.assertEqual(self.verified(self.key).status, 1)
        # From then on it is none.
        self.write_script(text="echo 3\n")
        self.must_publish()

    def test_check_of_a_change_needs_no_key(self):
        self.sign()
        self.write_script(text="echo 2\n")
        before = self.tree()
        checked = ("~ 42 (script)\nChecked 1 script: nothing to say; 2 files to be written, the list "
                   "to be replaced")
        for options, end in (([], ", to be signed.\n"), (["--strict"], ", to be signed.\n"),
                             (["--unsigned"], ".\n")):
            result = self.publish("--check", *options)
            self.assertEqual((result.status, result.output, result.error),
                             (4, checked + end, ""), options)
        self.assertEqual(self.tree(), before)

    def test_publication_that_changes_nothing_needs_no_key(self):
        self.sign()
        before = self.tree()
        self.assertEqual(self.must_publish(), PUBLISHED + "nothing has changed.\n")
        self.assertEqual(self.tree(), before)
        self.must_publish("--keep-for", "0s")
        self.assert_verified()

    def test_tree_is_as_ever(self):
        self.must_publish()
        self.assertFalse(os.path.exists(f"{self.output}{DIRECTORY}/signatures"))


class Renewed(SigningCase):
    def setUp(self):
        super().setUp()
        self.sign("--expires", "1d")

    def test_changes_the_signature_and_nothing_else(self):
        before, said = self.tree(), self.said()
        name = os.path.relpath(self.signature_path(), self.output)
        # What this publication would do is of no interest.
        self.write("scripts.toml", "nothing = 1\n")
        result = self.renew("--expires", "2d")
        self.assertEqual((result.status, result.error), (0, ""))
        serial, expires = self.assert_signed(result.output, [self.key], "")
        self.assertEqual((serial, expires[:10]), (int(said["serial"]), utc(days=2)[:10]))
        self.assertEqual(self.said()["expires"], expires)
        after = self.tree()
        changed = {each for each in after if after[each] != before.get(each)}
        self.assertEqual(changed, {name, os.path.dirname(name)})
        self.assertEqual(after.keys(), before.keys())
        self.assert_verified()

    def test_takes_the_source_directory_too(self):
        result = self.publish("--renew", "--sign-with", self.key)
        self.assertEqual((result.status, result.error), (0, ""))

    def test_of_a_check_writes_nothing(self):
        before = self.tree()
        result = self.renew("--check")
        self.assertEqual((result.status, result.error), (4, ""))
        self.assertRegex(result.output, "^The list is to be signed by [0-9A-F]{16} with the serial "
                                        f"{self.serial()} until [^ ]*Z\\.\n$")
        self.assertEqual(self.tree(), before)

    def test_is_refused_where_there_is_nothing_to_renew(self):
        other = self.make_key("other.key")
        before = self.tree()
        self.assert_refused(self.renew(key=other),
                            f"the key {self.number(other)} has not signed the list there; publish "
                            "it with --sign-with, which does")
        result = self.renew("--expires", "1h")
        self.assertEqual((result.status, result.output), (2, ""))
        self.assertRegex(result.error, "counts until [^ ]*Z already, and would for less long; give a "
                                       "longer --expires\n$")
        self.assertEqual(self.tree(), before)
        self.output = self.path("nowhere")
        self.assert_refused(self.renew(), f"{self.list_path} is no list to be renewed")
        self.assertFalse(os.path.exists(self.output))

    def test_removes_a_compressed_copy_of_the_old_signature(self):
        copy = self.signature_path() + ".gz"
        with open(copy, "w", encoding="utf-8") as file:
            file.write("the old signature, compressed")
        self.assertEqual(self.renew().status, 0)
        self.assertFalse(os.path.exists(copy))


class Rotation(SigningCase):
    """From one key to another, with computers that trust the one, both, or the other."""

    def test_goes_by_signing_with_both(self):
        old, new = self.key, self.make_key("new.key")
        self.sign()
        # Both, though nothing else has changed: a computer may trust either.
        self.assert_signed(self.sign(keys=[old, new]), [old, new],
                           PUBLISHED + "0 files written, the list unchanged, 0 files removed.\n")
        self.assertEqual(self.serial(), self.serial(new))
        self.assert_verified(old)
        self.assert_verified(new)
        self.assert_verified(old, new, needed=2)
        self.write_script(text="echo 2\n")
        self.sign(keys=[old, new])
        first = f"signatures/{self.list_digest()}"
        self.assertLess({first + ".minisig", f"{first}.{self.number(new)}.minisig"},
                        self.signatures())
        self.assert_verified(old, new, needed=2)
        before = self.serial(new)
        # The old one is dropped, and no computer that trusts the new one minds.
        self.write_script(text="echo 3\n")
        self.sign(keys=[new])
        self.assertGreater(self.serial(), before)
        self.assert_verified(new)
        self.assertEqual(self.verified(old).status, 1)

    def test_by_one_key_after_the_other_is_remarked_on(self):
        one, other = self.key, self.make_key("other.key")
        self.sign()
        first = self.serial()
        self.wait_until(lambda: int(time.time()) > first, "the next second")
        result = self.publish("--sign-with", other)
        remark = (f"varn-scripts: the key {self.number(one)} has signed the same list with the serial "
                  f"{first}, not {self.serial(other)}; computers that need the signatures of both "
                  "refuse it; publish --renew with both keys brings them to one serial\n")
        self.assertEqual((result.status, result.error), (0, remark))
        self.assertEqual(self.verified(one, other, needed=2).status, 1)
        for arguments, status in ((["--check"], 0), ([], 0)):
            result = self.publish("--sign-with", other, *arguments)
            self.assertEqual((result.status, result.error), (status, remark), arguments)
        result = self.renew("--expires", "60d", key=other)
        self.assertEqual((result.status, result.error), (0, remark))
        result = self.renew("--sign-with", one, "--expires", "60d", key=other)
        self.assertEqual((result.status, result.error), (0, ""))
        self.assert_verified(one, other, needed=2)

    @unittest.skipUnless(MINISIGN, "no minisign here")
    def test_heals_a_serial_that_a_thief_has_driven_to_its_end(self):
        stolen, new = self.key, self.make_key("new.key")
        self.sign()
        self.sign_elsewhere(self.signature_path(), serial="18446744073709551615")
        self.write_script(text="echo 2\n")
        self.assert_refused(
            self.publish("--sign-with", stolen),
            f"the key {self.number(stolen)} has signed the serial 18446744073709551615, which none "
            "can follow; publish with other keys alone")
        self.sign(keys=[new])
        self.assertLess(self.serial(), 2**32)
        self.assert_verified(new)


class Computers(SigningCase):
    """Computers that trust a key run what it has signed, from the first publication on."""

    verbose = False

    def run_with(self, *keys, needed=1):
        trusted = [word for key in keys for word in ("--trusted-key", key + ".pub")]
        return self.run_command(*trusted, "--signatures-needed", str(needed), "run", "42")

    def assert_runs(self, text, *keys, needed=1):
        result = self.run_with(*keys, needed=needed)
        self.assertEqual((result.status, result.output), (0, text + "\n"), result.error)

    def test_go_from_one_key_to_another(self):
        old, new = self.key, self.make_key("new.key")
        self.sign()
        self.assert_runs("done", old)
        self.assertEqual(self.renew("--expires", "60d").status, 0)
        self.assert_runs("done", old)
        self.sign(keys=[old, new])
        self.assert_runs("done", old, new, needed=2)
        self.write_script(text="echo 2\n")
        self.sign(keys=[new])
        self.assertEqual(self.run_with(old).status, 3)
        self.assert_runs("2", old, new)
        self.assert_runs("2", new)
        # What comes back is not taken for what was before.
        self.write_script()
        self.sign(keys=[new])
        self.assert_runs("done", new)

    def test_take_no_list_that_has_lost_its_signature(self):
        self.sign()
        self.assert_runs("done", self.key)
        self.write_script(text="echo 2\n")
        self.must_publish("--unsigned")
        result = self.run_with(self.key)
        self.assertEqual((result.status, result.output), (3, ""))
        self.sign()
        self.assert_runs("2", self.key)


class LeftForSigning(SigningCase):
    """Without a key here: the list is signed elsewhere and taken in."""

    def setUp(self):
        super().setUp()
        self.away = self.path("away")
        self.signed_by = ["--signed-by", self.key + ".pub"]

    def leave(self, *options):
        result = self.publish("--unsigned-for", self.away, *self.signed_by, *options)
        self.assertEqual((result.status, result.error), (0, ""))
        return result.output

    def made_elsewhere(self, name="made.minisig", **tree):
        """A signature over the list of the source, as another tree gets it."""
        here, self.output = self.output, self.path("other-" + name)
        self.sign(*tree.get("options", ()))
        made, self.output = self.signature_path(), here
        return shutil.copy(made, self.path(name))

    def attach(self, signature, *options):
        return self.publish("--attach", signature, *self.signed_by, *options)

    def test_leaves_the_list_and_what_is_to_be_signed_and_touches_no_tree(self):
        said = self.leave("--expires", "5d")
        self.assertFalse(os.path.exists(self.output))
        self.assertEqual(sorted(os.listdir(self.away)),
                         ["scripts-meta.xml", "sign.txt", "trusted-comment.txt"])
        with open(self.away + "/trusted-comment.txt", encoding="utf-8") as file:
            comment = file.read()
        found = dict(field.split(":", 1) for field in comment.rstrip("\n").split("\t"))
        self.assertEqual((found["customer"], found["expires"][:10]), (CUSTOMER, utc(days=5)[:10]))
        command = 'minisign -S -s KEY_FILE -m scripts-meta.xml -t "$(cat trusted-comment.txt)"'
        self.assertEqual(said, f"+ 42\nThe list is in {self.away}, to be signed with the serial "
                               f"{found['serial']} until {found['expires']}. There:\n{command}\n")
        with open(self.away + "/sign.txt", encoding="utf-8") as file:
            self.assertIn(f"    {command}\n", file.read())
        with open(self.away + "/scripts-meta.xml", "rb") as file:
            left = file.read()
        self.must_publish()
        with open(self.list_path, "rb") as file:
            self.assertEqual(left, file.read())

    def test_is_left_neither_in_the_tree_nor_among_the_scripts(self):
        self.sign()
        self.write_script(text="echo 2\n")
        os.symlink(self.output, self.path("link"))
        os.mkdir(self.path("source", "below"))
        tree, source = self.tree(), self.tree(self.source)
        in_tree = "lies in the tree that is served"
        for place, why in (
                (os.path.dirname(self.list_path), in_tree),
                (self.output, in_tree),
                (self.output + "/", in_tree),
                (self.output + "/new/one", in_tree),
                (self.path("none/../output/client-data"), in_tree),
                (self.path("link/client-data/new"), in_tree),
                (self.source, "is the directory of the scripts"),
                (self.path("source/below/.."), "is the directory of the scripts")):
            result = self.publish("--unsigned-for", place, *self.signed_by)
            self.assert_refused(result, f"{place} is not used: it {why}; give another directory")
            self.assertEqual((self.tree(), self.tree(self.source)), (tree, source), place)
        # Of a tree that is not there yet, neither.
        self.output = self.path("later")
        for place in (self.output, self.output + "/", self.output + "/a"):
            result = self.publish("--unsigned-for", place, *self.signed_by)
            self.assert_refused(result, f"{place} is not used: it {in_tree}; give another directory")
        self.assertFalse(os.path.exists(self.output))

    @unittest.skipUnless(os.geteuid() == 0, "needs root, to make another user's directory")
    def test_is_not_left_where_another_user_could_exchange_it(self):
        os.mkdir(self.away)
        os.chown(self.away, 4242, 4242)
        below = os.path.join(self.away, "below")
        for place in (self.away, below):
            result = self.publish("--unsigned-for", place, *self.signed_by)
            self.assert_refused(result,
                                f"{place} is not used: {self.away} belongs to user 4242")
        os.chown(self.away, 0, 0)
        os.chmod(self.away, 0o1777)
        result = self.publish("--unsigned-for", self.away, *self.signed_by)
        self.assert_refused(result, f"{self.away} is not used: {self.away} may be written to by all "
                                    "users")
        self.assertEqual(os.listdir(self.away), [])
        # One of its own may be made there.
        result = self.publish("--unsigned-for", below, *self.signed_by)
        self.assertEqual((result.status, result.error), (0, ""))
        self.assertEqual(stat.S_IMODE(os.stat(below).st_mode), 0o700)

    def test_a_signed_tree_stays_as_it_is_until_the_signature_comes(self):
        self.sign()
        before, serial = self.tree(), self.serial()
        self.write_script(text="echo 2\n")
        self.leave()
        self.assertEqual(self.tree(), before)
        # The other tree knows nothing of this one's serial, and takes the time for its own.
        self.wait_until(lambda: time.time() >= serial + 1, "the next second")
        made = self.made_elsewhere()
        self.assertEqual(self.publish("--check", "--attach", made, *self.signed_by).status, 4)
        self.assertEqual(self.tree(), before)
        result = self.attach(made)
        self.assertEqual((result.status, result.error), (0, ""))
        self.assert_signed(result.output, [self.key], CHANGED.format(0))
        with open(made, "rb") as ours, open(self.signature_path(), "rb") as theirs:
            self.assertEqual(ours.read(), theirs.read())
        self.assert_verified()
        # Once more changes nothing.
        self.assertEqual(self.attach(made).output, PUBLISHED + "nothing has changed.\n")

    def test_a_signature_that_does_not_fit_publishes_nothing(self):
        made = self.made_elsewhere()
        self.write_script(text="echo 2\n")
        by = f"the signature by the key {self.number(self.key)}"
        self.assert_refused(self.attach(made), f"{by} is not over this list; leave the list for "
                                               "signing again with --unsigned-for")
        self.write_script()
        other = self.make_key("other.key")
        self.assert_refused(self.publish("--attach", made, "--signed-by", other + ".pub"),
                            f"the key {self.number(self.key)}, by which the list is signed, is not "
                            "among those of --signed-by")
        with open(made, encoding="utf-8") as file:
            text = file.read()
        with open(made, "w", encoding="utf-8") as file:
            file.write(text.replace("customer:7", "customer:8"))
        self.assert_refused(self.attach(made), f"the comment of {by} was changed")
        with open(made, "w", encoding="utf-8") as file:
            file.write(text[:150])
        self.assert_refused(self.attach(made),
                            f"{made}: the signature file is cut: it has 2 of four lines")
        os.truncate(made, 4097)
        self.assert_refused(self.attach(made),
                            f"{made}: the signature file is longer than 4096 bytes")
        self.assert_refused(self.attach(self.path("none")),
                            f"the signature {self.path('none')} can't be read: No such file or "
                            "directory", status=3)
        self.assertFalse(os.path.exists(self.output))

    def test_what_else_is_mistyped_is_told(self):
        made = self.made_elsewhere()
        self.assert_refused(self.publish("--attach", made, "--signed-by", self.key),
                            f"{self.key}: the public key is a secret key, which belongs to whoever "
                            "signs alone")
        self.assert_refused(self.publish("--attach", made, *self.signed_by, *self.signed_by),
                            f"the key {self.number(self.key)} is given twice")
        with open(self.away, "w", encoding="utf-8"):
            pass
        result = self.publish("--unsigned-for", self.away, *self.signed_by)
        self.assertEqual((result.status, result.error),
                         (3, f"varn-scripts: {self.away} can't be written: Not a directory\n"))

    def test_one_of_two_signs_here(self):
        other = self.make_key("other.key")
        made = self.made_elsewhere()
        result = self.attach(made, "--sign-with", other)
        self.assertEqual((result.status, result.error), (0, ""))
        self.assert_signed(result.output, [self.key, other], FIRST)
        self.assert_verified(self.key, other, needed=2)


    def test_who_has_not_signed_is_told(self):
        other = self.make_key("other.key")
        both = [*self.signed_by, "--signed-by", other + ".pub"]
        remark = (f"varn-scripts: the key {self.number(other)} has not signed the list; computers "
                  "that need its signature refuse it\n")
        made = self.made_elsewhere()
        self.must_publish()
        for options, status in ((["--check"], 4), ([], 0), ([], 0)):
            result = self.publish("--attach", made, *both, *options)
            self.assertEqual((result.status, result.error), (status, remark), options)
        # One that has signed it before, has.
        self.sign(keys=[self.key, other])
        result = self.publish("--attach", made, *both)
        self.assertEqual((result.status, result.error), (0, ""))


@unittest.skipUnless(MINISIGN, "no minisign here")
class BesideMinisign(SigningCase):
    def test_verifies_by_hand_what_was_signed_here(self):
        other = self.make_key("other.key")
        self.sign(keys=[self.key, other])
        for key, path in ((self.key, self.signature_path()), (other, self.signature_path(other))):
            said = self.minisign("-V", "-m", self.list_path, "-x", path, "-p", key + ".pub")
            self.assertIn("Signature and comment signature verified", said)
            self.assertIn(f"customer:7\tserial:{self.serial()}\t", said)

    def test_signs_elsewhere_what_is_taken_in_here(self):
        away = self.path("away")
        options = ["--signed-by", self.key + ".pub"]
        for text in ("1", "2"):
            self.write_script(text=f"echo {text}\n")
            said = self.publish("--unsigned-for", away, *options).output
            command = said.splitlines()[-1].replace("KEY_FILE", self.key)
            done = self.run_shell(command, away)
            self.assertEqual(done, 0)
            result = self.publish("--attach", away + "/scripts-meta.xml.minisig", *options)
            self.assertEqual((result.status, result.error), (0, ""))
            self.assert_verified()
            with open(away + "/trusted-comment.txt", encoding="utf-8") as file:
                self.assertIn(f"serial:{self.serial()}\t", file.read())
        # And renewed, with the same list and serial.
        serial = self.serial()
        self.publish("--unsigned-for", away, *options, "--expires", "60d")
        self.assertEqual(self.run_shell(command, away), 0)
        result = self.publish("--attach", away + "/scripts-meta.xml.minisig", *options)
        self.assert_signed(result.output, [self.key],
                           PUBLISHED + "0 files written, the list unchanged, 0 files removed.\n")
        self.assertEqual((self.serial(), self.said()["expires"][:10]), (serial, utc(days=60)[:10]))

    def test_two_sign_elsewhere_each_into_a_file_of_his_own(self):
        away, other = self.path("away"), self.make_key("other.key")
        keys = {self.number(key): key for key in (self.key, other)}
        both = [word for key in keys.values() for word in ("--signed-by", key + ".pub")]
        said = self.publish("--unsigned-for", away, *both).output
        commands = [line for line in said.splitlines() if line.startswith("minisign ")]
        names = [f"scripts-meta.xml.{number}.minisig" for number in keys]
        self.assertEqual(commands, [
            f"minisign -S -s KEY_FILE -m scripts-meta.xml -x {name} -t "
            '"$(cat trusted-comment.txt)"' for name in names])
        with open(away + "/sign.txt", encoding="utf-8") as file:
            text = file.read()
        for number, command in zip(keys, commands):
            self.assertIn(f"{number}:\n\n    {command}\n", text)
            self.assertEqual(self.run_shell(command.replace("KEY_FILE", keys[number]), away), 0)
        self.assertIn(f"--attach {names[0]} --attach {names[1]} --signed-by", text)
        signatures = [word for name in names for word in ("--attach", f"{away}/{name}")]
        result = self.publish(*signatures, *both)
        self.assertEqual((result.status, result.error), (0, ""))
        self.assert_verified(self.key, other, needed=2)

    def test_a_comment_of_its_own_is_told_from_the_one_that_was_left(self):
        away, options = self.path("away"), ["--signed-by", self.key + ".pub"]
        self.publish("--unsigned-for", away, *options)
        self.assertEqual(self.run_shell(f"minisign -S -s {self.key} -m scripts-meta.xml", away), 0)
        result = self.publish("--attach", away + "/scripts-meta.xml.minisig", *options)
        self.assertEqual((result.status, result.output), (2, ""))
        self.assertRegex(result.error, 'holds what is not known here: "timestamp:[^"]*"; have it '
                                       r"signed with minisign -t and the comment that was left\n$")

    def run_shell(self, command, directory):
        # Without a passphrase minisign asks for none.
        return subprocess.run(["sh", "-c", command], cwd=directory, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, timeout=120, check=False).returncode

    def test_a_high_serial_of_its_own_is_followed(self):
        self.sign()
        self.sign_elsewhere(self.signature_path(), serial=str(2**60))
        self.assertEqual(self.sign(), PUBLISHED + "nothing has changed.\n")
        self.write_script(text="echo 2\n")
        self.sign()
        self.assertEqual(self.serial(), 2**60 + 1)

    def test_a_signature_that_has_expired_is_made_anew_and_one_that_soon_does_is_told(self):
        self.sign()
        soon, past = utc(hours=1), utc(minutes=-1)
        remark = f"varn-scripts: the signature by the key {self.number(self.key)} expire"
        remedy = "; publish --renew makes a new one\n"
        self.sign_elsewhere(self.signature_path(), published=utc(days=-1), expires=soon)
        for options in ([], ["--sign-with", self.key], ["--check"],
                        ["--check", "--sign-with", self.key]):
            result = self.publish(*options)
            self.assertEqual((result.status, result.error),
                             (0, f"{remark}s at {soon}{remedy}"), options)
        self.sign_elsewhere(self.signature_path(), published=utc(days=-1), expires=past)
        result = self.publish()
        self.assertEqual((result.status, result.error),
                         (0, f"{remark}d at {past}, and computers that trust the key refuse the "
                             f"list{remedy}"))
        # A check finds it to be signed, with a key and without.
        checked = ("Checked 1 script: nothing to say; 0 files to be written, the list unchanged, to "
                   "be signed")
        for options in ([], ["--strict"]):
            check = self.publish("--check", *options)
            self.assertEqual((check.status, check.output, check.error),
                             (4, checked + " anew.\n", result.error), options)
        check = self.publish("--check", "--sign-with", self.key)
        self.assertEqual((check.status, check.error), (4, ""))
        self.assertTrue(check.output.startswith(checked + f" by {self.number(self.key)} "))
        self.assertEqual(self.verified(self.key).status, 1)
        self.sign()
        self.assert_verified()

    def test_one_that_has_expired_is_told_before_one_that_soon_does(self):
        other = self.make_key("other.key")
        self.sign(keys=[self.key, other])
        first, second = self.signature_path(), self.signature_path(other)
        serial, soon, past = str(self.serial()), utc(hours=1), utc(minutes=-1)
        for late, early in ((first, second), (second, first)):
            # By one key, in the places of both: who has made it does not matter here.
            self.sign_elsewhere(late, serial=serial, published=utc(days=-1), expires=past)
            self.sign_elsewhere(early, serial=serial, published=utc(days=-1), expires=soon)
            check = self.publish("--check")
            self.assertEqual(check.status, 4)
            self.assertIn(f" expired at {past}, and", check.error)

    def test_renews_one_that_has_expired(self):
        self.sign()
        self.sign_elsewhere(self.signature_path(), published=utc(days=-2), expires=utc(days=-1))
        result = self.renew()
        self.assertEqual((result.status, result.error), (0, ""))
        self.assert_verified()


class Keys(SigningCase):
    def test_that_others_may_read_are_not_used(self):
        os.chmod(self.key, 0o640)
        self.assert_refused(self.publish("--sign-with", self.key),
                            f"the secret key {self.key} is not used: others than its owner may use "
                            "it (mode 0640); chmod 600 mends that", status=3)
        self.assertFalse(os.path.exists(self.output))

    def test_that_are_none_are_refused(self):
        self.assert_refused(self.publish("--sign-with", self.path("none")),
                            f"the key {self.path('none')} can't be read: No such file or directory",
                            status=3)
        self.assert_refused(self.publish("--sign-with", self.key + ".pub"),
                            f"{self.key}.pub: the secret key is a public key, with which nothing can "
                            "be signed", status=3)
        self.assert_refused(self.publish(*self.with_keys([self.key, self.key])),
                            f"the key {self.number(self.key)} is given twice")

    def test_sign_for_no_customer_that_no_signature_can_name(self):
        result = self.run_command("publish", "--sign-with", self.key, self.source, self.output,
                                  settings=["--customer", "a\tb"])
        self.assertEqual((result.status, result.output), (2, ""))
        self.assertFalse(os.path.exists(self.output))


class Passphrases(SigningCase):
    """Each try takes a gibibyte of memory."""

    def setUp(self):
        super().setUp()
        self.words = self.path("words")
        self.put_words("one two")
        self.locked = self.path("locked.key")
        result = self.run_command("key", "generate", self.locked, "--passphrase-file", self.words,
                                  settings=())
        self.assertEqual(result.status, 0, result.error)

    def put_words(self, words):
        with open(self.words, "w", encoding="utf-8") as file:
            file.write(words + "\n")
        os.chmod(self.words, 0o600)

    def test_come_from_a_file(self):
        # The one that needs none takes none.
        self.sign("--passphrase-file", self.words, keys=[self.key, self.locked])
        self.assert_verified(self.key, self.locked, needed=2)
        self.put_words("one  two")
        before = self.tree()
        self.write_script(text="echo 2\n")
        self.assert_refused(self.publish("--sign-with", self.locked, "--passphrase-file", self.words),
                            f"{self.locked}: the secret key can't be unlocked: the passphrase is "
                            "wrong, or the file is damaged", status=3)
        self.assertEqual(self.tree(), before)

    def test_are_asked_for_at_the_terminal_and_not_shown(self):
        terminal = Terminal(self)
        process = terminal.start("publish", "--sign-with", self.locked, self.source, self.output,
                                 settings=["--customer", CUSTOMER])
        terminal.read_until(f"Passphrase of {self.locked}: ")
        terminal.type("one two\n")
        shown = terminal.read_to_end()
        self.assertEqual(process.wait(timeout=120), 0, shown)
        self.assertNotIn("one two", shown)
        self.assert_verified(self.locked)

    def test_without_a_terminal_need_a_file(self):
        result = self.publish("--sign-with", self.locked, start_new_session=True)
        self.assertEqual(result.status, 3)
        self.assertIn("the passphrase can't be asked for without a terminal", result.error)
        self.assertFalse(os.path.exists(self.output))


class SigningFailures(SigningCase):
    def small_files_only(self):
        # As a full disk does, this ends a write with an error; without it, with a signal.
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))

    def test_a_full_disk_leaves_the_signature_of_before(self):
        self.sign()
        before = self.tree()
        result = self.renew("--expires", "60d", preexec_fn=self.small_files_only)
        self.assertEqual((result.status, result.output), (3, ""))
        self.assertEqual(result.error,
                         f"varn-scripts: {self.output}{DIRECTORY}/signatures/.publishing-0 can't be "
                         "written: File too large\n")
        signatures = os.path.join(DIRECTORY[1:], "signatures")
        after = self.tree()
        self.assertEqual({name for name in after if after[name] != before.get(name)}, {signatures})
        self.assertEqual(after.keys(), before.keys())
        self.assert_verified()

    def test_a_full_disk_leaves_no_list_without_its_signature(self):
        self.must_publish()
        with open(self.list_path, "rb") as file:
            before = file.read()
        result = self.publish("--sign-with", self.key, preexec_fn=self.small_files_only)
        self.assertEqual((result.status, result.output), (3, ""))
        with open(self.list_path, "rb") as file:
            self.assertEqual(file.read(), before)
        self.assertEqual(self.signatures(), set())

    def test_of_what_nobody_reads_are_reported(self):
        with open("/dev/full", "wb") as full:
            result = self.publish("--sign-with", self.key, stdout=full)
        self.assertEqual(result.status, 3)
        self.assert_verified()


class SigningTurns(SigningCase):
    def test_many_at_once_leave_one_signature(self):
        processes = [self.start("publish", "--sign-with", self.key, self.source, self.output,
                                settings=["--customer", CUSTOMER]) for _ in range(8)]
        outputs = sorted(self.finish(process).output for process in processes)
        self.assertEqual(outputs[1:], [PUBLISHED + "nothing has changed.\n"] * 7)
        self.assert_signed(outputs[0], [self.key], FIRST)
        self.assertEqual(len(self.signatures()), 1)
        self.assert_verified()

    def test_two_with_keys_of_their_own_follow_each_other(self):
        other = self.make_key("other.key")
        processes = [self.start("publish", "--sign-with", key, self.source, self.output,
                                settings=["--customer", CUSTOMER]) for key in (self.key, other)]
        for process in processes:
            self.assertEqual(self.finish(process).status, 0)
        self.assert_verified(self.key)
        self.assert_verified(other)
