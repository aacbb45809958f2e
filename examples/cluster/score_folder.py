"""Scores all recordings of a folder with a model: on a Dask cluster, or on this machine alone.

A recording is a .npy file of frames x values. The model travels to each worker once; the workers
read the recordings, so they must see the folder under the same name.
"""
import argparse
import contextlib
import csv
import itertools
import pathlib
import sys

import numpy as np

import mlnn

SMALLEST_POSTERIOR = 1e-30
WAITING_PER_WORKER = 4  # batches that are on their way, so that no worker waits for work


def score(model: mlnn.Model, path: str) -> tuple[str, int, int, float]:
    """A recording's name, its number of frames, and the output with the largest sum of log
    posteriors, with that sum."""
    posteriors = model(np.load(path))
    sums = np.log(np.maximum(posteriors.astype(np.float64), SMALLEST_POSTERIOR)).sum(axis=0)
    best = int(sums.argmax())
    return pathlib.Path(path).stem, len(posteriors), best, float(sums[best])


def score_all(model: mlnn.Model, paths: list[str]) -> list[tuple[str, int, int, float]]:
    return [score(model, path) for path in paths]


def batches(paths, size: int):
    paths = iter(paths)
    while batch := list(itertools.islice(paths, size)):
        yield batch


def score_on(client, model: mlnn.Model, paths, size: int):
    """The same as score_all by the workers of a cluster, in no certain order. However many
    recordings there are, only some batches are on their way at a time."""
    from distributed import as_completed
    held = client.scatter(model, broadcast=True)  # a pickle, to each worker once
    waiting = batches(paths, size)
    room = WAITING_PER_WORKER * max(1, len(client.scheduler_info()["workers"]))
    running = as_completed([client.submit(score_all, held, batch, pure=False)
                            for batch in itertools.islice(waiting, room)])
    for done in running:
        for batch in itertools.islice(waiting, 1):
            running.add(client.submit(score_all, held, batch, pure=False))
        yield from done.result()


@contextlib.contextmanager
def cluster(options):
    from distributed import Client, LocalCluster
    if options.scheduler:
        with Client(options.scheduler) as client:
            yield client
        return
    with LocalCluster(n_workers=options.workers, threads_per_worker=1,
                      dashboard_address=None) as local, Client(local) as client:
        yield client


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("model")
    parser.add_argument("folder", help="folder of .npy files, frames x values each")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--scheduler", help="address of a cluster, as in tcp://head:8786")
    where.add_argument("--workers", type=int, default=0,
                       help="start a cluster of so many workers here; 0: none")
    parser.add_argument("--batch", type=int, default=64, help="recordings of one task")
    options = parser.parse_args()

    model = mlnn.load(options.model)
    paths = [str(path) for path in sorted(pathlib.Path(options.folder).resolve().glob("*.npy"))]
    if options.scheduler or options.workers:
        with cluster(options) as client:
            rows = sorted(score_on(client, model, paths, options.batch))
    else:
        rows = score_all(model, paths)
    labels = model.props.get("labels", "").split(",")
    named = len(labels) == model.num_outputs
    table = csv.writer(sys.stdout, lineterminator="\n")
    table.writerow(["recording", "frames", "decision", "sum_of_log_posteriors"])
    for name, frames, best, total in rows:
        table.writerow([name, frames, labels[best] if named else best, repr(total)])


if __name__ == "__main__":
    main()
