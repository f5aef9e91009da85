"""The OpenPBS hook from event to tag, inside a fake node: a stub stands for OpenPBS's module pbs."""
import collections
import dataclasses
import doctest
import json
import os
import pathlib
import re
import runpy
import subprocess
import sys
import tempfile
import types
import unittest

from eas import job

SOURCE = pathlib.Path(sys.argv[1])
SAMPLES = SOURCE / "examples" / "cluster"
LIMIT = pathlib.Path("/sys/devices/system/cpu/cpufreq/policy0/scaling_max_freq")


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

    def run_hook(self, event, resources, first=True, exit_status=0, identity="17.server", site=None, **settings):
        """What the hook logs for an event of a job."""
        configuration = self.folder / "hook.json"
        configuration.write_text(json.dumps({**(self.settings if site is None else site), **settings}))
        texts = {name: text if text is None else collections.UserString(text) for name, text in resources.items()}
        log, accepted = [], []
        of_pbs = types.SimpleNamespace(
            id=identity,
            euser=collections.UserString("anna"),
            Resource_List={**dict.fromkeys(("eas_tag", "eas_policy", "place")), **texts},
            Exit_status=exit_status,
            in_ms_mom=lambda: first,
        )
        pbs = types.ModuleType("pbs")
        pbs.EXECJOB_BEGIN, pbs.EXECJOB_EPILOGUE, pbs.EXECJOB_END = 1, 2, 3
        pbs.hook_config_filename = str(configuration)
        pbs.logjobmsg = lambda job, text: log.append(text if job == identity else (job, text))
        pbs.event = lambda: types.SimpleNamespace(
            type=getattr(pbs, event), job=of_pbs, accept=lambda: accepted.append(True)
        )
        sys.modules["pbs"] = pbs
        self.hook = runpy.run_path(str(SOURCE / "adapters/openpbs/eas_hook.py"))
        self.assertEqual(accepted, [True])
        return "\n".join(log)

    def test_says_what_its_transcript_says(self):
        script, noted = self.folder / "helper", self.folder / "noted"
        script.write_text(f"#!/bin/sh\n{{ pwd; tr '\\0' '\\n' <&3; echo $*; cat; }} 3</proc/$$/environ >{noted}\n"
                          "echo first; printf 'and \\377 last\\n' >&2; exit 1\n")
        script.chmod(0o755)

        def hook(*arguments, **named):
            noted.write_text("")
            said = re.sub(r"\b\d+\.\d J in \d+\.\d\d s, mean \d+\.\d W", "FIGURES", self.run_hook(*arguments, **named))
            print(*filter(None, (said, noted.read_text().strip())), sep="\n")

        names = {"hook": hook, "run_hook": self.run_hook, "helper": str(script), "limit": LIMIT, "folder": self.folder,
                 "thresholds": self.settings["thresholds"]}  # fmt: skip
        transcript = str(SOURCE / "tests/python/openpbs.transcript")
        found = doctest.testfile(transcript, module_relative=False, globs=names, optionflags=doctest.ELLIPSIS)
        self.assertEqual((found.failed, found.attempted > 50), (0, True))
        guide = dict(re.findall(r"^\| `(\w+)` \| `?([^`|]+?)`? \|", (SOURCE / "docs/openpbs.md").read_text(), re.M))
        defaults = {**dataclasses.asdict(job.Settings("c", 1)), **self.hook["DEFAULTS"]}
        for name in ("thresholds", "state", "interval", "limit", "python"):
            self.assertEqual(str(defaults[name]), guide[name])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
