"""Meter, frequencies and CPUs through Python, inside a fake node; the class is the node's shape."""
import os
import pathlib
import subprocess
import sys
import time
import unittest
from unittest import mock

from eas import node
from eas.node import _c, errors

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
    info = node.FrequencyInfo(24, 24, node.Method.LIMITS, node.Turbo.ON, 1_800_000, node.NominalSource.BASE,
                              800_000, 3_800_000, None, False, "intel_pstate", "powersave")

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
        with node.Meter(os.getpid(), interval=0.2) as meter:
            time.sleep(0.7)  # what was missed altogether is not made up for
            self.assertEqual([next(meter).seconds > least for least in (0.7, 0.19)], [True] * 2)
            figures = meter.read()
        self.assertEqual([x.extent.name for x in (figures.cycles, figures.instructions, figures.memory)],
                         ["PROCESS", "PROCESS", "NODE"])
        self.assertEqual(figures.energy.read_within, None)

    def test_sources_are_chosen_refused_and_told(self):
        with node.Meter(energy_sources=["qpx", "powercap"], memory_sources=[]) as meter:
            states = {s.name: s.state.name for s in meter.sources(node.FigureId.ENERGY)}
            reading = meter.read()
        self.assertAlmostEqual(reading.energy.read_within, 262.14332885)  # its range at 1 kW
        self.assertEqual((states["qpx"], states["powercap"]), ("REFUSED", "SERVES"))
        self.assertEqual(states["rapl-perf"], "NOT_WANTED")
        self.assertIsNone(reading.memory.value)
        self.assertRaises(node.NoSuchSource, node.Meter, energy_sources="guess")
        self.assertRaises(node.NoSuchProcess, node.Meter, 2**30)
        self.assertRaises(node.BadArgument, node.Meter, command_gives="volts")
        with node.Meter(command=["/bin/echo", "215.5"]) as meter:
            next(meter)
            self.assertAlmostEqual(next(meter).power, 215.5, delta=10)
        with node.Meter(command=["/bin/echo", "215.5"], command_gives="joules", interval=0.1) as meter:
            self.assertEqual((next(meter).power, meter.read().energy.quality.name), (0, "COUNTED"))
        with node.Meter(command=["/bin/sleep", "9"], command_timeout=0.1) as meter:
            self.assertLess(meter.read().seconds, 5)
        for wrong in ({"interval": 0}, {"interval": 86401}, {"command_timeout": 0},
                      {"command_timeout": 3601}, {"process": 0}, {"process": 2**31}):
            self.assertRaises(node.BadArgument, node.Meter, **wrong)

    def test_a_frequency_is_given_back_however_its_block_ends(self):
        with self.assertRaises(KeyError), node.Frequency() as frequency:
            self.assertEqual(frequency.info(), self.info)
            self.assertEqual(frequency.steps(), [node.Step(khz, False) for khz in range(1_800_000, 700_000, -100_000)])
            self.assertEqual(frequency.read()[1], node.CpuFrequency(1, 1, 800_000, 5_000_000, None, 5_000_000, "powersave"))
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
            highest = str(CPUFREQ / "policy0/cpuinfo_max_freq")
            text = "9000000 kHz is above the highest, 5000000 kHz"
            self.assertEqual(raised.exception.problem, node.Problem(0, None, highest, text))
            meaning = "the frequency is not offered, or a limit forbids it"
            self.assertEqual(str(raised.exception), f"easnode_frequency_set: {meaning} (-7): {text}: {highest}")
            self.assertEqual(limits(), self.free)
            (CPUFREQ / "policy0/scaling_max_freq").write_text("1700000")  # nothing is to be given back
        self.assertEqual(limits()[1], 1_700_000)
        (CPUFREQ / "policy0/scaling_max_freq").write_text("5000000")
        for khz in (0, 2**31):
            self.assertRaises(node.BadArgument, frequency.set, khz)
        self.assertRaises(ValueError, frequency.set, 1_500_000)
        self.assertRaises(node.BadArgument, node.Frequency, "0-")

    def test_what_could_not_be_taken_back_is_given_back_at_the_end(self):
        really_set = _c.library().easnode_frequency_set
        half_done = mock.Mock(side_effect=lambda *arguments: really_set(*arguments) or node.NotGivenBack.code)
        with node.Frequency() as frequency:
            with mock.patch.object(_c.library(), "easnode_frequency_set", half_done):
                self.assertRaises(node.NotGivenBack, frequency.set, 1_500_000)
            self.assertEqual(limits(), self.fixed)
        self.assertEqual(limits(), self.free)
        for error in node.NodeError.__subclasses__():
            with self.assertRaises(error, msg=error) as raised:
                errors.check("a_function", error.code)
            self.assertRegex(str(raised.exception), rf"^a_function: .+ \({error.code}\)$")
        self.assertRaises(MemoryError, errors.check, "a_function", -2)

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
            highest = CPUFREQ / "policy0/scaling_max_freq"
            highest.write_text("1700000")
            frequency.restore()
            self.assertTrue(frequency.moved)
            self.assertEqual(limits(), self.free)
            highest.write_text("1700000")  # by then nothing is left to be given back
        self.assertEqual(limits()[1], 1_700_000)
        highest.write_text(str(self.free[1]))
        self.assertEqual(limits(), self.free)

    def test_the_clock_is_checked_while_the_cpus_are_busy(self):
        with node.Frequency() as frequency:
            frequency.set(1_500_000)
            with frequency.check(1_500_000) as checked:
                sum(range(20_000_000))
            with frequency.check(2_000_000) as missed:
                sum(range(20_000_000))
        for clock in (checked.clock, missed.clock):
            self.assertAlmostEqual(clock.mean, 1_500_000, delta=30_000)
            self.assertTrue(clock.slowest <= clock.mean <= clock.fastest, clock)
        self.assertEqual((checked.clock.verdict.name, checked.clock.asked), ("RUNS_AT", 1_500_000))
        self.assertEqual((missed.clock.verdict.name, missed.clock.asked), ("RUNS_OTHERWISE", 2_000_000))


class Xeon2023(unittest.TestCase):
    def test_the_cpus_are_those_of_the_node(self):
        name = "Intel(R) Xeon(R) Platinum 8480+"
        self.assertEqual(node.topology(), node.Topology(224, 256, 2, 112, 2, 0, 6, 143, name))
        # Socket by socket, first the one thread of each core, then the other.
        self.assertEqual(node.cpus(), [node.Cpu(n, n // 56 % 2, n % 112, n // 112, None) for n in range(224)])


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
