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


def main(build: str):
    for entry in json.loads((Path(build) / "compile_commands.json").read_text()):
        words = shlex.split(entry["command"])
        output = words.index("-o")
        made = words[output + 1]  # what CMake has put together is a source of the build
        if made.startswith("tests/"):
            continue
        print("==", made, flush=True)
        words[output:output + 2] = ["-o", "-"]
        words[words.index("-c")] = "-E"
        subprocess.run([*words, "-P"], cwd=entry["directory"], check=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
