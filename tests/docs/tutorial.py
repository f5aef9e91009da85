#!/usr/bin/env python3
"""Runs a page's ```console blocks command by command, and compares what they print.

usage: tutorial.py PAGE SOURCE_FOLDER BUILD_FOLDER

"$ " begins a command and "> " goes on with it; the lines below are what it prints, "..." any lines, a
date any date, "~150" a measured figure that may be four tenths off; a page with such figures has three
attempts.
All commands run in one shell, in SOURCE_FOLDER, with a home of their own; where the page names its own
build folder, build/tutorial, they use BUILD_FOLDER. A command must succeed. With EAS_WRITE in the
environment what is printed now goes into the page where it is not what stands there; whoever does that
works out the figures by another way, and marks the measured ones.
"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile


BLOCK = re.compile(r"^```console\n(.*?)^```$", flags=re.S | re.M)


def commands_of(page):
    """Pairs of a command and what it shall print, of all blocks in order."""
    found = []
    for block in BLOCK.findall(page):
        for line in block.splitlines():
            if line.startswith("$ "):
                found.append([line[2:], []])
            elif line.startswith("> "):
                found[-1][0] += "\n" + line[2:]
            else:
                found[-1][1].append(line)
    return found


def page_with(commands, page):
    """The page with these commands, and what they print, in its blocks."""
    left = iter(commands)

    def block_of(old):
        its = [next(left) for _ in re.findall(r"^\$ ", old[1], flags=re.M)]
        lines = [["$ " + command.replace("\n", "\n> "), *shown] for command, shown in its]
        return "\n".join(["```console", *sum(lines, []), "```"])

    return BLOCK.sub(block_of, page)


def script_of(commands, folder):
    """A shell script that leaves what command N prints in FOLDER/N, and stops at a failure."""
    steps = []
    for number, (command, _) in enumerate(commands):
        steps.append(f"{{ {command}\n}} >{folder}/{number} 2>&1 || exit 1")
    return "\n".join(steps)


FIGURE = r"-?\d+(?:\.\d+)?(?:e[-+]?\d+)?"


def pattern_of(line):
    if line == "...":
        return r"(?:.*\n)*"
    text = f" *({FIGURE})".join(map(re.escape, re.split(f" *~{FIGURE}", line.rstrip())))
    return re.sub(r"\d{4}\\-\d\d\\-\d\d", r"\\d{4}-\\d\\d-\\d\\d", text) + r"[ ]*\n"


def is_printed(lines, text):
    """Whether a text is what these lines say."""
    found = re.fullmatch("".join(map(pattern_of, lines)), text)
    expected = re.findall(f"~({FIGURE})", "\n".join(lines))
    return found and all(abs(float(one) / float(other) - 1) <= 0.4
                         for one, other in zip(found.groups(), expected))


def run(commands, source):
    """Runs them; the objection to what they print, empty if there is none."""
    with tempfile.TemporaryDirectory() as scratch:
        outputs = pathlib.Path(scratch, "outputs")
        outputs.mkdir()
        environment = {"HOME": scratch, "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8"}
        environment["PYTHONDONTWRITEBYTECODE"] = "1"
        environment.update({k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")})
        shell = ["bash", "-c", script_of(commands, outputs)]
        ran = subprocess.run(shell, cwd=source, env=environment, stdin=subprocess.DEVNULL, check=False)
        for number, (command, expected) in enumerate(commands):
            output = outputs / str(number)
            printed = output.read_text(encoding="utf-8") if output.exists() else "(not run)\n"
            print(f"$ {command}\n{printed}", end="")
            if output.exists() and is_printed(expected, printed):
                continue
            if "EAS_WRITE" in os.environ and output.exists():
                expected[:] = map(str.rstrip, printed.splitlines())
            else:
                return "it should print\n" + "\n".join(expected)
        return "the last of these commands failed" if ran.returncode != 0 else ""


def main():
    page, source, build = sys.argv[1:]
    text = pathlib.Path(page).read_text(encoding="utf-8").replace("$source/build/tutorial", build)
    commands = commands_of(text)
    if len(commands) < 10:
        sys.exit(f"{page}: only {len(commands)} commands")
    # What is measured may be spoilt by a busy machine: then all of it is run again.
    for _ in range(3 if re.search(f"~{FIGURE}", text) else 1):
        objection = run(commands, source)
        if "EAS_WRITE" in os.environ:
            text = page_with(commands, text).replace(build, "$source/build/tutorial")
            pathlib.Path(page).write_text(text, encoding="utf-8")
        if not objection:
            print(f"{len(commands)} commands print what the page says")
            return
    sys.exit(f"{page}: {objection}")


if __name__ == "__main__":
    main()
