#!/usr/bin/env python3
"""compare_abi.py notices what it is for: changes of the headers' types and constants, and of a library's functions.
Usage: compare_abi_test.py COMPILER ABIDIFF [CASE ...]"""
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
CC, ABIDIFF = sys.argv.pop(1), sys.argv.pop(1)
OLD = """
typedef struct port_counters { int packets; } port_counters;
__attribute__((visibility("default"))) int counters_get(port_counters *counters, int port);
int counters_get(port_counters *counters, int port) { return counters->packets + port; }
"""


class CompareAbi(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.work = pathlib.Path(self.folder.name)

    def tearDown(self):
        self.folder.cleanup()

    def compare(self, *words):
        done = subprocess.run([sys.executable, HERE / "compare_abi.py", *words, "--abidiff", ABIDIFF],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertIn(done.returncode, (0, 1), done.stdout)
        return done.returncode, done.stdout

    def headers(self, header, old, new):
        """What is said when today's headers are the baseline's with one change."""
        today = self.work / "today"
        shutil.rmtree(today, ignore_errors=True)
        shutil.copytree(HERE / "baseline/include", today)
        text = (today / header).read_text()
        self.assertIn(old, text)
        (today / header).write_text(text.replace(old, new, 1))
        return self.compare("headers", "--baseline", HERE / "baseline", "--headers", today, "--cc", CC, "--work", self.work / "w")

    def library(self, new):
        """What is said of a library whose source was OLD."""
        libraries = []
        for name, source in (("old", OLD), ("new", new)):
            (self.work / f"{name}.c").write_text(source)
            libraries.append(self.work / f"{name}.so")
            subprocess.run([CC, "-g", "-fvisibility=hidden", "-shared", "-fPIC", "-o", libraries[-1], self.work / f"{name}.c"],
                           check=True)
        (self.work / "include").mkdir(exist_ok=True)
        abidw = pathlib.Path(ABIDIFF).parent / "abidw"
        subprocess.run([abidw, "--exported-interfaces-only", "--no-show-locs", "--no-corpus-path", "--type-id-style", "hash",
                        "--out-file", self.work / "libkrsdnhal.abi", libraries[0]], check=True)
        return self.compare("library", "--baseline", self.work, "--headers", self.work / "include", "--library", libraries[1])

    def test_headers_that_only_grow_pass(self):
        for new in ("enum { KR_SDN_HAL_CMD_ADD = 0, KR_SDN_HAL_CMD_OTHER = 9,", "typedef struct later { int a; } later;\n"
                    "enum { KR_SDN_HAL_CMD_ADD = 0,", "enum { KR_SDN_HAL_CMD_ADD = 0,"):
            status, said = self.headers("flow_record.h", "enum { KR_SDN_HAL_CMD_ADD = 0,", new)
            self.assertEqual((status, "types" in said), (0, True), said)

    def test_headers_that_change_fail(self):
        for header, old, new, told in (
                ("kr_connector.h", "    uint32_t trap_id;\n", "    uint16_t trap_id;\n", "conn_control_forward"),
                ("kr_connector.h", "(*conn_event_callback)(uint32_t event,", "(*conn_event_callback)(uint64_t event,",
                 "conn_event_callback"),
                ("kr_host_ifc.h", "KR_TRAP_ID_PACKET_MISS = 479", "KR_TRAP_ID_PACKET_MISS = 480",
                 "KR_TRAP_ID_PACKET_MISS 479, is KR_TRAP_ID_PACKET_MISS 480"),
                ("kr_host_ifc.h", "    int fd;\n", "    int fd;\n    int more;\n", "'int more', at offset 32"),
                ("kr_sdn_hal.h", "KR_SDN_HAL_STATUS_ERROR = 1,", "KR_SDN_HAL_STATUS_FAILED = 1,", "KR_SDN_HAL_STATUS_ERROR"),
                ("kr_log.h", "(*kr_log_callback)", "(*kr_log_callback_type)", "kr_log_callback")):
            status, said = self.headers(header, old, new)
            self.assertEqual(status, 1, new)
            self.assertIn(told, said)

    def test_the_same_library_passes(self):
        self.assertEqual(self.library(OLD + "static int unseen(void) { return 1; }\n"), (0, ""))

    def test_a_library_that_changes_fails(self):
        for new in (OLD.replace("int port", "short port"), OLD.replace("int packets;", "int packets, bytes;"),
                    OLD.replace("counters_get", "counters_read"), OLD.replace("int packets", "long packets"),
                    OLD + '__attribute__((visibility("default"))) void added(void) {}\n'):
            status, said = self.library(new)
            self.assertEqual((status, said != ""), (1, True), new)

    def test_what_cannot_be_read_fails(self):
        (self.work / "libkrsdnhal.abi").write_text("")
        status, said = self.compare("library", "--baseline", self.work, "--headers", self.work, "--library", "/dev/null")
        self.assertEqual((status, said != ""), (1, True))


if __name__ == "__main__":
    unittest.main(verbosity=2)
