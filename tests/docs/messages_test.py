#!/usr/bin/env python3
"""Tests of the comparison of messages with their documentation."""

import unittest
from pathlib import Path

from messages import messages_of
from messages_documented import complaints, documented, printed

ROOT = Path(__file__).resolve().parents[2]


class Extraction(unittest.TestCase):
    def test_a_streamed_line_is_one_text_with_its_values(self):
        self.expect('std::cout << "Disk " << name << " has " << Size(a, b) << "MB" << std::endl;',
                    "Disk … has …MB")

    def test_joined_strings_are_one_text(self):
        self.expect('Run("mkfs " + (check ? "-c" : "") + " -L x " + path);', "mkfs … -L x …", "-c")
        self.expect('auto s = std::string("a ") + b;', "a …")

    def test_adjacent_literals_and_lines_are_told_apart(self):
        self.expect('printf(" one %d\\n" " two [%lld] B\\n", a, b);', "one …", "two […] B")

    def test_each_alternative_is_a_text(self):
        self.expect('std::cout << (good ? "Good." : "Bad.") << std::endl;', "Good.", "Bad.")
        self.expect('char const* r = code == 0 ? "None" : code == 1 ? "Some" : nullptr;',
                    "None", "Some")

    def test_a_text_is_found_wherever_it_goes(self):
        for sink in ("LogLine(Info) << {}", "throw IException({}, errno)", "perror({})",
                     "puts({})", 'SetError({}, where, true, true)', "constexpr auto k = {}",
                     "return Fail({})", "ForceUnmount(path, {})", "std::cerr << {}"):
            self.expect(f'{sink.format(chr(34) + "text" + chr(34))};', "text")

    def test_a_macro_in_a_text_is_a_value(self):
        self.expect('constexpr auto f = "built (" __DATE__ " " __TIME__ ")";', "built (… …)")

    def test_comments_directives_and_characters_are_no_texts(self):
        self.expect('#include "a.h"\n// "b"\n/* "c" */ char d = \'"\'; f("e");', "e")

    def test_what_the_compiler_says_is_no_text(self):
        self.expect('static_assert(sizeof(a) == 4, "a; " "b");\nf("c");', "c")

    def test_the_sources_are_read(self):
        texts = printed(ROOT)
        self.assertIn("FSCK output: …", texts)
        self.assertIn("Unable to umount root SD", texts)
        self.assertGreater(len(texts), 150)

    def expect(self, source: str, *texts: str):
        self.assertEqual(messages_of(source), list(texts))


class Comparison(unittest.TestCase):
    PAGE = "| message | meaning |\n|---|---|\n| `One …` | first |\n\n`two`\n\n```text\ntwo\n```\n"

    def test_nothing_is_said_of_a_complete_page(self):
        self.assertEqual(complaints({"One …": "a.cpp", "two": "b.cpp"}, self.PAGE), [])

    def test_a_missing_message_is_told_with_its_place(self):
        texts = {"One …": "a.cpp", "two": "b.cpp", "three": "c.cpp"}
        self.assertEqual(complaints(texts, self.PAGE), ["c.cpp: not in docs/operations.md: three"])

    def test_a_part_of_a_documented_message_does_not_count(self):
        texts = {"One …": "a.cpp", "One": "a.cpp", "two": "b.cpp"}
        self.assertEqual(complaints(texts, self.PAGE), ["a.cpp: not in docs/operations.md: One"])

    def test_a_message_that_is_no_more_is_told(self):
        self.assertEqual(complaints({"two": "b.cpp"}, self.PAGE),
                         ["docs/operations.md: in no source: One …"])

    def test_a_line_of_output_that_cannot_be_printed_is_told(self):
        page = "`a … b`\n```text\n[2021-03-04 17:05:09][ERROR]a 1 b\na 2 b: Busy\na 3 c\n```\n"
        self.assertEqual(complaints({"a … b": "a.cpp"}, page),
                         ["docs/operations.md: not printed: a 3 c"])

    def test_every_message_would_be_missed_on_the_real_page(self):
        page = (ROOT / "docs/operations.md").read_text()
        for text, place in printed(ROOT).items():
            without = page.replace(f"`{text.replace('|', chr(92) + '|')}`", "")
            self.assertNotIn(text, documented(without))
            self.assertIn(f"{place}: not in docs/operations.md: {text}",
                          complaints({text: place}, without))


if __name__ == "__main__":
    unittest.main()
