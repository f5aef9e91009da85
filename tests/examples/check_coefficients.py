#!/usr/bin/env python3
"""Checks the sample cluster: easctl fits its coefficients, and they predict its machine.

usage: check_coefficients.py FOLDER_OF_THE_CLUSTER [EASCTL]
"""

import csv
import io
import math
import subprocess
import sys

sys.dont_write_bytecode = True
FOLDER = sys.argv[1]
sys.path.insert(0, FOLDER)

import make_coefficients as machine  # noqa: E402


def text_of(name):
    with open(f"{FOLDER}/{name}", encoding="ascii") as file:
        return file.read()


def rows_of(coefficients):
    rows = {}
    for line in coefficients.splitlines():
        if not line.startswith("#"):
            khz, values = line.split(":")
            rows[int(khz)] = [float(value) for value in values.split(",")]
    return rows


def measurements():
    """What a calibration of the machine would measure."""
    lines = ["kernel,frequency_khz,elapsed_s,power_w,cycles,instructions,memory_bytes"]
    for ghz in machine.FREQUENCIES:
        for kernel in machine.CALIBRATION:
            cycles = machine.cycles_per_instruction(kernel, ghz) * 1e12
            lines.append(f"{kernel.name},{machine.khz(ghz)},10,{machine.power(kernel, ghz)!r},"
                         f"{cycles!r},1e12,{kernel.lines * machine.LINE_BYTES * 1e12!r}")
    return "\n".join(lines) + "\n"


def check_fit(easctl, coefficients):
    default = str(machine.khz(machine.DEFAULT))
    fit = subprocess.run([easctl, "model", "fit", "-", "--default-frequency", default],
                         input=measurements(), capture_output=True, text=True, check=True)
    fitted = rows_of(fit.stdout)
    assert list(fitted) == list(coefficients)
    for khz, values in coefficients.items():
        for one, other in zip(values, fitted[khz]):
            assert math.isclose(one, other, rel_tol=1e-6, abs_tol=2e-6), (khz, one, other)


def predictions(coefficients, job):
    """(GHz, power, seconds) per frequency but the default one."""
    cycles, instructions, traffic = (
        float(job[column]) for column in ("cycles", "instructions", "memory_bytes")
    )
    seconds, cpi, lines = float(job["elapsed_s"]), cycles / instructions, traffic / instructions / 64
    for khz, (a, b, c, d, e, f) in coefficients.items():
        ghz = khz / 1e6
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


stored = rows_of(text_of("coefficients.txt"))
jobs = list(csv.DictReader(io.StringIO(text_of("jobs.csv"))))
assert len(jobs) == len(machine.JOBS)
for its_job, (_, _, _, _, its_kernel, _) in zip(jobs, machine.JOBS):
    check_job(its_job, its_kernel, stored)
if len(sys.argv) > 2:
    check_fit(sys.argv[2], stored)
