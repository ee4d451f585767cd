#!/usr/bin/env python3
"""Tests of the comfort of the commands that a person types."""

import struct
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SCRIPTS = sorted(path for path in (ROOT / "scripts").iterdir()
                 if path.suffix not in (".sh", ".txt") and path.is_file())


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

    def test_a_step_is_bold_on_a_terminal_alone(self):
        self.assertEqual(self.output("step Here"), "== Here\n")
        self.assertIn("\x1b[1m== Here", self.output("step Here", "script", "-qec"))

    def test_each_test_of_a_program_counts_and_what_could_not_be_started_failed(self):
        output = self.results_of_tests(
            program=("echo '[  PASSED  ] 3 tests.'", ""),
            partly=("echo '[  PASSED  ] 4 tests.'; echo '[  FAILED  ] 2 tests:'; exit 1", ""),
            skips=("echo 'a.cpp:7: Skipped'; echo no root; echo '[  PASSED  ] 0 tests.'", ""),
            slow=("sleep 60", "TIMEOUT 1"), good=("echo good", ""), missing=None,
            elsewhere=("echo no board here; exit 77", "SKIP_RETURN_CODE 77"),
            off=("echo good", "DISABLED ON"),
            ended=("echo '[==========] Running 2 tests from 1 test suite.'", ""),
            nothing=("echo '[==========] Running 0 tests from 0 test suites.';"
                     "echo '[==========] 0 tests from 0 test suites ran. (0 ms total)'", ""),
            leak=("echo a; echo 'ERROR: LeakSanitizer: 1 byte'; exit 77", "SKIP_RETURN_CODE 77"),
            whole=("echo '[==========] Running 2 tests from 1 test suite.';"
                   "echo '[==========] 2 tests from 1 test suite ran. (0 ms total)';"
                   "echo '[  PASSED  ] 2 tests.'", ""))
        self.assertEqual(output, """== Skipped
       1 no root
       1 no board here
       1 disabled
== Failed
   r: partly
   r: slow
   r: missing
   r: ended
   r: nothing
   r: leak
== Minutes
     1:05 build
     0:02 test
     1:07 in all
10 passed, 7 failed
""")

    def test_a_report_without_tests_is_a_failure(self):
        self.assertIn("r: no tests\n", self.results_of_tests())

    def test_bytes_of_a_test_that_are_no_text_hide_nothing(self):
        with tempfile.TemporaryDirectory() as folder:
            program = Path(folder) / "ctest"
            program.write_text("printf '\\000\\n***Failed\\n'; echo > build/results/a.xml")
            program.chmod(0o755)
            self.assertIn("***Failed", self.output(f"cd {folder}; PATH=.:$PATH; run_tests a"))

    def test_the_board_takes_no_file_that_it_has_no_use_for(self):
        with tempfile.TemporaryDirectory() as folder:
            for name, complaint in {
                    "missing": "there is no", ".": "is no file", "text:etc": "slash",
                    "text:/root/x": "hides it", "text:/mnt/sdcard": "hides it",
                    **{"64-bit x86": "is for 64-bit x86", "64-bit ARM": "is for 64-bit ARM",
                       "strange": "(number 999)", "big-endian ARM": "is for big-endian ARM",
                       "soft": "is for ARM with soft float"}}.items():
                self.make_programs(Path(folder))
                result = self.run_script(ROOT / "scripts/board", "--add", f"{folder}/{name}")
                self.assertEqual(result.returncode, 1, name)
                self.assertIn(complaint, result.stderr, name)
                if "is for" in complaint:
                    self.assertIn("cmake --preset armhf", result.stderr)

    def test_the_board_takes_programs_of_its_own_and_what_is_none(self):
        with tempfile.TemporaryDirectory() as folder:
            self.make_programs(Path(folder))
            for name in ("hard", "text", "text:/opt", "cut short"):
                result = self.run_script(ROOT / "scripts/board", "--list", "--add",
                                         f"{folder}/{name}")
                self.assertEqual((result.returncode, result.stderr), (0, ""), name)

    def make_programs(self, folder: Path):
        """Makes heads of programs, which is what is looked at, and files that are none."""
        for name, bits, order, machine, flags in (
                ("64-bit x86", 2, 1, 62, 0), ("64-bit ARM", 2, 1, 183, 0),
                ("strange", 1, 1, 999, 0), ("big-endian ARM", 1, 2, 40, 0x5000400),
                ("soft", 1, 1, 40, 0x5000200), ("hard", 1, 1, 40, 0x5000400)):
            byte_order = "<" if order == 1 else ">"
            (folder / name).write_bytes(b"\x7fELF" + bytes([bits, order]) + bytes(10) + struct.pack(
                f"{byte_order}HHIIIIIHHHHHH", 2, machine, 1, 0, 0, 0, flags, 52, 0, 0, 0, 0, 0))
        (folder / "text").write_text("text" * 20)
        (folder / "cut short").write_bytes(b"\x7fELF")

    def results_of_tests(self, **tests) -> str:
        """What is said of tests, each a command of the shell and its properties."""
        lines = []
        for name, test in tests.items():
            command, properties = test or ("", "")
            lines.append(f"add_test({name} /bin/sh -c [[{command}]])" if test else
                         f"add_test({name} /nowhere/{name})")
            lines.append(f"set_tests_properties({name} PROPERTIES LABELS x {properties})")
        with tempfile.TemporaryDirectory() as folder:
            (Path(folder) / "CTestTestfile.cmake").write_text("\n".join(lines))
            subprocess.run(["ctest", "--test-dir", folder, "-j8", "--output-junit",
                            f"{folder}/r.xml"], capture_output=True)
            result = subprocess.run([ROOT / "tests/results.py", "--minutes", "build", "65", "test",
                                     "2", "--reports", f"{folder}/r.xml"], capture_output=True,
                                    text=True)
        self.assertEqual(result.returncode, 1)
        return result.stdout

    def output(self, command: str, *terminal: str) -> str:
        command = f"bash -c '. {ROOT}/scripts/common.sh; {command}'"
        arguments = [*terminal, command, "/dev/null"] if terminal else ["sh", "-c", command]
        return subprocess.run(arguments, capture_output=True, text=True, timeout=60,
                              stdin=subprocess.DEVNULL, check=True).stdout

    def run_script(self, script: Path, *arguments: str):
        return subprocess.run([script, *arguments], capture_output=True, text=True, timeout=60,
                              stdin=subprocess.DEVNULL)


if __name__ == "__main__":
    unittest.main()
