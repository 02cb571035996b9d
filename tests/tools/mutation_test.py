#!/usr/bin/python3
"""tools/mutate on a tree of one small source: what it finds to change, what it leaves alone, what survives a test that is
too weak, that the list of known survivors counts, that results are kept, and that the tree stays as it was.
Usage: mutation_test.py SOURCE-FOLDER [CASE ...]"""
import fcntl
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(sys.argv.pop(1)).resolve()
sys.path.insert(0, str(SOURCE / "tools/mutation"))
try:
    import build
    from survivors import places_of, read_known
    import sites  # noqa: F401  needs libclang
except ImportError as error:
    print(f"skipped: {error}: apt-get install python3-clang")
    sys.exit(77)

TREE = {
    "CMakeLists.txt": """
cmake_minimum_required(VERSION 3.25)
project(small LANGUAGES C CXX)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
enable_testing()
add_library(krsdnhal_objects OBJECT core/clamp.cpp)
target_include_directories(krsdnhal_objects PUBLIC ${CMAKE_SOURCE_DIR})
add_library(small SHARED $<TARGET_OBJECTS:krsdnhal_objects>)
add_executable(clamp_test test.cpp)
target_link_libraries(clamp_test PRIVATE small)
add_test(NAME clamp_test COMMAND clamp_test)
add_executable(other_test other.cpp)
add_test(NAME other_test COMMAND other_test)
""",
    "core/clamp.h": """
enum { HIGHEST = 100 };
extern "C" const char *last_text;
int clamp(int value);
inline int half(int value) { return value / 2; }
""",
    "core/clamp.cpp": """
#include "core/clamp.h"
// A comment: 3 == 4, "text".
static_assert(sizeof(int) == 4, "texts of assertions are none of the library's");
const char *last_text = nullptr;
static void note(const char *text) {
    last_text = text;
}
int clamp(int value) {
    if (value > HIGHEST) {
        note("Too large: %d");
        return HIGHEST;
    }
    return value;
}
""",
    "test.cpp": """
#include "core/clamp.h"
#include <cstring>
int main() {
    if (half(clamp(8)) != 4 || clamp(5) != 5 || last_text != nullptr) {
        return 1;
    }
    return clamp(101) == 100 && strcmp(last_text, "Too large: %d") == 0 ? 0 : 1;
}
""",
    "other.cpp": "int main() { return 1; } // fails, and has nothing of the library: it must not be run\n",
}
WEAK = """core/clamp.cpp
- if (value > HIGHEST) {
+ if (value >= HIGHEST) {
"""


class Mutation(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp())
        cls.tree = cls.folder / "tree"
        for name, text in TREE.items():
            path = cls.tree / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text.lstrip("\n"))
        (cls.tree / "tools").mkdir()
        for name in ("mutate", "mutation", "build-root.sh"):
            copy = shutil.copytree if (SOURCE / "tools" / name).is_dir() else shutil.copy
            copy(SOURCE / "tools" / name, cls.tree / "tools" / name)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.folder)

    def mutate(self, *words, code):
        done = subprocess.run([self.tree / "tools/mutate", "--work", self.folder / "work", *words], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        self.assertEqual(done.returncode, code, done.stdout)
        return done.stdout

    def known(self, text):
        path = self.tree / "tests/mutation/survivors.txt"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        return path

    def test_what_is_changed(self):
        shown = self.mutate("--show", "core", code=0)
        for line in ("+ if (value >= HIGHEST) {", "+ if (value <= HIGHEST) {", "+ if (!(value > HIGHEST)) {",
                     '+ note("too large: %d");', '+ note("Too large:%d");', "+ ;", "+ enum { HIGHEST = 101 };",
                     "+ enum { HIGHEST = 0 };"):
            self.assertIn(line + "\n", shown)
        for line in ("comment", "assertions", "include"):
            self.assertNotIn(line, shown)
        self.assertIn('- note("Too large: %d");\n- return HIGHEST;\n+ return HIGHEST;\n+ note("Too large: %d");\n', shown)

    def test_what_survives(self):
        before = {p: p.read_bytes() for p in self.tree.rglob("*") if p.is_file() and "__pycache__" not in p.parts}
        self.known("")
        said = self.mutate("--all", "--afresh", "--goal", "50", code=1)  # the goal is reached, the survivor is not known
        self.assertIn(WEAK.partition("\n")[2] + "= not known\n", said)
        self.assertEqual(said.count("\nsurvived: "), 1, said)
        self.assertIn("1 survived: 1 unknown", said)
        self.assertIn(" 0 were the same code", said)  # the header's function is in the test's object alone

        self.known(WEAK + "= equivalent: it is not, but the list says so\n")
        kept = self.mutate("--all", "--goal", "50", code=0)
        self.assertIn("1 survived: 1 equivalent", kept)
        self.assertIn("100.0 % of those that are not known to be equivalent", kept)
        self.mutate("--all", "--goal", "100", code=1)
        self.assertIn("1 survived: 1 equivalent", self.mutate("--report", "--goal", "50", code=0))

        better = TREE["test.cpp"].replace("clamp(5) != 5", "clamp(100) != 100").lstrip("\n")
        (self.tree / "test.cpp").write_text(better)
        said = self.mutate("--again", "--goal", "100", code=0)
        self.assertIn("judged 1: 0 did not compile, 0 were the same code; 1 count, 1 caught", said)
        (self.tree / "test.cpp").write_text(TREE["test.cpp"].lstrip("\n"))
        self.known("").unlink()
        after = {p: p.read_bytes() for p in self.tree.rglob("*") if p.is_file() and "__pycache__" not in p.parts}
        self.assertEqual(before, after)

    def test_a_tree_whose_tests_fail_says_so(self):
        (self.tree / "test.cpp").write_text("int clamp(int);\nint main() { return clamp(3) == 3; }\n")
        self.assertIn("clamp_test fails without any change: exit 1", self.mutate(code=2))
        (self.tree / "test.cpp").write_text(TREE["test.cpp"].lstrip("\n"))

    def test_two_runs_do_not_share_a_folder(self):
        (self.folder / "work").mkdir(exist_ok=True)
        with (self.folder / "work/held").open("w") as held:
            fcntl.flock(held, fcntl.LOCK_EX)
            self.assertIn("another run is at work in ", self.mutate("--report", code=2))
        self.mutate("--show", "core", code=0)

    def test_a_test_that_hangs_is_ended(self):
        workspace = build.Workspace(self.tree, self.folder / "hang", print)
        (self.folder / "hang").mkdir()
        test = build.Test("hang", ["sh", "-c", "sleep 1000 & sleep 1000"], str(self.folder), {})
        self.assertEqual(workspace.run_test(test, 0.2), (False, "timeout"))

    def test_an_entry_without_a_reason_is_refused(self):
        for text in (WEAK, WEAK + "= because\n", "= equivalent: of nothing\n", WEAK + "\n"):
            path = self.known(text + "# end\n")
            with self.assertRaises(SystemExit, msg=text):
                read_known(path)
            path.unlink()

    def test_the_project_s_own_list_speaks_of_lines_that_are_there(self):
        known = read_known(SOURCE / "tests/mutation/survivors.txt")
        self.assertGreater(len(known), 0)
        for named, *entry in known:
            path, _, number = named.partition(" #")
            meant = [line[2:] for line in entry if line.startswith("- ")]
            places = places_of("\n".join(meant), (SOURCE / path).read_text())
            self.assertIn(len(places), range(int(number), 100) if number else [1], f"{path} has no longer: {meant}")
            self.assertNotEqual(meant, [line[2:] for line in entry if line.startswith("+ ")])


if __name__ == "__main__":
    unittest.main(verbosity=2)
