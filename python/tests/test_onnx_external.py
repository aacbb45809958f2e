"""ONNX files whose values are in other files beside them."""
import os

import numpy as np
import pytest

import mlnn

onnx = pytest.importorskip("onnx")
pytest.importorskip("onnx.numpy_helper")  # becomes a part of onnx

WEIGHTS = np.arange(6, dtype=np.float32).reshape(2, 3)


def write(folder, location="values.bin", offset=None, length=None, kind=onnx.TensorProto.FLOAT,
          dims=(2, 3), data=WEIGHTS.tobytes()):
    """A product with weights that are kept elsewhere."""
    helper, single = onnx.helper, onnx.TensorProto.FLOAT
    tensor = onnx.TensorProto(name="w", data_type=kind, dims=dims)
    tensor.data_location = onnx.TensorProto.EXTERNAL
    told = {"location": location, "offset": offset, "length": length}
    for key, value in told.items():
        if value is not None:
            tensor.external_data.add(key=key, value=str(value))
    graph = helper.make_graph(
        [helper.make_node("MatMul", ["x", "w"], ["y"], "map")], "g",
        [helper.make_tensor_value_info("x", single, ["n", 2])],
        [helper.make_tensor_value_info("y", single, ["n", 3])], [tensor])
    proto = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    (folder / "m.onnx").write_bytes(proto.SerializeToString())
    if data is not None:
        (folder / "values.bin").write_bytes(data)
    return folder / "m.onnx"


def refusal(path):
    with pytest.raises(mlnn.Error) as caught:
        mlnn.from_onnx(path)
    return str(caught.value)


@pytest.fixture
def folder(tmp_path):
    (tmp_path / "models").mkdir()
    return tmp_path / "models"


def test_values_beside_the_file_are_read(folder, monkeypatch):
    path = write(folder)
    for name in path, str(path):
        assert (mlnn.from_onnx(name).layers[0].weights == WEIGHTS.T).all()
    monkeypatch.chdir(folder)
    assert (mlnn.from_onnx("m.onnx").layers[0].weights == WEIGHTS.T).all()
    (folder / "below").mkdir()
    (folder / "below" / "v").write_bytes(b"abcde" + WEIGHTS.tobytes() + b"more")
    path = write(folder, "below/v", offset=5, length=24)
    assert (mlnn.from_onnx(path).layers[0].weights == WEIGHTS.T).all()


def test_what_onnx_itself_writes_is_read(folder):
    model = mlnn.Model.from_arrays([(WEIGHTS, [1, 2], "relu"), ([[1, -1]], [0.5])], softmax=False)
    proto = mlnn.to_onnx(model)
    onnx.save_model(proto, str(folder / "m.onnx"), save_as_external_data=True, size_threshold=0,
                    convert_attribute=True)
    assert len(list(folder.iterdir())) > 1
    assert mlnn.from_onnx(folder / "m.onnx") == model


def test_values_elsewhere_are_refused(folder):
    (folder.parent / "secret").write_bytes(WEIGHTS.tobytes())
    (folder / "link").symlink_to("../secret")
    (folder / "inside").symlink_to("values.bin")
    for location in ("../secret", str(folder.parent / "secret"), "link", "x/../../secret", "..",
                     str(folder / "values.bin")):
        assert refusal(write(folder, location)) == (
            f"w: {location!r} is not within the model's folder")
    assert (mlnn.from_onnx(write(folder, "inside")).layers[0].weights == WEIGHTS.T).all()
    assert refusal(write(folder, "")) == "w: '' names no file"
    assert refusal(write(folder, "a\0b")) == "w: 'a\\x00b' names no file"


def test_missing_short_and_odd_files_are_told_of(folder):
    assert refusal(write(folder, "none.bin")) == (
        "w: 'none.bin' cannot be read: No such file or directory")
    os.mkfifo(folder / "pipe")
    (folder / "folder").mkdir()
    assert refusal(write(folder, "pipe")) == "w: 'pipe' is no regular file"
    assert refusal(write(folder, "folder")) == "w: 'folder' cannot be read: Is a directory"
    assert refusal(write(folder, data=WEIGHTS.tobytes()[:-1])) == (
        "w: 'values.bin' ends after 23 bytes; its values take those from 0 to 24")
    assert refusal(write(folder, offset=1)) == (
        "w: 'values.bin' ends after 24 bytes; its values take those from 1 to 25")
    assert refusal(write(folder, offset=10**17)).startswith("w: 'values.bin' ends after 24 bytes")
    assert refusal(write(folder, length=23)) == "w: 23 bytes for an array of 24"
    for number in "-1", "1e3", "x", "9" * 30, "":
        assert refusal(write(folder, offset=number)) == f"w: {number!r} is no number of bytes"


def test_hostile_shapes_take_no_memory(folder):
    assert refusal(write(folder, dims=(1 << 30, 1 << 30))) == (
        f"w: values of more than {2**31 - 1} bytes in other files")
    assert refusal(write(folder, dims=(-1, 3))) == "w: no array has the shape (-1, 3)"
    assert refusal(write(folder, kind=onnx.TensorProto.STRING)) == (
        "w: values of this type are not read from another file")


def test_a_model_without_a_folder_has_no_values_beside_it(folder):
    path = write(folder)
    told = "w: values in another file are not read, but for a model that is given by its file's name"
    assert refusal(onnx.load(str(path), load_external_data=False)) == told
    assert refusal(path.read_bytes()).startswith(("not an ONNX model: ", told))
