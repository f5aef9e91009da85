"""The five functions through Python: the real library, on a scratch SQLite database."""
import ctypes
import dataclasses
import doctest
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest
from unittest import mock

import eas
from eas import _c, scheduler

SOURCE = pathlib.Path(sys.argv[1])
SAMPLES = SOURCE / "examples" / "cluster"
THRESHOLDS = str(SAMPLES / "thresholds.conf")
FLAME = {
    "counters": (8.832e13, 8.395756e13, 9.671911e13),
    "job_id": "100%d",
    "seconds": 2400,
    "watts": 268.4,
}


def predicted():
    """What the tag must hold, calculated apart from the coefficients, by the formulas."""
    cycles, instructions, traffic = FLAME["counters"]
    pace, lines = cycles / instructions, traffic / instructions / 64
    for line in (SAMPLES / "coefficients.txt").read_text().splitlines():
        if not line.startswith("#"):
            khz, a, b, c, d, e, f = map(float, re.split("[:,]", line))
            a, d = (a, d) if a else (1, 1)  # the default frequency's row
            seconds = int(2400 * (d * pace + e * lines + f) / pace * 2_300_000 / khz)
            watts = a * 268.4 + b * lines + c
            yield khz, watts, seconds * watts / (2400 * 268.4) - 1, seconds, seconds / 2400 - 1


class Scheduler(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.scratch.cleanup)
        folder = pathlib.Path(cls.scratch.name, "cluster")
        subprocess.run([SAMPLES / "load-sqlite", folder], check=True)
        found = re.findall(r"(ODBC\w+)=(\S+)", (folder / "environment").read_text())
        os.environ.update(found)

    def setUp(self):
        eas.initialize("sample", 2_300_000, THRESHOLDS)
        self.addCleanup(eas.remove_tag, None, None)

    def test_a_tag_is_stored_read_selected_from_and_removed_under_the_names_as_given(self):
        for name in ("flame", "50 %% %n é\udcff"):
            with self.subTest(name=name):
                eas.generate_tag("anna", name, **FLAME)
                (tag,) = eas.query_tag("anna", name)
                self.assertEqual((tag.name, tag.user, tag.job_id), (name, "anna", "100%d"))
                self.assertEqual((tag.cluster, tag.default_frequency), ("sample", 2_300_000))
                found = sum(map(dataclasses.astuple, tag.predictions), ())
                self.assertEqual(len(found), 60)
                for one, other in zip(found, sum(predicted(), ())):
                    self.assertAlmostEqual(one, other, places=9)
                selected = eas.auto_select_frequency("anna", name, eas.MINIMIZE_ENERGY)
                self.assertEqual(selected.frequency, 2_200_000)
                self.assertAlmostEqual(selected.time_change, 0.025)
                fast = eas.auto_select_frequency("anna", name, eas.MINIMIZE_TIME)
                self.assertEqual(fast.frequency, 2_600_000)
                self.assertEqual(eas.remove_tag("anna", name), [eas.RemovedTag("anna", name)])
                self.assertEqual(eas.query_tag(), [])

    def test_a_session_says_what_its_transcript_says(self):
        transcript = str(SOURCE / "tests/python/scheduler.transcript")
        found = doctest.testfile(transcript, module_relative=False, globs={
            "thresholds": THRESHOLDS, "version": (SOURCE / "CMakeLists.txt").read_text()})
        eas.initialize("sample", 2_300_000, THRESHOLDS)
        self.assertEqual((found.failed, found.attempted > 50), (0, True))
        with mock.patch.dict(os.environ, ODBCINI="/no/such", ODBCSYSINI="/no/such"):
            with self.assertRaises(eas.NoConnection) as raised:
                eas.initialize("sample", 2_300_000, THRESHOLDS)
        self.assertEqual(str(raised.exception), "eas_initialize: no connection to the database (-2)")
        eas.initialize("sample", 2_300_000, THRESHOLDS)

    def test_what_the_library_hands_out_is_freed_once_whatever_happens(self):
        freed = []
        keep = mock.patch.object(_c, "_free", lambda: freed.append)
        out_of_memory = mock.patch.object(_c, "text_at", side_effect=MemoryError)
        for call, blocks in ((eas.query_tag, 2 * 9 + 1), (eas.remove_tag, 2 * 2 + 2)):
            for trouble in (False, True):
                for tag in ("one", "two"):
                    eas.generate_tag("anna", tag, **FLAME)
                with self.subTest(call=call.__name__, trouble=trouble), keep:
                    if trouble:
                        with out_of_memory, self.assertRaises(MemoryError):
                            call("anna", None)
                    else:
                        self.assertEqual(len(call("anna", None)), 2)
                self.assertEqual((len(freed), len(set(freed))), (blocks, blocks))
                # malloc itself ends the process where one of them was no block, or freed before.
                free = _c._free()
                while freed:
                    free(freed.pop())
                eas.remove_tag("anna", None)

    def test_initialising_again_waits_for_calls_that_run_and_lets_none_in(self):
        eas.generate_tag("anna", "flame", **FLAME)
        ended, failures = threading.Event(), []

        def read_on():
            while not ended.is_set():
                try:
                    eas.query_tag("anna", "flame")
                except eas.Error as error:
                    failures.append(error)

        threads = [threading.Thread(target=read_on) for _ in range(4)]
        for thread in threads:
            thread.start()
        for _ in range(10):
            eas.initialize("sample", 2_300_000, THRESHOLDS)
        ended.set()
        for thread in threads:
            thread.join()
        self.assertEqual(failures, [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
