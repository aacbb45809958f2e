"""Many recordings, here or on the workers of a Dask cluster, which is imported when it is called."""
from __future__ import annotations

import contextlib
import dataclasses
import itertools
import json
import os
import uuid
from collections.abc import Callable, Iterable, Iterator, Mapping, Sized
from typing import TYPE_CHECKING, Any, Optional, Union

import numpy as np
import numpy.typing as npt

from ._results import Results, _Result
from ._values import _Floats, _integer

if TYPE_CHECKING:
    from . import Model

SMALLEST_POSTERIOR = 1e-30
MARK = "mlnn-results.json"  # in a folder of results: which model made them
WAITING_PER_WORKER = 4      # batches that are on their way, so that no worker waits for work
ATTEMPTS = 3                # at a batch whose workers are lost with all that they held

_Path = Union[str, "os.PathLike[str]"]
_Source = Union[_Path, npt.ArrayLike]
_Recordings = Union[Mapping[str, _Source], Iterable[Union[_Path, "tuple[str, _Source]"]]]
_Progress = Callable[[int, Optional[int]], object]
_Batch = list[tuple[str, Any]]  # names, with a path or frames


@dataclasses.dataclass(frozen=True)
class Decision(_Result):
    """What a model gives for a recording."""

    recording: str
    frames: int
    best: int  # the output with the largest sum of log posteriors, from 0
    sum_of_log_posteriors: float


def score_recordings(model: Model, recordings: _Recordings, on: Any = None, *,
                     out: _Path | None = None, batch: int = 64,
                     progress: _Progress | None = None) -> Results[Decision]:
    """Runs a model over any number of recordings: a Decision for each, in their order.

    Recordings are paths of .npy files, named by the file without its suffix, or pairs of a name and a path
    or frames; or a mapping from names to these. They are looked at as they are needed.
    `on` says where: None here, a number so many workers on this machine, an address (`tcp://head:8786`) or a
    distributed.Client the cluster that is there. A worker gets the model once, and then `batch` recordings at a
    time; it reads files itself, so it must see them under the same names. Where a worker dies, others do its work.
    Results are the same bits in every case, on processors with fused multiply-add.
    With a folder `out`, the outputs for each recording are written there as NAME.npy, each file when it is
    complete. What is there already, from an earlier call with the same model that was broken off, is taken,
    unless the recording's file is newer. `progress(done, all)` is called now and then; `all` is None where
    the recordings have no length.
    Raises ValueError, with its name, for a recording that the model does not take, for two of one name with
    `out`, and for an `out` with the results of another model, or with files of another origin.
    """
    size = _integer(batch, "batch", 1)
    folder = None if out is None else _prepared(model, os.fspath(out))
    named = _named(recordings, folder is not None)
    total = len(recordings) if isinstance(recordings, Sized) else None
    batches = _batches(named, size)
    done: dict[int, list[Decision]] = {}
    count = 0
    with _where(on) as client:
        results = _here(model, batches, folder) if client is None else _on(client, model, batches, folder)
        for number, decisions in results:
            done[number] = decisions
            count += len(decisions)
            if progress is not None:
                progress(count, total)
    return Results(itertools.chain.from_iterable(done[number] for number in sorted(done)))


@contextlib.contextmanager
def _where(on: Any) -> Iterator[Any]:
    """The client of a cluster, or None for this process. What is started here is stopped again."""
    if on is None:
        yield None
        return
    import distributed
    if isinstance(on, distributed.Client):
        yield on
    elif isinstance(on, str):
        with distributed.Client(on) as client:
            yield client
    else:
        workers = _integer(on, "on", 1)
        with distributed.LocalCluster(n_workers=workers, threads_per_worker=1, dashboard_address="localhost:0") as local, \
                distributed.Client(local) as client:
            yield client


def _named(recordings: _Recordings, are_files: bool) -> Iterator[tuple[str, Any]]:
    """The recordings, with their names; those of files must differ, and be names of files."""
    known = set()
    pairs = recordings.items() if isinstance(recordings, Mapping) else recordings
    for one in pairs:
        name, source = one if isinstance(one, tuple) else (_stem(one), one)
        if are_files:
            if name in known:
                raise ValueError(f"two recordings are called {name!r}")
            if not name or name != os.path.basename(name) or "\0" in name:
                raise ValueError(f"{name!r} is no name for a file")
            known.add(name)
        yield name, os.path.abspath(source) if isinstance(source, (str, os.PathLike)) else source


def _stem(path: Any) -> str:
    if not isinstance(path, (str, os.PathLike)):
        raise TypeError(f"recordings: expected paths, or pairs of a name and frames, got {type(path).__name__}")
    return os.path.splitext(os.path.basename(os.fspath(path)))[0]


def _batches(named: Iterator[tuple[str, Any]], size: int) -> Iterator[tuple[int, _Batch]]:
    for number in itertools.count():
        batch = list(itertools.islice(named, size))
        if not batch:
            return
        yield number, batch


# --- Where they run ---

def _here(model: Model, batches: Iterator[tuple[int, _Batch]],
          folder: str | None) -> Iterator[tuple[int, list[Decision]]]:
    for number, batch in batches:
        yield number, score_batch(model, batch, folder)


def _on(client: Any, model: Model, batches: Iterator[tuple[int, _Batch]],
        folder: str | None) -> Iterator[tuple[int, list[Decision]]]:
    """Runs batches on a cluster, of which only some are on their way at a time."""
    from concurrent.futures import CancelledError
    from distributed import as_completed
    # A pickle, to each worker once. Its key must be new: what the scheduler knows of an earlier one may name
    # workers that have died since.
    held = client.scatter(model, broadcast=True, hash=False)
    running = as_completed()
    sent: dict[str, tuple[int, _Batch, int]] = {}

    def send(number: int, batch: _Batch, attempt: int) -> None:
        future = client.submit(score_batch, held, batch, folder, pure=False)
        sent[future.key] = number, batch, attempt
        running.add(future)

    room = WAITING_PER_WORKER * max(1, len(client.scheduler_info()["workers"]))
    for number, batch in itertools.islice(batches, room):
        send(number, batch, 1)
    for future in running:
        number, batch, attempt = sent.pop(future.key)
        try:
            decisions = future.result()
        except CancelledError:  # every worker that held the model is gone
            if attempt == ATTEMPTS:
                raise
            held = client.scatter(model, hash=False)
            send(number, batch, attempt + 1)
            continue
        for following in itertools.islice(batches, 1):
            send(*following, 1)
        yield number, decisions


def score_batch(model: Model, batch: _Batch, folder: str | None) -> list[Decision]:
    """The work of a worker."""
    return [_scored(model, name, source, folder) for name, source in batch]


def _scored(model: Model, name: str, source: Any, folder: str | None) -> Decision:
    path = None if folder is None else os.path.join(folder, name + ".npy")
    outputs = None if path is None else _earlier(path, source)
    if outputs is None:
        try:
            frames = np.load(source, allow_pickle=False) if isinstance(source, str) else source
            outputs = model(frames)
        except ValueError as error:
            raise ValueError(f"{name}: {error}") from None
        if path is not None:
            _write(path, outputs)
    sums = np.log(np.maximum(outputs.astype(np.float64), SMALLEST_POSTERIOR)).sum(axis=0)
    best = int(sums.argmax())
    return Decision(name, len(outputs), best, float(sums[best]))


# --- Results in files ---

def _prepared(model: Model, folder: str) -> str:
    """Makes the folder, and marks it as the model's. Returns its name for all workers."""
    folder = os.path.abspath(folder)
    os.makedirs(folder, exist_ok=True)
    mark = os.path.join(folder, MARK)
    said = {"digest": model.digest().to_dict(), "softmax": model.softmax,
            "activations": [layer.act_fn for layer in model.layers]}
    if os.path.exists(mark):
        with open(mark, encoding="utf-8") as file:
            if json.load(file) != said:
                raise ValueError(f"{folder}: the results there are another model's")
    elif any(name.endswith(".npy") for name in os.listdir(folder)):
        raise ValueError(f"{folder}: holds files of another origin")
    else:
        with _appearing(mark) as file:
            file.write(json.dumps(said, indent=1).encode())
    return folder


def _earlier(path: str, source: Any) -> _Floats | None:
    """What an earlier call has written, unless the recording is newer."""
    try:
        if isinstance(source, str) and os.stat(source).st_mtime_ns > os.stat(path).st_mtime_ns:
            return None
        outputs: _Floats = np.load(path, allow_pickle=False)
    except FileNotFoundError:
        return None
    return outputs


def _write(path: str, outputs: _Floats) -> None:
    with _appearing(path) as file:
        np.save(file, outputs, allow_pickle=False)


@contextlib.contextmanager
def _appearing(path: str) -> Iterator[Any]:
    """A file that appears when it is complete, though a worker may be killed at any time, or two may
    write the same."""
    folder, name = os.path.split(path)
    unfinished = os.path.join(folder, f".{name}.{uuid.uuid4().hex}")
    with open(unfinished, "xb") as file:
        try:
            yield file
            file.flush()
            os.replace(unfinished, path)
        except BaseException:
            os.unlink(unfinished)
            raise
