"""What a scheduler's hook does for a job on a node: frequency and meter at its begin, giving back and
the tag at its end.

Between the two a process of its own, the keeper, holds the job's meter; it answers on a socket in the
folder ``Settings.state``, where a record says what is to be given back. Whatever dies, the next job's
begin finds the record and gives back. For root, and for jobs that have their nodes to themselves.

A hook that must not wait, or whose interpreter is not this one, runs it as a program with a time limit:
``python3 -m eas.job begin`` (or ``end``) reads one JSON object, the arguments of the function and
"settings", and prints one line. Exit status 0, or 1 when the line says what went wrong.
"""

from __future__ import annotations

import contextlib
import hashlib
import json
import os
import pathlib
import socket
import subprocess
import sys
from collections.abc import Callable, Iterator
from dataclasses import asdict, dataclass
from typing import Any

import eas
from eas import node


class JobError(Exception):
    """What a hook has to log; the node is as it was before."""


@dataclass(frozen=True)
class Settings:
    """What a site says once."""

    #: as in the coefficient table
    cluster: str
    #: kHz, at which jobs are measured; as in the coefficient table
    default_frequency: int
    thresholds: str = "/etc/eas/thresholds.conf"
    #: folder of the records, made with mode 0700
    state: str = "/run/eas-hook"
    #: where the joules come from; None: the meter's own order. Name the one of the calibration
    energy_sources: str | None = None
    #: s between the keeper's readings
    interval: float = 1.0


def _path(settings: Settings, job: str, suffix: str) -> pathlib.Path:
    """A file of a job; a job's name may be longer than a socket's may be."""
    name = hashlib.sha256(job.encode("utf-8", "surrogateescape")).hexdigest()[:24]
    return pathlib.Path(settings.state, name + suffix)


def _store(path: pathlib.Path, record: dict[str, Any]) -> None:
    """Whole or not at all, also when the power fails."""
    draft = path.with_suffix(".new")
    with open(draft, "w", encoding="utf-8") as file:
        json.dump(record, file)
        file.flush()
        os.fsync(file.fileno())
    draft.rename(path)


# ---- the keeper: who connects gets the last figures, and with that it ends


def _end_keeper(path: pathlib.Path) -> bytes | None:
    """The keeper's last figures; None where there is no keeper."""
    with socket.socket(socket.AF_UNIX) as client, contextlib.suppress(OSError):
        client.settimeout(30)
        try:
            client.connect(str(path))
        except ConnectionRefusedError:  # it was killed
            path.unlink(missing_ok=True)
            raise
        return b"".join(iter(lambda: client.recv(65536), b"")) or None
    return None


def _figures(reading: node.Reading) -> dict[str, Any]:
    names = ("cycles", "instructions", "memory", "energy")
    figures = {name: getattr(reading, name) for name in names}
    return {
        "seconds": reading.seconds,
        **{name: figure.value for name, figure in figures.items()},
        "reasons": {name: figure.reason for name, figure in figures.items()},
        "covers": reading.energy.covers,
    }


def keep(settings: Settings, job: str) -> None:
    """The keeper's life: says "ready" on its standard output, then counts until it is asked to end."""
    path = _path(settings, job, ".socket")
    path.unlink(missing_ok=True)
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(str(path))
        server.listen()
        server.settimeout(settings.interval)
        with node.Meter(energy_sources=settings.energy_sources) as meter:
            os.write(1, b"ready")
            os.dup2(os.open(os.devnull, os.O_RDWR), 1)  # whoever waits for more hears the end
            while not _serve(server, meter):
                pass
        path.unlink()


def _serve(server: socket.socket, meter: node.Meter) -> bool:
    """Reads the meter, or tells somebody who wants its figures; True: that was the end."""
    try:
        client, _ = server.accept()
    except socket.timeout:
        meter.read()
        return False
    with client, contextlib.suppress(OSError):
        client.settimeout(5)
        client.sendall(json.dumps(_figures(meter.read())).encode())
    return True


def _start_keeper(settings: Settings, job: str) -> None:
    argument = json.dumps({"settings": asdict(settings), "job": job})
    command = [sys.executable, "-m", "eas.job", "keep"]
    with contextlib.ExitStack() as stack:
        keeper = subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            start_new_session=True,
            cwd="/",
        )
        assert keeper.stdin and keeper.stdout
        stack.enter_context(keeper.stdout)
        with keeper.stdin as stdin:
            stdin.write(argument.encode())
        answer = keeper.stdout.read(5)
        if answer != b"ready":
            rest = (answer + keeper.stdout.read()).decode("utf-8", "replace").strip()
            raise JobError("the meter did not start: " + (rest.splitlines() or ["no answer"])[-1])


# ---- records


def _records(settings: Settings) -> Iterator[dict[str, Any]]:
    for path in sorted(pathlib.Path(settings.state).glob("*.json")):
        with contextlib.suppress(OSError, ValueError):
            yield json.loads(path.read_text(encoding="utf-8"))


def _give_back(settings: Settings, record: dict[str, Any]) -> str:
    """Ends a job's hold of the node; what there is to say of it."""
    with contextlib.suppress(node.OtherNode):  # of another boot: there is nothing to give back
        moved = not node.give_back(record["saved"])
        _path(settings, record["job"], ".json").unlink(missing_ok=True)
        return "frequency given back" + (", another program had changed it" if moved else "")
    _path(settings, record["job"], ".json").unlink(missing_ok=True)
    return "the node was booted meanwhile"


def _clear_up(settings: Settings) -> list[str]:
    """Gives back what earlier jobs left, whose end nobody told: a job begins on a node of its own."""
    for path in pathlib.Path(settings.state).glob("*.socket"):
        _end_keeper(path)
    return [
        f"left behind by job {record['job']}: {_give_back(settings, record)}"
        for record in _records(settings)
    ]


# ---- begin and end


def _initialize(settings: Settings) -> None:
    eas.initialize(settings.cluster, settings.default_frequency, settings.thresholds)


def begin(settings: Settings, job: str, user: str, tag: str, policy: str | None = None) -> str:
    """Fixes the node's frequency for a job and starts its meter: the default frequency to measure,
    or by ``policy`` the one that the tag's predictions select. Returns what to log.

    Raises JobError, eas.Error or OSError; the frequencies are then as they were.
    """
    os.makedirs(settings.state, mode=0o700, exist_ok=True)
    said = _clear_up(settings)
    khz, why = settings.default_frequency, f'measuring for tag "{tag}"'
    if policy:
        _initialize(settings)
        selected = eas.auto_select_frequency(user, tag, policy)
        khz = selected.frequency
        why = f'{policy} of tag "{tag}", run time expected to change by {selected.time_change:+.1%}'
    with node.Frequency() as frequency:
        record = {"job": job, "user": user, "tag": tag, "policy": policy}
        record["saved"] = frequency.save(khz)
        _store(_path(settings, job, ".json"), record)
        try:
            frequency.set(khz)
            _start_keeper(settings, job)
        except BaseException:
            _give_back(settings, record)
            raise
        frequency.keep()
    return "; ".join([*said, f"{why}: {khz} kHz"])


def _objection(figures: dict[str, Any]) -> str:
    """Why figures make no tag; empty: they do."""
    for name in ("cycles", "instructions", "memory", "energy"):
        if figures[name] is None:
            return f"no {name}: {figures['reasons'][name]}"
    return "" if figures["seconds"] >= 1 else "the job ran for less than a second"


def _make_tag(settings: Settings, record: dict[str, Any], figures: dict[str, Any]) -> str:
    refused = f'tag "{record["tag"]}" not generated: '
    if objection := _objection(figures):
        return refused + objection
    try:
        _initialize(settings)
        eas.generate_tag(
            record["user"],
            record["tag"],
            counters=(figures["cycles"], figures["instructions"], figures["memory"]),
            job_id=record["job"],
            seconds=round(figures["seconds"]),
            watts=figures["energy"] / figures["seconds"],
        )
        if not eas.query_tag(record["user"], record["tag"]):
            return refused + "the database did not keep it"  # a commit that fails is not reported
    except eas.Error as error:
        return refused + error.meaning
    return f'tag "{record["tag"]}" generated'


def end(settings: Settings, job: str, make_tag: bool = False) -> str:
    """Gives back what ``begin`` set; ``make_tag``: the job ended well on its first node, so a measured
    one becomes a tag. Returns what to log; empty: ``begin`` did not touch the node for this job.

    Raises JobError, eas.Error or OSError; called again it goes on where it was.
    """
    answer = _end_keeper(_path(settings, job, ".socket"))
    record = next((row for row in _records(settings) if row["job"] == job), None)
    if record is None:
        return ""
    said = [_give_back(settings, record)]
    if answer is None:
        return "; ".join([*said, "the meter's process is gone: no figures"])
    figures = json.loads(answer)
    if figures["energy"] is None:
        said.append(f"{figures['seconds']:.2f} s, no energy: {figures['reasons']['energy']}")
    else:
        watts = figures["energy"] / max(figures["seconds"], 1e-3)
        said.append(f"{figures['energy']:.1f} J in {figures['seconds']:.2f} s, mean {watts:.1f} W")
    if make_tag and not record["policy"]:
        said.append(_make_tag(settings, record, figures))
    return "; ".join(said)


def _main() -> int:
    functions: dict[str, Callable[..., str | None]] = {"begin": begin, "end": end, "keep": keep}
    what = functions[sys.argv[1]]
    arguments = json.load(sys.stdin)
    settings = Settings(**arguments.pop("settings"))
    try:
        said = what(settings, **arguments)
        print(said or "", flush=True)
        return 0
    except (JobError, eas.Error, OSError, ValueError) as error:
        print(error, flush=True)
        return 1


if __name__ == "__main__":
    sys.exit(_main())
