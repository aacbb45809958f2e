"""ONNX exports with the normalisation and the context window in the graph."""
import json

import numpy as np
import pytest

import mlnn

onnx = pytest.importorskip("onnx")
pytest.importorskip("onnx.numpy_helper")  # becomes a part of onnx


@pytest.fixture(params=[(0, 0), (1, 0), (0, 2), (2, 3), (9, 9)], ids=str)
def windowed(request):
    """3 values a frame, normalised, in a window of so many frames to the left and right."""
    left, right = request.param
    span = left + 1 + right
    rng = np.random.default_rng(1)
    model = mlnn.Model.from_arrays([(rng.normal(size=(5, 3 * span)), rng.normal(size=5), "relu"),
                                    (rng.normal(size=(2, 5)), [0, 1])])
    model.features = mlnn.FeatureDescription(num_bands=3, win_size_left=left, win_size_right=right)
    model.normalisation = rng.normal(size=120), 1 + rng.random(120)
    return model


def frames_for(count, width=3):
    return np.random.default_rng(2).normal(size=(count, width)).astype(np.float32)


def recomputed(proto, given):
    reference = pytest.importorskip("onnx_reference")
    return reference.Reference(proto)(given)


@pytest.mark.parametrize("count", [1, 2, 9])
def test_the_graph_makes_input_vectors_as_the_model_does(windowed, count):
    pytest.importorskip("torch")
    frames = frames_for(count)
    expected = windowed(frames)
    norm = windowed.normalisation
    normalised = (frames - norm[0][:3]) * norm[1][:3]
    bare = windowed.copy()
    bare.normalisation = None
    for options, given in [({}, windowed.stack(frames)),
                           ({"normalisation": True, "context": True}, frames),
                           ({"context": True}, normalised),
                           ({"normalisation": True}, bare.stack(frames))]:
        proto = mlnn.to_onnx(windowed, **options)
        assert proto.graph.input[0].type.tensor_type.shape.dim[1].dim_value == given.shape[1]
        assert np.abs(recomputed(proto, given) - expected).max() < 1e-6
        assert mlnn.from_onnx(proto) == windowed


@pytest.mark.parametrize("name", ["synth", "synth-bn"])
def test_other_engines_take_raw_frames(digits, tmp_path, name):
    cv2 = pytest.importorskip("cv2")
    pytest.importorskip("torch")
    model = mlnn.load(digits / f"{name}.txt")
    proto = mlnn.to_onnx(model, tmp_path / "m.onnx", normalisation=True, context=True)
    assert mlnn.from_onnx(tmp_path / "m.onnx") == model
    network = cv2.dnn.readNetFromONNX(str(tmp_path / "m.onnx"))
    worst = {"PyTorch": 0, "OpenCV": 0}
    for path in sorted((digits / "frames").glob("*.npy"))[:5]:
        frames = np.ascontiguousarray(np.load(path), np.float32)
        network.setInput(frames)
        for engine, outputs in ("PyTorch", recomputed(proto, frames)), ("OpenCV", network.forward()):
            worst[engine] = max(worst[engine], np.abs(outputs - model(frames)).max())
    print(name, {engine: f"{difference:.1e}" for engine, difference in worst.items()})
    assert max(worst.values()) < 2e-5


def test_whole_numbers_and_raw_frames_go_together(windowed):
    pytest.importorskip("torch")
    windowed.quantize(8)
    proto = mlnn.to_onnx(windowed, quantized=True, normalisation=True, context=True)
    assert "DequantizeLinear" in {node.op_type for node in proto.graph.node}
    frames = frames_for(5)
    assert np.abs(recomputed(proto, frames) - windowed(frames)).max() < 1e-5
    assert mlnn.from_onnx(proto) == windowed


def test_what_does_not_tell_of_its_frames_is_refused(tmp_path):
    model = mlnn.Model.from_arrays([(np.ones((2, 7)), [0, 0])])
    for options in {"normalisation": True}, {"context": True}:
        with pytest.raises(mlnn.Error, match="^the model does not tell what frames its inputs are made"):
            mlnn.to_onnx(model, tmp_path / "m.onnx", **options)
    assert list(tmp_path.iterdir()) == []


def changed(proto, change):
    made = onnx.ModelProto()
    made.CopyFrom(proto)
    change(made)
    return made


def state(change):
    """Changes what the metadata states."""
    def apply(proto):
        around = json.loads(proto.metadata_props[0].value)
        change(around)
        proto.metadata_props[0].value = json.dumps(around)
    return apply


@pytest.mark.parametrize("change", [
    lambda proto: proto.graph.initializer[0].CopyFrom(
        onnx.numpy_helper.from_array(np.ones(3, np.float32), "front.minvals")),
    lambda proto: proto.graph.node[0].CopyFrom(
        onnx.helper.make_node("Add", ["frames", "front.minvals"], ["front.minvals.out"], "front.minvals")),
    state(lambda around: around["features"].update(win_size_left=1 << 30)),
    state(lambda around: around["front"].update(context=False)),
    state(lambda around: (around["features"].update(win_size_left=1 << 30),
                          around["front"].update(context=False))),
    state(lambda around: around["front"].update(width=4)),
    lambda proto: proto.graph.initializer.append(proto.graph.initializer[0]),
    lambda proto: proto.graph.node.insert(0, onnx.helper.make_node("Identity", ["frames"], ["odd"])),
])
def test_a_beginning_that_is_not_what_the_metadata_says_is_refused(windowed, change):
    proto = mlnn.to_onnx(windowed, normalisation=True, context=True)
    with pytest.raises(mlnn.Error, match="the graph does not begin as its metadata says"):
        mlnn.from_onnx(changed(proto, change))


@pytest.mark.parametrize("change", [
    lambda around: around["front"].pop("width"), lambda around: around["front"].update(width="3"),
    lambda around: around.update(front=3), lambda around: around["front"].update(width=-3)])
def test_broken_metadata_is_refused(windowed, change):
    proto = mlnn.to_onnx(windowed, normalisation=True, context=True)
    with pytest.raises(mlnn.Error, match="^broken metadata 'mlnn': "):
        mlnn.from_onnx(changed(proto, state(change)))


def test_without_metadata_a_window_is_refused_and_a_normalisation_taken(windowed):
    proto = mlnn.to_onnx(windowed, normalisation=True)
    del proto.metadata_props[:]
    vectors = frames_for(4, windowed.num_inputs)
    taken = mlnn.from_onnx(proto)
    if pytest.importorskip("torch"):
        assert np.abs(taken(vectors, stacked=True) - recomputed(proto, vectors)).max() < 1e-5
    proto = mlnn.to_onnx(windowed, normalisation=True, context=True)
    del proto.metadata_props[:]
    if windowed.num_inputs > 3:
        with pytest.raises(mlnn.Error, match=r"^front.\w+ \((Slice|Concat)\) cannot be represented"):
            mlnn.from_onnx(proto)
