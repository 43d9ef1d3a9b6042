"""The bench's arithmetic and its driver, on literal numbers: no measured time decides anything."""

import json
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "benchmarks"))

import contestants  # pylint: disable=wrong-import-position
import figures  # pylint: disable=wrong-import-position


class Ratios(unittest.TestCase):
    def test_are_of_medians_and_of_best_runs(self):
        self.assertEqual(
            figures.ratios([3.0, 9.0, 4.0], [2.0, 1.0, 8.0]), {"median": 2.0, "best": 3.0}
        )

    def test_take_one_number_as_the_limit(self):
        self.assertEqual(figures.ratios([10.0, 30.0, 20.0], 10), {"median": 2.0, "best": 1.0})

    def test_noise_is_the_middle_half_by_the_median(self):
        self.assertEqual(figures.spread([8.0, 9.0, 10.0, 11.0, 12.0]), 0.2)
        self.assertEqual(figures.spread([5.0]), 0.0)


class Marks(unittest.TestCase):
    def test_tell_a_slow_program_from_a_noisy_run(self):
        self.assertEqual(figures.mark({"median": 1.0, "best": 1.0}, 1.0), "")
        self.assertEqual(figures.mark({"median": 1.2, "best": 1.0}, 1.1), "~")
        self.assertEqual(figures.mark({"median": 1.0, "best": 1.2}, 1.1), "~")
        self.assertEqual(figures.mark({"median": 1.2, "best": 1.2}, 1.1), "!")

    def test_need_a_target(self):
        self.assertEqual(figures.mark({"median": 100.0, "best": 100.0}, None), "")

    def test_of_a_speed_need_at_least_the_target(self):
        slow = figures.row("p", "l", 0.9, [2.0, 2.0], [1.0, 1.0], form="speed")
        self.assertEqual((slow["median"], slow["best"], slow["mark"]), (0.5, 0.5, "!"))
        fast = figures.row("p", "l", 0.9, [1.0, 1.0], [2.0, 2.0], form="speed")
        self.assertEqual((fast["median"], fast["mark"]), (2.0, ""))


class Slopes(unittest.TestCase):
    def test_are_the_power_of_the_size(self):
        self.assertAlmostEqual(figures.slope([(10, 3.0), (100, 30.0), (1000, 300.0)]), 1.0)
        self.assertAlmostEqual(figures.slope([(10, 1.0), (100, 100.0), (1000, 10000.0)]), 2.0)
        self.assertAlmostEqual(figures.slope([(1, 7.0), (10, 7.0), (100, 7.0)]), 0.0)

    def test_are_fitted_where_the_size_shows(self):
        points = [(1, 5.0), (10, 5.0), (100, 6.0), (1000, 12.0), (10000, 120.0)]
        self.assertEqual(figures.growing(points), points[2:])
        self.assertEqual(figures.growing([(1, 5.0), (10, 5.0)]), [(1, 5.0), (10, 5.0)])

    def test_tell_growth_with_the_work_from_faster_growth(self):
        linear = figures.growth("g", "rows", {10: [2.0, 1.0], 100: [10.0], 1000: [100.0]})
        self.assertAlmostEqual(linear["slope"], 1.0)
        self.assertFalse(linear["steeper_than_work"])
        square = figures.growth("g", "rows", {10: [1.0], 100: [100.0], 1000: [10000.0]})
        self.assertAlmostEqual(square["slope"], 2.0)
        self.assertTrue(square["steeper_than_work"])

    def test_do_not_hide_a_steep_end_behind_a_flat_beginning(self):
        curve = {1: [1.0], 10: [1.0], 100: [1.0], 1000: [1.0], 10**4: [100.0], 10**5: [10**4]}
        self.assertTrue(figures.growth("g", "rows", curve)["steeper_than_work"])


class Tables(unittest.TestCase):
    def rows(self):
        return [
            figures.row("a call", "bare", 1.1, [2.4, 2.4], [2.0, 2.0], {"Go": [5.0]}, {"C": "gone"}),
            figures.row("a run", "", 6, [5.5], 1, form="ms"),
            figures.skipped_row("much", "no room"),
        ]

    def test_show_every_row(self):
        lines = figures.table(self.rows()).splitlines()
        self.assertEqual(
            [[cell.strip() for cell in line.split("|")[1:-1]] for line in lines[2:]],
            [
                ["!", "a call", "bare", "≤ 1.10", "1.20", "1.20", "0 %", "Go 2.50, C skipped: gone"],
                ["", "a run", "", "≤ 6.00 ms", "5.50 ms", "5.50 ms", "0 %", ""],
                ["", "much", "", "", "skipped", "", "", "no room"],
            ],
        )

    def test_go_through_json(self):
        rows = self.rows()
        self.assertEqual(json.loads(json.dumps(rows)), rows)
        self.assertEqual(rows[0]["peers"], {"Go": {"median": 2.5, "best": 2.5}})

    def test_show_growth(self):
        curve = figures.growth("removal", "rows", {10: [0.001], 100: [0.01], 1000: [1.0]})
        self.assertEqual(
            figures.growth_table([curve]).splitlines()[2],
            "| removal | rows | 10: 1.00 ms | 1,000: 1.00 s | 1.500 | 1.500 | steeper than the work |",
        )

    def test_write_numbers_as_people_do(self):
        self.assertEqual([figures.number(n) for n in (0.0167, 0.33, 1.234, 45.67, 913.4)],
                         ["0.017", "0.33", "1.23", "45.7", "913"])
        self.assertEqual([figures.count(n) for n in (1000, 1024, 4 << 30)],
                         ["1,000", "1 KiB", "4 GiB"])
        self.assertEqual([figures.duration(s) for s in (2e-7, 3.5e-5, 0.0123, 2)],
                         ["200 ns", "35.0 µs", "12.3 ms", "2.00 s"])


# Answers as a measured program does: each call took 4 µs, of which 1 µs on the processor.
ANSWERS = """
import sys
for line in sys.stdin:
    calls = int(line)
    print(4000 * calls, 1000 * calls, 7, flush=True)
"""


class Turns(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.script = pathlib.Path(directory.name) / "answers.py"
        self.script.write_text(ANSWERS, encoding="ascii")

    def program(self, name, **options):
        return contestants.Program(name, [sys.executable, self.script], **options)

    def test_give_the_cost_of_one_call(self):
        turns = contestants.Turns(
            [self.program("library", expect=7), self.program("limit", fresh=True),
             self.program("slow", rounds=1)], 5, 3)
        self.assertEqual(turns.of("library", "wall"), [4e-6, 4e-6, 4e-6])
        self.assertEqual(turns.of("limit", "processor"), [1e-6, 1e-6, 1e-6])
        self.assertEqual(turns.peers("wall"), {"slow": [4e-6]})
        self.assertEqual(turns.skipped, {})

    def test_skip_a_peer_that_is_missing_or_wrong_and_say_so(self):
        gone = contestants.Program("gone", ["/nowhere/peer"])
        turns = contestants.Turns(
            [self.program("library"), self.program("wrong", expect=8), gone], 1, 2)
        self.assertEqual(
            turns.skipped,
            {"gone": "peer is not there", "wrong": "wrong gave 7 where 8 is right"})
        self.assertEqual(turns.peers("wall"), {})
        self.assertEqual(turns.of("library", "wall"), [4e-6, 4e-6])

    def test_fail_when_the_library_itself_is_wrong(self):
        with self.assertRaises(contestants.Failure):
            contestants.Turns([self.program("library", expect=8)], 1, 1)


if __name__ == "__main__":
    unittest.main()
