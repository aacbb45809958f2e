"""The examples that use the module: examples/train, examples/cluster, examples/notebook."""
import json
import pathlib
import re
import shutil
import subprocess
import sys
import wave

import numpy as np
import pytest

import mlnn

EXAMPLES = pathlib.Path(__file__).parents[2] / "examples"
TRAIN = EXAMPLES / "train"


def run(script, *arguments, **options):
    return subprocess.run([sys.executable, script, *map(str, arguments)], check=True, text=True,
                          stdout=subprocess.PIPE, **options).stdout


def test_the_features_of_the_training_are_those_of_the_digits(digits):
    sys.path.insert(0, str(TRAIN))
    try:
        from mel_frames import mel_frames
    finally:
        sys.path.remove(str(TRAIN))
    worst = 0
    paths = sorted((digits / "wav").glob("*.wav"))
    assert len(paths) == 30
    for path in paths:
        with wave.open(str(path)) as file:
            samples = np.frombuffer(file.readframes(file.getnframes()), "<i2") / 32768
        expected = np.load(digits / "frames" / f"{path.stem}.npy")
        worst = max(worst, np.abs(mel_frames(samples) - expected).max())
    print(f"largest difference {worst:.1e}")
    assert worst < 1e-4


def test_a_cluster_of_two_workers_scores_as_one_process_does(digits):
    pytest.importorskip("distributed")
    script = EXAMPLES / "cluster" / "score_folder.py"
    single = run(script, digits / "synth.txt", digits / "frames")
    assert single.count("\n") == 31
    assert "3_en-us_f4,42,3,-0.09" in single
    # On a slow machine Dask says on the standard error that a worker took its time to end.
    assert run(script, digits / "synth.txt", digits / "frames", "--workers", 2, "--batch", 3,
               stderr=subprocess.PIPE) == single


def test_the_cells_of_the_notebook_run_in_their_order(monkeypatch):
    for module in "matplotlib", "pandas":
        pytest.importorskip(module)
    monkeypatch.chdir(EXAMPLES)
    cells = json.loads((EXAMPLES / "notebook" / "digits.ipynb").read_text())["cells"]
    assert all(not cell["outputs"] for cell in cells if cell["cell_type"] == "code")
    names = {}
    for cell in cells:
        if cell["cell_type"] == "code":
            exec(compile("".join(cell["source"]), "digits.ipynb", "exec"), names)
    assert names["right"] == 29 and len(names["recordings"]) == 30


def test_a_short_training_ends_in_a_model_that_computes_the_same(tmp_path):
    for module in "torch", "scipy":
        pytest.importorskip(module)
    if shutil.which("espeak-ng") is None:
        pytest.skip("no espeak-ng")
    printed = run(TRAIN / "train_digits.py", tmp_path / "m.txt", "--voices", 3, "--epochs", 2)
    assert "60 words of 3 voices for training" in printed
    rows = {m[1]: m for m in re.finditer(
        r"^(PyTorch|mlnn, batch norm|folded(?:, \d+ bits)?)  .* +([\d.]+)% +([-+][\d.]+)% +(\d+) +(\S+)$",
        printed, re.M)}
    assert len(rows) == 9
    for name in "mlnn, batch norm", "folded":
        assert float(rows[name][5]) < 1e-4
        assert rows[name][3] == "+0.00"
    model = mlnn.load(tmp_path / "m.txt")
    assert model.description == "600,64,48,10" and model.softmax
    assert [layer.batch_norm for layer in model.layers] == [True] * 3
    assert [layer.act_fn for layer in model.layers] == ["relu", "relu", "linear"]
    assert (len(model.loss), len(model.accuracy), len(model.notes)) == (2, 2, 5)
    assert model.features.feat_len == 600 and model.normalisation is not None
    assert model.props["label_words"].startswith("zero one")
