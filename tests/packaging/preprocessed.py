#!/usr/bin/env python3
"""Prints what the compiler sees of each source in a build but the tests, by the commands that CMake
has written down.

  preprocessed.py BUILD
"""

import json
import shlex
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def main(build: str):
    for entry in json.loads((Path(build) / "compile_commands.json").read_text()):
        source = Path(entry["file"])
        if ROOT not in source.parents or source.relative_to(ROOT).parts[0] in ("build", "tests"):
            continue
        print("==", source, flush=True)
        words = shlex.split(entry["command"])
        output = words.index("-o")
        words[output:output + 2] = ["-o", "-"]
        words[words.index("-c")] = "-E"
        subprocess.run([*words, "-P"], cwd=entry["directory"], check=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
