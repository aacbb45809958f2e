"""Prints what a call of a model from Python costs beside the same pass in C++, over one frame of a small
network. Usage: one_frame.py PROGRAM, as bench/run python does; PROGRAM is OneFrame."""
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import mlnn

WIDTHS = (120, 64, 64, 12)  # the network S of the other benchmarks
CALLS, ROUNDS, TURNS = 2000, 10, 10


def network():
    rng = np.random.default_rng(1)
    return mlnn.Model.from_arrays([
        (rng.normal(size=(after, before)) / before ** 0.5, rng.normal(size=after) / 10, "sigmoid" if i < 2 else "linear")
        for i, (before, after) in enumerate(zip(WIDTHS, WIDTHS[1:]))])


def nanoseconds(call, frame):
    start = time.perf_counter_ns()
    for _ in range(CALLS):
        call(frame)
    return (time.perf_counter_ns() - start) / CALLS


def row(name, turns, others):
    values = [value for turn in turns for value in turn]
    cells = f"{name:24} {min(values) / 1000:8.2f} {statistics.median(values) / 1000:8.2f}"
    if others is not None:  # what else runs here slows single rounds, and the clock of the processor whole turns
        more = statistics.median(min(turn) - min(other) for turn, other in zip(turns, others))
        cells += f" {more / 1000:+8.2f}"
    print(cells)


def main(program):
    model = network()
    frame = np.full((1, WIDTHS[0]), 0.5, np.float32)
    calls = {"model(frame)": (model, frame), "model(frame[0])": (model, frame[0]),
             "model(frame.tolist())": (model, frame.tolist())}
    taken = {name: [] for name in ("C++", *calls)}
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "s.mlnn")
        model.save(path)
        for _ in range(TURNS):  # by turns, so that what else runs here meets all of them
            done = subprocess.run([program, path, str(CALLS), str(ROUNDS)], check=True, text=True, stdout=subprocess.PIPE)
            taken["C++"].append([float(line) for line in done.stdout.split()])
            for name, (call, given) in calls.items():
                taken[name].append([nanoseconds(call, given) for _ in range(ROUNDS)])
    print(f"{','.join(map(str, WIDTHS))}, one frame a call; microseconds of {ROUNDS * TURNS} rounds, and the median of "
          f"what {TURNS} turns\ntook more than C++\n")
    print(f"{'':24} {'least':>8} {'median':>8} {'more':>8}")
    for name, turns in taken.items():
        row(name, turns, None if name == "C++" else taken["C++"])


if __name__ == "__main__":
    main(sys.argv[1])
