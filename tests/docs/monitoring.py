#!/usr/bin/env python3
"""Tries what packaging/monitoring has for Prometheus, systemd and MQTT.

  monitoring.py promtool QUELLON   the alerts, by promtool, and the metrics that the program writes
  monitoring.py units QUELLON      the units, by systemd-analyze, and what the one for MQTT sends
"""

import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

FOLDER = Path(__file__).resolve().parents[2] / "packaging/monitoring"
SKIPPED = 77

# A message of MQTT that is only written down.
SENDER = """#!/bin/sh
printf '%s\\n' "$@" >"$SENT/arguments"
cat >"$SENT/message"
"""


def main(what: str, quellon: str) -> int:
    tool = {"promtool": "promtool", "units": "systemd-analyze"}[what]
    if shutil.which(tool) is None:
        print(f"there is no {tool} here")
        return SKIPPED
    found = {"promtool": alerts, "units": units}[what](quellon)
    print("\n".join(found) or "nothing to complain of")
    return 1 if found else 0


def alerts(quellon: str) -> list[str]:
    rules = FOLDER / "quellon.rules.yml"
    names = re.findall(r"- alert: (\w+)", rules.read_text())
    tested = (FOLDER / "quellon.rules.test.yml").read_text()
    found = [f"no test of {name}" for name in names if f"alertname: {name}\n" not in tested]
    found += complaint("promtool", "check", "rules", rules)
    found += complaint("promtool", "test", "rules", FOLDER / "quellon.rules.test.yml")
    metrics = subprocess.run([quellon, "health", "--prometheus"], capture_output=True, text=True)
    found += complaint("promtool", "check", "metrics", text=metrics.stdout)
    return found if names and "quellon_card_state" in metrics.stdout else [*found, "no metrics"]


def units(quellon: str) -> list[str]:
    with tempfile.TemporaryDirectory() as folder:
        copies = []
        for unit in sorted([*FOLDER.glob("*.service"), *FOLDER.glob("*.timer")]):
            copies.append(Path(folder) / unit.name)
            copies[-1].write_text(unit.read_text().replace("/usr/bin/quellon", quellon))
        found = complaint("systemd-analyze", "verify", "--man=no", *copies)
        found += [f"{unit.name} hides failures" for unit in copies
                  if "SuccessExitStatus" in unit.read_text()]
        found += written(Path(folder), quellon) + sent(Path(folder))
        return found if len(copies) >= 4 else ["there are too few units"]


def written(folder: Path, quellon: str) -> list[str]:
    """Runs what the service for Prometheus runs: it fails only where the file is not written."""
    text = (FOLDER / "quellon-health.service").read_text()
    words = re.search(r"^ExecStart=/usr/bin/quellon (.*)$", text, re.M).group(1).split()
    found = []
    for target, code in ((folder / "quellon.prom", 0), (folder / "none/quellon.prom", 1)):
        ended = subprocess.run([quellon, *words[:-1], target], capture_output=True).returncode
        if (ended, target.exists()) != (code, code == 0):
            found.append(f"quellon {' '.join(words)} ends with {ended}")
    return found


def sent(folder: Path) -> list[str]:
    """Runs what the service for MQTT runs, with a sender that writes its message down."""
    text = (folder / "quellon-mqtt.service").read_text()
    command = re.search(r"^ExecStart=/bin/sh -c '(.*)'$", text, re.M).group(1)
    environment = dict(word.split("=") for word in
                       re.search(r"^Environment=(.*)$", text, re.M).group(1).split())
    sender = folder / "mosquitto_pub"
    sender.write_text(SENDER)
    sender.chmod(0o755)
    subprocess.run(["/bin/sh", "-c", command], check=True, env={
        **environment, "PATH": f"{folder}:{os.environ['PATH']}", "SENT": str(folder)})
    arguments = (folder / "arguments").read_text().split("\n")
    message = (folder / "message").read_text()
    found = [f"the message has {len(message.splitlines())} lines"] if message.count("\n") != 1 else []
    if {"card", "problems"} - set(json.loads(message)):
        found.append(f"the message is {message}")
    for option, value in (("-h", environment["BROKER"]), ("-t", environment["TOPIC"])):
        if option not in arguments or arguments[arguments.index(option) + 1] != value:
            found.append(f"no {option} {value}")
    return found


def complaint(*command, text: str = "") -> list[str]:
    result = subprocess.run(command, input=text, capture_output=True, text=True)
    if result.returncode == 0 and not result.stderr.strip():
        return []
    return [f"{command[0]} {command[1]}: {result.stdout}{result.stderr}".strip()]


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
