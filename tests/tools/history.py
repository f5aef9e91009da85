#!/usr/bin/env python3
"""Holds easctl history and easctl report against an independent calculation.

usage: history.py EASCTL [--large]

Makes runs with known figures, writes them as accounting, as records and as CSV, and adds up itself
what a report must say. A stand-in for sacct answers for periods. --large: a million runs within
bounded memory.
"""

import csv
import json
import math
import os
import random
import resource
import subprocess
import sys
import tempfile
import time

USERS = ("anna", "bert", "carla & <co>", "dora|x")
HOSTILE = '"><script>alert(1)</script>'
PLAIN = set("0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_.:+,/@-")


def encoded(text):
    return "".join(c if c in PLAIN else "".join(f"%{b:02X}" for b in c.encode()) for c in text)


def make_runs(count, seed):
    lots = random.Random(seed)
    runs = []
    for i in range(count):
        seconds = lots.uniform(60, 20000)
        default_j = seconds * lots.uniform(150, 350) * (nodes := lots.choice((1, 2, 16)))
        predicted_j = default_j * lots.uniform(0.85, 1.02)
        run = {
            "job": str(1000 + i),
            "user": lots.choice(USERS),
            "end": 1_750_000_000 + i * 3600 + seconds,
            "outcome": "used" if i % 5 else "failed",
            "tag": HOSTILE if i % 7 == 0 else f"t{i % 3}",
            "policy": lots.choice(("minimize_energy", "minimize_time")),
            "nodes": nodes,
            "frequency": 2000000,
            "seconds": round(seconds * lots.gauss(1.02, 0.02), 2),
            "joules": round(predicted_j * lots.gauss(1, 0.03), 1),
            "predicted_seconds": int(seconds * 1.02),
            "predicted_joules": predicted_j,
            "default_seconds": int(seconds),
            "default_joules": default_j,
        }
        if i % 11 == 0:
            del run["joules"]
        if i % 13 == 0:
            del run["default_joules"]
        run["start"] = run["end"] - run["seconds"]
        runs.append(run)
    return runs


def record(run, keys):
    words = ["eas=1"]
    words += [f"{k}={encoded(str(run[k]))}" for k in keys if k in run and k != "end"]
    return " ".join(words)


OWN = [
    "outcome", "tag", "policy", "frequency", "nodes", "seconds", "joules",
    "predicted_seconds", "predicted_joules", "default_seconds", "default_joules",
]  # fmt: skip


def accounting_line(run, epoch=True):
    def moment(s):
        return str(int(s)) if epoch else time.strftime("%Y-%m-%dT%H:%M:%S", time.localtime(s))

    comment = "an admin's words; " + record(run, OWN) + "; and | more"
    user = run["user"].replace("|", "")  # accounting knows no such name
    return (
        f"{run['job']}|{user}|{moment(run['start'])}|{moment(run['end'])}|{comment}\n"
        f"{run['job']}.batch||{moment(run['start'])}|{moment(run['end'])}|\n"
    )


def write_forms(folder, runs):
    header = "JobID|User|Start|End|AdminComment\n"
    forms = {
        "accounting": header
        + "".join(accounting_line(r, i % 2 == 0) for i, r in enumerate(runs))
        + "7|eve|1|2|no record\n",
        "records": "# a file\n"
        + "".join(record(r, ["job", "user", "start"] + OWN) + "\n" for r in runs),
    }
    for name, text in forms.items():
        with open(os.path.join(folder, name), "w", encoding="utf-8") as out:
            out.write(text)
    return {name: os.path.join(folder, name) for name in forms}


def expected(runs):
    measured = [r for r in runs if "joules" in r]
    compared = [r for r in measured if r["outcome"] == "used" and "default_joules" in r]
    checked = [r for r in measured if r["outcome"] == "used"]
    misses = sorted(abs(r["joules"] / r["predicted_joules"] - 1) for r in checked)

    def within(part):
        return math.ceil(misses[math.ceil(part * len(misses)) - 1] * 200) / 2

    saved = sum(r["default_joules"] - r["joules"] for r in compared)
    added = sum(r["seconds"] - r["default_seconds"] for r in compared)
    return {
        "runs": len(runs),
        "failed_runs": sum(r["outcome"] == "failed" for r in runs),
        "measured_runs": len(measured),
        "energy_measured_j": sum(r["joules"] for r in measured),
        "time_measured_s": sum(r["seconds"] for r in measured),
        "compared.runs": len(compared),
        "compared.energy_saved_j": saved,
        "compared.energy_saved_pct": 100 * saved / sum(r["default_joules"] for r in compared),
        "compared.time_added_s": added,
        "compared.time_added_pct": 100 * added / sum(r["default_seconds"] for r in compared),
        "compared.cost_saved": saved / 3.6e6 * 0.25,
        "compared.co2_saved_g": saved / 3.6e6 * 400,
        "checked.runs": len(checked),
        "checked.energy_predicted_j": sum(r["predicted_joules"] for r in checked),
        "checked.energy_miss_half_within_pct": within(0.5),
        "checked.energy_miss_most_within_pct": within(0.9),
    }


def check(holds, what):
    if not holds:
        sys.exit(f"history.py: {what}")


def check_figures(found, runs, what):
    for name, value in expected(runs).items():
        shown = found
        for part in name.split("."):
            shown = shown[part]
        check(math.isclose(shown, value, rel_tol=1e-9), f"{what}: {name} {shown}, not {value}")


class Tool:
    def __init__(self, program, path=None):
        self.program = program
        self.environment = dict(os.environ)
        if path:
            self.environment["PATH"] = path + ":" + self.environment["PATH"]

    def run(self, *words, code=0):
        done = subprocess.run(
            [self.program, *words], env=self.environment, capture_output=True, check=False
        )
        check(done.returncode == code, f"{words}: {done.returncode}, {done.stderr.decode()}")
        return done.stdout.decode()

    def report(self, *words, code=0):
        prices = ("--price", "0.25", "--co2", "400")
        return json.loads(self.run("--json", "report", *words, *prices, code=code))


def check_forms(tool, folder):
    runs = make_runs(600, 3)
    for name, path in write_forms(folder, runs).items():
        found = tool.report(path, "--by", "policy")
        check_figures(found["total"], runs, name)
        for group in found["groups"]:
            own = [r for r in runs if r["policy"] == group["name"]]
            check_figures(group, own, f"{name}, {group['name']}")
        # What history writes says the same, and so does what it writes of that.
        once, twice = os.path.join(folder, "once.csv"), os.path.join(folder, "twice.csv")
        for source, target in ((path, once), (once, twice)):
            with open(target, "w", encoding="utf-8") as out:
                out.write(tool.run("history", source, "--format", "csv"))
        check(tool.report(once, "--by", "policy")["total"] == found["total"], f"{name} as CSV")
        with open(once, "rb") as a, open(twice, "rb") as b:
            check(a.read() == b.read(), f"{name}: CSV of CSV differs")
        with open(once, newline="", encoding="utf-8") as text:
            rows = list(csv.DictReader(text))
        for run, row in zip(runs, rows):
            end = str(int(run["end"])) if name == "accounting" else ""  # records know none
            check(row["end"] == end, f"{name}: end of {row}")
        check_counted(tool, folder, rows, runs)
    check(tool.report(os.path.join(folder, "accounting"))["jobs_without_record"] == 1, "eve's job")


def check_counted(tool, folder, rows, runs):
    """Each row stands for three runs."""
    path = os.path.join(folder, "thrice.csv")
    with open(path, "w", newline="", encoding="utf-8") as out:
        writer = csv.DictWriter(out, rows[0])
        writer.writeheader()
        writer.writerows(dict(row, count=3) for row in rows)
    check_figures(tool.report(path)["total"], [r for r in runs for _ in range(3)], "rows of three")


def check_page(tool, folder):
    page = os.path.join(folder, "page.html")
    tool.run("report", os.path.join(folder, "accounting"), "--by", "tag", "--html", page)
    with open(page, encoding="utf-8") as text:
        html = text.read()
    check("<script" not in html and "&lt;script&gt;" in html, "a tag's name became markup")
    check(html.count("<svg") == 3 and "http" not in html.replace("http-equiv", ""), "pictures")


SACCT = """#!/usr/bin/env python3
import os, re, sys, time
words = dict(w.split("=", 1) for w in sys.argv[1:] if "=" in w)
moment = lambda w: time.mktime(time.strptime(words[w], "%Y-%m-%dT%H:%M:%S"))
lo, hi = moment("--starttime"), moment("--endtime")
assert os.environ["SLURM_TIME_FORMAT"] == "%s" and "--allusers" in sys.argv and hi - lo <= 86400
print(words["--format"].replace(",", "|"))
for line in open(FILE):
    job, user, start, end, comment = line.rstrip("\\n").split("|", 4)
    if "." not in job and float(end) >= lo and float(start) < hi:
        print(f"{job}|{user}|acct|c1|{start}|{end}|COMPLETED|1|{comment}")
"""


def check_sacct(program, folder):
    """Jobs that ran for days are in several answers and count once."""
    now = time.time()
    runs = make_runs(180, 5)
    for i, run in enumerate(runs):
        run["end"] = now - 9 * 86400 + i * 3600 + 1800
        run["start"] = run["end"] - 3 * 86400
    with open(os.path.join(folder, "jobs"), "w", encoding="utf-8") as out:
        out.writelines(accounting_line(r) for r in runs)
    stand_in = os.path.join(folder, "sacct")
    with open(stand_in, "w", encoding="utf-8") as out:
        out.write(SACCT.replace("FILE", repr(os.path.join(folder, "jobs"))))
    os.chmod(stand_in, 0o755)
    tool = Tool(program, folder)
    check_figures(tool.report("--from", "10d")["total"], runs, "sacct")
    # A file that follows: cut short, taken up again, none lost and none twice.
    journal = os.path.join(folder, "journal")
    settled = [r for r in runs if r["end"] < now - 3 * 86400]
    tool.run("history", "--append", journal, "--from", "10d", "--settle", str(86400))
    with open(journal, "a", encoding="utf-8") as out:
        out.write("half a li")
    tool.run("history", "--append", journal, "--settle", str(3600))
    tool.run("history", "--append", journal, "--settle", str(3600))
    check_figures(tool.report(journal, "--to", "3d")["total"], settled, "journal, some days")
    check_figures(tool.report(journal)["total"], runs, "journal")
    with open(stand_in, "w", encoding="utf-8") as out:
        out.write("#!/bin/sh\nexit 3\n")
    tool.run("report", "--from", "10d", code=3)
    tool.run("history", "--append", os.path.join(folder, "jobs"), "--from", "1d", code=3)


def check_large(tool, folder):
    path = os.path.join(folder, "million")
    lines = [record(r, ["job", "user", "start"] + OWN) + "\n" for r in make_runs(1000, 8)]
    with open(path, "w", encoding="utf-8") as out:
        for _ in range(1000):
            out.writelines(lines)
    started = time.monotonic()
    found = tool.report(path, "--by", "user", "--html", os.path.join(folder, "large.html"))
    taken = time.monotonic() - started
    check(found["total"]["runs"] == 1_000_000, "a million runs")
    most = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    check(most < 64 * 1024, f"{most} KiB for a million runs")
    print(f"a million runs: {taken:.1f} s, {most} KiB")


def main():
    program = sys.argv[1]
    os.environ["TZ"] = "Europe/Berlin"  # in summer time, which a text does not name
    time.tzset()
    with tempfile.TemporaryDirectory() as folder:
        if "--large" in sys.argv:
            check_large(Tool(program), folder)
            return
        check_forms(Tool(program), folder)
        check_page(Tool(program), folder)
        check_sacct(program, folder)


main()
