#!/usr/bin/env python3
"""Runs every query of the dashboard on a simulated week, behind a real Prometheus on loopback.

usage: dashboard.py EASCTL DASHBOARD
"""

import json
import os
import random
import re
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

STEP_S = 6 * 3600
STEPS = 28  # a week
KNOWN_DRIFT = 1.2  # of each user's tag t3: energy of its runs against predicted


def check(holds, what):
    if not holds:
        sys.exit(f"dashboard.py: {what}")


def make_runs(begin, end):
    lots = random.Random(11)
    runs = []
    for i in range(560):
        tag = i // 4 % 4
        default_j = lots.uniform(1e6, 9e6)
        runs.append({
            "user": f"u{i % 4}", "tag": f"t{tag}", "job_id": i, "outcome": "used",
            "policy": ("minimize_energy", "minimize_time")[i % 2], "cluster": "c\\1\"",
            "end": begin + (i + 1) * (end - begin) / 560, "elapsed_s": 1030,
            "predicted_s": 1020, "default_s": 1000, "default_j": default_j,
            "predicted_j": 0.9 * default_j,
            "energy_j": 0.9 * default_j * (KNOWN_DRIFT if tag == 3 else lots.gauss(1, 0.02)),
        })  # fmt: skip
    return runs


def snapshots(easctl, path, begin):
    """The metrics as a scrape every six hours would see them, samples with their times."""
    families = {}
    for step in range(STEPS + 1):
        moment = begin + step * STEP_S
        text = subprocess.run(
            [easctl, "metrics", path, "--to", str(int(moment + 1))],
            check=True, capture_output=True, text=True,
        ).stdout  # fmt: skip
        for line in text.splitlines():
            if line.startswith("# HELP"):
                samples = families.setdefault(line.split()[2], [line])
            elif line.startswith("# TYPE"):
                if line not in samples:
                    samples.append(line)
            else:
                samples.append(f"{line} {moment}")
    checked = subprocess.run(
        ["promtool", "check", "metrics"], input=text, capture_output=True, text=True, check=False
    )
    said = checked.stdout + checked.stderr
    check(checked.returncode == 0 and not said, f"promtool check metrics: {said}")
    return "".join("\n".join(lines) + "\n" for lines in families.values()) + "# EOF\n"


class Server:
    def __init__(self, folder):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.address = f"127.0.0.1:{free.getsockname()[1]}"
        config = os.path.join(folder, "prometheus.yml")
        with open(config, "w", encoding="utf-8") as out:
            out.write("global: {}\n")
        self.log = open(os.path.join(folder, "log"), "wb")
        self.process = subprocess.Popen(
            ["prometheus", f"--config.file={config}", f"--storage.tsdb.path={folder}/data",
             "--storage.tsdb.retention.time=10y", f"--web.listen-address={self.address}"],
            stdout=self.log, stderr=self.log,
        )  # fmt: skip

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.log.close()

    def get(self, path):
        return urllib.request.urlopen(f"http://{self.address}{path}", timeout=30).read()

    def wait(self):
        for _ in range(600):
            try:
                self.get("/-/ready")
                return
            except OSError:
                check(self.process.poll() is None, "prometheus ended")
                time.sleep(0.1)
        check(False, "prometheus is not ready")

    def query(self, expression, moment):
        words = urllib.parse.urlencode({"query": expression, "time": moment})
        answer = json.loads(self.get(f"/api/v1/query?{words}"))
        return {
            tuple(sorted(one["metric"].items())): float(one["value"][1])
            for one in answer["data"]["result"]
        }


def queries_of(dashboard):
    with open(dashboard, encoding="utf-8") as text:
        panels = json.load(text)["panels"]
    for panel in panels:
        for target in panel["targets"]:
            expression = target["expr"].replace("$__range", "7d").replace("$cluster", ".*")
            check("$" not in expression, f"unknown variable: {expression}")
            yield panel["title"], expression


def check_figures(server, queries, runs, begin, end):
    found = {}
    for title, expression in queries:
        result = server.query(expression, end)
        check(result, f"{title}: no answer to {expression}")
        check(all(v == v for v in result.values()), f"{title}: {expression} gives {result}")
        found.setdefault(title, []).append(result)
    # What a range sees lies between its first scrape and its last.
    week = [r for r in runs if begin + STEP_S < r["end"] <= end]
    saved = sum(r["default_j"] - r["energy_j"] for r in week)
    part = saved / sum(r["default_j"] for r in week)

    def near(title, value, tolerance):
        shown = list(found[title][0].values())
        check(len(shown) == 1 and abs(shown[0] - value) <= tolerance, f"{title}: {shown}, {value}")

    near("Energy saved, part", part, 0.03 * abs(part))
    near("Energy saved", saved / 3.6e6, 0.1 * saved / 3.6e6)
    near("Run time added", 0.03, 1e-3)
    near("Stale tags", 4, 0)
    near("Runs that can be compared", 1, 1e-6)
    near("History is behind by", 0, 1)
    check(len(found["Energy saved a day, by policy"][0]) == 2, "two policies")
    # One tag in four misses by 20 %, so nine of ten lie beyond 10 %, half of them within 5 %.
    half, most, _ = (list(r.values())[0] for r in found["How far predictions miss"])
    check(half <= 0.05 and 0.1 < most <= 0.2001, f"misses: {half}, {most}")


def main():
    easctl, dashboard = sys.argv[1:3]
    end = int(time.time()) // 3600 * 3600
    begin = end - STEPS * STEP_S
    runs = make_runs(begin, end)
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "runs.csv")
        with open(path, "w", encoding="utf-8") as out:
            out.write(",".join(runs[0]) + "\n")
            for run in runs:
                values = [str(v).replace('"', '""') for v in run.values()]
                out.write(",".join(f'"{v}"' for v in values) + "\n")
        text = snapshots(easctl, path, begin)
        check(re.search(r'cluster="c\\\\1\\"",', text), "the cluster's name is escaped")
        with open(os.path.join(folder, "week"), "w", encoding="utf-8") as out:
            out.write(text)
        subprocess.run(
            ["promtool", "tsdb", "create-blocks-from", "openmetrics", f"{folder}/week",
             f"{folder}/data"],
            check=True, stdout=subprocess.DEVNULL,
        )  # fmt: skip
        with Server(folder) as server:
            server.wait()
            check_figures(server, list(queries_of(dashboard)), runs, begin, end)


main()
