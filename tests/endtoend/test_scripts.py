"""Scripts of all kinds, and how they see the world."""

import os
import signal

from support.case import DEADLINE, CommandCase


class InterpreterTest(CommandCase):
    """The interpreters that Linux has."""

    def output_of(self, file_name, text, **values):
        self.put(file_name=file_name, text=text, **values)
        result = self.run_command("run", "42")
        self.assertEqual(result.status, 0, result.error)
        return result.output

    def test_shell(self):
        self.assertEqual(self.output_of("a.sh", 'echo "$#:$1:$2"\n', arguments='-a "b c"'),
                         "2:-a:b c\n")

    def test_python(self):
        self.assertEqual(
            self.output_of("a.py", "import sys\nprint(sys.argv[1:])\n", arguments='-a "b c" ""'),
            "['-a', 'b c', '']\n")

    def test_perl(self):
        self.assertEqual(
            self.output_of("a.pl", 'print join("|", @ARGV), "\\n";\n', arguments='x "y z"'),
            "x|y z\n")

    def test_arguments_are_not_interpreted(self):
        self.assertEqual(self.output_of("a.sh", 'echo "$1"\n', arguments="$HOME;'ls'`id`"),
                         "$HOME;'ls'`id`\n")


class SurroundingsTest(CommandCase):
    """What a script is given."""

    def output_of(self, text, file_name="job.sh", **options):
        self.put(text=text, file_name=file_name)
        result = self.run_command("run", "42", **options)
        self.assertEqual(result.status, 0, result.error)
        return result.output

    def test_the_working_directory_is_the_scripts_directory(self):
        self.assertEqual(self.output_of("pwd\n"),
                         f"{self.base}/client-data/7/scripts-repository\n")

    def test_standard_input_is_the_null_device(self):
        reading, writing = os.pipe()
        self.addCleanup(os.close, writing)
        os.write(writing, b"typed\n")
        try:
            output = self.output_of(
                'if read line; then echo "read $line"; else echo nothing; fi\n'
                "readlink /proc/self/fd/0\n", stdin=reading)
        finally:
            os.close(reading)
        self.assertEqual(output, "nothing\n/dev/null\n")

    def test_standard_input_is_the_null_device_also_when_it_was_closed(self):
        self.put(text="readlink /proc/self/fd/0\n")
        result = self.finish(self.start("run", "42", stdin=None,
                                        preexec_fn=lambda: os.close(0)))
        self.assertEqual(result.output, "/dev/null\n", result.error)

    def test_only_the_standard_descriptors_are_open(self):
        reading, writing = os.pipe()
        self.addCleanup(os.close, reading)
        self.addCleanup(os.close, writing)
        # Any descriptor that is open has a status; looking for it opens none.
        output = self.output_of(
            "import os\n"
            "def is_open(number):\n"
            "    try:\n"
            "        os.fstat(number)\n"
            "        return True\n"
            "    except OSError:\n"
            "        return False\n"
            "print([number for number in range(1024) if is_open(number)])\n",
            file_name="descriptors.py", pass_fds=[writing])
        self.assertEqual(output, "[0, 1, 2]\n")

    def test_signals_are_at_their_defaults(self):
        output = self.output_of("grep -E '^Sig(Blk|Ign)' /proc/self/status\n")
        self.assertEqual(output, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n")

    def test_the_environment_is_handed_on(self):
        self.assertEqual(
            self.output_of('echo "$OF_THE_TEST"\n',
                           environment=self.environment(OF_THE_TEST="seen")), "seen\n")


class EndTest(CommandCase):
    """How scripts end."""

    def test_a_script_that_a_signal_ended_has_its_number_as_code(self):
        self.put(text="kill -9 $$\n")
        result = self.run_command("run", "42")
        self.assertEqual(result.status, 1)
        self.assertIn("Exit Code: 9", result.error)
        self.assertEqual(self.run_command("run", "42", "--accept-codes", "9").status, 0)

    def test_a_background_descendant_does_not_delay_the_result(self):
        # The descendant holds the output for ever; waiting for it would reach the deadline.
        self.put(text="sleep 100000 & echo $!\n")
        result = self.run_command("run", "42")
        self.assertEqual(result.status, 0, result.error)
        descendant = int(result.output)
        self.end_process_at_end(descendant)
        os.kill(descendant, 0)

    def test_an_exit_status_is_seen_though_the_parent_ignored_ended_children(self):
        self.put(text="exit 3\n", codes="3")
        result = self.finish(self.start(
            "run", "42", preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN)))
        self.assertEqual(result.status, 0, result.error)

    def test_much_output_arrives_whole(self):
        self.put(file_name="much.py", text="print('äöü' * 700000)\n")
        result = self.run_command("--quiet", "run", "42")
        self.assertEqual(result.status, 0)
        self.assertEqual(result.output, "äöü" * 700000 + "\n")


class OldEncodingTest(CommandCase):
    """Scripts that write what is not UTF-8: chunks of it are dropped, and the rest is delivered."""

    # Writes its text in the encoding at each of forty offsets. Behind each it waits until all has
    # been read, so that the mark that follows is a chunk of its own.
    SCRIPT = """import fcntl, os, select, sys, termios
reader_gone = select.poll()
reader_gone.register(1, 0)
def write(data):
    while data:
        data = data[os.write(1, data):]
    while any(fcntl.ioctl(1, termios.FIONREAD, bytes(4))) and not reader_gone.poll(1):
        pass
for offset in range(40):
    write(b"x" * offset + bytes.fromhex(sys.argv[1]) * int(sys.argv[2]) + b"\\n")
    write(b"[%d]\\n" % offset)
sys.exit(5)
"""
    GREEK = "ΞΕΣΚΕΠΑΖΩΤΗΝΨΥΧΗΦΘΟΡΑ" * 3 + " Ξεσκεπάζω την ψυχή "
    RUSSIAN = "СЪЕШЬЕЩЁЭТИХБУЛОК" * 3 + " съешьещёэтихбулок"
    GERMAN = "ÄÖÜÄÖÜÄÖÜÄÖÜ Grüße "
    JAPANESE = "日本語のテキスト"
    CHINESE = "你好世界𠀀"

    # The encoding, the text, and whether its bytes are all ASCII and so arrive whole.
    ROWS = [
        ("iso8859_7", GREEK, False),
        ("cp1253", GREEK, False),
        ("cp1251", RUSSIAN, False),
        ("koi8_r", RUSSIAN, False),
        ("mac_cyrillic", RUSSIAN, False),
        ("latin_1", GERMAN, False),
        ("cp437", GERMAN, False),
        ("shift_jis", JAPANESE, False),
        ("euc_jp", JAPANESE, False),
        ("iso2022_jp", JAPANESE, True),
        ("gb18030", CHINESE, False),
        ("big5", "你好世界", False),
        ("utf_16", GREEK, False),
        ("utf_16_be", CHINESE, False),
        ("utf_16_le", RUSSIAN, True),
        ("utf_32_le", JAPANESE, False),
    ]

    def run_writer(self, repeated, count):
        self.put(file_name="write.py", text=self.SCRIPT, arguments=f"{repeated.hex()} {count}",
                 codes="5", version=repeated.hex())
        process = self.start("--quiet", "run", "42")
        output, error = process.communicate(timeout=DEADLINE)
        self.assertEqual(process.returncode, 0, error)
        return output

    def test_at_every_offset(self):
        for encoding, text, whole in self.ROWS:
            with self.subTest(encoding):
                repeated = text.encode(encoding)
                count = 250_000 // len(repeated)
                rest = self.run_writer(repeated, count)
                for offset in range(40):
                    kept, mark, rest = rest.partition(b"[%d]\n" % offset)
                    self.assertTrue(mark, f"offset {offset}")
                    written = b"x" * offset + repeated * count + b"\n"
                    if whole:
                        self.assertTrue(kept == written, f"offset {offset}")
                    else:
                        self.assert_from(kept, written)
                self.assertEqual(rest, b"")

    def test_as_the_first_output_from_every_offset(self):
        # The pipe is full, and the first chunk ends, at another place of the text each time.
        self.put(text='tail -c "+$OFFSET" "$FILE"; exit 5\n', codes="5")
        for encoding, text in [("iso8859_7", self.GREEK), ("cp1251", self.RUSSIAN),
                               ("koi8_r", self.RUSSIAN)]:
            written = (text.encode(encoding) * 2000)[:250_000]
            with open(self.path(encoding), "wb") as file:
                file.write(written)
            for offset in range(40):
                with self.subTest(encoding, offset=offset):
                    process = self.start("--quiet", "run", "42", environment=self.environment(
                        FILE=self.path(encoding), OFFSET=str(offset + 1)))
                    output, error = process.communicate(timeout=DEADLINE)
                    self.assertEqual(process.returncode, 0, error)
                    self.assert_from(output, written[offset:])

    def assert_from(self, output, written):
        """`output` is UTF-8 and made of nothing but what was written, in its order."""
        output.decode()
        rest = iter(written)
        self.assertTrue(all(byte in rest for byte in output), "something that nobody wrote")

    def test_lead_bytes_alone(self):
        output = self.run_writer(b"\xc3", 1_000_000)
        for offset in range(40):
            self.assertIn(b"[%d]\n" % offset, output)
