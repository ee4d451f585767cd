#!/usr/bin/env python3
"""Compares the pages of the manual with the programs' own help and with the interface.

  manual.py QUELLON

groff has nothing to say of the pages' form. Of the technician's command each sub-command stands in
the synopsis with the arguments that its usage line shows, has an entry, and so has each of its
options and each exit status. The recorder's page has each of its options, the library's each class
that the first page of the reference begins with.
"""

import re
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "packaging/debian").glob("*.[1-9]*"))
SKIPPED = 77


def main(quellon: str) -> int:
    if shutil.which("groff") is None:
        print("there is no groff here")
        return SKIPPED
    found = [f"{page.name}: {line}" for page in PAGES for line in form(page.read_text())]
    # What must not pass is tried each time, so that silence means something.
    found += [f"not complained of: {text}" for text in (".TH A 8\n.SH NAME\n.NOSUCH x\n",)
              if not form(text)]
    found += contents(quellon, rendered((ROOT / "packaging/debian/quellon.8").read_text()))
    found += recorder() + interface()
    print("\n".join(found) or f"{len(PAGES)} pages, nothing to complain of")
    return 1 if found else 0


def form(page: str) -> list[str]:
    result = groff(page, "-ww", "-z")
    return (result.stderr + result.stdout).splitlines()


def rendered(page: str) -> str:
    """The page as plain text, its paragraphs in a line each."""
    text = groff(page, "-P-cbou", "-rLL=10000m", "-rHY=0").stdout
    return text.replace("\N{HYPHEN}", "-").replace("\N{MINUS SIGN}", "-")


def groff(page: str, *options: str) -> subprocess.CompletedProcess:
    return subprocess.run(["groff", "-man", "-Tutf8", *options], input=page, text=True,
                          capture_output=True)


def contents(quellon: str, text: str) -> list[str]:
    sections = dict(zip(re.findall(r"^(?=\S)(.+)$", text, re.M),
                        re.split(r"^(?=\S).+$", text, flags=re.M)[1:]))
    synopsis = {" ".join(line.split()) for line in sections["SYNOPSIS"].splitlines()}
    found = []
    names = re.findall(r"^  ([a-z]+) ", output(quellon, "--help"), re.M)
    for name in names:
        usage = output(quellon, name, "--help").splitlines()[0].removeprefix("usage: ")
        if usage not in synopsis:
            found.append(f"quellon.8: not in the synopsis: {usage}")
        if not re.search(rf"^ +{name}\b", sections["COMMANDS"], re.M):
            found.append(f"quellon.8: no entry for {name}")
        found += [f"quellon.8: no word of {option} of {name}"
                  for option in re.findall(r"(?<![\w-])--?[a-z]+", usage)
                  if option not in sections["COMMANDS"]]
    codes = re.findall(r"(\d) [a-z]", output(quellon, "--help").splitlines()[-1])
    found += [f"quellon.8: no exit status {code}" for code in codes
              if not re.search(rf"^ +{code} ", sections["EXIT STATUS"], re.M)]
    return found if len(names) >= 7 and len(codes) == 5 else [*found, "the help shows too little"]


def recorder() -> list[str]:
    program = (ROOT / "examples/recorder/main.cpp").read_text()
    options = re.findall(r"--[a-z-]+", re.search(r"kUsage =\s*(.*?);", program, re.S)[1])
    page = rendered((ROOT / "packaging/debian/quellon-recorder.8.in").read_text())
    found = [f"quellon-recorder.8: {option} is not in the synopsis and among the options"
             for option in options if page.count(f"{option} ") < 2]
    return found if options else ["the recorder's usage shows no options"]


def interface() -> list[str]:
    names = re.findall(r"(?:Quellon|Tarvik)::\w+(?:::\w+)*", (ROOT / "docs/api.md").read_text())
    page = rendered((ROOT / "packaging/debian/libquellon.3.in").read_text())
    found = [f"libquellon.3: no word of {name}" for name in names
             if name.replace("System::InitDisk", "System") not in page]
    return found if len(names) > 15 else [*found, "docs/api.md names too little"]


def output(*command: str) -> str:
    return subprocess.run(command, text=True, capture_output=True, check=True).stdout


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
