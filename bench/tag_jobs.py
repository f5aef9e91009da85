"""What jobs do while tags are removed: select by a tag that stays; every tenth makes one, too.

usage: tag_jobs.py FILE

FILE is made when the first has come, and the rest goes on until it is gone. One line of figures is
printed for each kind of call.
"""

import pathlib
import statistics
import sys
import time

import eas

PAUSE_S = 0.01


def timed(times, failures, function, *names, **options):
    begin = time.monotonic()
    try:
        function(*names, **options)
    except eas.Error as error:
        failures.append(error)
    times.append(1e3 * (time.monotonic() - begin))


def told(what, times, failures):
    print(
        f"  {what}: {len(times)}, {len(failures)} failed,"
        f" median {statistics.median(times):.1f} ms, longest {max(times):.1f} ms"
    )
    for error in failures[:3]:
        print(f"    {error}")


def main(go_on):
    eas.initialize("sample", 2300000, "examples/cluster/thresholds.conf")
    selections, makings = ([], []), ([], [])
    count = 0
    go_on.touch()
    while go_on.exists():
        timed(*selections, eas.auto_select_frequency, "bert", f"kept{count % 25:02}", "minimize_energy")
        if count % 10 == 0:
            figures = {"counters": (8.8e13, 8.4e13, 9.7e13), "seconds": 2400, "watts": 268.4}
            timed(*makings, eas.generate_tag, "bert", f"new{count}", job_id="1.0", **figures)
        count += 1
        time.sleep(PAUSE_S)
    told("selections meanwhile", *selections)
    told("tags made meanwhile", *makings)
    return 1 if selections[1] or makings[1] else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
