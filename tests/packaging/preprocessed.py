#!/usr/bin/env python3
"""Prints what the compiler sees of each source of a build, as CMake has written down its commands.

  preprocessed.py BUILD
"""

import json
import shlex
import subprocess
import sys
from pathlib import Path


def main(build: str):
    for entry in json.loads((Path(build) / "compile_commands.json").read_text()):
        print("==", entry["file"], flush=True)
        words = shlex.split(entry["command"])
        output = words.index("-o")
        words[output:output + 2] = ["-o", "-"]
        words[words.index("-c")] = "-E"
        subprocess.run([*words, "-P"], cwd=entry["directory"], check=True)


if __name__ == "__main__":
    main(*sys.argv[1:])
