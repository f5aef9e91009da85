"""Meter, frequencies and CPUs through Python, inside a fake node; the class is the node's shape."""
import os
import pathlib
import subprocess
import sys
import unittest

from eas import node

CPUFREQ = pathlib.Path("/sys/devices/system/cpu/cpufreq")


def limits():
    """Of the first and last clock, as the kernel has them."""
    return [
        int((CPUFREQ / f"policy{n}" / f"scaling_{end}_freq").read_text())
        for n in (0, 23)
        for end in ("min", "max")
    ]


class Hybrid(unittest.TestCase):
    free, fixed = [800_000, 5_000_000, 800_000, 3_800_000], [1_500_000] * 4

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
        self.assertRaises(ValueError, meter.read)

    def test_sources_are_chosen_refused_and_told(self):
        with node.Meter(energy_sources=["qpx", "powercap"], memory_sources=[]) as meter:
            states = {s.name: s.state.name for s in meter.sources(node.FigureId.ENERGY)}
            reading = meter.read()
        self.assertEqual((states["qpx"], states["powercap"]), ("REFUSED", "SERVES"))
        self.assertEqual(states["rapl-perf"], "NOT_WANTED")
        self.assertIsNone(reading.memory.value)
        self.assertRaises(node.NoSuchSource, node.Meter, energy_sources="guess")
        self.assertRaises(node.NoSuchProcess, node.Meter, 2**30)
        self.assertRaises(node.BadArgument, node.Meter, command_gives="volts")
        with node.Meter(command=["/bin/echo", "215.5"]) as meter:
            next(meter)
            self.assertAlmostEqual(next(meter).power, 215.5, delta=10)

    def test_a_frequency_is_given_back_however_its_block_ends(self):
        with self.assertRaises(KeyError), node.Frequency() as frequency:
            self.assertEqual(frequency.info().nominal, 1_800_000)
            self.assertIn(node.Step(1_800_000, False), frequency.steps())
            frequency.set(2_000_000)
            frequency.set(1_500_000)
            self.assertEqual(limits(), self.fixed)
            rows = frequency.read()
            self.assertEqual((len(rows), rows[23].maximum), (24, 1_500_000))
            child = os.fork()
            if child == 0:
                frequency.__exit__(None, None, None)  # leaves the block, and must give nothing back
                os._exit(0)
            self.assertEqual(os.waitpid(child, 0)[1], 0)
            self.assertEqual(limits(), self.fixed)
            raise KeyError
        self.assertEqual(limits(), self.free)
        self.assertFalse(frequency.moved)

    def test_a_refused_frequency_says_why_and_changes_none(self):
        with node.Frequency("0-3") as frequency:
            with self.assertRaises(node.NotOffered) as raised:
                frequency.set(9_000_000)
            self.assertTrue(raised.exception.problem.text)
            self.assertEqual(limits(), self.free)
        self.assertRaises(node.BadArgument, node.Frequency, "0-")

    def test_another_process_gives_back_what_was_saved(self):
        with node.Frequency() as frequency:
            saved = frequency.save(1_500_000)
        script = "from eas import node; node.Frequency().set(1_500_000)"
        subprocess.run([sys.executable, "-c", script], check=True)
        self.assertEqual(limits(), self.fixed)
        self.assertTrue(node.give_back(saved))
        self.assertEqual(limits(), self.free)
        self.assertRaises(node.BadText, node.give_back, "nonsense")

    def test_another_programs_change_is_noticed(self):
        with node.Frequency() as frequency:
            frequency.set(1_500_000)
            (CPUFREQ / "policy0/scaling_max_freq").write_text("1700000")
        self.assertTrue(frequency.moved)
        self.assertEqual(limits(), self.free)

    def test_the_clock_is_checked_while_the_cpus_are_busy(self):
        with node.Frequency() as frequency:
            frequency.set(1_500_000)
            with frequency.check(1_500_000) as checked:
                sum(range(20_000_000))
        self.assertIs(checked.clock.verdict, node.Verdict.RUNS_AT)
        self.assertAlmostEqual(checked.clock.mean, 1_500_000, delta=30_000)


class Xeon2023(unittest.TestCase):
    def test_the_cpus_are_those_of_the_node(self):
        found = node.topology()
        self.assertEqual((found.cpus, found.sockets, found.cores), (224, 2, 112))
        self.assertEqual((found.family, found.model), (6, 143))
        cpus = node.cpus()
        self.assertEqual([row.cpu for row in cpus], list(range(224)))
        self.assertEqual({row.socket for row in cpus}, {0, 1})


class Denied(unittest.TestCase):
    def test_a_figure_that_cannot_be_had_is_none_and_says_why(self):
        with node.Meter() as meter:
            used = meter.read() - meter.read()
        for figure in (used.cycles, used.instructions, used.memory, used.energy):
            self.assertIsNone(figure.value)
            self.assertIs(figure.quality, node.Quality.MISSING)
            self.assertTrue(figure.reason)
        self.assertIsNone(used.power)


if __name__ == "__main__":
    unittest.main()
