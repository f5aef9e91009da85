"""Meter, frequencies and CPUs through Python, inside a fake node; the class is the node's shape."""
import doctest
import os
import pathlib
import time
import unittest

from eas import node


class Session(unittest.TestCase):
    def test_says_what_its_transcript_says(self):
        transcript = str(pathlib.Path(__file__).with_name(f"{type(self).__name__.lower()}.transcript"))
        found = doctest.testfile(transcript, module_relative=False, optionflags=doctest.ELLIPSIS)
        self.assertEqual((found.failed, found.attempted > 0), (0, True))


class Hybrid(Session):
    def test_the_meter_says_what_happened_between_its_readings(self):
        with node.Meter(interval=0.2) as meter:
            usages = [next(meter) for _ in range(2)]
            whole = meter.read()
        for usage in (*usages, whole):
            # The shape: 20 W at the lowest frequency to 200 W at the highest, four fifths counted;
            # who is kept waiting between clock and counter sees more, or less.
            self.assertTrue(5 < usage.power < 500, usage)
            self.assertGreater(usage.instructions.value, usage.cycles.value * 0.5)
            self.assertEqual(usage.energy.source, "rapl-perf")
            self.assertIs(usage.energy.extent, node.Extent.PACKAGES)
        self.assertTrue(0.399 < sum(usage.seconds for usage in usages) <= whole.seconds)
        self.assertLessEqual(sum(usage.energy.value for usage in usages), whole.energy.value)
        self.assertRaises(StopIteration, next, meter)
        with node.Meter(os.getpid(), interval=0.2) as meter:
            time.sleep(0.7)  # what was missed altogether is not made up for
            self.assertEqual([next(meter).seconds > least for least in (0.7, 0.19)], [True] * 2)
            figures = meter.read()
        self.assertEqual([x.extent.name for x in (figures.cycles, figures.instructions, figures.memory)],
                         ["PROCESS", "PROCESS", "NODE"])
        self.assertEqual(figures.energy.read_within, None)


Xeon2023 = type("Xeon2023", (Session,), {})
Denied = type("Denied", (Session,), {})


if __name__ == "__main__":
    unittest.main()
