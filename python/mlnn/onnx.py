"""Models as ONNX graphs, and graphs as models.

The graph maps input vectors (frames x inputs) to outputs. What stands around the network -
features, normalisation, notes, properties, curves - travels as metadata, and so do those arrays
of a layer that take no part in inference; so a model that is exported and imported is the same.
"""
from __future__ import annotations

import os
import typing
import warnings
from typing import Any, cast

import numpy as np
import numpy.typing as npt
import onnx
from onnx import NodeProto, TensorProto, helper, numpy_helper

from . import Error, Layer, Model
from ._files import _bytes_and_path, _write_into, _write_whole
from ._onnx_external import read_external
from ._onnx_front import FRONT, front_of, input_info
from ._onnx_import import ACT_FNS, imported
from ._onnx_metadata import KEY, surroundings
from ._network import ELU_ALPHA, LEAKY_SLOPE

OPSET = 13
_OPERATORS = {name: operator for operator, name in ACT_FNS.items()}

_Array = npt.NDArray[Any]


# --- Export ---

def to_onnx(model: Model, path: str | os.PathLike[str] | typing.IO[bytes] | None = None, *,
            quantized: bool = False, frames: npt.ArrayLike | None = None,
            normalisation: bool = False, context: bool = False) -> onnx.ModelProto:
    """Exports a model, and writes it to a file where a path is given, or into a file object of bytes.

    Plain layers become Gemm, batch-norm layers Gemm and BatchNormalization of mean 0 and
    variance 1. The input "inputs" takes input vectors: normalised frames with their context,
    which Model.stack makes. With `context` the graph makes them, of the frames of one recording,
    which the input "frames" takes; with `normalisation` it normalises first, so with both it takes
    raw frames, and with that alone vectors of raw frames ("vectors"). With `quantized`, weights that
    were quantised by rows become whole numbers of 8 bits and DequantizeLinear with a scale for each
    row, which gives them back exactly. With `frames` besides, which are a recording as the model
    takes it, the inputs of these layers go through QuantizeLinear and DequantizeLinear with the scale
    that the recording fills 8 bits with: an input within its range moves by half of the scale at most.
    Raises Error for a model without layers, or with layers that do not fit each other, with
    `quantized` for one without such weights, for `frames` without `quantized`, with `normalisation` or `context` for one that does not
    tell what frames its inputs are made of, and OSError with the file's name where it cannot be
    written; an older file stays then.
    """
    if not len(model.layers):
        raise Error("a model without layers cannot be exported")
    if quantized and not any(layer.row_codes for layer in model.layers):
        raise Error("no layer has weights that were quantised by rows")
    if frames is not None and not quantized:
        raise Error("frames: given without quantized")
    ranges = _ranges(model, frames) if frames is not None else [None] * len(model.layers)
    front = front_of(model, normalisation, context)
    nodes, constants = front.nodes() if front else ([], [])
    value = "inputs" if nodes or front is None else front.input_name
    for number, layer in enumerate(model.layers, 1):
        value = _export_layer(layer, f"layer{number}", value, nodes, constants, quantized,
                              ranges[number - 1])
    if model.softmax:
        nodes.append(helper.make_node("Softmax", [value], ["softmax"], "softmax", axis=1))
    nodes[-1].output[0] = "outputs"
    graph = helper.make_graph(
        nodes, "mlnn",
        [input_info(front.input_name, front.input_width) if front
         else input_info("inputs", model.num_inputs)],
        [helper.make_tensor_value_info("outputs", TensorProto.FLOAT, ["frames", model.num_outputs])],
        constants)
    exported = helper.make_model(graph, producer_name="mlnn",
                                 opset_imports=[helper.make_opsetid("", OPSET)])
    exported.ir_version = 7  # the first of this operator set
    helper.set_model_props(exported, {
        KEY: surroundings(model, **({FRONT: front.stated()} if front else {}))})
    onnx.checker.check_model(exported)
    if path is not None:
        data = exported.SerializeToString()
        if not isinstance(path, (str, os.PathLike)) and hasattr(path, "write"):
            _write_into(path, data)
        else:
            _write_whole(cast("str | os.PathLike[str]", path), data)
    return exported


_Range = tuple[float, float]  # the least and the largest value


def _ranges(model: Model, frames: npt.ArrayLike) -> list[_Range | None]:
    """The range of each layer's inputs over a recording."""
    given = np.asarray(frames, np.float32)
    inputs = given if given.ndim == 2 and given.shape[1] == model.num_inputs else model.stack(given)
    if not inputs.size:
        raise Error("frames: there are none")
    ranges: list[_Range | None] = []
    for done in range(len(model.layers)):
        values = inputs
        if done:
            part = Model.from_arrays(model.to_arrays()[:done], softmax=False)
            values = part(inputs, stacked=True)
        if not np.isfinite(values).all():
            raise Error(f"frames: the inputs of layer{done + 1} are not finite")
        ranges.append((float(values.min()), float(values.max())))
    return ranges


def _step(least: float, largest: float) -> tuple[Any, Any]:
    """The scale and zero point by which that range fills 8 bits, with 0 among the values."""
    kind: Any = np.uint8 if least >= 0 else np.int8
    size = np.float32(max(-least, largest))
    scale = size / np.float32(np.iinfo(kind).max)
    return (scale if scale > 0 else np.float32(1)), kind(0)


def _export_layer(layer: Layer, name: str, value: str, nodes: list[NodeProto],
                  constants: list[TensorProto], quantized: bool, of_inputs: _Range | None) -> str:
    """Appends a layer's nodes and constants, and returns the name of its output."""
    def constant(what: str, array: _Array) -> str:
        constants.append(numpy_helper.from_array(np.ascontiguousarray(array), f"{name}.{what}"))
        return f"{name}.{what}"

    def node(operator: str, inputs: list[str], what: str, **attributes: float) -> str:
        nodes.append(helper.make_node(operator, inputs, [f"{name}.{what}"], f"{name}.{what}",
                                      **attributes))
        return f"{name}.{what}"

    needed = ("gamma_inf", "beta_inf") if layer.batch_norm else ("bias",)
    for what in needed:
        if getattr(layer, what).size != layer.num_outputs:
            raise Error(f"{name}: {what} does not fit the weights")
    codes = layer.row_codes if quantized else None
    if codes is None:
        inputs = [value, constant("weights", layer.weights)]
    else:
        whole, scales = codes
        if of_inputs is not None:
            scale, zero = _step(*of_inputs)
            step = [constant("input_scale", scale), constant("input_zero", zero)]
            rounded = node("QuantizeLinear", [value, *step], "rounded")
            value = node("DequantizeLinear", [rounded, *step], "inputs")
        zeros = np.zeros(layer.num_outputs, np.int8)
        inputs = [value, node("DequantizeLinear", [constant("codes", whole), constant("scales", scales),
                                                   constant("zeros", zeros)], "weights", axis=0)]
    if not layer.batch_norm:
        inputs.append(constant("bias", layer.bias))
    value = node("Gemm", inputs, "affine", transB=1)
    if layer.batch_norm:
        ones = np.ones(layer.num_outputs, np.float32)
        value = node("BatchNormalization",
                     [value, constant("gamma_inf", layer.gamma_inf),
                      constant("beta_inf", layer.beta_inf), constant("mean", 0 * ones),
                      constant("var", ones)], "norm", epsilon=0.0)
    if layer.act_fn == "silu":
        return node("Mul", [value, node("Sigmoid", [value], "gate")], "activated")
    if layer.act_fn == "linear":
        return value
    attributes = {"leaky_relu": {"alpha": LEAKY_SLOPE}, "elu": {"alpha": ELU_ALPHA}}
    return node(_OPERATORS[layer.act_fn], [value], "activated", **attributes.get(layer.act_fn, {}))


# --- Import ---

def from_onnx(source: str | os.PathLike[str] | typing.IO[bytes] | bytes | onnx.ModelProto) -> Model:
    """Imports a chain of Gemm, MatMul, arithmetic with constants, BatchNormalization, activations
    and Softmax, and of what leaves frames as they are (Cast, Flatten, Reshape, Dropout, Identity),
    from a file, a file object of bytes, its bytes or a ModelProto, with the meaning that they have in the
    graph's operator set. What the output does not depend on is left out. Values in other files are read
    where the model comes from a path, of whose folder they must be.
    Raises Error for what else there is, by the name of the node, and for what is no ONNX model;
    OSError where the file cannot be read."""
    if not isinstance(source, onnx.ModelProto):
        return imported(_read(source))
    model = imported(source)
    _check(source)
    return model


def _check(proto: onnx.ModelProto) -> None:
    try:
        onnx.checker.check_model(proto)
    except Exception as error:  # protobuf's own kinds, which onnx does not hide
        raise _no_model(error) from None


def _no_model(error: Exception) -> Error:
    reason = str(error).strip().partition("\n")[0]
    return Error(f"not an ONNX model: {reason}")


def _read(source: str | os.PathLike[str] | typing.IO[bytes] | bytes) -> onnx.ModelProto:
    data, path = _bytes_and_path(source)
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", RuntimeWarning)  # of the decoder, which then fails
            proto = onnx.load_model_from_string(data)
    except Exception as error:  # as above
        raise _no_model(error) from None
    if path is not None:
        read_external(proto, os.path.dirname(os.fsdecode(path)) or ".")
    _check(proto)
    return proto
