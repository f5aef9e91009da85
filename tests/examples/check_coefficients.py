#!/usr/bin/env python3
"""Checks the sample cluster: the files are what the script writes, and they predict well.

usage: check_coefficients.py FOLDER_OF_THE_CLUSTER
"""

import csv
import io
import sys

sys.dont_write_bytecode = True
FOLDER = sys.argv[1]
sys.path.insert(0, FOLDER)

import make_coefficients as machine  # noqa: E402


def text_of(name):
    with open(f"{FOLDER}/{name}", encoding="ascii") as file:
        return file.read()


def written_by(writer):
    out = io.StringIO()
    writer(out)
    return out.getvalue()


def predictions(coefficients, job):
    """(GHz, power, seconds) per frequency but the default one."""
    cycles, instructions, traffic = (
        float(job[column]) for column in ("cycles", "instructions", "memory_bytes")
    )
    seconds, cpi, lines = float(job["elapsed_s"]), cycles / instructions, traffic / instructions / 64
    for line in coefficients.splitlines():
        if line.startswith("#"):
            continue
        khz, values = line.split(":")
        a, b, c, d, e, f = (float(value) for value in values.split(","))
        ghz = int(khz) / 1e6
        if a == 0.0:
            assert ghz == machine.DEFAULT
            continue
        yield (
            ghz,
            a * float(job["power_w"]) + b * lines + c,
            seconds * (d * cpi + e * lines + f) / cpi * machine.DEFAULT / ghz,
        )


def check_job(job, kernel, coefficients):
    for ghz, watts, seconds in predictions(coefficients, job):
        true_seconds = (
            float(job["elapsed_s"])
            * (machine.cycles_per_instruction(kernel, ghz) / ghz)
            / (machine.cycles_per_instruction(kernel, machine.DEFAULT) / machine.DEFAULT)
        )
        where = (job["name"], ghz)
        assert abs(seconds / true_seconds - 1.0) < 0.007, where
        assert abs(watts / machine.power(kernel, ghz) - 1.0) < 0.022, where
        # No job changes its time by more than its clock.
        assert min(1.0, machine.DEFAULT / ghz) < seconds / float(job["elapsed_s"]), where
        assert seconds / float(job["elapsed_s"]) < max(1.0, machine.DEFAULT / ghz), where


coefficient_text, jobs_text = text_of("coefficients.txt"), text_of("jobs.csv")
assert coefficient_text == written_by(machine.write_coefficients), "run make_coefficients.py again"
assert jobs_text == written_by(machine.write_jobs), "run make_coefficients.py jobs again"
rows = list(csv.DictReader(io.StringIO(jobs_text)))
assert len(rows) == len(machine.JOBS)
for row, (_, _, _, _, its_kernel, _) in zip(rows, machine.JOBS):
    check_job(row, its_kernel, coefficient_text)
