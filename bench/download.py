#!/usr/bin/env python3
"""Download throughput and memory of the wizard's download engine.

Serves packages of 256 MiB and 1 GiB from the local vendor server over HTTPS
on loopback, fetches each with `curl -o`, with bench_download_child (the
engine alone) and with bench_download_child --wizard (the whole program,
its download page showing progress), and prints the throughputs, their
ratios to curl and the peak resident memory, each the median of three
alternating runs (the machine is shared, and single runs vary by a third). Targets: engine >= 0.9 x curl; peak RSS under 64 MB and
about the same for both sizes. Exits 0 whatever the figures, 1 when a
download fails.

    python3 bench/download.py <build>/bundle/bench/bench_download_child
"""

import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SIZES = (("256 MiB", 256 << 20), ("1 GiB", 1 << 30))
RATIO_TARGET = 0.9
RSS_TARGET_MB = 64.0
RUNS = 3


def write_package(path, size):
    # Real bytes on disk, not a sparse file, so the server reads like it
    # would read a real package.
    block = bytes(range(256)) * 4096
    with open(path, "wb") as out:
        left = size
        while left:
            n = min(left, len(block))
            out.write(block[:n])
            left -= n


def start_server(catalog, state):
    server = subprocess.Popen(
        [os.path.join(ROOT, "tools", "vendor-server"), "--catalog", catalog, "--state", state, "--stop-with-parent"],
        stdout=subprocess.PIPE, text=True)
    line = server.stdout.readline()
    match = re.match(r"READY port=(\d+) url=(\S+) ca=(\S+)", line)
    if not match:
        server.terminate()
        sys.exit("vendor server did not start: %r" % line)
    return server, match.group(2), match.group(3)


def time_curl(url, ca, work):
    target = os.path.join(work, "curl.out")
    start = time.monotonic()
    subprocess.run(["curl", "-s", "--cacert", ca, "-o", target, url], check=True)
    elapsed = time.monotonic() - start
    os.remove(target)
    return elapsed


def time_engine(child, url, size, ca, work, wizard=False):
    """Seconds and peak RSS (MB) of one download, or None."""
    home = os.path.join(work, "home")
    downloads = os.path.join(home, "Downloads")
    os.makedirs(downloads, exist_ok=True)
    env = dict(os.environ, HOME=home, QT_QPA_PLATFORM="offscreen")
    env.pop("VLUMINSTALLER_DEBUG_LOG", None)
    mode = ["--wizard"] if wizard else []
    run = subprocess.run([child] + mode + [url, str(size), ca], env=env, capture_output=True, text=True)
    for name in os.listdir(downloads):
        os.remove(os.path.join(downloads, name))
    match = re.search(r"seconds=([\d.]+) maxrss_kb=(\d+)", run.stdout)
    if run.returncode != 0 or not match:
        sys.stderr.write(run.stderr)
        return None
    return float(match.group(1)), int(match.group(2)) / 1024.0


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    child = sys.argv[1]
    with tempfile.TemporaryDirectory() as work:
        catalog = os.path.join(work, "catalog")
        os.makedirs(os.path.join(catalog, "packages"))
        with open(os.path.join(catalog, "users.json"), "w") as users:
            users.write('{"users": {}}')
        open(os.path.join(catalog, "manifest.xml"), "w").close()
        for label, size in SIZES:
            write_package(os.path.join(catalog, "packages", "p%d.pkg" % size), size)
        server, base, ca = start_server(catalog, os.path.join(work, "state"))
        failed = False
        try:
            rss = []
            for label, size in SIZES:
                url = "%s/packages/p%d.pkg" % (base, size)
                curl_times, engine_times, peaks, wizard_times, wizard_peaks = [], [], [], [], []
                for _ in range(RUNS):
                    curl_times.append(time_curl(url, ca, work))
                    result = time_engine(child, url, size, ca, work)
                    whole = time_engine(child, url, size, ca, work, wizard=True)
                    if result is None or whole is None:
                        failed = True
                        break
                    engine_times.append(result[0])
                    peaks.append(result[1])
                    wizard_times.append(whole[0])
                    wizard_peaks.append(whole[1])
                if failed:
                    print("%s: the engine's download failed" % label)
                    break
                curl_rate = size / statistics.median(curl_times) / 1e6
                engine_rate = size / statistics.median(engine_times) / 1e6
                ratio = engine_rate / curl_rate
                rss_mb = max(peaks)
                rss.append(rss_mb)
                print("%-8s curl %7.1f MB/s  engine %7.1f MB/s  ratio %.2f (%s)  engine peak RSS %.1f MB (%s)" % (
                    label, curl_rate, engine_rate, ratio,
                    "ok" if ratio >= RATIO_TARGET else "below %.1f" % RATIO_TARGET,
                    rss_mb, "ok" if rss_mb < RSS_TARGET_MB else "over %.0f MB" % RSS_TARGET_MB))
                wizard_rate = size / statistics.median(wizard_times) / 1e6
                print("%-8s whole wizard %7.1f MB/s  ratio %.2f  peak RSS %.1f MB" % (
                    label, wizard_rate, wizard_rate / curl_rate, max(wizard_peaks)))
            if len(rss) == 2:
                print("peak RSS grows by %.1f MB from 256 MiB to 1 GiB" % (rss[1] - rss[0]))
        finally:
            server.terminate()
            server.wait()
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
