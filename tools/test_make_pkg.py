"""Runs make-pkg as a child process on inputs it must refuse.
python3 -m unittest tools/test_make_pkg.py"""
import os, re, shutil, subprocess, tempfile, unittest

MAKE_PKG = os.path.join(os.path.dirname(os.path.abspath(__file__)), "make-pkg")


class MakePkg(unittest.TestCase):
    # (case, identifier, output relative to the scratch folder, payload extra, the whole standard error).
    # Each must exit 1 with one line and leave nothing in the output folder.
    CASES = [
        ("empty identifier", "", "out/a.pkg", None, r"make-pkg: the identifier is empty\n"),
        ("control character", "com.oktavo\x1b[2J", "out/a.pkg", None,
         r"make-pkg: the identifier has a control character: 'com.oktavo\\x1b\[2J'\n"),
        ("newline", "com.oktavo\nevil", "out/a.pkg", None, r"make-pkg: the identifier has a control character: .*\n"),
        ("not UTF-8", os.fsdecode(b"com.\xff"), "out/a.pkg", None, r"make-pkg: the identifier is not UTF-8: .*\n"),
        ("missing folder", "com.oktavo", "out/missing/a.pkg", None,
         r"make-pkg: no such folder for the package: \S+/out/missing\n"),
        ("output is a folder", "com.oktavo", "out/folder.pkg", None,
         r"make-pkg: the package path is a folder: \S+/out/folder.pkg\n"),
        ("FIFO in payload", "com.oktavo", "out/a.pkg", "fifo",
         r"make-pkg: not a file, folder or link: \S+/payload/opt/fifo\n"),
        ("unreadable output folder", "com.oktavo", "ro/a.pkg", None, r"make-pkg: \[Errno 13\] .*\n"),
    ]

    def test_refused(self):
        for case, identifier, output, extra, stderr in self.CASES:
            with self.subTest(case), tempfile.TemporaryDirectory() as scratch:
                payload = os.path.join(scratch, "payload")
                os.makedirs(os.path.join(payload, "opt"))
                with open(os.path.join(payload, "opt", "file"), "w") as f:
                    f.write("x\n")
                if extra == "fifo":
                    os.mkfifo(os.path.join(payload, "opt", "fifo"))
                os.makedirs(os.path.join(scratch, "out", "folder.pkg"))
                os.makedirs(os.path.join(scratch, "ro"), mode=0o555)
                args = [MAKE_PKG, "--identifier", identifier, "--version", "1.0", payload,
                        os.path.join(scratch, output)]
                # Root writes anywhere: the read-only folder needs another user.
                if output.startswith("ro/"):
                    if os.geteuid() != 0:
                        continue
                    os.chmod(scratch, 0o755)
                    os.chmod(payload, 0o755)
                    # That user may not reach the clone (under /root, say): it runs a copy it can read.
                    args[0] = shutil.copy(MAKE_PKG, scratch)
                    args = ["setpriv", "--reuid=4242", "--regid=4242", "--clear-groups"] + args
                run = subprocess.run([os.fsencode(a) for a in args], capture_output=True, timeout=60)
                err = os.fsdecode(run.stderr)
                self.assertEqual(run.returncode, 1, err)
                self.assertTrue(re.fullmatch(stderr, err), err)
                self.assertEqual(sorted(os.listdir(os.path.join(scratch, "out"))), ["folder.pkg"])
                self.assertEqual(os.listdir(os.path.join(scratch, "ro")), [])

