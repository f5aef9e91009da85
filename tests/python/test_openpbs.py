"""The OpenPBS hook from event to tag, inside a fake node: a stub stands for OpenPBS's module pbs."""
import json
import os
import pathlib
import re
import runpy
import subprocess
import sys
import tempfile
import time
import types
import unittest
from unittest import mock

import eas
from eas import job

SOURCE = pathlib.Path(sys.argv[1])
SAMPLES = SOURCE / "examples" / "cluster"
LIMIT = pathlib.Path("/sys/devices/system/cpu/cpufreq/policy0/scaling_max_freq")
ANNA = {"eas_tag": "flame", "place": "scatter:excl"}


class Hook(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.folder = pathlib.Path(scratch.name)
        subprocess.run([SAMPLES / "load-sqlite", cls.folder / "cluster"], check=True)
        odbc = dict(re.findall(r"(ODBC\w+)=(\S+)", (cls.folder / "cluster/environment").read_text()))
        os.environ.update(odbc)
        paths = {name: os.environ[name] for name in ("PYTHONPATH", "LD_LIBRARY_PATH")}
        cls.settings = {
            "cluster": "sample",
            "default_frequency": 2_300_000,
            "thresholds": str(SAMPLES / "thresholds.conf"),
            "state": str(cls.folder / "state"),
            "interval": 0.2,
            "limit": 60,
            "python": sys.executable,
            "environment": {**odbc, **paths},
        }
        cls.free = LIMIT.read_text()

    def run_hook(self, event, resources, first=True, exit_status=0, identity="17.server", **settings):
        """What the hook logs for an event of a job."""
        configuration = self.folder / "hook.json"
        configuration.write_text(json.dumps({**self.settings, **settings}))
        log, accepted = [], []
        of_pbs = types.SimpleNamespace(
            id=identity,
            euser="anna",
            Resource_List={**dict.fromkeys(("eas_tag", "eas_policy", "place")), **resources},
            Exit_status=exit_status,
            in_ms_mom=lambda: first,
        )
        pbs = types.ModuleType("pbs")
        pbs.EXECJOB_BEGIN, pbs.EXECJOB_EPILOGUE, pbs.EXECJOB_END = 1, 2, 3
        pbs.hook_config_filename = str(configuration)
        pbs.logjobmsg = lambda _, text: log.append(text)
        pbs.event = lambda: types.SimpleNamespace(
            type=getattr(pbs, event), job=of_pbs, accept=lambda: accepted.append(True)
        )
        sys.modules["pbs"] = pbs
        runpy.run_path(str(SOURCE / "adapters/openpbs/eas_hook.py"))
        self.assertEqual(accepted, [True])
        return "\n".join(log)

    def test_a_job_is_measured_then_runs_at_the_selected_frequency(self):
        self.assertEqual(
            self.run_hook("EXECJOB_BEGIN", {**ANNA, "eas_policy": "none"}),
            'eas: measuring for tag "flame": 2300000 kHz',
        )
        self.assertEqual(LIMIT.read_text().strip(), "2300000")
        time.sleep(1.6)
        said = self.run_hook("EXECJOB_EPILOGUE", ANNA)
        shown = re.fullmatch(r"eas: frequency given back; ([\d.]+) J in ([\d.]+) s, mean ([\d.]+) W; "
                             r'tag "flame" generated', said)
        joules, seconds, watts = map(float, shown.groups())
        self.assertAlmostEqual(watts, joules / seconds, delta=1)
        self.assertTrue(1.6 <= seconds and 150 < watts < 270, said)  # four fifths of 260.32 W are counted
        self.assertEqual(LIMIT.read_text(), self.free)
        self.assertEqual(self.run_hook("EXECJOB_END", ANNA), "")

        policy = {**ANNA, "eas_policy": "minimize_energy"}
        eas.initialize("sample", 2_300_000, self.settings["thresholds"])
        self.addCleanup(eas.remove_tag, None, None)
        khz, slower = eas.auto_select_frequency("anna", "flame", "minimize_energy")
        (tag,) = eas.query_tag("anna", "flame")
        (at_default,) = (row for row in tag.predictions if row.frequency == 2_300_000)
        self.assertAlmostEqual(at_default.seconds, seconds, delta=0.51)
        self.assertAlmostEqual(at_default.power, watts, delta=0.06)
        self.assertEqual(tag.job_id, "17.server")
        self.assertEqual(
            self.run_hook("EXECJOB_BEGIN", policy),
            f'eas: minimize_energy of tag "flame", run time expected to change by {slower:+.1%}: {khz} kHz',
        )
        self.assertEqual(LIMIT.read_text().strip(), str(khz))
        said = self.run_hook("EXECJOB_EPILOGUE", policy)
        self.assertNotIn("tag", said)
        self.assertEqual(LIMIT.read_text(), self.free)
        for expected, end, settings in (
            (r'\d W; tag "flame" not generated: this user has a tag of that name already$', {}, {}),
            (r"; 1\.\d+ s, no energy: [^;]+; tag \"flame\" not generated: no energy: ", {}, {"energy_sources": "qpx"}),
            (r"given back, another program had changed it; [^;]+ W$", {"first": False}, {}),
            (r"^eas: frequency given back; [^;]+ W$", {"exit_status": 1}, {}),
        ):
            self.run_hook("EXECJOB_BEGIN", ANNA, **settings)
            if "changed" in expected:
                LIMIT.write_text("2500000")
            time.sleep(1)
            self.assertRegex(self.run_hook("EXECJOB_EPILOGUE", ANNA, **end), expected)
        self.assertEqual(LIMIT.read_text(), self.free)

    def test_what_goes_wrong_is_logged_and_the_node_left_as_it_was(self):
        shared = {**ANNA, "place": "pack"}
        unknown = {**ANNA, "eas_policy": "minimize_time"}
        slow = self.folder / "slow"
        slow.write_text("#!/bin/sh\nexec sleep 60")
        slow.chmod(0o755)
        start = time.monotonic()
        for expected, arguments in (
            ("error: the job shares its nodes", {"resources": shared}),
            ("error: .*not exactly one such tag", {"resources": unknown}),
            ("error: the meter did not start: .*names one that does not exist", {"resources": ANNA, "energy_sources": "x"}),
            ("error: \\w+Error", {"resources": ANNA, "python": "/none"}),
            ("error: no answer within 0", {"resources": ANNA, "limit": 0, "python": str(slow)}),
            ("^$", {"resources": {}}),
        ):
            with self.subTest(expected=expected):
                self.assertRegex(self.run_hook("EXECJOB_BEGIN", **arguments), expected)
                self.run_hook("EXECJOB_END", ANNA)
                self.assertEqual(LIMIT.read_text(), self.free)
        self.assertLess(time.monotonic() - start, 60)
        self.run_hook("EXECJOB_BEGIN", ANNA)
        said = self.run_hook("EXECJOB_EPILOGUE", ANNA)
        self.assertRegex(said, 'tag "flame" not generated: the job ran for less than a second$')

    def test_what_a_dead_keeper_or_a_lost_job_left_is_given_back(self):
        self.run_hook("EXECJOB_BEGIN", ANNA)
        said = self.run_hook("EXECJOB_BEGIN", ANNA, identity="18.server")
        self.assertIn("left behind by job 17.server: frequency given back; measuring", said)
        self.assertEqual(LIMIT.read_text().strip(), "2300000")
        (socket,) = pathlib.Path(self.settings["state"]).glob("*.socket")
        socket.rename(socket.with_suffix(".lost"))  # as if the meter's process had died
        said = self.run_hook("EXECJOB_EPILOGUE", ANNA, identity="18.server")
        self.assertIn("frequency given back; the meter's process is gone: no figures", said)
        self.assertEqual(LIMIT.read_text(), self.free)
        self.assertIsNotNone(job._end_keeper(socket.with_suffix(".lost")))
        state = self.folder / "made"
        settings = job.Settings("sample", 1_500_000, state=str(state), interval=0.2)
        self.assertEqual(job.begin(settings, "1", "anna", "t"), 'measuring for tag "t": 1500000 kHz')
        self.assertEqual((state.stat().st_mode & 0o777, LIMIT.read_text()), (0o700, "1500000\n"))
        (record,) = state.glob("*.json")
        saved = json.loads(record.read_text())["saved"]
        with mock.patch.object(eas.node, "give_back", side_effect=eas.node.OtherNode("restore")):
            self.assertRegex(job.end(settings, "1"), r"^the node was booted meanwhile; [^;]+ W$")
        self.assertEqual((list(state.iterdir()), eas.node.give_back(saved)), ([], True))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
