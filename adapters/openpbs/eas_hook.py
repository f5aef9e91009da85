"""Energy-aware jobs under OpenPBS: a hook for the events execjob_begin, execjob_epilogue, execjob_end.

A job that asks for the resource eas_tag (and eas_policy) has its nodes fixed at a frequency and is
measured; docs/openpbs.md says how the hook is set up. It does no more than ask eas.job, in a process
with a time limit and of the system's own Python, and it never rejects a job: what goes wrong is a line
in the job's log, and the job runs as it would without it.

It runs in the interpreter that OpenPBS brings, so it is plain Python 3.6 and needs no package.
"""
import json
import subprocess

import pbs

DEFAULTS = {"python": "/usr/bin/python3", "limit": 10}


def configuration():
    """The hook's configuration, a JSON object (qmgr: import hook eas application/x-config ...)."""
    settings = dict(DEFAULTS)
    with open(pbs.hook_config_filename) as file:
        settings.update(json.load(file))
    return settings


def ask(what, job, **arguments):
    """Has eas.job begin or end a job, and logs what it says."""
    settings = configuration()
    python, limit = settings.pop("python"), settings.pop("limit")
    environment = {"PATH": "/usr/bin:/bin", "ABORT_ON_DB_FAILED": "NO"}
    environment.update(settings.pop("environment", {}))
    request = json.dumps(dict(arguments, job=job, settings=settings))
    with subprocess.Popen(
        [python, "-m", "eas.job", what],
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        env=environment,
        cwd="/",
    ) as program:
        try:
            output = program.communicate(request.encode(), timeout=limit)[0]
            said = output.decode("utf-8", "replace")
        except subprocess.TimeoutExpired:
            program.kill()
            said = "no answer within {} s".format(limit)
    if said.strip():
        trouble = "" if program.returncode == 0 else "error: "
        pbs.logjobmsg(job, "eas: " + trouble + said.strip().splitlines()[-1])


def wanted(job, name):
    """A resource that the job asked for, or None."""
    value = job.Resource_List[name]
    return str(value) if value is not None and str(value) else None


def begin(job):
    tag = wanted(job, "eas_tag")
    if tag is None:
        return
    if "excl" not in (wanted(job, "place") or ""):
        pbs.logjobmsg(job.id, "eas: error: the job shares its nodes; ask for -l place=scatter:excl")
        return
    policy = wanted(job, "eas_policy")
    ask("begin", job.id, user=str(job.euser), tag=tag, policy=None if policy == "none" else policy)


def end(job, ended_well):
    if wanted(job, "eas_tag") is not None:
        ask("end", job.id, make_tag=ended_well and job.in_ms_mom())


def main():
    event = pbs.event()
    try:
        if event.type == pbs.EXECJOB_BEGIN:
            begin(event.job)
        elif event.type == pbs.EXECJOB_EPILOGUE:
            end(event.job, event.job.Exit_status == 0)
        elif event.type == pbs.EXECJOB_END:  # after an epilogue that did not run, or did not come far
            end(event.job, False)
    except Exception as error:  # no job fails because of its energy
        pbs.logjobmsg(event.job.id, "eas: error: {}: {}".format(type(error).__name__, error))
    event.accept()


main()
