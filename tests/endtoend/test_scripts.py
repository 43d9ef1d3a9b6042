"""Scripts of all kinds, and how they see the world."""

import os
import signal

from support.case import CommandCase


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
