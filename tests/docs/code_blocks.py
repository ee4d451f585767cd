#!/usr/bin/env python3
"""Tries what the project's pages show: code is compiled and linked, commands and links exist.

  code_blocks.py BUILD_FOLDER COMPILER [LINK_FLAG]

Every fenced block names its language:
  cpp    part of a source of this project, word for word, or a program that builds with it
  cmake  what builds an application's main.cpp with the installed libraries
  sh     commands, checked as below
  json   one JSON text
  text   output, shown for reading
In shell blocks and in code spans, scripts, their options, board scenarios and CMake presets exist.
Links within the project lead to files and headings. The README's main job is the quickstart.
What must not pass is tried each time, so that silence means something.
"""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from functools import cache
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
INDENTED = re.compile(r"(?:\A|\n)\n {4}[^\n]*")
SPAN = re.compile(r"`([^`\n]+)`")
LINK = re.compile(r"\]\(([^)\s]+)\)")
PRESET = re.compile(r"(cmake --build|cmake --workflow|cmake|ctest) --preset[ =](\S+)")
KINDS = {"cmake": "configure", "cmake --build": "build", "ctest": "test",
         "cmake --workflow": "workflow"}
OPTION = re.compile(r"--[a-z][a-z-]*")
HEADING = re.compile(r"^#+ (.*)$", re.MULTILINE)


# Pages that are complained of, each with a word of the complaint.
WRONG = {
    "`scripts/nothing`": "no such script", "`scripts/test --slow`": "no option --slow",
    "`scripts/test --quic`": "no option --quic",
    "`scripts/board s99_n`": "no such scenario", "`cmake --preset none`": "no such preset",
    "`ctest --preset base`": "no such preset", "[a](none.md)": "leads nowhere",
    "[a](#none)": "no heading", "Text\n\n    ls\n": "without a language",
    "```\nls\n```\n": "unknown language", "```json\n{zr:0}\n```\n": "no JSON",
    "```sh\nif true; do\n```\n": "syntax error",
    "```cpp\nint Gone();\nint main() { return Gone(); }\n```\n": "Gone",
    "```cmake\nproject(A LANGUAGES NONE)\nfind_package(Nothing REQUIRED)\n```\n": "Nothing",
}


def main(build: Path, compiler: str) -> int:
    found = [f"not complained of: {text}" for text, complaint in WRONG.items()
             if complaint not in "".join(complaints(ROOT / "README.md", text, build, compiler))]
    if (ROOT / "examples/quickstart/main.cpp").read_text() not in (ROOT / "README.md").read_text():
        found.append("README.md: the main job is not examples/quickstart/main.cpp")
    for page in pages():
        found += [f"{page.relative_to(ROOT)}: {complaint}"
                  for complaint in complaints(page, page.read_text(), build, compiler)]
    print("\n".join(found) or f"{len(pages())} pages, nothing to complain of")
    return 1 if found else 0


def pages() -> list[Path]:
    folders = [path for path in ROOT.iterdir() if path.name not in (".git", ".cache", "build")]
    return sorted(page for folder in folders
                  for page in (folder.rglob("*.md") if folder.is_dir() else [folder])
                  if page.suffix == ".md")


def complaints(page: Path, text: str, build: Path, compiler: str) -> list[str]:
    prose = BLOCK.sub("", text)
    found = []
    for language, block in BLOCK.findall(text):
        found += check_block(language, block, build, compiler)
    if indented := INDENTED.search(prose):
        found.append(f"a block without a language: {indented.group().strip()}")
    for span in SPAN.findall(prose):
        found += check_command(span)
    for target in LINK.findall(prose):
        found += check_link(page, target)
    return found


def check_block(language: str, block: str, build: Path, compiler: str) -> list[str]:
    if language == "cpp":
        return check_program(block, build, compiler)
    if language == "cmake":
        return check_application(block, build, compiler)
    if language == "sh":
        syntax = complaint_of(["bash", "-n"], block)
        return syntax + [fault for line in block.splitlines() for fault in check_command(line)]
    if language == "json":
        return check_json(block)
    return [] if language == "text" else [f"a block in an unknown language: {language or 'none'}"]


def check_program(block: str, build: Path, compiler: str) -> list[str]:
    """Takes code as it is if it stands in what the project builds; else compiles and links it."""
    sources = [*(ROOT / "examples").rglob("*.cpp"), *(ROOT / "tests").rglob("*.cpp")]
    if any(block in source.read_text() for source in sources):
        return []
    with tempfile.TemporaryDirectory() as folder:
        source = Path(folder) / "block.cpp"
        source.write_text(block)
        return complaint_of([compiler, "-std=c++20", "-Wall", "-Wextra", "-Werror", "-I", str(ROOT),
                             str(source), "-o", f"{folder}/program", "-L", str(build),
                             f"-Wl,-rpath,{build}", "-lQuellon", "-lTarvik",
                             *os.environ["LDFLAGS"].split()])


def check_application(block: str, build: Path, compiler: str) -> list[str]:
    """Installs the libraries and builds the quickstart elsewhere, by the block alone."""
    with tempfile.TemporaryDirectory() as folder:
        shutil.copy(ROOT / "examples/quickstart/main.cpp", folder)
        (Path(folder) / "CMakeLists.txt").write_text(block)
        prefix, binaries = f"{folder}/prefix", f"{folder}/build"
        for component in ("runtime", "development"):
            subprocess.run(["cmake", "--install", build, "--prefix", prefix, "--component",
                            component], capture_output=True, check=True)
        return (complaint_of(["cmake", "-S", folder, "-B", binaries, "-G", "Ninja",
                              f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_CXX_COMPILER={compiler}"])
                or complaint_of(["cmake", "--build", binaries]))


def check_json(block: str) -> list[str]:
    try:
        json.loads(block)
        return []
    except ValueError as error:
        return [f"no JSON: {error}: {block}"]


def check_command(line: str) -> list[str]:
    command = line.split("#")[0]
    found = []
    if script := re.search(r"\bscripts/(\w[\w.-]*)(.*)", command):
        name, rest = script.groups()
        if not (ROOT / "scripts" / name).is_file():
            return [f"no such script: scripts/{name}"]
        found += [f"scripts/{name} has no option {option}"
                  for option in OPTION.findall(rest) if option not in options_of(name)]
        found += [f"no such scenario: {scenario}" for scenario in re.findall(r"\bs\d\d_\w+", rest)
                  if not (ROOT / f"board/scenarios/{scenario}.py").is_file()]
    found += [f"no such preset: {preset}" for program, preset in PRESET.findall(command)
              if preset not in presets(KINDS[program])]
    return found


def check_link(page: Path, target: str) -> list[str]:
    if "://" in target:
        return []
    path, _, heading = target.partition("#")
    linked = page.parent / path if path else page
    if not linked.exists():
        return [f"a link leads nowhere: {target}"]
    if heading and heading not in headings(linked):
        return [f"a link leads to no heading: {target}"]
    return []


def headings(page: Path) -> list[str]:
    """The names under which a page's headings can be linked to."""
    texts = HEADING.findall(BLOCK.sub("", page.read_text()))
    return [re.sub(r"[^\w -]", "", text).strip().lower().replace(" ", "-") for text in texts]


@cache
def options_of(script: str) -> list[str]:
    text = subprocess.run([ROOT / "scripts" / script, "--help"], capture_output=True, text=True,
                          check=True).stdout
    return ["--help", *OPTION.findall(text)]


@cache
def presets(kind: str) -> set[str]:
    file = json.loads((ROOT / "CMakePresets.json").read_text())
    return {preset["name"] for preset in file[f"{kind}Presets"] if not preset.get("hidden")}


def complaint_of(command: list[str], text: str = "") -> list[str]:
    result = subprocess.run(command, input=text, capture_output=True, text=True)
    return [] if result.returncode == 0 else [(result.stderr or result.stdout).strip()]


if __name__ == "__main__":
    os.environ["LDFLAGS"] = " ".join(sys.argv[3:])  # for what cmake configures, too
    sys.exit(main(Path(sys.argv[1]), sys.argv[2]))
