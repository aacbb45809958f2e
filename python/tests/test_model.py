import concurrent.futures
import copy
import csv
import dataclasses
import gc
import os
import pickle
import signal
import subprocess
import sys
import threading
import time
import tracemalloc

import numpy as np
import pytest
from conftest import naive

import mlnn


def state(model):
    return model.__getstate__()


# --- Reading and writing ---

def test_a_text_file_comes_back_byte_for_byte(digits, tmp_path):
    model = mlnn.load(digits / "synth.txt")
    model.save(tmp_path / "again.txt")
    assert (tmp_path / "again.txt").read_bytes() == (digits / "synth.txt").read_bytes()


def test_an_image_holds_the_layers_bit_for_bit(model):
    again = mlnn.Model.from_bytes(model.to_bytes())
    assert [layer._layer.record() for layer in again.layers] == state(model)["layers"]
    assert again.features == model.features
    assert again.checksum == model.checksum


def test_a_missing_file_is_an_os_error_with_the_librarys_words(tmp_path):
    with pytest.raises(FileNotFoundError) as caught:
        mlnn.load(tmp_path / "none")
    assert caught.value.strerror == ("ERROR: MultiLayerNNModel: could not read file: "
                                     f"{tmp_path / 'none'}")


def test_a_folder_is_no_file(tmp_path):
    with pytest.raises(IsADirectoryError) as caught:
        mlnn.load(tmp_path)
    assert (caught.value.strerror, caught.value.filename) == ("Is a directory", str(tmp_path))


@pytest.mark.parametrize("name", ["synth", "synth-bn"])
def test_a_pipe_is_read_as_a_file_is(digits, tmp_path, name):
    model = mlnn.load(digits / f"{name}.txt")
    os.mkfifo(tmp_path / "pipe")
    for data in model.to_text(), model.to_bytes():
        with concurrent.futures.ThreadPoolExecutor() as pool:
            pool.submit((tmp_path / "pipe").write_bytes, data)
            again = mlnn.load(tmp_path / "pipe")
        assert state(again)["layers"] == state(model)["layers"]


def test_only_bytes_are_taken_for_the_bytes_of_a_model(model):
    for data in bytearray(model.to_bytes()), memoryview(model.to_bytes()):
        assert mlnn.Model.from_bytes(data).checksum == model.checksum
    for data in 4, "MLNN":
        with pytest.raises(TypeError):
            mlnn.Model.from_bytes(data)
    with pytest.raises(TypeError):
        mlnn.load(0)  # would be the standard input


@pytest.mark.parametrize("data, message", [
    (b"", "ERROR: MultiLayerNNModel: Could not read header"),
    (b"MLNN", "image of 4 bytes is shorter than its head (1004)"),
    (b"MLNN123", "image of 7 bytes is shorter than its head (1004)"),
    (b"MLNN" + bytes(2000), None),
    (b"MultiLayerNNModel_v2\nnonsense 3\n", None),
])
def test_what_is_no_model_is_refused_in_the_librarys_words(data, message):
    with pytest.raises(mlnn.Error) as caught:
        mlnn.Model.from_bytes(data)
    if message is None:
        assert str(caught.value).startswith("ERR")
    else:
        assert str(caught.value) == message


def test_cut_images_are_refused_at_every_length(model):
    image = model.to_bytes()
    for length in range(len(image)):
        with pytest.raises(mlnn.Error, match="ERROR: |^image of") as caught:
            mlnn.Model.from_bytes(image[:length])
        assert "without a reason" not in str(caught.value)


def test_an_error_leaves_out_what_was_said_for_information(model):
    with pytest.raises(mlnn.Error) as caught:
        mlnn.Model.from_bytes(model.to_bytes()[:-1])
    assert str(caught.value) == ("ERROR: MultiLayerNNModel::deserializeBinary: could not read "
                                 "layer index: 1")


def test_a_failed_save_leaves_the_old_file(model, tmp_path):
    path = tmp_path / "model.txt"
    path.write_text("old")
    with pytest.raises(ValueError, match="format must be"):
        model.save(path, format="other")
    assert path.read_text() == "old"
    assert [p.name for p in tmp_path.iterdir()] == ["model.txt"]


@pytest.mark.filterwarnings("ignore::mlnn.Warning")
@pytest.mark.parametrize("name, kind", [
    ("none/model.txt", FileNotFoundError), ("folder", IsADirectoryError),
    ("folder/", IsADirectoryError), ("new/", FileNotFoundError), ("loop", OSError)])
def test_a_failed_save_tells_of_the_file_that_was_meant(model, tmp_path, name, kind):
    (tmp_path / "folder").mkdir()
    (tmp_path / "loop").symlink_to("loop")
    with pytest.raises(kind) as caught:
        model.save(f"{tmp_path}/{name}", format="text")
    assert (caught.value.filename, caught.value.filename2) == (f"{tmp_path}/{name}", None)
    assert caught.value.strerror == os.strerror(caught.value.errno)
    assert sorted(p.name for p in tmp_path.iterdir()) == ["folder", "loop"]
    assert not any((tmp_path / "folder").iterdir())


@pytest.mark.filterwarnings("ignore::mlnn.Warning")
def test_an_empty_name_is_no_file(model, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    with pytest.raises(FileNotFoundError):
        model.save("", format="text")
    assert not any(tmp_path.iterdir())


@pytest.mark.filterwarnings("ignore::mlnn.Warning")
def test_a_pipe_is_written_into_and_stays_one(model, tmp_path):
    pipe, link = tmp_path / "pipe", tmp_path / "link"
    os.mkfifo(pipe)
    link.symlink_to(pipe)
    for path in pipe, link:
        with concurrent.futures.ThreadPoolExecutor() as pool:
            read = pool.submit(pipe.read_bytes)
            model.save(path, format="image")
            assert read.result() == model.to_bytes()
        assert pipe.is_fifo() and link.is_symlink()
    assert sorted(p.name for p in tmp_path.iterdir()) == ["link", "pipe"]


@pytest.mark.filterwarnings("ignore::mlnn.Warning")
def test_a_pipe_that_nobody_reads_further_tells_its_name(tmp_path):
    weights = np.random.default_rng(9).normal(size=(300, 300))  # more than a pipe takes
    large = mlnn.Model.from_arrays([(weights, np.zeros(300))])
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    closing = threading.Timer(0.2, os.close, [reader])  # while the pipe is full
    closing.start()
    with pytest.raises(BrokenPipeError) as caught:
        large.save(pipe, format="image")
    closing.join()
    assert caught.value.filename == str(pipe)


@pytest.mark.filterwarnings("ignore::mlnn.Warning")
def test_a_link_stays_a_link_and_what_it_names_is_replaced(model, tmp_path):
    (tmp_path / "folder").mkdir()
    target = tmp_path / "folder" / "model"
    link = tmp_path / "link"
    link.symlink_to("folder/model")
    model.save(link, format="text")  # while it leads nowhere
    target.chmod(0o640)
    model.save(link, format="image")
    assert link.is_symlink() and target.read_bytes() == model.to_bytes()
    assert target.stat().st_mode & 0o777 == 0o640
    assert [p.name for p in target.parent.iterdir()] == ["model"]


def test_activations_follow_the_property(digits):
    model = mlnn.load(digits / "synth-bn.txt")
    assert [layer.act_fn for layer in model.layers] == ["relu", "relu", "linear"]
    given = mlnn.load(digits / "synth-bn.txt", act_fn="tanh")
    assert [layer.act_fn for layer in given.layers] == ["tanh", "tanh", "linear"]


def test_missing_activations_are_warned_of(digits):
    text = (digits / "synth-bn.txt").read_bytes().replace(b"# NVP hidden_act_fn relu\n", b"")
    with pytest.warns(mlnn.Warning, match="does not record the activation of 2 hidden"):
        again = mlnn.Model.from_bytes(text)
    assert [layer.act_fn for layer in again.layers] == ["linear"] * 3


# --- What the formats hold ---

def test_a_text_takes_what_it_has_place_for_only_in_its_head(model, tmp_path):
    model.normalisation = np.full(120, -1.5), np.full(120, 0.1)
    model.features = mlnn.FeatureDescription(num_bands=2, win_size_left=1)
    model.notes = ["first", "TRAIN rbm_train -deltas_norm_minvals 1,2", "last"]
    with pytest.warns(mlnn.Warning, match="^the text format does not hold 1 note line$"):
        model.save(tmp_path / "m.txt")
    again = mlnn.load(tmp_path / "m.txt")
    assert again.features == model.features and str(again.features).startswith("mel_deltas:bands=2")
    assert [a.tolist() for a in again.normalisation] == [a.tolist() for a in model.normalisation]
    assert [layer.act_fn for layer in again.layers] == ["tanh", "linear"]
    assert again.props == {**model.props, "hidden_act_fn": "tanh"}
    assert [note[:12] for note in again.notes] == ["first", "last", "nn_tune feat", "TRAIN rbm_tr",
                                                   "TRAIN rbm_tr"]
    assert model.notes[1].startswith("TRAIN") and "hidden_act_fn" not in model.props


def test_what_an_image_leaves_out_is_warned_of_and_refused_when_strict(model, tmp_path):
    model.normalisation = np.zeros(120), np.ones(120)
    lost = ["a binary image does not hold 2 note lines",
            "a binary image does not hold 2 properties (name, odd)",
            "a binary image does not hold the loss curve (2 values)",
            "a binary image does not hold the accuracy curve (1 value)"]
    with pytest.raises(mlnn.Error, match="nothing written: a binary image does not hold 2 note"):
        model.save(tmp_path / "m.mlnn", strict=True)
    assert list(tmp_path.iterdir()) == []
    model.props["odd"] = "even"
    with pytest.warns(mlnn.Warning) as warned:
        model.save(tmp_path / "m.mlnn")
    assert [str(w.message) for w in warned] == lost
    assert {w.filename for w in warned} == {__file__}
    assert (tmp_path / "m.mlnn").read_bytes() == model.to_bytes()


def test_a_softmax_that_is_off_is_not_lost_in_silence(tmp_path):
    model = mlnn.Model.from_arrays([(np.eye(2, dtype=np.float32), np.zeros(2))], softmax=False)
    model.normalisation = np.zeros(120), np.ones(120)
    with pytest.raises(mlnn.Error, match="a binary image does not hold that the softmax is off$"):
        model.save(tmp_path / "m.mlnn", strict=True)
    assert list(tmp_path.iterdir()) == []
    with pytest.warns(mlnn.Warning, match="does not hold that the softmax is off$"):
        model.save(tmp_path / "m.mlnn")
    assert mlnn.load(tmp_path / "m.mlnn").softmax


def test_what_a_text_leaves_out_is_warned_of(model, tmp_path):
    model.notes.append("NVP is no note")
    model.props["two words"] = "x"
    model.features = dataclasses.replace(model.features, reserved=7)
    model.layers[0].bias = [1, 2, 3]
    with pytest.warns(mlnn.Warning) as warned:
        model.save(tmp_path / "m.txt")
    assert [str(w.message).removeprefix("the text format does not hold ") for w in warned] == [
        "1 note line", "1 property (two words)",
        "the reserved byte of the feature description (7)",
        "the unused bias of batch-norm layer 1"]


def test_texts_that_could_not_be_read_are_refused(model):
    model.loss[0] = float("nan")
    with pytest.raises(mlnn.Error, match="^the text format cannot hold values that are not finite: "
                       "there is 1 in the training curves$"):
        model.to_text()
    model.loss = []
    model.layers[1].weights[0, 0] = np.inf
    with pytest.raises(mlnn.Error, match="there is 1 in layer 2$"):
        model.to_text()
    model.layers[1].weights[0, 0] = 0
    model.notes = ["a\nlayer"]
    with pytest.raises(mlnn.Error, match="so that it can be read: ERROR: "):
        model.to_text()


# --- Values ---

def test_members_read_and_write_like_lists_and_dictionaries(model):
    model.notes.append("more")
    model.notes[0] = "first"
    assert model.notes == ["first", "", "more"]
    model.props["new"] = "value"
    del model.props["name"]
    assert dict(model.props) == {"new": "value", "odd": "caf\udce9"}
    model.loss.extend([1, 2])
    del model.loss[0]
    assert model.loss == [0.25, 1, 2]
    assert model.normalisation is None
    model.normalisation = np.zeros(120), np.ones(120)
    assert [array.sum() for array in model.normalisation] == [0, 120]


@pytest.mark.parametrize("name, value, kind, message", [
    ("props", {"a": 3}, TypeError, "property 'a': expected a string, got 3"),
    ("props", {3: "a"}, TypeError, "a property's name: expected a string, got 3"),
    ("props", 3, TypeError, "props: expected a mapping, got 3"),
    ("notes", ["a", 3], TypeError, "a note: expected a string, got 3"),
    ("notes", "abc", TypeError, "notes: expected lines, got a string"),
    ("features", 3, TypeError, "features: expected a FeatureDescription, got 3"),
    ("loss", ["a"], TypeError, "loss: expected numbers, got <U1"),
    ("loss", [1e39], ValueError, "loss: a value is too large for single precision"),
    ("normalisation", (np.ones(120), np.ones(0)), ValueError,
     "normalisation: expected two arrays of 120 values, got 120 and 0"),
    ("normalisation", ([1, 2, 3], [4, 5, 6]), ValueError,
     "normalisation: expected two arrays of 120 values, got 3 and 3"),
    ("normalisation", [np.ones(120)], ValueError,
     "normalisation: expected two arrays of 120 values, got 120"),
    ("normalisation", [], ValueError,
     "normalisation: expected two arrays of 120 values, got none"),
    ("normalisation", (np.full(120, 1e39), np.ones(120)), ValueError,
     "normalisation: a value is too large for single precision"),
])
def test_values_that_a_member_cannot_hold_are_refused(model, name, value, kind, message):
    before = state(model)
    with pytest.raises(kind) as caught:
        setattr(model, name, value)
    assert (type(caught.value), str(caught.value)) == (kind, message)
    assert state(model) == before


def test_items_that_a_member_cannot_hold_are_refused(model):
    before = state(model)
    with pytest.raises(TypeError, match="^a note: expected a string, got 3$"):
        model.notes.append(3)
    with pytest.raises(TypeError, match="^property 'a': expected a string, got 3$"):
        model.props["a"] = 3
    with pytest.raises(ValueError, match="^weights: a value is too large for single precision$"):
        model.layers[1].weights = np.full((2, 3), 1e39)
    assert state(model) == before


BEYOND = "expected 0 to 2147483647, got"


@pytest.mark.parametrize("operation, kind, message", [
    (lambda m: m.retain_precision_bits(2**40), ValueError,
     "bits: expected -2147483648 to 2147483647, got 1099511627776"),
    (lambda m: m.retain_precision_bits(1.0), TypeError, "bits: expected an integer, got 1.0"),
    (lambda m: m.create_first_layer(2**40, 1), ValueError, f"num_inputs: {BEYOND} 1099511627776"),
    (lambda m: m.create_first_layer(1, -1), ValueError, f"num_outputs: {BEYOND} -1"),
    (lambda m: m.create_first_layer(1, 1, "a"), TypeError, "init_scale: expected numbers, got <U1"),
    (lambda m: m.add_layer(2**31), ValueError, f"num_outputs: {BEYOND} 2147483648"),
    (lambda m: m.add_layer(1, 1e39), ValueError,
     "init_scale: a value is too large for single precision"),
    (lambda m: m.delete_layers(1.5), TypeError, "count: expected an integer, got 1.5"),
    (lambda m: m.delete_layers(-1), mlnn.Error, "cannot delete -1 of 2 layers"),
    (lambda m: m.__imul__("a"), TypeError, "factor: expected numbers, got <U1"),
    (lambda m: m.layers["a"], TypeError, "layer: expected an integer, got 'a'"),
    (lambda m: mlnn.seed_random(-1), ValueError, "seed: expected 0 to 4294967295, got -1"),
    (lambda m: mlnn.seed_random("a"), TypeError, "seed: expected an integer, got 'a'"),
])
def test_arguments_are_refused_in_plain_words(model, operation, kind, message):
    before = state(model)
    with pytest.raises(kind) as caught:
        operation(model)
    assert (type(caught.value), str(caught.value)) == (kind, message)
    assert state(model) == before


@pytest.mark.parametrize("layers, message", [
    ([([[1, 2]], [0]), ([[1, 2]], [0])], "layer 2: 2 inputs after 1 outputs"),
    ([([[1, 2]], [0, 0])], "layer 1: bias has 2 values for 1 outputs"),
    ([{"bias": [0]}], "layer 1: weights are missing"),
    ([{"weights": [[1]], "gamma_inf": [1]}], "layer 1: a batch-norm layer needs gamma_inf and"),
    ([([[1]], [0], "cube")], "layer 1: no activation 'cube'"),
    ([([1, 2], [0])], "layer 1: weights: expected 2 dimensions, got shape"),
    ([([[1]], [0]), ([[-1e39]], [0])], "layer 2: weights: a value is too large for single"),
    ([([[1]], [np.nextafter(np.finfo("f4").max, np.inf, dtype="f8") + 2e31])],
     "layer 1: bias: a value is too large for single"),
])
def test_arrays_that_make_no_model_are_refused(layers, message):
    with pytest.raises(ValueError) as caught:
        mlnn.Model.from_arrays(layers)
    assert str(caught.value).startswith(message)


@pytest.mark.parametrize("operation, kind, message", [
    (lambda m: setattr(m, "sofmax", True), AttributeError, "'Model' object has no attribute 'sofmax'"),
    (lambda m: setattr(m.layers[0], "weight", 0), AttributeError,
     "'Layer' object has no attribute 'weight'"),
    (lambda m: m(np.ma.masked_array(np.zeros((1, 4)), True)), TypeError,
     "frames: a masked array would lose its mask; fill it first"),
    (lambda m: setattr(m.layers[0], "gamma", np.ma.masked_array([1, 2, 3], [0, 0, 1])), TypeError,
     "gamma: a masked array would lose its mask; fill it first"),
    (lambda m: mlnn.Model.from_arrays([(np.ma.masked_array(np.zeros((1, 4)), True), [0])]), TypeError,
     "layer 1: weights: a masked array would lose its mask; fill it first"),
])
def test_what_would_be_lost_in_silence_is_refused(model, operation, kind, message):
    before = state(model)
    with pytest.raises(kind) as caught:
        operation(model)
    assert str(caught.value) == message
    assert state(model) == before


# --- Equality ---

def test_models_are_equal_where_all_bits_are(model):
    assert model == model and model == model.copy() and not model != copy.copy(model)
    model.layers[0].weights[0, 0] = np.nan
    assert model == model.copy()
    for change in (lambda m: m.layers[1].bias.__setitem__(0, -0.0), lambda m: m.notes.append("more"),
                   lambda m: m.props.clear(), lambda m: m.loss.append(1),
                   lambda m: m.delete_layers(1), lambda m: setattr(m, "softmax", not m.softmax),
                   lambda m: setattr(m, "features", mlnn.FeatureDescription()),
                   lambda m: setattr(m, "normalisation", (np.zeros(120), np.ones(120)))):
        model.layers[1].bias[0] = 0.0
        other = model.copy()
        change(other)
        assert other != model
    assert model != "model" and not model == None  # noqa: E711
    with pytest.raises(TypeError, match="unhashable type: 'Model'"):
        hash(model)


# --- Pickles and copies ---

def test_pickles_and_copies_are_exact(model):
    model.layers[0].weights[0, 0] = np.array([0x7FC12345], np.uint32).view(np.float32)[0]
    for again in (pickle.loads(pickle.dumps(model)), copy.deepcopy(model), copy.copy(model),
                  model.copy()):
        assert state(again) == state(model)
        again.layers[0].weights[:] = 0
        assert model.layers[0].weights[1, 1] != 0


def test_broken_pickles_are_refused(model):
    broken = state(model)
    broken["layers"] = [broken["layers"][0][:-1]]
    with pytest.raises(ValueError, match="not the record of a layer"):
        mlnn.Model.__new__(mlnn.Model).__setstate__(broken)


# --- Views ---

RACE = """
import pickle, threading
import mlnn, numpy as np
model = mlnn.Model.from_arrays([(np.zeros((300, 300)), np.zeros(300))])
view, values = model.layers[0].weights, np.random.default_rng(1).normal(size=(300, 300))
done = threading.Event()
def write():
    while not done.is_set():
        view[:] = values  # a long record, and a short one
        view[:] = 0
thread = threading.Thread(target=write)
thread.start()
try:
    for _ in range(1500):
        pickle.loads(pickle.dumps(model))
        mlnn.Model.from_bytes(model.to_bytes())
finally:
    done.set()
    thread.join()
print("whole")
"""


def test_a_model_is_pickled_while_a_view_is_written_to():
    result = subprocess.run([sys.executable, "-c", RACE], capture_output=True, text=True)
    assert (result.returncode, result.stdout, result.stderr) == (0, "whole\n", "")


def test_views_are_the_models_own_values(model):
    weights = model.layers[0].weights
    assert weights.shape == (3, 4) and weights.dtype == np.float32 and weights.flags.f_contiguous
    weights[1, 2] = 42
    assert model.layers[0].weights[1, 2] == 42
    before = weights.copy()
    model *= 2
    assert (weights == 2 * before).all()


def test_a_view_keeps_its_model_alive(model):
    weights = model.copy().layers[0].weights
    expected = model.layers[0].weights.copy()
    gc.collect()
    junk = [np.full((3, 4), 7, np.float32) for _ in range(1000)]  # would reuse freed memory
    assert (weights == expected).all() and junk


def test_a_view_outlives_its_layers_removal_and_its_model(model):
    model = model.copy()
    layer, weights = model.layers[-1], model.layers[-1].weights
    expected = weights.copy()
    model.delete_layers(2)
    del model
    gc.collect()
    junk = [np.full((2, 3), 7, np.float32) for _ in range(1000)]
    assert (weights == expected).all() and junk
    layer.weights[0, 0] = 5
    assert weights[0, 0] == 5


def test_an_array_never_changes_its_place(model):
    bias = model.layers[1].bias
    address = bias.ctypes.data
    model.layers[1].bias = [7, 8]
    assert bias.tolist() == [7, 8]
    with pytest.raises(ValueError, match="shape .* is fixed"):
        model.layers[1].bias = [1, 2, 3]
    weights = model.layers[0].weights
    before = weights.ctypes.data
    with pytest.warns(mlnn.Warning):
        model.fold()
    assert model.layers[0].weights.ctypes.data == before
    assert model.layers[1].bias.ctypes.data == address


VECTORS = ["bias", "gamma", "beta", "gamma_inf", "beta_inf"]
OPERATIONS = [
    lambda m, rng: m.delete_layers(min(len(m.layers), int(rng.integers(3)))),
    lambda m, rng: m.add_layer(int(rng.integers(1, 9)), batch_norm=bool(rng.integers(2)))
    if len(m.layers) else m.create_first_layer(int(rng.integers(1, 9)), int(rng.integers(1, 9))),
    lambda m, rng: m.fold(), lambda m, rng: m.zeros(), lambda m, rng: m.__imul__(2),
    lambda m, rng: m.__iadd__(m), lambda m, rng: m.retain_precision_bits(4),
    lambda m, rng: m.copy(), lambda m, rng: pickle.loads(pickle.dumps(m)),
    lambda m, rng: setattr(m.layers[-1], str(rng.choice(VECTORS)), np.ones(m.num_outputs)),
]


@pytest.mark.filterwarnings("ignore::mlnn.Warning")
def test_views_stay_good_through_any_operations():
    """Holds views of everything that a random walk comes by, and writes and reads them all after
    each step. Under sanitizers, a view of freed memory would end the run."""
    rng = np.random.default_rng(8)
    views = []
    for _ in range(30):
        model = mlnn.Model()
        for _ in range(40):
            try:
                made = OPERATIONS[rng.integers(len(OPERATIONS))](model, rng)
            except (mlnn.Error, IndexError):
                continue
            model = made if isinstance(made, mlnn.Model) and rng.integers(2) else model
            views += [getattr(layer, name) for layer in model.layers
                      for name in ["weights", str(rng.choice(VECTORS))]]
            views = [views[i] for i in rng.permutation(len(views))[:100]]
            for view in views:
                view[...] = 3
                assert (view == 3).all()


# --- Operations ---

def test_folding_keeps_what_is_computed(model):
    inputs = np.random.default_rng(2).normal(size=(5, 4)).astype(np.float32)
    expected = naive(model, inputs)
    weights = model.layers[0].weights * np.float32([0.5, 1.5, -1])[:, None]
    with pytest.warns(mlnn.Warning, match="layer is not batch norm: index=1"):
        model.fold()
    assert (model.layers[0].weights == weights).all() and not model.layers[0].batch_norm
    assert np.abs(model(inputs, stacked=True) - expected).max() < 1e-6


def test_folding_without_inference_values_is_refused(model):
    model.layers[0].gamma_inf = [0, 0, 0]
    with pytest.raises(mlnn.Error, match="gamma_inf is zero in layer with index 0"):
        model.fold()


def test_the_range_of_a_reduction_is_not_printed(model, caplog):
    with caplog.at_level("INFO", "mlnn"):
        model.retain_precision_bits(4)
    assert caplog.messages[0].startswith("v_range ") and caplog.messages[0].endswith("p_range 16")
    values = np.concatenate([a.ravel() for l in model.layers for a in (l.weights, l.bias)])
    assert len(np.unique(values)) <= 17
    with pytest.raises(mlnn.Error, match="bits must be 0 to 31, got 32"):
        model.retain_precision_bits(32)


def test_quantized_weights_are_whole_multiples_of_a_scale(rng=np.random.default_rng(3)):
    weights = rng.normal(size=(20, 30)).astype(np.float32)
    model = mlnn.Model.from_arrays([(weights, np.zeros(20))], softmax=False)
    plain = model.copy()
    assert model.quantize() is model
    scales = np.abs(weights).max(axis=1) / 127
    codes = model.layers[0].weights / scales[:, None]
    assert np.abs(codes - np.round(codes)).max() < 1e-2
    assert np.abs(model.layers[0].weights - weights).max() <= scales.max() * 0.501
    assert (plain.copy().quantize(bits=8).layers[0].weights == model.layers[0].weights).all()
    four = plain.copy().quantize(4, least_squares=True)
    assert all(len(np.unique(row)) <= 15 for row in four.layers[0].weights)
    left = plain.copy().quantize(2, largest_error=0.1)
    assert (left.layers[0].weights == weights).all()


def test_quantize_takes_the_mean_error_out(rng=np.random.default_rng(3)):
    weights = rng.normal(size=(5, 30)).astype(np.float32)
    model = mlnn.Model.from_arrays([(weights, np.zeros(5))], softmax=False)
    inputs = rng.uniform(size=(50, 30)).astype(np.float32)
    corrected = model.copy().quantize(3, correct=inputs)
    errors = (corrected(inputs) - model(inputs)).mean(axis=0)
    assert np.abs(errors).max() < 1e-5
    assert np.abs((model.copy().quantize(3)(inputs) - model(inputs)).mean(axis=0)).max() > 1e-2


def test_quantize_refuses_what_it_cannot_do(model):
    before = model.copy()
    for bits in (1, 9):
        with pytest.raises(mlnn.Error, match=f"bits must be 2 to 8, got {bits}"):
            model.quantize(bits)
    with pytest.raises(ValueError, match="correct: input vectors of 99 values"):
        model.quantize(correct=np.zeros((3, 99), np.float32))
    assert (model.layers[0].weights == before.layers[0].weights).all()
    model.layers[0].weights[0, 0] = np.nan
    with pytest.raises(mlnn.Error, match="layer 1 has a weight that is not finite"):
        model.quantize()


def test_sums_scales_and_zeros(model):
    other, twice = model.copy(), model.copy()
    twice += other
    assert (twice.layers[0].weights == 2 * model.layers[0].weights).all()
    twice += twice
    assert (twice.layers[1].bias == [2, -2]).all()
    with pytest.raises(mlnn.Error, match=r"wrong number of layers \(2 != 0\)"):
        twice += mlnn.Model()
    assert not twice.zeros().layers[0].weights.any()


def test_layers_are_made_and_removed(model):
    made = mlnn.Model()
    with pytest.raises(mlnn.Error, match="cannot addLayerRndInit without previous hidden layers"):
        made.add_layer(3)
    made.create_first_layer(4, 5, 0.1)
    made.add_layer(2, batch_norm=True)
    assert made.description == "4,5,2" and made.layers[1].batch_norm
    with pytest.raises(mlnn.Error, match="cannot createFirstLayer if already have layers"):
        made.create_first_layer(1, 1)
    made.delete_layers(1)
    assert (made.num_inputs, made.num_outputs, len(made.layers)) == (4, 5, 1)
    with pytest.raises(mlnn.Error, match="cannot delete 2 of 1 layers"):
        made.delete_layers(2)


def test_activations_are_set_by_name(model):
    model.set_act_fn("relu")
    assert [layer.act_fn for layer in model.layers] == ["relu", "linear"]
    model.softmax = False
    assert not model.softmax
    with pytest.raises(ValueError, match="no activation 'cube'"):
        model.layers[0].act_fn = "cube"


# --- Running ---

@pytest.mark.parametrize("act_fn", mlnn.ACT_FNS)
def test_the_forward_pass_agrees_with_numpy(model, act_fn):
    model.layers[0].act_fn = act_fn
    inputs = np.random.default_rng(3).normal(size=(17, 4)).astype(np.float32)
    outputs = model(inputs, stacked=True)
    assert outputs.dtype == np.float32 and outputs.shape == (17, 2) and outputs.flags.c_contiguous
    assert np.abs(outputs - naive(model, inputs)).max() < 1e-6


def in_integers(weights, bias, scales, inputs, most):
    """A linear layer as docs/integer-pass.md defines it."""
    one = np.float32
    largest = np.abs(inputs).max(axis=1, keepdims=True)
    integers = np.rint(inputs * (one(most) / largest)).astype(np.int64)
    sums = integers @ np.rint(weights / scales[:, None]).astype(np.int64).T
    if most > 127:
        low = ((integers + 128) % 256 - 128)
        lows = low @ np.rint(weights / scales[:, None]).astype(np.int64).T
        sums = ((sums - lows) // 256).astype(one) * one(256) + lows.astype(one)
    return sums.astype(one) * (largest / one(most)) * scales + bias


@pytest.mark.parametrize("words, most", [(None, 127), ("first", 32639), ("all", 32639)])
def test_integers_are_those_of_the_definition(words, most):
    random = np.random.default_rng(11)
    codes = random.integers(-127, 128, (5, 40))
    codes[:, 0] = 127
    scales = np.float32([0.5, 0.25, 3, 1, 0.125])
    bias = random.normal(size=5).astype(np.float32)
    weights = (codes * scales[:, None]).astype(np.float32)
    model = mlnn.Model.from_arrays([(weights, bias, "linear")])
    model.softmax = False
    inputs = random.normal(size=(9, 40)).astype(np.float32)
    outputs = model(inputs, stacked=True, integers=True, words=words)
    assert outputs.tobytes() == in_integers(weights, bias, scales, inputs, most).tobytes()
    assert (outputs != model(inputs, stacked=True)).any()


def test_integers_follow_every_change_of_the_model():
    """A pass in integers keeps copies of the weights, for the next call."""
    random = np.random.default_rng(4)
    inputs = random.normal(size=(9, 40)).astype(np.float32)
    model = mlnn.Model.from_arrays([{"weights": random.normal(size=(5, 40)), "bias": np.zeros(5)}],
                                   softmax=False).quantize()

    def outputs():
        fresh = model.copy()
        found = [model(inputs, stacked=True, integers=True) for _ in range(2)]
        assert found[0].tobytes() == found[1].tobytes()
        assert found[0].tobytes() == fresh(inputs, stacked=True, integers=True).tobytes()
        return found[0].tobytes()

    seen = [outputs()]
    model.layers[0].bias = [1, 2, 3, 4, 5]
    seen.append(outputs())
    weights = model.layers[0].weights
    seen.append(outputs())
    weights *= 2  # through an array that was there before the last call
    seen.append(outputs())
    del weights
    outputs()
    model.quantize(4)
    seen.append(outputs())
    assert len(set(seen)) == len(seen) - 1  # an array that nobody writes to changes nothing


def test_integers_of_many_threads_and_of_a_fork_are_those_of_a_model_as_it_was():
    random = np.random.default_rng(5)
    inputs = random.normal(size=(20, 30)).astype(np.float32)
    layers = [{"weights": random.normal(size=(7, 30)), "bias": np.full(7, bias)} for bias in (0, 1)]
    biases = [layer["bias"] for layer in layers]
    model = mlnn.Model.from_arrays(layers[:1], softmax=False).quantize()

    def outputs():
        return model(inputs, stacked=True, integers=True).tobytes()

    expected = []
    for bias in biases:
        model.layers[0].bias = bias
        expected.append(outputs())
    found = []
    readers = [threading.Thread(target=lambda: found.extend(outputs() for _ in range(50)))
               for _ in range(4)]
    for reader in readers:
        reader.start()
    for turn in range(50):
        model.layers[0].bias = biases[turn % 2]
        assert outputs() == expected[turn % 2]
    for reader in readers:
        reader.join()
    assert len(found) == 200 and set(found) <= set(expected)
    child = os.fork()
    if child == 0:
        os._exit(0 if outputs() == expected[1] else 1)
    assert os.waitpid(child, 0)[1] == 0 and outputs() == expected[1]


def test_integers_refuse_what_they_do_not_know(model):
    inputs = np.ones((2, 4), np.float32)
    with pytest.raises(ValueError, match="words: expected 'first', 'all' or None, got 'some'"):
        model(inputs, stacked=True, integers=True, words="some")
    with pytest.raises(ValueError, match="words: given without integers"):
        model(inputs, stacked=True, words="all")
    with pytest.raises(ValueError, match="frames of 5 values"):
        model(np.ones((2, 5)), integers=True)
    with pytest.raises(mlnn.Error):
        mlnn.Model()(inputs, integers=True)


@pytest.mark.parametrize("integers", [False, True])
def test_any_number_of_threads_gives_the_same_and_ends(integers):
    random = np.random.default_rng(5)
    model = mlnn.Model.from_arrays([
        (random.normal(size=(200, 40)).astype(np.float32), np.zeros(200, np.float32), "tanh"),
        (random.normal(size=(10, 200)).astype(np.float32), np.zeros(10, np.float32), "linear")])
    model.quantize()
    frames = random.normal(size=(3001, 40)).astype(np.float32)
    alone = model(frames, stacked=True, integers=integers)
    tasks = os.listdir("/proc/self/task")
    for threads in (1, 2, 3, 8):
        found = model(frames, stacked=True, integers=integers, threads=threads)
        assert found.tobytes() == alone.tobytes()
    for _ in range(10000):  # the system takes a moment to forget a thread that has ended
        if os.listdir("/proc/self/task") == tasks:
            return
        time.sleep(0.001)
    pytest.fail("threads are left behind")


def test_threads_are_one_to_the_limit(model):
    inputs = np.ones((2, 4), np.float32)
    for threads in (0, -1, 257):
        with pytest.raises(ValueError, match=f"threads: expected 1 to 256, got {threads}"):
            model(inputs, stacked=True, threads=threads)
    with pytest.raises(TypeError):
        model(inputs, stacked=True, threads=1.5)


def test_every_layout_and_type_gives_the_same(model):
    inputs = np.random.default_rng(4).normal(size=(6, 4)).astype(np.float32)
    expected = model(inputs, stacked=True)
    wide = np.zeros((6, 9), np.float32)
    wide[:, 3:7] = inputs
    shifted = np.frombuffer(b"x" + inputs.tobytes(), np.uint8)[1:].view(np.float32).reshape(6, 4)
    for same in (inputs.astype(np.float64), np.asfortranarray(inputs), wide[:, 3:7],
                 inputs[::-1][::-1], inputs.tolist(), shifted, inputs.astype(">f4")):
        assert (model(same, stacked=True) == expected).all()
    assert (model(inputs[::-1], stacked=True) == expected[::-1]).all()
    assert (model(np.broadcast_to(inputs[:1], (3, 4)), stacked=True) == expected[0]).all()


@pytest.mark.parametrize("normalised", [False, True])
@pytest.mark.parametrize("window", [(0, 0), (1, 2), None])
def test_few_frames_give_the_bits_of_many(normalised, window):
    """A call with few frames takes a shorter way."""
    rng = np.random.default_rng(8)
    model = mlnn.Model()
    frames = 1 + sum(window) if window else 1
    model.create_first_layer(120 * frames, 7, 1.0)
    model.add_layer(3, 1.0)
    if window:
        model.features = mlnn.FeatureDescription(num_bands=40, use_deltas=True, win_size_left=window[0],
                                                 win_size_right=window[1])
    if normalised:
        model.normalisation = rng.normal(size=120), rng.normal(size=120)

    def long_way(inputs, stacked):
        return model._core.evaluate(inputs, stacked, None)[2]

    for width in {120, 120 * frames}:
        for count in 1, 2, 15, 16, 17:
            wide = rng.normal(size=(count, width + 3)).astype(np.float32)
            for given in wide[:, :width], np.ascontiguousarray(wide[:, 3:]):
                for stacked in (None, True) if width == 120 * frames else (None,):
                    assert (model(given, stacked) == long_way(given, stacked)).all()
                    assert (model(given.astype(np.float64), stacked) == model(given, stacked)).all()
            first = model(given)
            model(given + 1)
            assert (first == model(given)).all()  # whose memory is its own
    with pytest.raises(ValueError, match="frames of 5 values; expected "):
        model(np.zeros((1, 5), np.float32))
    model.delete_layers(1)
    assert model(given).shape == (17, 7) and model(given[:1]).shape == (1, 7)
    model.delete_layers(1)
    with pytest.raises(mlnn.Error, match="no layers"):
        model(given[:1])


def test_no_frames_give_no_outputs(digits):
    model = mlnn.load(digits / "synth.txt")
    for width in 120, 600:
        for frames in np.zeros((0, width), np.float32), np.zeros((5, width))[:0]:
            outputs = model(frames)
            assert outputs.shape == (0, 10) and outputs.dtype == np.float32
    assert model.stack(np.zeros((0, 120), np.float32)).shape == (0, 600)
    with pytest.raises(ValueError, match="frames of 5 values; expected 120"):
        model(np.zeros((0, 5), np.float32))


def test_single_frames_are_stacked_as_numpy_does(model):
    frames = np.arange(10, dtype=np.float32).reshape(5, 2)
    stacked = np.hstack([frames[[0, 0, 1, 2, 3]], frames])
    assert (model.stack(frames) == stacked).all()
    assert (model(frames) == model(stacked)).all()
    with pytest.raises(ValueError, match=r"frames of 3 values; expected 2 \(single frames\) or 4"):
        model(np.zeros((1, 3)))
    with pytest.raises(ValueError, match=r"expected 2 \(single frames\)$"):
        model(stacked, stacked=False)


@pytest.mark.parametrize("name", ["synth", "synth-bn"])
def test_the_digits_are_decided_rightly(digits, name):
    model = mlnn.load(digits / f"{name}.txt")
    with open(digits / "labels.csv", newline="") as file:
        rows = list(csv.DictReader(file))
    assert len(rows) == 30
    worst = 0
    for row in rows:
        stem = row["file"].removesuffix(".wav").removesuffix(".npy")
        outputs = model(np.load(digits / "frames" / f"{stem}.npy"))
        expected = np.load(digits / f"posteriors-{name}" / f"{stem}.npy")
        worst = max(worst, np.abs(outputs - expected).max())
        scores = np.log(np.maximum(outputs.astype(np.float64), 1e-30)).sum(axis=0)
        assert scores.argmax() == int(row[f"predicted_{name}"])
    print(f"{name}: largest difference {worst:.2e}")
    assert worst < 1e-4


def test_a_model_without_layers_says_so():
    with pytest.raises(mlnn.Error, match="model has no layers"):
        mlnn.Model()(np.zeros((1, 3)))


@pytest.mark.parametrize("call", [lambda m, frames: m(frames), lambda m, frames: m.stack(frames)])
def test_a_model_without_outputs_makes_no_inputs(call):
    """It may speak of inputs that would take gigabytes."""
    width = 2**31 - 8
    model = mlnn.Model.from_bytes(
        b"MultiLayerNNModel_v2\nsoftmax 1\n"
        b"# nn_tune feat_desc mel_deltas:bands=1,left=%d,right=0,deltas=0,line_kernels=0,"
        b"line_kernel_width=0\nnum_layers 1\nlayer 1 size 0 %d\nact_fn linear\n"
        % (width - 1, width + 1))
    assert model.num_inputs == width
    with pytest.raises(ValueError, match="^the model has no outputs$"):
        call(model, np.zeros((3, 1), np.float32))


def processor_time(work):
    times = []
    for _ in range(3):
        begin = time.process_time()
        work()
        times.append(time.process_time() - begin)
    return min(times)


@pytest.mark.parametrize("work", [
    lambda model: model.to_text(),
    lambda model: dict(model.props),
    lambda model: list(model.props.items()),
    lambda model: setattr(model, "props", model.props),
    lambda model: [model.props[key] for key in list(model.props)],
    lambda model: [model.props.__setitem__(key, "new") for key in list(model.props)],
    lambda model: mlnn.from_onnx(mlnn.to_onnx(model)),
    lambda model: [model.loss.append(1) for _ in range(len(model.props) + len(model.notes))],
    lambda model: [model.notes.append("more") for _ in list(model.props)],
], ids=["to_text", "dict", "items", "copy", "look", "set", "onnx", "curve", "add"])
@pytest.mark.parametrize("kind", ["props", "notes"])
def test_time_is_linear_in_properties_and_notes(model, work, kind):
    """Eight times as many take sixteen times as long at most, not sixty-four."""
    if "from_onnx" in work.__code__.co_names:
        pytest.importorskip("onnx")

    def time_of(count):
        model.props = {f"key{i}": "value" for i in range(count if kind == "props" else 1)}
        model.notes = [f"note {i}" for i in range(count if kind == "notes" else 1)]
        return processor_time(lambda: work(model))

    assert any(time_of(4000) < 16 * time_of(500) + 0.002 for _ in range(5))


def in_child(action):
    """Forks, and tells whether the child came to the end of the action."""
    child = os.fork()
    if child == 0:
        try:
            signal.alarm(120)  # ends it where it waits for a lock that nobody holds
            action()
            os._exit(0)
        finally:
            os._exit(1)
    return os.waitpid(child, 0)[1] == 0


def test_children_go_on_where_another_thread_was_at_work():
    model = mlnn.Model()
    model.create_first_layer(200, 400)
    model.add_layer(40)
    other = model.copy()
    inputs = np.ones((1000, 200), np.float32)
    over = threading.Event()

    def run():
        while not over.is_set():
            model(inputs, stacked=True)

    def change():
        while not over.is_set():
            other.zeros()

    def use():
        assert not model.zeros().layers[0].weights.any()
        other.add_layer(3)
        assert other(inputs[:1], stacked=True).shape == (1, 3)

    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        running = [pool.submit(work) for work in (run, change)]
        try:
            assert [in_child(use) for _ in range(10)] == [True] * 10
        finally:
            over.set()
        for done in running:
            done.result()
    assert model(inputs[:2], stacked=True).shape == (2, 40)



def test_threads_share_a_model_while_one_changes_it(model):
    inputs = np.zeros((50, 4), np.float32)
    failures = []

    def run():
        for _ in range(100):
            try:
                model(inputs, stacked=True)
            except mlnn.Error as error:
                if "layer" not in str(error):
                    failures.append(error)
            except ValueError:
                pass  # no layers at that moment

    threads = [threading.Thread(target=run) for _ in range(3)]
    for thread in threads:
        thread.start()
    for _ in range(100):
        kept = model.layers[-1]
        model.delete_layers(1)
        model.add_layer(2)
        kept.weights[:] = 1
    for thread in threads:
        thread.join()
    assert failures == []


def test_the_interpreter_is_free_while_a_model_runs():
    """The main thread runs in the middle half of a call that another thread makes: a call that
    kept the interpreter's lock would leave no moment there."""
    model = mlnn.Model.from_arrays([(np.ones((600, 600)), np.zeros(600))] * 4)
    frames = np.ones((8000, 600), np.float32)
    times = []

    def call():
        times.append(time.perf_counter())
        model(frames, stacked=True)
        times.append(time.perf_counter())

    thread = threading.Thread(target=call)
    thread.start()
    moments = []
    while thread.is_alive():
        moments.append(time.perf_counter())
    begin, end = times
    quarter = (end - begin) / 4
    assert any(begin + quarter < moment < end - quarter for moment in moments)


@pytest.mark.parametrize("stacked", [True, False])
def test_frames_are_not_copied_where_their_layout_allows(digits, stacked):
    model = mlnn.load(digits / "synth.txt")
    frames = np.zeros((5000, 600 if stacked else 120), np.float32)

    def taken(given):
        tracemalloc.start()
        model(given)
        peak = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        return peak

    assert taken(frames) < 10000
    assert taken(frames[::2]) < 10000
    assert taken(np.asfortranarray(frames)) > frames.nbytes


def test_nothing_reaches_descriptor_2(digits, tmp_path):
    """In a process of its own, whose descriptor 2 is read whole."""
    nowhere = str(tmp_path / "nowhere")
    code = ("import mlnn, warnings; warnings.simplefilter('ignore')\n"
            f"m = mlnn.load({str(digits / 'synth-bn.txt')!r})\n"
            "m.fold(); m.fold(); m.retain_precision_bits(8); mlnn.Model.from_bytes(m.to_bytes())\n"
            f"try: mlnn.load({nowhere!r})\n"
            "except OSError as error: print(error.strerror)\n")
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, check=True)
    assert done.stderr == b""
    assert done.stdout.decode() == f"ERROR: MultiLayerNNModel: could not read file: {nowhere}\n"
