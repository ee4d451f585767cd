#!/usr/bin/env python3
"""Tests of the comfort of the commands that a person types."""

import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SCRIPTS = sorted(path for path in (ROOT / "scripts").iterdir()
                 if path.suffix not in (".sh", ".md") and path.is_file())


class Scripts(unittest.TestCase):
    def test_there_are_scripts(self):
        self.assertIn(ROOT / "scripts/test", SCRIPTS)

    def test_each_has_help_that_says_how_to_use_it(self):
        for script in SCRIPTS:
            for option in ("--help", "-h"):
                result = self.run_script(script, option)
                self.assertEqual(result.returncode, 0, script)
                self.assertIn("usage:", result.stdout.lower(), script)

    def test_each_stands_in_the_readme(self):
        readme = (ROOT / "README.md").read_text()
        missing = [script.name for script in SCRIPTS
                   if f"| `scripts/{script.name}` |" not in readme]
        self.assertEqual(missing, [])

    def test_none_takes_an_option_it_does_not_know(self):
        for script in SCRIPTS:
            result = self.run_script(script, "--nonsense")
            self.assertNotEqual(result.returncode, 0, script)
            self.assertIn("--nonsense", result.stderr, script)

    def test_none_colours_what_is_no_terminal(self):
        for script in SCRIPTS:
            self.assertNotIn("\x1b", self.run_script(script, "--help").stdout, script)
        self.assertNotIn("\x1b", self.output("step Here"))

    def test_a_step_is_bold_on_a_terminal(self):
        self.assertIn("\x1b[1m== Here", self.output("step Here", "script", "-qec"))

    def test_a_long_step_shows_its_time_on_a_terminal_alone(self):
        command = "timed sleep 1.5 >/dev/null; echo $?"
        self.assertEqual(self.output(command), "0\n")
        self.assertIn("0:01", self.output(command, "script", "-qec"))

    def test_the_output_of_each_failing_test_is_shown_and_of_no_other(self):
        output = self.output_of_tests(bad=("echo of the bad one; exit 1", ""),
                                      slow=("echo of the slow one; sleep 60", "TIMEOUT 1"),
                                      good=("echo of the good one", ""))
        self.assertIn("-- bad\nof the bad one\n", output)
        self.assertIn("-- slow\nof the slow one\n", output)
        self.assertNotIn("good", output)
        self.assertIn("1 passed, 2 failed, 0 skipped", output)

    def test_a_test_that_cannot_be_started_failed_and_was_not_skipped(self):
        output = self.output_of_tests(missing=None,
                                      elsewhere=("echo no board here; exit 77",
                                                 "SKIP_RETURN_CODE 77"))
        self.assertIn("-- missing\nUnable to find executable", output)
        self.assertIn("skipped:       1 no board here\n", output)
        self.assertIn("0 passed, 1 failed, 1 skipped", output)

    def output_of_tests(self, **tests) -> str:
        """What run_tests says of tests, each a command of the shell and its properties."""
        lines = []
        for name, test in tests.items():
            command, properties = test or ("", "")
            lines.append(f"add_test({name} /bin/sh -c [[{command}]])" if test else
                         f"add_test({name} /nowhere/{name})")
            lines.append(f"set_tests_properties({name} PROPERTIES LABELS x {properties})")
        (ROOT / "build").mkdir(exist_ok=True)
        with tempfile.TemporaryDirectory(dir=ROOT / "build") as folder:
            (Path(folder) / "CTestTestfile.cmake").write_text("\n".join(lines))
            return self.output(f"run_tests {Path(folder).name} -L x")

    def output(self, command: str, *terminal: str) -> str:
        command = f"bash -c '. {ROOT}/scripts/common.sh; {command}'"
        arguments = [*terminal, command, "/dev/null"] if terminal else ["sh", "-c", command]
        return subprocess.run(arguments, capture_output=True, text=True, timeout=60,
                              stdin=subprocess.DEVNULL, check=True).stdout

    def run_script(self, script: Path, argument: str):
        return subprocess.run([script, argument], capture_output=True, text=True, timeout=60,
                              stdin=subprocess.DEVNULL)


if __name__ == "__main__":
    unittest.main()
