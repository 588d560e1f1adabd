"""Runs the system profiler stand-in as a child process.
python3 -m unittest tools/test_system_profiler.py"""
import os, re, subprocess, tempfile, unittest

PROFILER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "system_profiler")
YEAR_10000 = 253402300800  # 10000-01-01T00:00:00Z


class SystemProfiler(unittest.TestCase):
    # (case, folder date, reader gone, exit status, the whole standard error)
    CASES = [
        ("plain", None, False, 0, ""),
        ("folder dated past 9999", YEAR_10000, False, 1,
         r"system_profiler: cannot write the date of \S+/maya2018: year 10000 is out of range\n"),
        ("reader gone", None, True, 1,
         r"system_profiler: the reader closed standard output before the document was written\n"),
    ]

    def run_case(self, stamp, reader_gone):
        # tmpfs keeps dates past 9999; ext4 cuts them down to 2446.
        parent = "/dev/shm" if os.path.isdir("/dev/shm") else None
        with tempfile.TemporaryDirectory(dir=parent) as root:
            maya = os.path.join(root, "maya2018")
            os.mkdir(maya)
            if stamp is not None:
                os.utime(maya, (stamp, stamp))
                if os.stat(maya).st_mtime != stamp:
                    self.skipTest("this file system cannot date a folder past 9999")
            env = dict(os.environ, VLUM_MAYA_ROOT=root)
            read_end, write_end = os.pipe()
            os.close(read_end)  # the reader, gone before the profiler starts
            with open(write_end, "w") as gone:
                run = subprocess.run([PROFILER, "-xml", "SPHardwareDataType", "SPInstallHistoryDataType"], env=env,
                                     stdout=gone if reader_gone else subprocess.PIPE, stderr=subprocess.PIPE,
                                     text=True, timeout=30)
            return run.returncode, run.stdout or "", run.stderr

    def test_exit_and_error_line(self):
        for case, stamp, reader_gone, status, stderr in self.CASES:
            with self.subTest(case):
                code, out, err = self.run_case(stamp, reader_gone)
                self.assertEqual(code, status, err)
                self.assertTrue(re.fullmatch(stderr, err), err)
                self.assertEqual("<string>Maya 2018 Core</string>" in out, case == "plain")

