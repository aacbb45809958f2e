"""Scores all recordings of a folder with a model: on a Dask cluster, or on this machine alone.

A recording is a .npy file of frames x values. The model travels to each worker once; the workers
read the recordings, so they must see the folder under the same name.
"""
import argparse
import csv
import pathlib
import sys

import mlnn


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("model")
    parser.add_argument("folder", help="folder of .npy files, frames x values each")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--scheduler", help="address of a cluster, as in tcp://head:8786")
    where.add_argument("--workers", type=int, default=0,
                       help="start a cluster of so many workers here; 0: none")
    parser.add_argument("--batch", type=int, default=64, help="recordings of one task")
    parser.add_argument("--out", help="folder for the posteriors; what is there already is not done again")
    options = parser.parse_args()

    model = mlnn.load(options.model)
    results = mlnn.score_recordings(
        model, sorted(pathlib.Path(options.folder).glob("*.npy")), options.scheduler or options.workers or None,
        batch=options.batch, out=options.out)
    labels = model.props.get("labels", "").split(",")
    named = len(labels) == model.num_outputs
    table = csv.writer(sys.stdout, lineterminator="\n")
    table.writerow(["recording", "frames", "decision", "sum_of_log_posteriors"])
    for one in results:
        table.writerow([one.recording, one.frames, labels[one.best] if named else one.best,
                        repr(one.sum_of_log_posteriors)])


if __name__ == "__main__":
    main()
