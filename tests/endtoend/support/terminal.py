"""A terminal for the command, and what a person sees on it."""

import fcntl
import os
import pty
import re
import select
import termios
import time

from .case import DEADLINE


class Terminal:
    """A terminal that one command of `case` is started on. What it shows is `text`, as it came."""

    def __init__(self, case):
        self._case = case
        self._ours, self._theirs = pty.openpty()
        case.addCleanup(self._close)
        self.text = ""
        self._end = time.monotonic() + DEADLINE

    def start(self, *arguments, **options):
        """Starts the command in a session of its own, with this as its terminal: standard output
        and standard error, unless `options` say otherwise."""
        # What is typed for the command becomes a signal for it.
        def control():
            fcntl.ioctl(self._theirs, termios.TIOCSCTTY, 0)

        values = dict(stdout=self._theirs, stderr=self._theirs, start_new_session=True,
                      preexec_fn=control)
        values.update(options)
        process = self._case.start(*arguments, **values)
        os.close(self._theirs)
        self._theirs = None
        return process

    def type(self, text):
        os.write(self._ours, text.encode())

    def read_until(self, condition):
        """Reads until the text has `condition`, a text or a pattern, or until it holds of the lines
        that are seen."""
        def holds():
            if isinstance(condition, str):
                return condition in self.text
            if isinstance(condition, re.Pattern):
                return condition.search(self.text)
            return condition(self.seen())

        while not holds():
            self._case.assertTrue(self._read(), f"ended before: {condition}\n{self.text!r}")

    def read_to_end(self):
        """Reads until the command has ended, and whoever else has the terminal."""
        before, pieces = self.text, []
        while True:
            # Much may come: it is put together once.
            self.text = ""
            more = self._read()
            pieces.append(self.text)
            if not more:
                self.text = before + "".join(pieces)
                return self.text

    def seen(self):
        """The lines that a person sees; the last one is that of the cursor."""
        lines, column = [""], 0
        for part in re.findall(r"\x1b\[K|[\r\n\b]|[^\x1b\r\n\b]+|\x1b", self.text):
            if part == "\r":
                column = 0
            elif part == "\n":
                lines.append("")
            elif part == "\b":
                column = max(column - 1, 0)
            elif part == "\x1b[K":
                lines[-1] = lines[-1][:column]
            else:
                lines[-1] = (lines[-1][:column].ljust(column) + part
                             + lines[-1][column + len(part):])
                column += len(part)
        return lines

    def _read(self):
        left = max(0.0, self._end - time.monotonic())
        ready, _, _ = select.select([self._ours], [], [], left)
        self._case.assertTrue(ready, f"nothing comes any more\n{self.text!r}")
        try:
            piece = os.read(self._ours, 1 << 16)
        except OSError:
            # All processes have closed their end.
            return False
        self.text += piece.decode(errors="surrogateescape")
        return bool(piece)

    def _close(self):
        for descriptor in (self._ours, self._theirs):
            if descriptor is not None:
                os.close(descriptor)
