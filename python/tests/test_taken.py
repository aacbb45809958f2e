"""What models take and give, as people hand it to them: file objects, tables, single frames, many recordings."""
import io
import os
import re
import subprocess
import sys

import numpy as np
import pytest

import mlnn


def test_file_objects_are_read_and_written(model, tmp_path):
    for format in "image", "text":
        file = io.BytesIO(b"head")
        file.seek(4)
        with pytest.warns(mlnn.Warning):
            model.save(file, format)
        data = file.getvalue()[4:]
        assert data == (model.to_bytes() if format == "image" else model.to_text())
        file.seek(4)
        assert mlnn.load(file) == mlnn.Model.from_bytes(data)
        file.seek(4)
        assert mlnn.Model.load(file, act_fn="relu") == mlnn.Model.from_bytes(data, "relu")
        assert mlnn.diagnose(io.BytesIO(data)) is None
        assert mlnn.diagnose(io.BytesIO(data[:-3])) == mlnn.diagnose(data[:-3]) is not None
        with open(tmp_path / "model", "wb", buffering=0) as raw, pytest.warns(mlnn.Warning):
            model.save(raw, format)
        assert (tmp_path / "model").read_bytes() == data


def test_a_file_that_takes_a_part_at_a_time_gets_all(model):
    class Slow(io.BytesIO):
        def write(self, data):
            return super().write(bytes(data[:7]))

    file = Slow()
    with pytest.warns(mlnn.Warning):
        model.save(file, "image")
    assert file.getvalue() == model.to_bytes()


def test_file_objects_that_are_no_files_of_bytes_are_refused(model):
    with pytest.raises(TypeError, match="expected a file of bytes, .* it gave str"):
        mlnn.load(io.StringIO("nn_text_model"))
    with pytest.raises(mlnn.Error):
        mlnn.load(io.BytesIO(b""))
    file = io.BytesIO()
    with pytest.raises(ValueError, match="format must be"):
        model.save(file)
    with pytest.raises(mlnn.Error, match="nothing written"):
        model.save(file, "image", strict=True)
    assert file.getvalue() == b""


def test_numbers_of_pandas_are_taken_and_missing_ones_refused(model):
    pandas = pytest.importorskip("pandas")
    frames = np.arange(8, dtype=np.float32).reshape(2, 4)
    expected = model(frames, stacked=True)
    for kind in "Float32", "Float64", "Int64", "float32", "int16":
        assert (model(pandas.DataFrame(frames).astype(kind), stacked=True) == expected).all()
    made = mlnn.Model.from_arrays([(pandas.DataFrame(frames).astype("Float32"),
                                    pandas.Series([1, 2], dtype="Float32"))])
    assert (made.layers[0].weights == frames).all() and list(made.layers[0].bias) == [1, 2]
    gap = pandas.DataFrame(frames).astype("Float32")
    gap.iloc[1, 2] = pandas.NA
    with pytest.raises(TypeError, match="frames: expected numbers, and none missing"):
        model(gap, stacked=True)
    with pytest.raises(TypeError, match="frames: expected numbers, and none missing"):
        model(pandas.DataFrame([["a", "b"]]))


def test_a_frame_of_one_dimension_gives_its_outputs(model, digits):
    frame = np.array([1, 2, 3, 4], np.float32)
    expected = model(frame[np.newaxis], stacked=True)[0]
    for given in frame, [1, 2, 3, 4], (1.0, 2.0, 3.0, 4.0), frame.astype(float), np.repeat(frame, 2)[::2]:
        outputs = model(given, stacked=True)
        assert outputs.shape == (2,) and (outputs == expected).all()
    network = mlnn.load(digits / "synth.txt")
    single = np.load(digits / "frames" / "3_en-us_f4.npy")[5]
    assert (network(single) == network(single[np.newaxis])[0]).all()
    with pytest.raises(ValueError, match="frames of 3 values"):
        model(frame[:3])
    with pytest.raises(ValueError, match="expected 2 dimensions"):
        model(frame[:0])


def test_many_recordings_are_each_run_alone(model):
    rng = np.random.default_rng(3)
    recordings = {"a": rng.normal(size=(5, 4)), "b": rng.normal(size=(2, 4)).astype(np.float32)}
    alone = {name: model(frames) for name, frames in recordings.items()}
    found = model(recordings)
    assert list(found) == ["a", "b"] and all((found[name] == alone[name]).all() for name in alone)
    for kind in list, tuple:
        found = model(kind(recordings.values()))
        assert isinstance(found, list) and [len(one) for one in found] == [5, 2]
        assert all((one == other).all() for one, other in zip(found, alone.values()))
    assert model({}) == {}
    assert model([[1, 2, 3, 4], [5, 6, 7, 8]], stacked=True).shape == (2, 2)  # rows of one recording


@pytest.mark.filterwarnings("error")
def test_a_softmax_over_a_single_output_is_warned_of():
    said = "the only output is always 1, since a softmax is on"
    with pytest.warns(mlnn.Warning, match=said):
        mlnn.Model.from_arrays([([[1.0]], [0])])
    model = mlnn.Model.from_arrays([([[1.0]], [0])], softmax=False)
    with pytest.warns(mlnn.Warning, match=said):
        model.softmax = True
    model.softmax = False
    two = mlnn.Model.from_arrays([([[1.0], [2.0]], [0, 0])])
    two.softmax = True


@pytest.mark.parametrize("act_fn", mlnn.ACT_FNS)
@pytest.mark.parametrize("outputs", [1, 2])
@pytest.mark.filterwarnings("always")
def test_a_softmax_is_the_same_from_the_start_and_switched_on(act_fn, outputs, recwarn):
    layers = [([[1.0]] * 3, [0, 1, 2], "relu"), ([[1.0, 2.0, -1.0]] * outputs, [0.5] * outputs, act_fn)]
    model = mlnn.Model.from_arrays(layers)
    said = [str(warning.message) for warning in recwarn]
    recwarn.clear()
    later = mlnn.Model.from_arrays(layers, softmax=False)
    assert later.layers[-1].act_fn == act_fn
    later.softmax = True
    assert later == model and [layer.act_fn for layer in model.layers] == ["relu", "linear"]
    assert said == [str(warning.message) for warning in recwarn] == (
        [] if act_fn == "linear" else [f"the last layer's {act_fn} became linear, since a softmax is on"]) + (
        ["the only output is always 1, since a softmax is on"] if outputs == 1 else [])


HOSTILE = """
import resource
import numpy as np
import mlnn
resource.setrlimit(resource.RLIMIT_DATA, (int(open("/proc/self/statm").read().split()[5]) * 4096 + (64 << 20),) * 2)
huge, nothing = 2**31 - 1, np.zeros(0, np.float32)
zero = np.float32(0)
for call in (lambda: mlnn.Model().create_first_layer(1, huge),
             lambda: mlnn.Model().create_first_layer(0, huge, batch_norm=True),
             lambda: mlnn.Model().create_first_layer(huge, huge),
             lambda: mlnn.Model.from_arrays([([[1, 2]], [0])], False).add_layer(huge),
             lambda: mlnn.Model.from_arrays([(np.zeros((huge, 0), np.float32), nothing)]),
             lambda: mlnn.Model.from_arrays([(np.broadcast_to(zero, (2**20, 2**20)), nothing)]),
             lambda: mlnn.Model.from_arrays([(np.broadcast_to(0.0, (2**20, 2**20)), nothing)]),
             lambda: mlnn.Model.from_arrays([(np.zeros((0, 5), np.float32), nothing),
                                             (np.zeros((2**30, 0), np.float32), np.broadcast_to(zero, 2**30))])):
    try:
        call()
    except ValueError as error:
        print(error)
mlnn.Model.from_arrays([(np.zeros((0, huge), np.float32), nothing)], False)
"""


def test_shapes_that_no_layer_has_are_refused_before_memory_is_taken():
    done = subprocess.run([sys.executable, "-c", HOSTILE], capture_output=True, text=True)
    assert (done.returncode, done.stderr) == (0, "")
    lines = done.stdout.splitlines()
    assert len(lines) == 8 and all(line.endswith("bytes; 2147483647 are the most") for line in lines)
    assert lines[0] == ("a layer of 1 inputs and 2147483647 outputs takes 51539607528 bytes; 2147483647 are the most")
    assert lines[7].startswith("layer 2: a layer of 0 inputs and 1073741824 outputs")


def test_a_model_becomes_an_array_of_c(digits, tmp_path):
    model = mlnn.load(digits / "synth.txt")
    for made in model, model.copy().quantize(8):
        text = made.to_c_array("digits_image")
        numbers = [int(word, 16) for word in re.findall(r"0x([0-9a-f]+)", text)]
        assert np.array(numbers, "<u4").tobytes() == made.to_bytes()
        assert "digits_image_length" in text
    for name in "0x", "int", "__a", "", "a b":
        with pytest.raises(ValueError, match="is no name for a variable in C and C"):
            model.to_c_array(name)
    tool = os.environ.get("MLNN_TOOL")
    if tool:
        model.save(tmp_path / "m.mlnn")
        subprocess.run([tool, "convert", "--to", "c-array", tmp_path / "m.mlnn", tmp_path / "m.c"], check=True,
                       capture_output=True)
        assert mlnn.load(tmp_path / "m.mlnn").to_c_array("m_image") == (tmp_path / "m.c").read_text()
