#!/usr/bin/env python3
"""Time and memory of the package installer, as root runs it.

- The bomb: an unsigned package of about 60 MB whose index claims one file
  of 60 GiB and whose payload is that many zeros, installed with a trusted
  key: the time to refuse it and the installer's peak resident memory.
  Targets: under 2 s, under 64 MB.
- Signed packages of 1 GiB and 8 GiB (files of 128 MiB, a quarter of each
  MiB random bytes, the rest zeros), made by tools/make-pkg with the build's
  demo key, installed into a scratch target: the peak resident memory
  (target: under 64 MB, about the same for both) and the time against
  `tar -xzf` of the same file into an empty folder (target: at most 1.25 x),
  each the median of RUNS alternating runs.

Exits 0 whatever the figures, 1 when an installation does not end as it
should.

    python3 bench/install.py <build>   (the build's bundle and demo key)
"""

import gzip
import io
import os
import shutil
import statistics
import subprocess
import sys
import tarfile
import tempfile
import time
import zlib

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MAKE_PKG = os.path.join(ROOT, "tools", "make-pkg")
GIB, MIB = 1 << 30, 1 << 20
SIZES = (("1 GiB", 1), ("8 GiB", 8))
RUNS = 3
BOMB_GIB = 60
TARGETS = dict(refuse_s=2.0, rss_mb=64.0, ratio=1.25)


def timed(command, env=None):
    """Seconds, peak resident MB and output of one run."""
    start = time.monotonic()
    child = subprocess.Popen(command, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    output = child.stdout.read()
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    return time.monotonic() - start, usage.ru_maxrss / 1024.0, child.returncode, output.decode(errors="replace")


def bomb(path):
    """Its index and header, then 60 gzip members of 1 GiB of zeros each:
    one stream, as libarchive reads it."""
    from importlib.machinery import SourceFileLoader
    make_pkg = SourceFileLoader("make_pkg", MAKE_PKG).load_module()
    huge = tarfile.TarInfo("Payload/opt/Oktavo/Bomb/zeros")
    huge.size = BOMB_GIB * GIB
    index = make_pkg.index(b'<pkg-info identifier="com.oktavo.bomb" version="1"/>', [make_pkg.row(huge, io.BytesIO())])
    head = tarfile.TarInfo("Index")
    head.size = len(index)
    zeros = zlib.compressobj(6, zlib.DEFLATED, 31)
    member = zeros.compress(bytes(GIB)) + zeros.flush()
    with open(path, "wb") as out:
        out.write(gzip.compress(head.tobuf(tarfile.PAX_FORMAT) + index + bytes(-len(index) % 512)
                                + huge.tobuf(tarfile.PAX_FORMAT)))
        for _ in range(BOMB_GIB):
            out.write(member)
        out.write(gzip.compress(bytes(1024)))


def payload(folder, gib):
    product = os.path.join(folder, "opt", "Oktavo", "Bench")
    os.makedirs(product)
    # The random quarter repeats a MiB apart, beyond what gzip looks back.
    block = os.urandom(MIB // 4) + bytes(3 * MIB // 4)
    for n in range(gib * 8):
        with open(os.path.join(product, "part-%03d" % n), "wb") as f:
            for _ in range(128):
                f.write(block)


def main():
    if len(sys.argv) != 2:
        raise SystemExit(__doc__)
    build = os.path.abspath(sys.argv[1])
    installer = os.path.join(build, "bundle", "libexec", "installer")
    key = os.path.join(build, "keys", "demo-signing-key.pem")
    trusted = os.path.join(build, "bundle", "Resources", "keys")
    work = tempfile.mkdtemp(prefix="bench-install-", dir=build)
    failed = False
    try:
        env = dict(os.environ, VLUM_TRUSTED_KEYS=trusted)
        package = os.path.join(work, "bomb.pkg")
        bomb(package)
        target = os.path.join(work, "target")
        os.mkdir(target)
        env["VLUM_INSTALL_ROOT"] = target
        seconds, rss, status, output = timed([installer, "-verboseR", "-target", "/", "-package", package], env)
        refused = status == 1 and "unsigned" in output.splitlines()[-1]
        failed |= not refused
        print("bomb: %.0f MB package, %d GiB claimed: %s in %.3f s, peak RSS %.1f MB (targets < %.0f s, < %.0f MB: %s)"
              % (os.path.getsize(package) / 1e6, BOMB_GIB, "refused" if refused else "NOT refused: " + output[-200:],
                 seconds, rss, TARGETS["refuse_s"], TARGETS["rss_mb"],
                 "meets" if seconds < TARGETS["refuse_s"] and rss < TARGETS["rss_mb"] else "misses"))
        os.unlink(package)

        for name, gib in SIZES:
            folder = os.path.join(work, "payload")
            package = os.path.join(work, "bench.pkg")
            payload(folder, gib)
            subprocess.run([MAKE_PKG, "--sign", key, "--identifier", "com.oktavo.bench", "--version", "1", folder,
                            package], check=True)
            shutil.rmtree(folder)
            ours, theirs, peaks = [], [], []
            for _ in range(RUNS):
                shutil.rmtree(target, ignore_errors=True)
                os.mkdir(target)
                seconds, rss, status, output = timed([installer, "-verboseR", "-target", "/", "-package", package], env)
                failed |= status != 0
                ours.append(seconds)
                peaks.append(rss)
                shutil.rmtree(target)
                os.mkdir(target)
                seconds, _, status, _ = timed(["tar", "-xzf", package, "-C", target])
                failed |= status != 0
                theirs.append(seconds)
            shutil.rmtree(target)
            ratio = statistics.median(ours) / statistics.median(theirs)
            print("%s signed (%.0f MB package): installer %s s (median %.1f), tar -xzf %s s (median %.1f): %.2f x "
                  "(target <= %.2f: %s); peak RSS %s MB (target < %.0f: %s)"
                  % (name, os.path.getsize(package) / 1e6, " ".join("%.1f" % s for s in ours), statistics.median(ours),
                     " ".join("%.1f" % s for s in theirs), statistics.median(theirs), ratio, TARGETS["ratio"],
                     "meets" if ratio <= TARGETS["ratio"] else "misses", " ".join("%.1f" % r for r in peaks),
                     TARGETS["rss_mb"], "meets" if max(peaks) < TARGETS["rss_mb"] else "misses"))
            os.unlink(package)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
