#!/usr/bin/env python3
"""The Debian package, built by cpack from this build tree and installed by dpkg.

dpkg installs it into a scratch root, with a scratch database that starts as a
copy of this machine's: so the dependencies computed from the binaries are
checked for real (this machine runs what it built) without --force-depends,
and nothing of the machine's own /opt, /usr or database is touched. The
launcher is run from that root inside a private mount namespace whose /opt is
the scratch root's, so its absolute link resolves to the packaged wizard.

Needs root (dpkg, mount). Environment: VLUM_SOURCE_DIR, VLUM_BUILD_DIR, VLUM_CPACK,
VLUM_QT_MAJOR.
"""

import glob
import io
import os
import shutil
import subprocess
import tarfile
import tempfile
import unittest

SOURCE = os.environ["VLUM_SOURCE_DIR"]
BUILD = os.environ["VLUM_BUILD_DIR"]
QT_MAJOR = os.environ["VLUM_QT_MAJOR"]
# The Qt libraries the wizard's package depends on; Qt 6 has the SAX reader
# and QRegExp in Core5Compat.
QT_DEPENDS = {"5": {"libqt5widgets5", "libqt5network5", "libqt5xml5"},
              "6": {"libqt6widgets6", "libqt6network6", "libqt6core5compat6"}}
NAME = "velluma-installer"
PREFIX = "opt/velluma-installer"
LAUNCHER = "usr/bin/velluma-installer"
DESKTOP = "usr/share/applications/velluma-installer.desktop"
METAINFO = "usr/share/metainfo/com.oktavo.velluma.installer.metainfo.xml"


def run(*args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, **kwargs)


class Package(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp(prefix="vlum-package-")
        out = os.path.join(cls.scratch, "deb")
        made = run(os.environ.get("VLUM_CPACK", "cpack"), "-G", "DEB", "-B", out, cwd=BUILD)
        debs = glob.glob(os.path.join(out, "*.deb"))
        if made.returncode != 0 or len(debs) != 1:
            raise RuntimeError("cpack made %r:\n%s%s" % (debs, made.stdout, made.stderr))
        cls.deb = debs[0]
        cls.root = os.path.join(cls.scratch, "root")
        admin = os.path.join(cls.scratch, "admin")
        os.makedirs(cls.root)
        os.makedirs(os.path.join(admin, "updates"))
        # The installed packages' file lists come along, or dpkg warns about
        # each one missing; their triggers stay behind, so none fires.
        shutil.copy("/var/lib/dpkg/status", admin)
        shutil.copytree("/var/lib/dpkg/info", os.path.join(admin, "info"),
                        ignore=lambda d, names: [n for n in names if not n.endswith(".list")])
        cls.install = run("dpkg", "--instdir=" + cls.root, "--admindir=" + admin, "--install", cls.deb)
        cls.status = run("dpkg-query", "--admindir=" + admin, "-W", "-f=${Status}", NAME).stdout

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.scratch, ignore_errors=True)

    def at(self, path):
        return os.path.join(self.root, path)

    def test_no_maintainer_scripts(self):
        # Installing starts nothing.
        control_tar = subprocess.run(["dpkg-deb", "--ctrl-tarfile", self.deb], capture_output=True, check=True)
        with tarfile.open(fileobj=io.BytesIO(control_tar.stdout)) as tar:
            members = {os.path.basename(n) for n in tar.getnames()}
        self.assertEqual(members & {"preinst", "postinst", "prerm", "postrm", "config"}, set())

    def test_installed_with_its_dependencies_met(self):
        self.assertEqual(self.install.returncode, 0, self.install.stdout + self.install.stderr)
        self.assertEqual(self.status, "install ok installed")
        # Computed from the binaries: the wizard's Qt and no other, the
        # installer's libarchive and OpenSSL; python3 for the profiler script.
        depends = run("dpkg-deb", "--field", self.deb, "Depends").stdout.strip().split(", ")
        names = {d.split()[0] for d in depends}
        self.assertLessEqual(QT_DEPENDS[QT_MAJOR] | {"libarchive13", "libssl3", "python3"}, names)
        self.assertEqual({n for n in names if n.startswith("libqt") and not n.startswith("libqt" + QT_MAJOR)}, set())

    def test_bundle_matches_the_build(self):
        # bin/, libexec/ and Resources/ exactly as the build tree's bundle, programs still programs.
        def files(top):
            return {(os.path.relpath(os.path.join(d, n), top), os.access(os.path.join(d, n), os.X_OK))
                    for part in ("bin", "libexec", "Resources") for d, _, names in os.walk(os.path.join(top, part))
                    for n in names}
        self.assertEqual(files(self.at(PREFIX)), files(os.path.join(BUILD, "bundle")))
        # install-helper refuses programs in anything root does not own alone.
        for dirpath, _, names in os.walk(self.at(PREFIX)):
            for path in [dirpath] + [os.path.join(dirpath, n) for n in names]:
                st = os.lstat(path)
                self.assertEqual((st.st_uid, st.st_gid, st.st_mode & 0o022), (0, 0, 0), path)

    def test_validators(self):
        # desktop-file-validate's hints go to standard output, with status 0.
        for command in (["desktop-file-validate", self.at(DESKTOP)],
                        ["appstreamcli", "validate", "--no-net", self.at(METAINFO)],
                        ["lintian", "--fail-on", "error,warning", self.deb]):
            with self.subTest(command[0]):
                check = run(*command)
                quiet = check.stdout if command[0] == "desktop-file-validate" else ""
                self.assertEqual((check.returncode, quiet), (0, ""), check.stdout + check.stderr)

    def test_launcher_runs_the_bundled_wizard(self):
        # Run with the scratch root's /opt on /opt, seen by nobody else.
        def in_namespace(*command):
            env = dict(os.environ, HOME=self.scratch, QT_QPA_PLATFORM="offscreen")
            return run("unshare", "--mount", "sh", "-c", 'mount --bind "$0/opt" /opt && exec "$@"', self.root,
                       *command, env=env)
        target = in_namespace("readlink", "-f", self.at(LAUNCHER))
        self.assertEqual(target.stdout.strip(), "/" + PREFIX + "/bin/velluma-installer", target.stderr)
        # The same usage text as the wizard of the build tree.
        expected = run(os.path.join(BUILD, "bundle/bin/velluma-installer"), "-help",
                       env=dict(os.environ, QT_QPA_PLATFORM="offscreen"))
        got = in_namespace(self.at(LAUNCHER), "-help")
        self.assertEqual((got.returncode, got.stdout), (0, expected.stdout), got.stderr)
        self.assertIn("-manifestserver", got.stdout)


if __name__ == "__main__":
    unittest.main()
