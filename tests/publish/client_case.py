"""A client that runs all the time while scripts are published."""

import shutil
import threading

from support.publish_case import PublishCase
from support.case import DEADLINE

PUBLISHINGS = 200


class ClientCase(PublishCase):
    """A client that runs all the time while scripts are published one after another. Number N
    prints N, in its text and in its arguments; a mixture of two states would print two numbers."""

    def setUp(self):
        super().setUp()
        self.changed = threading.Condition()
        self.published = 0       # completely
        self.begun = 0           # begun, at least
        self.runs = 0            # begun by the client
        self.failure = None
        self.seen = set()
        self.publish_number(0)

    def publish_number(self, number, *options):
        self.write_script(text=f'echo "{number} $1"\n', arguments=str(number))
        self.must_publish(*options)

    def publish_all(self, wait, *options):
        try:
            for number in range(1, PUBLISHINGS + 1):
                with self.changed:
                    self.begun = number
                self.publish_number(number, *options)
                with self.changed:
                    self.published = number
                    runs = self.runs
                    if wait and not self.changed.wait_for(
                            lambda: self.runs > runs or self.failure, DEADLINE):
                        raise AssertionError("the client does not run any more")
                    if self.failure:
                        return
        except BaseException as failure:  # Reported by the test's own thread.
            self.failure = failure

    def run_once(self):
        with self.changed:
            self.runs += 1
            oldest = self.published
            self.changed.notify_all()
        result = self.run_command("run", "42")
        with self.changed:
            newest = self.begun
        self.assertEqual(result.status, 0, result.error)
        first, second = result.output.split()
        self.assertEqual(first, second)
        self.assertTrue(oldest <= int(first) <= newest, f"{oldest} <= {first} <= {newest}")
        self.seen.add(int(first))

    def run_beside(self, wait, *options, fresh=False):
        publisher = threading.Thread(target=self.publish_all, args=(wait, *options))
        publisher.start()
        try:
            while publisher.is_alive():
                self.run_once()
                if fresh:
                    shutil.rmtree(self.base)
        except BaseException as failure:
            self.failure = failure
            with self.changed:
                self.changed.notify_all()
            raise
        finally:
            publisher.join(DEADLINE)
        if self.failure:
            raise self.failure
        self.run_once()
        self.assertIn(PUBLISHINGS, self.seen)
        self.assertEqual(self.published, PUBLISHINGS)
