"""A build of a copy of the tree in which one source at a time is changed and only what holds it is made anew.

The build is CMake's and Ninja's; once it stands, this module runs the compiler's and the linker's commands itself: a
source of the library is compiled once, as position-independent code, and its object takes the place of every other that
was made of it. The tests' own objects are not compiled again, so they see the library as it should be where a header is
changed; only when no test notices are those made anew that include the header, for they may hold its inline functions.
"""
import fcntl
import json
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import time
from dataclasses import dataclass, field

from sites import FOLDERS

CONFIGURE = ["-G", "Ninja", "-DCMAKE_BUILD_TYPE=Mutation", "-DCMAKE_C_FLAGS=-O1 -w", "-DCMAKE_CXX_FLAGS=-O1 -w",
             "-DKR_BUILD_AGENT=OFF", "-DKR_BUILD_BENCH=OFF", "-DKR_BUILD_PLUGINS=OFF", "-DKR_BUILD_EXAMPLES=OFF"]
OPTIMISE = "-O2"  # of the library's own objects: equal code is recognised more often
LIBRARY = "krsdnhal_objects.dir"
MOST_DEPENDENTS = 12   # objects of tests that are compiled again for a change of a header
LEFT_OUT = {"net", "peer", "demo", "style", "debug-information"}  # labels of tests that need more than the build, or judge other things
LIMITS = {resource.RLIMIT_CORE: 0, resource.RLIMIT_FSIZE: 1 << 28, resource.RLIMIT_AS: 8 << 30}


class Failure(Exception):
    """Something is wrong with the tree, the machine or the tool: nothing can be said about mutants."""


@dataclass
class Test:
    name: str
    command: list
    folder: str
    environment: dict
    relink: list = field(default_factory=list)  # what has to be linked anew when an object of the library changes
    objects: set = field(default_factory=set)   # the objects of the library that it runs
    own: set = field(default_factory=set)       # its own objects
    programs: list = field(default_factory=list)  # what is linked of those
    seconds: float = 1.0
    kills: int = 0
    runs: int = 0

    def promise(self):
        """Mutants killed per second, as far as is known; a test of few sources is the likelier to notice."""
        prior = 2.0 / (1 + len(self.objects))
        return (self.kills + prior) / (self.runs + 2) / (self.seconds + 0.3)


def run(command, **options):
    """The output of a command that has to succeed."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    if done.returncode != 0:
        raise Failure(f"{command if isinstance(command, str) else ' '.join(map(str, command))}:\n{done.stdout[-2000:]}")
    return done.stdout


def limit():
    for which, most in LIMITS.items():
        resource.setrlimit(which, (most, most))


class Workspace:
    """A folder with a copy of the tree, its build and what is known of its tests."""

    def __init__(self, top, folder, say):
        self.top, self.folder, self.say = pathlib.Path(top), pathlib.Path(folder), say
        self.source, self.build = self.folder / "src", self.folder / "build"
        self.dirty = self.folder / "dirty"  # stands while objects of a mutant may lie in the build
        self.held = None
        self.tests = []
        self.commands = {}  # source of the library -> the command that compiles it
        self.outputs = {}   # source of the library -> the objects that were made of it
        self.originals = {} # source of the library -> the bytes of its object
        self.headers = {}   # header of the library -> the sources that include it
        self.dependents = {}  # header of the library -> other objects that include it
        self.edges = {}
        self.links = {}

    # ---- making it ----------------------------------------------------------------------------------------------

    def prepare(self, tests=True):
        """Copies and builds; without `tests` only what it takes to find the places."""
        self.folder.mkdir(parents=True, exist_ok=True)
        self.hold()
        (self.folder / "tmp").mkdir(exist_ok=True)
        self.copy_tree()
        if not (self.build / "build.ninja").exists():
            self.say("configuring")
            linker = next((name for name in ("lld", "gold") if shutil.which(f"ld.{name}")), None)
            flags = [f"-DCMAKE_{what}_LINKER_FLAGS=-fuse-ld={linker}" for what in ("EXE", "SHARED", "MODULE")] if linker else []
            launcher = [f"-DCMAKE_{lang}_COMPILER_LAUNCHER=ccache" for lang in ("C", "CXX")] if shutil.which("ccache") else []
            run(["cmake", "-S", self.source, "-B", self.build, *CONFIGURE, *flags, *launcher])
        self.read_graph()
        if self.dirty.exists():
            for output in [o for outputs in self.outputs.values() for o in outputs]:
                (self.build / output).unlink(missing_ok=True)
            self.dirty.unlink()
        if not tests:
            return
        self.say("building")
        run(["ninja", "-C", self.build, "-j1"])
        self.read_graph()  # the build may have configured anew
        self.read_headers()
        self.read_tests()
        for source in self.commands:
            if not self.compile(source):
                raise Failure(f"{source} does not compile as it is")
            self.originals[source] = self.object_of(source).read_bytes()
        self.measure()

    def hold(self):
        """One run at a time: another one would change the sources under the feet of this one."""
        self.held = (self.folder / "held").open("w")
        try:
            fcntl.flock(self.held, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Failure(f"another run is at work in {self.folder}; --work names another folder") from None

    def copy_tree(self):
        """The working tree as it is, uncommitted changes included; files that are as they were keep their dates."""
        wanted = {name for name in self.tree_files() if (self.top / name).is_file()}
        for name in sorted(wanted):
            here, there = self.top / name, self.source / name
            if there.is_file() and there.read_bytes() == here.read_bytes():
                continue
            there.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(here, there)
        for there in [p for p in self.source.rglob("*") if p.is_file() or p.is_symlink()]:
            if there.relative_to(self.source).as_posix() not in wanted:
                there.unlink()

    def tree_files(self):
        """What git knows or would add; in a tree without git all but builds."""
        if (self.top / ".git").exists() and shutil.which("git"):
            listed = run(["git", "-C", self.top, "ls-files", "-z", "--cached", "--others", "--exclude-standard"])
            return [name for name in listed.split("\0") if name]
        names = [p.relative_to(self.top) for p in self.top.rglob("*")]
        return [n.as_posix() for n in names if not n.parts[0].startswith("build") and "__pycache__" not in n.parts]

    def read_graph(self):
        """Who is made of what, from build.ninja: explicit and implicit inputs, not those that only come before."""
        self.edges.clear()
        self.outputs.clear()
        self.links.clear()
        for line in (self.build / "build.ninja").read_text().replace("$\n", "").splitlines():
            match = re.match(r"build (.*?): (\S+) ?(.*)$", line)
            if not match:
                continue
            inputs = []
            for word in match.group(3).split():
                if word == "||":
                    break
                if word != "|":
                    inputs.append(word)
            for output in match.group(1).replace(" | ", " ").split():
                self.edges[output] = inputs
                if "_LINKER_" in match.group(2):
                    self.links[output] = None  # the command is asked for when it is needed first
            if match.group(2).startswith("CXX_COMPILER_") and inputs:
                source = self.library_source(inputs[0])
                if source:
                    output = match.group(1).split()[0]
                    self.outputs.setdefault(source, []).append(output)
        for source, outputs in self.outputs.items():
            own = [o for o in outputs if LIBRARY in o]
            if len(own) != 1:
                raise Failure(f"{source} is compiled {len(own)} times for the library")
            outputs.sort(key=lambda o: LIBRARY not in o)  # the library's own first
            command = run(["ninja", "-C", self.build, "-t", "commands", "-s", own[0]]).splitlines()[-1]
            self.commands[source] = re.sub(r"^\S*ccache\s+", "", command) + " " + OPTIMISE

    def library_source(self, path):
        try:
            name = (self.build / path).resolve().relative_to(self.source.resolve()).as_posix()
        except ValueError:
            return None
        return name if name.split("/")[0] in FOLDERS and name.endswith(".cpp") else None

    def read_headers(self):
        owner = {output: source for source, outputs in self.outputs.items() for output in outputs}
        top, output = str(self.source.resolve()) + "/", ""
        for line in run(["ninja", "-C", self.build, "-t", "deps"]).splitlines():
            if line and not line.startswith(" "):
                output = line.partition(":")[0]
                continue
            name = os.path.normpath(self.build / line.strip())
            name = name[len(top):] if name.startswith(top) else ""
            if not name.endswith(".h") or name.split("/")[0] not in FOLDERS:
                continue
            if output in owner:
                self.headers.setdefault(name, set()).add(owner[output])
            else:
                self.dependents.setdefault(name, set()).add(output)

    def sources_of(self, path):
        """What has to be compiled again when this file changes."""
        return [path] if path in self.commands else sorted(self.headers.get(path, ()))

    def object_of(self, source):
        return self.build / self.outputs[source][0]

    # ---- tests --------------------------------------------------------------------------------------------------

    def read_tests(self):
        owner = {output: source for source, outputs in self.outputs.items() for output in outputs}
        listed = json.loads(run(["ctest", "--test-dir", self.build, "--show-only=json-v1"]))
        self.tests.clear()
        for entry in listed["tests"]:
            properties = {p["name"]: p["value"] for p in entry.get("properties", [])}
            if LEFT_OUT & set(properties.get("LABELS", [])) or "command" not in entry:
                continue
            test = Test(entry["name"], entry["command"], properties.get("WORKING_DIRECTORY", str(self.build)),
                        dict(v.split("=", 1) for v in properties.get("ENVIRONMENT", [])))
            for word in test.command:
                self.reach(word, owner, test)
            if test.objects:
                self.tests.append(test)
        if not self.tests:
            raise Failure("no test holds the library")

    def reach(self, word, owner, test):
        """Walks from a word of a test's command to the library's objects, and notes what must be linked on the way."""
        try:
            target = pathlib.Path(word).resolve().relative_to(self.build.resolve()).as_posix()
        except ValueError:
            return
        aliases = {target}
        aliases |= {o for o, i in self.edges.items() if target in i and o not in self.links and i == [target]}
        seen = set()

        def walk(node):
            """True when an object of the library is linked into the node itself."""
            if node in seen:
                return False
            seen.add(node)
            held = False
            for item in self.edges.get(node, ()):
                if item in owner:
                    test.objects.add(owner[item])
                    held = True
                elif item.endswith(".o"):
                    test.own.add(item)
                    if node in self.links and node not in test.programs:
                        test.programs.append(node)
                elif re.search(r"\.so[.0-9]*$", item):
                    walk(item)
                elif item in self.edges:
                    held = walk(item) or held
            if held and node in self.links and node not in test.relink:
                test.relink.append(node)
            return held
        for node in aliases:
            walk(node)

    def measure(self):
        """Runs every test on the unchanged library: it has to pass, and the time that it takes is noted."""
        linked = set()
        for test in self.tests:
            for output in test.relink:
                if output not in linked:
                    linked.add(output)
                    self.link(output)
            begin = time.monotonic()
            passed, said = self.run_test(test, 600)
            test.seconds = time.monotonic() - begin
            if not passed:
                raise Failure(f"{test.name} fails without any change: {said}")

    def run_test(self, test, seconds):
        """Whether a test passes in time, and what failed otherwise. Its whole process group ends with it."""
        environment = {**os.environ, **test.environment, "GTEST_FAIL_FAST": "1", "TMPDIR": str(self.folder / "tmp")}
        log = self.folder / "test.log"
        with log.open("wb") as output:
            process = subprocess.Popen(test.command, cwd=test.folder, env=environment, stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=subprocess.STDOUT, start_new_session=True, preexec_fn=limit)
            try:
                code = process.wait(timeout=seconds)
            except subprocess.TimeoutExpired:
                code = None
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()
        if code == 0:
            return True, ""
        if code is None:
            return False, "timeout"
        text = log.read_bytes()[-200000:].decode("utf-8", "replace")
        failed = re.search(r"\[  FAILED  \] ([\w./]+)", text)
        if failed:
            return False, failed.group(1)
        running = re.findall(r"\[ RUN      \] ([\w./]+)", text)
        return False, f"exit {code}" + (f" in {running[-1]}" if running else "")

    # ---- one change ---------------------------------------------------------------------------------------------

    def compile(self, source):
        """Compiles a source and puts the object wherever one of that source lies. False when it does not compile."""
        command = self.commands[source]
        done = subprocess.run(command, shell=True, cwd=self.build, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              check=False)
        if done.returncode != 0:
            return False
        self.spread(source, self.object_of(source).read_bytes())
        return True

    def spread(self, source, content):
        for output in self.outputs[source]:
            path = self.build / output
            path.unlink(missing_ok=True)
            path.write_bytes(content)

    def link(self, output):
        """False when it does not link: a mutant that takes away what somebody needs."""
        if self.links[output] is None:
            self.links[output] = run(["ninja", "-C", self.build, "-t", "commands", "-s", output]).splitlines()[-1]
        (self.build / output).unlink(missing_ok=True)
        return subprocess.run(self.links[output], shell=True, cwd=self.build, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, check=False).returncode == 0

    def judge(self, mutant):
        """What becomes of a mutant: (verdict, test, what it said). The tree is afterwards as it was."""
        file = self.source / mutant.path
        original, dates = file.read_bytes(), file.stat()
        text = original.decode("ascii")
        assert text[mutant.start:mutant.end] == mutant.old
        self.dirty.touch()
        sources = self.sources_of(mutant.path)
        try:
            file.write_text(text[:mutant.start] + mutant.new + text[mutant.end:], encoding="ascii")
            found = self.run_tests(sources)
            return found if found[0] in ("caught", "not compiled") else self.run_dependents(mutant.path, found)
        finally:
            file.write_bytes(original)
            os.utime(file, ns=(dates.st_atime_ns, dates.st_mtime_ns))  # or all that includes it would be built again
            for source in sources:
                self.spread(source, self.originals[source])

    def run_tests(self, sources):
        """Compiles, links and runs, the most promising test first; of a header's sources only what the next test holds."""
        linked, compiled, changed = set(), set(), set()
        tests = [t for t in self.tests if t.objects.intersection(sources)]
        for test in sorted(tests, key=Test.promise, reverse=True):
            for source in sources:
                if source in test.objects and source not in compiled:
                    compiled.add(source)
                    if not self.compile(source):
                        return "not compiled", "", ""
                    if self.object_of(source).read_bytes() != self.originals[source]:
                        changed.add(source)
            if not changed & test.objects:
                continue
            test.runs += 1
            for output in test.relink:
                if output not in linked:
                    linked.add(output)
                    if not self.link(output):
                        return "not compiled", test.name, "does not link"
            passed, said = self.run_test(test, 10 + 4 * test.seconds)
            if not passed:
                test.kills += 1
                return "caught", test.name, said
        return ("survived" if changed else "same code"), "", ""

    def run_dependents(self, path, found):
        """The second chance of a change in a header: the tests whose own objects include it, compiled with the change."""
        objects = self.dependents.get(path, set())
        tests = [t for t in self.tests if t.own & objects]
        objects = {o for t in tests for o in t.own & objects}
        if not tests or len(objects) > MOST_DEPENDENTS:
            return found
        saved = {o: (self.build / o).read_bytes() for o in objects}
        try:
            for output in sorted(objects):
                command = run(["ninja", "-C", self.build, "-t", "commands", "-s", output]).splitlines()[-1]
                done = subprocess.run(re.sub(r"^\S*ccache\s+", "", command), shell=True, cwd=self.build,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
                if done.returncode != 0:
                    return "not compiled", "", ""
            for test in tests:
                if not all([self.link(program) for program in test.programs]):
                    return "not compiled", test.name, "does not link"
                passed, said = self.run_test(test, 10 + 4 * test.seconds)
                if not passed:
                    return "caught", test.name, said
            return "survived", "", ""
        finally:
            for output, content in saved.items():
                (self.build / output).write_bytes(content)
            for program in {p for t in tests for p in t.programs}:
                self.link(program)

    def close(self):
        """Says that no object of a mutant is left; Ninja links anew what was made of one."""
        self.dirty.unlink(missing_ok=True)
