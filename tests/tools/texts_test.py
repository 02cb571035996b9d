#!/usr/bin/env python3
"""tools/check-texts on small trees: what counts as a text, and what counts as repeating it.
Usage: texts_test.py SOURCE-FOLDER [CASE ...]"""
import pathlib
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1)).resolve()


class Texts(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.tree = pathlib.Path(self.folder.name)
        (self.tree / "core").mkdir()
        (self.tree / "tests/contract").mkdir(parents=True)

    def tearDown(self):
        self.folder.cleanup()

    def missing(self, library, tests, never=""):
        """The texts that are told to be missing."""
        (self.tree / "core/a.cpp").write_text(library)
        (self.tree / "tests/a_test.cpp").write_text(tests)
        (self.tree / "tests/contract/never_logged.txt").write_text(never)
        done = subprocess.run([SOURCE / "tools/check-texts", self.tree], text=True, stdout=subprocess.PIPE, check=False)
        wrong = [line for line in done.stdout.splitlines() if not line.startswith("check-texts: ")]
        self.assertEqual(done.returncode, 1 if wrong else 0, done.stdout)
        return [line.partition('no test repeats "')[2].rstrip('"') or line for line in wrong]

    def test_a_text_is_missing_until_a_test_repeats_it_whole(self):
        library = 'void f() {\n    HAL_ERROR("Failed to retrieve flows ");\n}\n'
        self.assertEqual(self.missing(library, '"other"'), ["Failed to retrieve flows "])
        for almost in ("Failed to retrieve flows", "failed to retrieve flows ", "Failed to retrieve flows activity ",
                       "It: Failed to retrieve flows "):
            self.assertEqual(self.missing(library, f'"{almost}"'), ["Failed to retrieve flows "], almost)
        self.assertEqual(self.missing(library, '// "Failed to retrieve flows "\n"x"'), ["Failed to retrieve flows "])
        for whole in ("Failed to retrieve flows ", "1 HAL_GEN: Failed to retrieve flows ", "Failed to retrieve flows \\n",
                      "a.cpp[7]- f: Failed to retrieve flows "):
            self.assertEqual(self.missing(library, f'"{whole}"'), [], whole)
        self.assertEqual(self.missing(library, '"Failed to "\n    "retrieve flows "'), [])

    def test_a_format_is_repeated_with_values_or_as_it_is(self):
        library = 'HAL_ERROR("port (0x%x) of [%" PRIu64 "] is %s.", a, b, c);'
        text = "port (0x%x) of [%lu] is %s."
        for repeated in ("port (0x1f) of [20] is up.", text, "port (0x%s) of [%d] is %s.",
                         "port \\\\(0x1f\\\\) of \\\\[[0-9]+\\\\] is up\\\\."):
            self.assertEqual(self.missing(library, f'"{repeated}"'), [], repeated)
        for other in ("port (0x1g) of [20] is up.", "port (0x1f) of [] is up.", "port (0x1f) of [20] is up", "port (0x"):
            self.assertEqual(self.missing(library, f'"{other}"'), [text], other)

    def test_an_argument_may_stand_in_brackets(self):
        library = 'check(pointer, "Event data pointer");'
        self.assertEqual(self.missing(library, '"NULL Pointer (Event data pointer)"'), [])
        self.assertEqual(self.missing(library, '"the Event data pointer is missing"'), ["Event data pointer"])

    def test_what_is_no_text(self):
        self.assertEqual(self.missing("""
#include "core/header.h"
extern "C" int f();
static_assert(true, "assertions");  // "comments"
/* "more
   comments" */
char c = '"';
[[maybe_unused]] const char *empty = "", *only_a_value = "%s\\n";
const char *text = "text";
""", '"text"'), [])

    def test_all_of_the_library_is_looked_at(self):
        (self.tree / "common").mkdir()
        (self.tree / "common/b.h").write_text('constexpr char name[] = "of a header";')
        self.assertEqual(self.missing('puts("here");', '"here"'), ["of a header"])

    def test_the_list_of_texts_that_cannot_appear(self):
        library = 'puts("never"); puts("said");'
        self.assertEqual(self.missing(library, '"said"', "# comment\nnever\n= because\n"), [])
        self.assertEqual(self.missing(library, '"said" , "never"', "never\n= because\n"),
                         ['tests/contract/never_logged.txt: "never" is repeated in tests/a_test.cpp:1'])
        self.assertEqual(self.missing(library, '"said", "never"', "gone\n= because\n"),
                         ['tests/contract/never_logged.txt: "gone" is no text of the library'])
        self.assertEqual(self.missing(library, '"said"', "never\n"), ["never"])

    def test_a_tree_without_sources_is_no_success(self):
        done = subprocess.run([SOURCE / "tools/check-texts", self.tree], stderr=subprocess.DEVNULL, check=False)
        self.assertEqual(done.returncode, 2)


if __name__ == "__main__":
    unittest.main(verbosity=2)
