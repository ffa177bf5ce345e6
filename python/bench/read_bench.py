#!/usr/bin/env python3
"""Reading a simulated hour from Python beside the tool, and logs read on threads.

    PYTHONPATH=build/python/package python3 python/bench/read_bench.py build/tools/nvb

Prints wall and CPU seconds (best of three): `nvb todat` of the hour,
nvbdll.read_observations of it into a Dataset, the records with and without their
fields, and four hours read into Datasets on one thread and on two (the library works
without the GIL, so two threads take about half the wall time where two cores are
free, and CPU time passes wall time), and how far Python goes on beside a read.
"""
import os
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import nvbdll


def cpu_seconds() -> float:
    """CPU time of this process and of the tool's runs it waited for."""
    return sum(os.times()[:4])


def best(call, repeat=3):
    """Wall and CPU seconds of the quickest of `repeat` runs; CPU time above wall time
    means threads ran at once."""
    times = []
    for _ in range(repeat):
        start, cpu = time.perf_counter(), cpu_seconds()
        call()
        times.append((time.perf_counter() - start, cpu_seconds() - cpu))
    return min(times)


def python_steps(work) -> float:
    """Steps per second that this thread takes while `work` runs on another: near those
    beside a sleep when the work lets go of the GIL, near none when it holds it."""
    with ThreadPoolExecutor(1) as pool:
        start = time.perf_counter()
        future = pool.submit(work)
        steps = 0
        while not future.done():
            steps += 1
        return steps / (time.perf_counter() - start)


def main() -> int:
    nvb = sys.argv[1] if len(sys.argv) > 1 else "nvb"
    with tempfile.TemporaryDirectory() as folder:
        logs = [Path(folder) / f"hour{seed}.nvb" for seed in range(4)]
        for seed, log in enumerate(logs):
            subprocess.run([nvb, "-q", "simulate", "-o", log, "-d", "3600", "--seed", str(seed + 1)], check=True)
        hour = logs[0]
        nvbdll.read_observations(hour)  # imports xarray once, outside the figures
        rows = [
            ("nvb todat", best(lambda: subprocess.run([nvb, "-q", "todat", hour, "-o", Path(folder) / "h.dat"],
                                                      check=True))),
            ("read_observations", best(lambda: nvbdll.read_observations(hour))),
            ("read_positions", best(lambda: nvbdll.read_positions(hour))),
            ("open, fields", best(lambda: list(nvbdll.open(hour)))),
            ("open, no fields", best(lambda: list(nvbdll.open(hour, fields=False)))),
        ]
        for threads in (1, 2):
            with ThreadPoolExecutor(threads) as pool:
                rows.append((f"4 hours, {threads} thread{'s' if threads > 1 else ''}",
                             best(lambda: list(pool.map(nvbdll.read_observations, logs)))))
        alone = python_steps(lambda: time.sleep(0.3))
        beside = python_steps(lambda: nvbdll._nvbdll.survey(str(hour)))
        print(f"{hour.stat().st_size} bytes, 3600 epochs of GPS, GLONASS, Galileo and BeiDou")
        print(f"{'':30s} {'wall s':>7s} {'CPU s':>7s}")
        for label, (wall, cpu) in rows:
            print(f"{label:30s} {wall:7.3f} {cpu:7.3f}")
        print(f"Python steps per second beside a read: {beside:.3g}, beside a sleep: {alone:.3g}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
