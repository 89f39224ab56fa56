#!/usr/bin/env python3
"""Whole-command start-up benchmark: talvexctl against /bin/true.

Starts a private `talvexsim serve` on a socket of its own, then runs
`talvexctl ping`, `talvexctl readreg gyro 0 10` and `talvexctl help` in
paired runs: each round runs /bin/true and every command once, in an order
that rotates from round to round, so that load on the machine falls on all
of them alike. Prints, per command, the median wall time, the median of the
per-round ratios to /bin/true and the peak resident set size.

    bench/commands.py [--build DIR] [--before DIR] [--runs N]

--build DIR   the build tree to measure (default build/default)
--before DIR  another build tree measured in the same rounds (for before and
              after figures); its talvexctl talks to its own talvexsim
--runs N      rounds (default 200)
"""
import argparse
import os
import shutil
import signal
import socket
import statistics
import sys
import tempfile
import time

GNU_TIME = "/usr/bin/time"
COMMANDS = [["ping"], ["readreg", "gyro", "0", "10"], ["help"]]


class Simulator:
    def __init__(self, talvexsim):
        self.dir = tempfile.mkdtemp(prefix="talvex-cmdbench-")
        self.socket = os.path.join(self.dir, "sim.sock")
        self.pid = os.posix_spawn(talvexsim, [talvexsim, "serve", "--socket", self.socket], os.environ)
        deadline = time.monotonic() + 30
        while not self.reachable():
            if time.monotonic() > deadline:
                sys.exit(f"{talvexsim} did not answer at {self.socket}")
            time.sleep(0.01)

    def reachable(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            try:
                s.connect(self.socket)
                return True
            except OSError:
                return False

    def close(self):
        os.kill(self.pid, signal.SIGTERM)
        os.waitpid(self.pid, 0)
        shutil.rmtree(self.dir, ignore_errors=True)


def run_once(argv, env):
    """Wall time in seconds of one run, output discarded."""
    devnull = os.open(os.devnull, os.O_WRONLY)
    try:
        start = time.perf_counter()
        pid = os.posix_spawn(argv[0], argv, env, file_actions=[
            (os.POSIX_SPAWN_DUP2, devnull, 1), (os.POSIX_SPAWN_DUP2, devnull, 2)])
        _, status = os.waitpid(pid, 0)
        elapsed = time.perf_counter() - start
    finally:
        os.close(devnull)
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"{' '.join(argv)} failed (status {status})")
    return elapsed


def peak_rss(argv, env):
    """Peak resident set size in KiB, or None. The kernel counts what the
    spawning process had before exec, so a small spawner measures it:
    GNU time (Debian's `time`), when installed."""
    if not os.access(GNU_TIME, os.X_OK):
        return None
    r, w = os.pipe()
    os.set_inheritable(w, True)
    devnull = os.open(os.devnull, os.O_WRONLY)
    pid = os.posix_spawn(GNU_TIME, [GNU_TIME, "-f", "%M", "-o", f"/dev/fd/{w}"] + argv, env, file_actions=[
        (os.POSIX_SPAWN_DUP2, devnull, 1), (os.POSIX_SPAWN_DUP2, devnull, 2)])
    os.close(w)
    os.close(devnull)
    with os.fdopen(r) as out:
        text = out.read()
    os.waitpid(pid, 0)
    return int(text.split()[-1])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default="build/default")
    parser.add_argument("--before")
    parser.add_argument("--runs", type=int, default=200)
    args = parser.parse_args()

    trees = [("before", args.before)] if args.before else []
    trees.append(("after" if args.before else "", args.build))
    sims, cases = [], [("/bin/true", ["/bin/true"], dict(os.environ))]
    try:
        for label, tree in trees:
            ctl = os.path.abspath(os.path.join(tree, "talvexctl/talvexctl"))
            sim = Simulator(os.path.abspath(os.path.join(tree, "sim/talvexsim")))
            sims.append(sim)
            env = dict(os.environ, TALVEX_SIM_SOCKET=sim.socket)
            for words in COMMANDS:
                name = " ".join(words) + (f" ({label})" if label else "")
                cases.append((name, [ctl] + words, env))

        for _, argv, env in cases:            # warm the page cache
            for _ in range(5):
                run_once(argv, env)
        times = {name: [] for name, _, _ in cases}
        rss = {name: max((peak_rss(argv, env) or 0) for _ in range(5)) for name, argv, env in cases}
        for round_ in range(args.runs):
            shift = round_ % len(cases)
            for name, argv, env in cases[shift:] + cases[:shift]:
                times[name].append(run_once(argv, env))
    finally:
        for sim in sims:
            sim.close()

    base = times["/bin/true"]
    load = os.getloadavg()
    print(f"{args.runs} paired rounds; load average {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}")
    print(f"{'command':<38} {'median':>10} {'ratio':>7} {'peak RSS':>10}")
    for name, _, _ in cases:
        peak = f"{rss[name] / 1024:.2f}MiB" if rss[name] else "n/a"
        ratio = statistics.median(t / b for t, b in zip(times[name], base))
        print(f"{'talvexctl ' + name if name != '/bin/true' else name:<38} "
              f"{statistics.median(times[name]) * 1e6:8.0f}us {ratio:6.2f}x {peak:>10}")


if __name__ == "__main__":
    main()
