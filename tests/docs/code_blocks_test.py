#!/usr/bin/env python3
"""Tests of what is asked of the project's pages.

  code_blocks_test.py BUILD_FOLDER COMPILER
"""

import sys
import tempfile
import unittest
from pathlib import Path

from code_blocks import complaints

BUILD, COMPILER = Path(sys.argv.pop(1)), sys.argv.pop(1)

PROGRAM = """```cpp
#include "base/Json.h"

int main() {{
  return Tarvik::Json::Serialize(Tarvik::Json::Value({})).size() == 1 ? 0 : 1;
}}
```
"""


APPLICATION = """```cmake
cmake_minimum_required(VERSION 3.25)
project(Service LANGUAGES CXX)
find_package(Quellon REQUIRED)
add_executable(service main.cpp)
target_link_libraries(service PRIVATE Quellon::{})
```
"""


class Pages(unittest.TestCase):
    def test_a_program_is_compiled_and_linked(self):
        self.assertEqual(self.complaints(PROGRAM.format("7")), [])
        self.assertEqual(len(self.complaints(PROGRAM.format("seven"))), 1)
        missing = "```cpp\nint Gone();\nint main() { return Gone(); }\n```\n"
        self.assertEqual(len(self.complaints(missing)), 1)

    def test_an_application_is_built_with_what_is_installed(self):
        self.assertEqual(self.complaints(APPLICATION.format("Quellon")), [])
        self.assertEqual(len(self.complaints(APPLICATION.format("Nothing"))), 1)  # no such target
        self.assertEqual(len(self.complaints(APPLICATION.format("Tarvik"))), 1)  # not linked

    def test_a_part_of_a_source_is_taken_as_it_is(self):
        self.assertEqual(self.complaints("```cpp\nvoid Recorder::KickWatchdog() {\n```\n"), [])

    def test_shell_is_parsed(self):
        self.assertEqual(self.complaints("```sh\nls && true\n```\n"), [])
        self.assertEqual(len(self.complaints("```sh\nif true; do\n```\n")), 1)

    def test_scripts_options_scenarios_and_presets_exist(self):
        good = "`scripts/test --quick` `scripts/board s01_good_card` `cmake --preset host`"
        self.assertEqual(self.complaints(good), [])
        self.assertEqual(self.complaints("`scripts/nothing`"), ["no such script: scripts/nothing"])
        self.assertEqual(self.complaints("```sh\nscripts/test --slow\n```\n"),
                         ["scripts/test has no option --slow"])
        self.assertEqual(self.complaints("`scripts/board s99_n`"), ["no such scenario: s99_n"])
        self.assertEqual(self.complaints("`cmake --preset none`"), ["no such preset: none"])

    def test_json_is_json(self):
        self.assertEqual(self.complaints('```json\n{"zr":0}\n```\n'), [])
        self.assertEqual(len(self.complaints("```json\n{zr:0}\n```\n")), 1)

    def test_links_lead_somewhere(self):
        page = "# One, two\n[a](page.md) [b](#one-two) [c](https://example.org/)\n"
        self.assertEqual(self.complaints(page), [])
        self.assertEqual(self.complaints("[a](none.md)"), ["a link leads nowhere: none.md"])
        self.assertEqual(self.complaints("[a](#none)"), ["a link leads to no heading: #none"])

    def test_a_block_names_its_language(self):
        self.assertEqual(len(self.complaints("```\nls\n```\n")), 1)
        self.assertEqual(len(self.complaints("Text\n\n    ls\n")), 1)

    def complaints(self, text: str) -> list[str]:
        with tempfile.TemporaryDirectory() as folder:
            page = Path(folder) / "page.md"
            page.write_text(text)
            return complaints(page, BUILD, COMPILER)


if __name__ == "__main__":
    unittest.main()
