"""Many recordings, here and on the workers of a cluster."""
import os
import subprocess
import sys

import numpy as np
import pytest

import mlnn


@pytest.fixture
def network(digits):
    return mlnn.load(digits / "synth.txt")


@pytest.fixture
def paths(digits):
    return sorted((digits / "frames").glob("*.npy"))


def expected(network, paths):
    decisions = []
    for path in paths:
        sums = np.log(np.maximum(network(np.load(path)).astype(np.float64), 1e-30)).sum(axis=0)
        decisions.append((path.stem, len(np.load(path)), int(sums.argmax()), float(sums.max())))
    return decisions


def rows(results):
    return [tuple(one.to_dict().values()) for one in results]


def outputs_in(folder):
    return {path.stem: path.read_bytes() for path in folder.glob("*.npy")}


def test_recordings_are_files_or_arrays(network, paths):
    told = []
    results = mlnn.score_recordings(network, paths, batch=7, progress=lambda *counts: told.append(counts))
    assert rows(results) == expected(network, paths)
    assert told == [(7, 30), (14, 30), (21, 30), (28, 30), (30, 30)]
    arrays = {path.stem: np.load(path) for path in paths}
    assert rows(mlnn.score_recordings(network, arrays)) == rows(results)
    assert rows(mlnn.score_recordings(network, iter(arrays.items()))) == rows(results)
    assert rows(mlnn.score_recordings(network, [("a", str(paths[3])), ("b", arrays[paths[3].stem].tolist())])) == [
        ("a", *rows(results)[3][1:]), ("b", *rows(results)[3][1:])]
    assert mlnn.score_recordings(network, []) == []


def test_outputs_are_files_that_a_later_call_takes(network, paths, tmp_path):
    out = tmp_path / "out"
    first = mlnn.score_recordings(network, paths[:4], out=out)
    assert sorted(outputs_in(out)) == [path.stem for path in paths[:4]]
    for path in paths[:4]:
        assert (np.load(out / path.name) == network(np.load(path))).all()
    kept = (out / paths[1].name).stat().st_ino
    (out / paths[2].name).unlink()
    again = mlnn.score_recordings(network, paths, out=out)
    assert rows(again) == expected(network, paths) and again[:4] == first
    assert (out / paths[1].name).stat().st_ino == kept
    assert len(outputs_in(out)) == 30
    assert sorted(path.name for path in out.iterdir() if path.suffix != ".npy") == ["mlnn-results.json"]


def test_a_recording_that_is_newer_than_its_outputs_is_run_again(network, paths, tmp_path):
    mine = tmp_path / "mine.npy"
    mine.write_bytes(paths[0].read_bytes())
    mlnn.score_recordings(network, [mine], out=tmp_path / "out")
    mine.write_bytes(paths[9].read_bytes())
    later = (tmp_path / "out" / "mine.npy").stat().st_mtime_ns + 10**9
    os.utime(mine, ns=(later, later))
    found, = mlnn.score_recordings(network, [mine], out=tmp_path / "out")
    assert rows([found])[0][1:] == expected(network, paths[9:10])[0][1:]


def test_a_folder_of_another_origin_is_refused_and_stays(network, paths, tmp_path):
    out = tmp_path / "out"
    mlnn.score_recordings(network, paths[:2], out=out)
    before = outputs_in(out)
    other = network.copy()
    other.layers[1].bias[3] += 1
    with pytest.raises(ValueError, match="the results there are another model's"):
        mlnn.score_recordings(other, paths[:3], out=out)
    (out / "mlnn-results.json").unlink()
    with pytest.raises(ValueError, match="holds files of another origin"):
        mlnn.score_recordings(network, paths[:3], out=out)
    assert outputs_in(out) == before


@pytest.mark.parametrize("names, message", [
    (["a", "a"], "two recordings are called 'a'"), (["../a"], "'../a' is no name for a file"),
    ([""], "'' is no name for a file"), (["a\0b"], "is no name for a file")])
def test_names_that_make_no_file_of_their_own_are_refused(network, paths, tmp_path, names, message):
    with pytest.raises(ValueError, match=message):
        mlnn.score_recordings(network, [(name, paths[0]) for name in names], out=tmp_path / "out")
    assert outputs_in(tmp_path / "out") == {} and not (tmp_path / "a.npy").exists()


def test_what_is_no_recording_is_refused_by_name(network, paths, tmp_path):
    with pytest.raises(ValueError, match="^odd: frames of 3 values; expected 120"):
        mlnn.score_recordings(network, [("odd", [[1, 2, 3]])])
    (tmp_path / "broken.npy").write_bytes(b"\x93NUMPY")
    with pytest.raises(ValueError, match="^broken: "):
        mlnn.score_recordings(network, [tmp_path / "broken.npy"])
    with pytest.raises(FileNotFoundError):
        mlnn.score_recordings(network, [tmp_path / "missing.npy"])
    with pytest.raises(TypeError, match="expected paths, or pairs of a name and frames, got ndarray"):
        mlnn.score_recordings(network, [np.zeros((1, 120))])
    with pytest.raises(ValueError, match="batch: expected 1"):
        mlnn.score_recordings(network, paths, batch=0)


def test_a_cluster_of_no_workers_is_refused(network, paths):
    pytest.importorskip("distributed")
    with pytest.raises(ValueError, match="on: expected 1"):
        mlnn.score_recordings(network, paths, 0)


def test_nothing_of_a_broken_off_call_is_lost(network, paths, tmp_path):
    class Enough(Exception):
        pass

    def stop(done, total):
        if done == 10:
            raise Enough

    out = tmp_path / "out"
    with pytest.raises(Enough):
        mlnn.score_recordings(network, paths, out=out, batch=5, progress=stop)
    assert len(outputs_in(out)) == 10
    assert rows(mlnn.score_recordings(network, paths, out=out)) == expected(network, paths)


ON_TWO_WORKERS = r"""
import os, pathlib, signal, sys
import distributed, numpy as np
import mlnn

def main(digits, folder):
    network = mlnn.load(digits / "synth.txt")
    paths = sorted((digits / "frames").glob("*.npy"))
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, dashboard_address="localhost:0") as cluster, \
            distributed.Client(cluster) as client:
        workers = list(client.run(os.getpid).values())
        assert len(workers) == 2 and os.getpid() not in workers
        killed = []

        def kill(done, total):
            if not killed:  # of the 30 batches 21 at least are not on their way yet
                killed.append(workers[0])
                os.kill(workers[0], signal.SIGKILL)

        results = mlnn.score_recordings(network, paths, client, batch=1, out=folder / "out", progress=kill)
        client.wait_for_workers(2, timeout=200)  # a cluster that is closed in the middle of a restart may wait on
        assert killed == workers[:1] and killed[0] not in client.run(os.getpid).values()
        arrays = {path.stem: np.load(path) for path in paths}
        again = mlnn.score_recordings(network, arrays, client, batch=4)
        try:
            mlnn.score_recordings(network, {**arrays, "odd": [[1, 2, 3]]}, client, batch=8)
        except ValueError as error:
            print(error)
    assert results == again
    print(*results, sep="\n")

if __name__ == "__main__":  # workers read this file, too
    main(*map(pathlib.Path, sys.argv[1:]))
"""


def test_a_cluster_does_the_work_of_a_worker_that_is_killed(network, paths, digits, tmp_path):
    pytest.importorskip("distributed")
    script = tmp_path / "on_two_workers.py"
    script.write_text(ON_TWO_WORKERS)
    done = subprocess.run([sys.executable, script, digits, tmp_path], capture_output=True, text=True, timeout=280)
    assert done.returncode == 0, done.stderr
    single = mlnn.score_recordings(network, paths, out=tmp_path / "single")
    assert done.stdout.splitlines() == [
        "odd: frames of 3 values; expected 120 (single frames) or 600 (input vectors)", *map(str, single)]
    assert outputs_in(tmp_path / "out") == outputs_in(tmp_path / "single")
    assert rows(single) == expected(network, paths)
