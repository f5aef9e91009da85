#!/usr/bin/env python3
"""Derives the sample cluster's coefficients and jobs from a stated machine model.

usage: make_coefficients.py [coefficients | jobs]

The machine is a node of two eight-core sockets, described by a handful of constants below. Seven
calibration kernels, from compute-bound to memory-bound, are "run" on it at every frequency; least
squares then gives, per frequency, A, B, C from the power and D, E, F from the cycles per
instruction. No random numbers: the output is the same on every machine.
"""

import sys
from dataclasses import dataclass

# The node. Frequencies in GHz, powers in W.
CORES = 16
FREQUENCIES = (1.2, 1.4, 1.6, 1.8, 2.0, 2.1, 2.2, 2.3, 2.4, 2.5, 2.6, 2.7)
DEFAULT = 2.3
BOARD_W = 88.0  # fans, disks, idle memory, voltage regulators
LEAKAGE_W = 30.0  # both sockets at 1.05 V; grows with the square of the voltage
CORE_W = 5.3  # one fully busy core at 1 V and 1 GHz
MEMORY_W = 0.45  # per GB/s of traffic
LINE_BYTES = 64.0


@dataclass(frozen=True)
class Kernel:
    """A program's character, the same at every frequency."""

    name: str
    core_cycles: float  # cycles per instruction without a wait for memory
    lines: float  # cache lines from memory per instruction
    stall_ns: float  # wait per line that out-of-order execution does not hide


CALIBRATION = (
    Kernel("registers", 0.36, 0.0001, 11.2),
    Kernel("matrix", 0.42, 0.0020, 11.0),
    Kernel("branches", 0.95, 0.0040, 11.4),
    Kernel("fourier", 0.55, 0.0150, 11.5),
    Kernel("stencil", 0.60, 0.0450, 11.1),
    Kernel("sparse", 0.75, 0.1000, 11.4),
    Kernel("stream", 0.65, 0.1700, 11.2),
)

# name, user, tag, job id, kernel, run time in s at the default frequency. None of the kernels is
# one of those that the coefficients were fitted to.
JOBS = (
    ("dense-linear-algebra", "anna", "hpl", "1001.0", Kernel("", 0.40, 0.0010, 11.2), 1800),
    ("molecular-dynamics", "bert", "md", "1002.0", Kernel("", 0.62, 0.0065, 11.0), 3600),
    ("combustion", "anna", "flame", "1003.0", Kernel("", 0.58, 0.0180, 11.4), 2400),
    ("weather", "carla", "forecast", "1004.0", Kernel("", 0.64, 0.0360, 11.1), 5400),
    ("sparse-solver", "bert", "solve", "1005.0", Kernel("", 0.72, 0.0900, 11.3), 900),
    ("stream-triad", "carla", "triad", "1006.0", Kernel("", 0.66, 0.1600, 11.3), 600),
)


def voltage(ghz):
    return 0.60 + ghz / 6.0


def cycles_per_instruction(kernel, ghz):
    return kernel.core_cycles + kernel.lines * kernel.stall_ns * ghz


def giga_instructions(kernel, ghz):
    """Per second, of the whole node."""
    return CORES * ghz / cycles_per_instruction(kernel, ghz)


def power(kernel, ghz):
    """Board, leakage, switching (V^2 f, by how busy the cores are) and memory traffic."""
    volt = voltage(ghz)
    busy = 0.55 + 0.45 * min(1.0, 1.0 / cycles_per_instruction(kernel, ghz) / 2.5)
    traffic = giga_instructions(kernel, ghz) * kernel.lines * LINE_BYTES
    return (
        BOARD_W
        + LEAKAGE_W * (volt / 1.05) ** 2
        + CORES * CORE_W * volt**2 * ghz * busy
        + MEMORY_W * traffic
    )


def fit(y, x1, x2):
    """Least squares for y = b1 x1 + b2 x2 + b0."""
    n = float(len(y))

    def centred(p, q):
        return sum(a * b for a, b in zip(p, q)) - sum(p) * sum(q) / n

    s11, s22, s12 = centred(x1, x1), centred(x2, x2), centred(x1, x2)
    y1, y2 = centred(y, x1), centred(y, x2)
    determinant = s11 * s22 - s12 * s12
    b1 = (y1 * s22 - y2 * s12) / determinant
    b2 = (y2 * s11 - y1 * s12) / determinant
    return b1, b2, sum(y) / n - b1 * sum(x1) / n - b2 * sum(x2) / n


def row(ghz):
    if ghz == DEFAULT:
        return (0.0,) * 6
    lines = [k.lines for k in CALIBRATION]
    base_power = [power(k, DEFAULT) for k in CALIBRATION]
    base_cpi = [cycles_per_instruction(k, DEFAULT) for k in CALIBRATION]
    return fit([power(k, ghz) for k in CALIBRATION], base_power, lines) + fit(
        [cycles_per_instruction(k, ghz) for k in CALIBRATION], base_cpi, lines
    )


def khz(ghz):
    return round(ghz * 1e6)


def write_coefficients(out):
    out.write("# Sample cluster: two sockets, 16 cores. Written by make_coefficients.py.\n")
    out.write("# kHz:A,B,C,D,E,F   power = A P + B x + C   cycles/instruction = D cpi + E x + F\n")
    out.write(f"# The row of zeros is the default frequency, {DEFAULT} GHz.\n")
    for ghz in FREQUENCIES:
        values = ",".join("0" if v == 0.0 else f"{v:.6f}" for v in row(ghz))
        out.write(f"{khz(ghz)}:{values}\n")


def write_jobs(out):
    out.write("name,user,tag,job_id,cycles,instructions,memory_bytes,elapsed_s,power_w\n")
    for name, user, tag, job_id, kernel, seconds in JOBS:
        instructions = giga_instructions(kernel, DEFAULT) * 1e9 * seconds
        cycles = CORES * DEFAULT * 1e9 * seconds
        memory = instructions * kernel.lines * LINE_BYTES
        out.write(
            f"{name},{user},{tag},{job_id},{cycles:.6e},{instructions:.6e},{memory:.6e},"
            f"{seconds},{power(kernel, DEFAULT):.1f}\n"
        )


def main(arguments):
    writers = {"coefficients": write_coefficients, "jobs": write_jobs}
    what = arguments[0] if arguments else "coefficients"
    if len(arguments) > 1 or what not in writers:
        sys.stderr.write(__doc__)
        return 2
    writers[what](sys.stdout)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
