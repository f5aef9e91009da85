#!/usr/bin/env python3
"""Holds `easctl simulate` against an independent calculation; --large: a million rows.

usage: simulate.py EASCTL CLUSTER_FOLDER [--large]
"""

import csv
import json
import math
import os
import resource
import subprocess
import sys
import tempfile

LIMIT = 5.0  # percent, of thresholds.conf
DEMANDED = {2400000: -0.01, 2500000: -0.03, 2600000: -0.06, 2700000: -0.10}
LARGE_ROWS = 1_000_000
MOST_MEMORY_KIB = 64 * 1024  # well below what a million jobs would take; Python itself counts
MOST_SECONDS = 60


def read_model(path):
    rows = {}
    with open(path, encoding="ascii") as file:
        for line in file:
            if not line.startswith("#"):
                khz, values = line.split(":")
                rows[int(khz)] = [float(value) for value in values.split(",")]
    return rows, next(khz for khz, values in rows.items() if not any(values))


def predict(model, default, job):
    """khz -> (W, s, energy change, time change)"""
    power, seconds = float(job["power_w"]), int(job["elapsed_s"])
    cpi = float(job["cycles"]) / float(job["instructions"])
    lines = float(job["memory_bytes"]) / float(job["instructions"]) / 64.0
    result = {}
    for khz, (a, b, c, d, e, f) in model.items():
        if khz == default:
            result[khz] = (power, seconds, 0.0, 0.0)
            continue
        watts = a * power + b * lines + c
        there = int(seconds * (d * cpi + e * lines + f) / cpi * default / khz)
        change = watts * there / (power * seconds) - 1.0
        result[khz] = (watts, there, change, there / seconds - 1.0)
    return result


def select(rows, default, policy, limit, demanded):
    if policy == "minimize_energy":
        fit = [k for k, r in rows.items() if k <= default and r[3] <= limit / 100.0 + 1e-7]
        best = min(fit, key=lambda k: (rows[k][2], k), default=default)
        return best if rows[best][2] < 0.0 else default
    fit = [k for k, r in rows.items() if k in demanded and r[3] <= demanded[k] + 1e-7]
    return max(fit, default=default)


def swept_demand(model, default, percent):
    above = [khz for khz in sorted(model) if khz >= default]
    return {k: -percent / 100.0 * i / (len(above) - 1) for i, k in enumerate(above)}


def run(easctl, *arguments, code=0):
    result = subprocess.run([easctl, "simulate", *arguments], capture_output=True, text=True,
                            timeout=MOST_SECONDS, check=False)
    assert result.returncode == code, (arguments, result.returncode, result.stderr)
    return result


def expect(document, where, **figures):
    for name, value in figures.items():
        assert math.isclose(document[name], value, rel_tol=1e-9, abs_tol=1e-6), (
            where, name, document[name], value)


def check_csv(table, result):
    """The same figures as in the document, under the same names of classes."""
    rows = list(csv.DictReader(table))
    entries = [*result["classes"], {**result["total"], "class": "(total)"}]
    expected = [(entry, outcome) for entry in entries for outcome in entry["policies"]]
    assert len(rows) == len(expected), table
    for row, (entry, outcome) in zip(rows, expected):
        assert (row["class"], row["policy"]) == (entry["class"], outcome["policy"]), row
        assert [int(row[name]) for name in ("jobs", "runs", "runs_changed")] == [
            entry["jobs"], entry["runs"], outcome["runs_changed"]], row
        for name in ("energy_j", "time_s", "energy_change_pct", "time_change_pct"):
            assert float(row[name]) == outcome[name], row
        for name in ("energy_j", "time_s"):
            assert float(row["measured_" + name]) == entry["measured"][name], row


def check_totals(result, jobs, model, default):
    """Every sum of every class and policy, from the jobs themselves."""
    energies = [entry["measured"]["energy_j"] for entry in result["classes"]]
    assert energies == sorted(energies, reverse=True), energies
    classes = {entry["class"]: entry for entry in result["classes"]}
    assert set(classes) == {job["class"] for job in jobs}
    classes[None] = result["total"]
    for name, entry in classes.items():
        its_jobs = [job for job in jobs if name in (None, job["class"])]
        assert entry["runs"] == sum(int(job["count"]) for job in its_jobs), name
        assert entry["jobs"] == len(its_jobs), name
        seconds_before = sum(int(job["count"]) * int(job["elapsed_s"]) for job in its_jobs)
        energy_before = sum(int(job["count"]) * int(job["elapsed_s"]) * float(job["power_w"])
                            for job in its_jobs)
        expect(entry["measured"], name, energy_j=energy_before, time_s=seconds_before)
        for outcome in entry["policies"]:
            percent, demanded = LIMIT, DEMANDED
            if "threshold_pct" in outcome:
                percent = outcome["threshold_pct"]
                demanded = swept_demand(model, default, percent)
            energy, seconds, changed = 0.0, 0.0, 0
            for job in its_jobs:
                count = int(job["count"])
                rows = predict(model, default, job)
                khz = select(rows, default, outcome["policy"], percent, demanded)
                energy += count * rows[khz][0] * rows[khz][1]
                seconds += count * rows[khz][1]
                changed += count if khz != default else 0
            assert outcome["runs_changed"] == changed, (name, outcome)
            expect(outcome, name, energy_j=energy, time_s=seconds,
                   energy_saved_j=energy_before - energy,
                   energy_change_pct=100 * (energy - energy_before) / energy_before,
                   time_change_pct=100 * (seconds - seconds_before) / seconds_before)


def write_jobs(path, jobs, bad=()):
    with open(path, "w", encoding="utf-8-sig", newline="") as file:
        file.write("# past jobs\n")
        writer = csv.DictWriter(file, fieldnames=list(jobs[0]))
        writer.writeheader()
        writer.writerows(jobs)
        file.writelines(bad)


def sample_jobs(folder):
    with open(os.path.join(folder, "jobs.csv"), encoding="ascii") as file:
        jobs = list(csv.DictReader(file))
    for number, job in enumerate(jobs):
        job["count"] = str(7 * number + 1)
        job["class"] = "memory, mostly" if number > 3 else 'a "q" b' if number == 2 else "core"
    return jobs


def small(easctl, folder, scratch):
    model_file = os.path.join(folder, "coefficients.txt")
    thresholds = ("--thresholds", os.path.join(folder, "thresholds.conf"))
    model, default = read_model(model_file)
    jobs = sample_jobs(folder)
    path = os.path.join(scratch, "jobs.csv")
    source = (path, "--model", model_file)
    write_jobs(path, jobs, bad=["x,y,z\n", ",,,,1e12,0,1e9,100,200,1,core\n",
                                  ",,,,1e12,1e12,1e9,100,200,1e15,core\n",
                                  ",,,,1e12,1e12,1e9,100,200,1.9,core\n",
                                  ",,,,1e12,1e12,1e9,100,1e308,1,core\n",
                                  ",,,,1e12,1e12,1e9,100,0,1,core\n",
                                  ",,,,1e12,1e12,1e9,100,200,1,core,\n",
                                  ",,,,1e12,1e12,-1,100,200,1,core\n"])

    plain = run(easctl, *source, *thresholds, "--json", "--quiet", code=1)
    result = json.loads(plain.stdout)
    check_totals(result, jobs, model, default)
    assert result["rows_left_out"] == 8, result
    for problem in ("9: 3 fields, but the header names 11 columns",
                    "10: the figures of this job allow no prediction", "11: count",
                    '12: count: "1.9" is not a whole number', "13: the figures",
                    "14: power_w is 0", "15: 12 fields, but the header names 11",
                    '16: memory_bytes: "-1" is below 0'):
        assert f"{path}:{problem}" in plain.stderr, plain.stderr
    run(easctl, *source, *thresholds, "--strict", code=3)
    write_jobs(path, jobs)

    swept = json.loads(run(easctl, *source, "--sweep", "0:20:2.5", "--json").stdout)
    assert len(swept["total"]["policies"]) == 2 * 9
    check_totals(swept, jobs, model, default)
    # In doubles 0.3 / 0.1 is below 3: the last step must not be lost.
    fine = json.loads(run(easctl, *source, "--sweep", "0:0.3:0.1", "--json").stdout)
    assert len(fine["total"]["policies"]) == 2 * 4, fine["total"]

    text = run(easctl, "--policy", "minimize_energy", "--policy", "minimize_energy", *source,
               *thresholds, "--class-column", "name").stdout
    assert text.count("Total") == 1, text
    assert "stream-triad" in text and "minimize_time" not in text, text
    table = run(easctl, *source, *thresholds, "--format", "csv").stdout.splitlines()
    check_csv(table, json.loads(run(easctl, *source, *thresholds, "--json").stdout))
    for more in ((), ("--sweep", "0:20:1")):
        picture = os.path.join(scratch, "savings.svg")
        run(easctl, *source, *thresholds, *more, "--plot", picture)
        with open(picture, encoding="utf-8") as file:
            assert "memory, mostly" in file.read(), picture

    run(easctl, *source, code=2)
    for sweep in ("0:20", "5:1:1", "0:20:0", "0:200:1", "0:20:1e-9", "a:b:c"):
        run(easctl, *source, "--sweep", sweep, code=2)
    assert "more than 1000 steps" in run(easctl, *source, "--sweep", "0:100:0.1", code=2).stderr
    for bad in ("/nowhere", "/dev/zero"):
        run(easctl, bad, *source[1:], *thresholds, code=3)
    with open(path, "w", encoding="ascii") as file:
        file.write("power_w," + ",".join(jobs[0]) + "\n")
    assert "twice" in run(easctl, *source, *thresholds, code=3).stderr


def large(easctl, folder, scratch):
    """Constant memory and bounded time, whatever the number of rows and of classes."""
    model_file = os.path.join(folder, "coefficients.txt")
    jobs = sample_jobs(folder)
    path = os.path.join(scratch, "large.csv")
    lines = [",".join(list(job.values())[:-1]) for job in jobs]
    with open(path, "w", encoding="ascii") as file:
        file.write(",".join(jobs[0]) + "\n")
        file.writelines(f"{lines[i % len(lines)]},class {i}\n" for i in range(LARGE_ROWS))
    result = json.loads(run(easctl, path, "--model", model_file, "--sweep", "0:10:1",
                            "--json").stdout)
    kib = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
    assert result["total"]["jobs"] == LARGE_ROWS
    assert len(result["classes"]) == 1001  # and one of all others
    assert result["jobs_in_other_classes"] == LARGE_ROWS - 1000
    assert kib < MOST_MEMORY_KIB, kib


check = large if sys.argv[3:] == ["--large"] else small
with tempfile.TemporaryDirectory() as its_scratch:
    check(sys.argv[1], sys.argv[2], its_scratch)
