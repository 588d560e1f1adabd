#!/usr/bin/env python3
"""Time from process start to the wizard's first frame on screen.

Runs bench_startup_child (built into <build>/bundle/bench) several times on
the offscreen platform and under a private Xvfb server, and prints each run,
min/median/max per mode and whether the median is under the target. Exits 0
whatever the figures, 1 when the program fails to show its window.

    python3 bench/startup.py <build>/bundle/bench/bench_startup_child
"""

import argparse
import os
import select
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

TARGET_MS = 300.0
RUN_TIMEOUT_S = 10.0
XVFB_START_TIMEOUT_S = 10.0
SCREEN = "1280x800x24"

MODES = ("offscreen", "xvfb")

# Variables that would make a run depend on who starts it: settings and
# caches are redirected into the run's own HOME, the debug switch makes the
# program log more, and a display or platform is set per mode below.
DROPPED_VARIABLES = (
    "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME",
    "XDG_RUNTIME_DIR", "XAUTHORITY", "DISPLAY", "WAYLAND_DISPLAY",
    "QT_QPA_PLATFORM", "QT_QPA_PLATFORMTHEME", "QT_STYLE_OVERRIDE",
    "QT_SCALE_FACTOR", "QT_DEBUG_PLUGINS", "QT_LOGGING_RULES",
    "VLUMINSTALLER_DEBUG_LOG",
)


class BenchError(Exception):
    pass


def tail(text, lines=15):
    kept = text.strip().splitlines()[-lines:]
    return "\n".join("    " + line for line in kept) if kept else "    (nothing)"


class Xvfb:
    """A private X server for the xvfb mode, on a display number it picks
    itself (-displayfd), so it never collides with a server already running."""

    def __init__(self):
        self.process = None
        self.display = None
        self.log = None

    def __enter__(self):
        xvfb = shutil.which("Xvfb")
        if not xvfb:
            raise BenchError("Xvfb is not installed (apt-get install xvfb, or run scripts/setup)")
        self.log = tempfile.TemporaryFile()
        read_end, write_end = os.pipe()
        try:
            self.process = subprocess.Popen(
                [xvfb, "-displayfd", str(write_end), "-screen", "0", SCREEN, "-nolisten", "tcp", "-noreset"],
                stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log,
                pass_fds=(write_end,))
            os.close(write_end)
            write_end = -1
            # Xvfb writes the number once it accepts connections.
            number = b""
            deadline = time.monotonic() + XVFB_START_TIMEOUT_S
            while not number.endswith(b"\n"):
                left = deadline - time.monotonic()
                ready, _, _ = select.select([read_end], [], [], max(left, 0))
                if not ready:
                    raise BenchError(f"Xvfb did not become ready within {XVFB_START_TIMEOUT_S:.0f} s")
                chunk = os.read(read_end, 64)
                if not chunk:
                    raise BenchError("Xvfb exited at start-up:\n" + tail(self._log_text()))
                number += chunk
        except BaseException:
            self._stop()
            raise
        finally:
            os.close(read_end)
            if write_end >= 0:
                os.close(write_end)
        self.display = ":" + number.decode().strip()
        return self

    def __exit__(self, *exc):
        self._stop()

    def _log_text(self):
        self.log.seek(0)
        return self.log.read().decode(errors="replace")

    def _stop(self):
        if self.process and self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(5)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        if self.log:
            self.log.close()
            self.log = None


def clean_environment(home, mode, display):
    env = {k: v for k, v in os.environ.items() if k not in DROPPED_VARIABLES}
    env["HOME"] = home
    runtime = os.path.join(home, "runtime")
    os.mkdir(runtime, 0o700)
    env["XDG_RUNTIME_DIR"] = runtime  # as in any desktop session
    if mode == "offscreen":
        env["QT_QPA_PLATFORM"] = "offscreen"
    else:
        env["QT_QPA_PLATFORM"] = "xcb"
        env["DISPLAY"] = display
    return env


def run_once(child, mode, display):
    """Milliseconds from just before the spawn to the child's first frame."""
    with tempfile.TemporaryDirectory(prefix="vlum-bench-home-") as home:
        env = clean_environment(home, mode, display)
        start_ns = time.monotonic_ns()
        process = subprocess.Popen([child], env=env, cwd=home, stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            out, err = process.communicate(timeout=RUN_TIMEOUT_S)
        except subprocess.TimeoutExpired:
            process.kill()
            _, err = process.communicate()
            raise BenchError(f"{mode}: the wizard did not show its window within "
                             f"{RUN_TIMEOUT_S:.0f} s; killed it. Its standard error:\n"
                             + tail(err.decode(errors="replace")))
        end_ns = time.monotonic_ns()
    err_text = err.decode(errors="replace")
    if process.returncode != 0:
        raise BenchError(f"{mode}: the program failed to start (exit status {process.returncode}). "
                         "Its standard error:\n" + tail(err_text))
    try:
        shown_ns = int(out.decode().strip())
    except ValueError:
        raise BenchError(f"{mode}: expected one timestamp on standard output, got {out!r}. "
                         "Its standard error:\n" + tail(err_text)) from None
    # Both clocks are CLOCK_MONOTONIC; a stamp outside the run means they are not.
    if not start_ns < shown_ns < end_ns:
        raise BenchError(f"{mode}: timestamp {shown_ns} lies outside the run "
                         f"({start_ns}..{end_ns}); the clocks do not match")
    return (shown_ns - start_ns) / 1e6


def measure(child, mode, runs, warmups, display=None):
    for _ in range(warmups):
        run_once(child, mode, display)  # fills the page cache; not counted
    return [run_once(child, mode, display) for _ in range(runs)]


def report(results, runs, warmups, target):
    modes = list(results)
    width = 12
    print(f"Start-up: process spawned -> wizard's first frame shown, in ms "
          f"({runs} runs per mode after {warmups} warm-up)")
    print("run".ljust(6) + "".join(m.rjust(width) for m in modes))
    for i in range(runs):
        print(str(i + 1).ljust(6) + "".join(f"{results[m][i]:{width}.1f}" for m in modes))
    print("-" * (6 + width * len(modes)))
    for name, fn in (("min", min), ("median", statistics.median), ("max", max)):
        print(name.ljust(6) + "".join(f"{fn(results[m]):{width}.1f}" for m in modes))
    print()
    for m in modes:
        med = statistics.median(results[m])
        verdict = "meets" if med < target else "MISSES"
        print(f"{m}: median {med:.1f} ms (min {min(results[m]):.1f}, max {max(results[m]):.1f}); "
              f"target < {target:.0f} ms: {verdict}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("child", help="path to bench_startup_child in the build's bundle")
    parser.add_argument("--runs", type=int, default=10, help="counted runs per mode (default 10)")
    parser.add_argument("--warmup", type=int, default=1, help="uncounted runs first (default 1)")
    parser.add_argument("--mode", choices=MODES, action="append",
                        help="measure only this mode (repeatable; default: all)")
    args = parser.parse_args()
    if args.runs < 1 or args.warmup < 0:
        parser.error("--runs must be at least 1 and --warmup at least 0")
    child = os.path.abspath(args.child)
    if not os.access(child, os.X_OK):
        parser.error(f"{args.child}: not an executable file (build the project first)")
    modes = args.mode or list(MODES)

    print(f"child: {child}")
    print(f"machine: {os.cpu_count()} CPUs, {cpu_model()}")
    results = {}
    try:
        for mode in MODES:
            if mode not in modes:
                continue
            if mode == "offscreen":
                results[mode] = measure(child, mode, args.runs, args.warmup)
            else:
                with Xvfb() as server:
                    print(f"xvfb: private server on display {server.display}, screen {SCREEN}")
                    results[mode] = measure(child, mode, args.runs, args.warmup, server.display)
    except BenchError as error:
        print(f"startup benchmark: {error}", file=sys.stderr)
        return 1
    print()
    report(results, args.runs, args.warmup, TARGET_MS)
    return 0


def cpu_model():
    try:
        with open("/proc/cpuinfo") as info:
            for line in info:
                if line.startswith("model name"):
                    return line.split(":", 1)[1].strip()
    except OSError:
        pass
    return "unknown CPU"


if __name__ == "__main__":
    sys.exit(main())
