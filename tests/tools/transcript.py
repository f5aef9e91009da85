#!/usr/bin/env python3
"""Runs the commands of a transcript, and says where what they print is not what stands there.

usage: transcript.py EASCTL TRANSCRIPT

"$ " begins commands of the shell, "> " a further line of them; all that they print follows and, unless
it is 0, their exit status. Lines of "## " are remarks. They run in an empty folder, shown as FOLDER;
easctl is found by its name, the sample cluster as $CLUSTER. With EAS_WRITE in the environment what is
printed now goes into the transcript; whoever does that works out the figures by another way.
"""

import difflib
import os
import pathlib
import re
import subprocess
import sys
import tempfile

SOURCE = pathlib.Path(__file__).resolve().parents[2]


def replayed(easctl, text):
    path = f"{os.path.dirname(os.path.abspath(easctl))}:{os.environ['PATH']}"
    told = ""
    with tempfile.TemporaryDirectory() as folder:
        places = {"FOLDER": folder, "CLUSTER": f"{SOURCE}/examples/cluster",
                  "ODBCSYSINI": os.environ.get("ODBCSYSINI", folder)}  # fmt: skip
        own = {**os.environ, **places, "PATH": path, "HOME": folder, "TZ": "Europe/Berlin",
               "LC_ALL": "C.UTF-8"}  # fmt: skip
        for step in re.finditer(r"^(?:## .*\n|\n)*\$ (.*\n(?:> .*\n)*)", text, re.MULTILINE):
            done = subprocess.run(
                ["sh", "-c", step[1].replace("\n> ", "\n")], cwd=folder, env=own,
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                text=True, check=False, start_new_session=True,  # without a terminal to ask on
            )  # fmt: skip
            told += step[0] + done.stdout + (f"[{done.returncode}]\n" if done.returncode else "")
        for name, place in places.items():
            told = told.replace(place, name)
    told = re.sub(r"SQLite 3[0-9.]*", "SQLite 3", told)
    told = re.sub(r"eas_\d+_\w+?(?=_[ab]\b|\W)", "SCHEMA", re.sub(r"MariaDB \d[0-9.]*", "MariaDB 1", told))
    told = re.sub(r"\[ma-[^]]*\](\[[^]]*\])?", "[MariaDB]", told)
    # SQLite's driver cuts figures to 15 digits.
    return re.sub(r"\d+\.\d{10,}", lambda figure: f"{float(figure[0]):.11g}", told)


def compare(easctl, path):
    path = pathlib.Path(path)
    text = path.read_text(encoding="utf-8")
    told = replayed(easctl, text)
    if "EAS_WRITE" in os.environ:
        path.write_text(told, encoding="utf-8")
    elif told != text:
        sys.exit("".join(difflib.unified_diff(text.splitlines(True), told.splitlines(True),
                                              path.name, "what was printed")))  # fmt: skip


if __name__ == "__main__":
    compare(*sys.argv[1:])
