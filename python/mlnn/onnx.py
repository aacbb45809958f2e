"""Models as ONNX graphs, and graphs as models.

The graph maps input vectors (frames x inputs) to outputs. What stands around the network -
features, normalisation, notes, properties, curves - travels as metadata, and so do those arrays
of a layer that take no part in inference; so a model that is exported and imported is the same.
"""
from __future__ import annotations

import base64
import json
import os
import warnings
from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import NodeProto, TensorProto, helper, numpy_helper

from . import Error, FeatureDescription, Layer, Model, _CURVES, _VECTORS, _told_of, _write_whole
from .convert import ELU_ALPHA, LEAKY_SLOPE, Network, parameter

OPSET = 13
_METADATA = "mlnn"  # the one key of the metadata, whose value is JSON
_OPERATORS = {"sigmoid": "Sigmoid", "tanh": "Tanh", "relu": "Relu", "leaky_relu": "LeakyRelu",
              "elu": "Elu", "softplus": "Softplus"}
_ACT_FNS = {operator: name for name, operator in _OPERATORS.items()}

_Array = npt.NDArray[Any]


# --- Export ---

def to_onnx(model: Model, path: str | os.PathLike[str] | None = None) -> onnx.ModelProto:
    """Exports a model, and writes it to a file where a path is given.

    Plain layers become Gemm, batch-norm layers Gemm and BatchNormalization of mean 0 and
    variance 1. The input "inputs" takes input vectors: normalised frames with their context,
    which Model.stack makes.
    Raises Error for a model without layers, or with layers that do not fit each other, and OSError
    with the file's name where it cannot be written; an older file stays then.
    """
    if not len(model.layers):
        raise Error("a model without layers cannot be exported")
    nodes: list[NodeProto] = []
    constants: list[TensorProto] = []
    value = "inputs"
    for number, layer in enumerate(model.layers, 1):
        value = _export_layer(layer, f"layer{number}", value, nodes, constants)
    if model.softmax:
        nodes.append(helper.make_node("Softmax", [value], ["softmax"], "softmax", axis=1))
    nodes[-1].output[0] = "outputs"
    graph = helper.make_graph(
        nodes, "mlnn",
        [helper.make_tensor_value_info("inputs", TensorProto.FLOAT, ["frames", model.num_inputs])],
        [helper.make_tensor_value_info("outputs", TensorProto.FLOAT, ["frames", model.num_outputs])],
        constants)
    exported = helper.make_model(graph, producer_name="mlnn",
                                 opset_imports=[helper.make_opsetid("", OPSET)])
    exported.ir_version = 7  # the first of this operator set
    helper.set_model_props(exported, {_METADATA: json.dumps(_metadata(model))})
    onnx.checker.check_model(exported)
    if path is not None:
        _write_whole(path, exported.SerializeToString())
    return exported


def _export_layer(layer: Layer, name: str, value: str, nodes: list[NodeProto],
                  constants: list[TensorProto]) -> str:
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
    inputs = [value, constant("weights", layer.weights)]
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


def _packed(array: _Array) -> str:
    return base64.b64encode(np.asarray(array, "<f4").tobytes()).decode()


def _unpacked(text: str) -> _Array:
    return np.frombuffer(base64.b64decode(text, validate=True), "<f4")


def _idle_vectors(layer: Layer) -> dict[str, str]:
    """The vectors that a layer holds without using them."""
    used = {"gamma_inf", "beta_inf"} if layer.batch_norm else {"bias"}
    return {name: _packed(getattr(layer, name)) for name in _VECTORS
            if name not in used and getattr(layer, name).size}


def _metadata(model: Model) -> dict[str, Any]:
    norm = model.normalisation
    return {
        "features": vars(model.features),
        "normalisation": None if norm is None else [_packed(array) for array in norm],
        "props": dict(model.props),
        "notes": list(model.notes),
        **{name: _packed(model._core.curve(name)) for name in _CURVES},
        "idle_vectors": [_idle_vectors(layer) for layer in model.layers],
    }


# --- Import ---

def from_onnx(source: str | os.PathLike[str] | bytes | onnx.ModelProto) -> Model:
    """Imports a chain of Gemm, MatMul, Add, BatchNormalization, activations and Softmax, from a
    file, its bytes or a ModelProto. Raises Error for what else there is, by the name of the
    node, and for what is no ONNX model; OSError where the file cannot be read."""
    proto = source if isinstance(source, onnx.ModelProto) else _read(source)
    try:
        return _Importer(proto).run()
    except Error:
        raise
    except (AttributeError, IndexError, TypeError, ValueError) as error:
        # Shapes, types and attributes that no operator has; a ModelProto may hold anything.
        raise Error(f"the graph does not fit together: {error}") from None


def _read(source: str | os.PathLike[str] | bytes) -> onnx.ModelProto:
    data = source
    if not isinstance(data, bytes):
        path = os.fspath(data)
        with _told_of(path), open(path, "rb") as file:
            data = file.read()
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", RuntimeWarning)  # of the decoder, which then fails
            proto = onnx.load_model_from_string(data)
        onnx.checker.check_model(proto)
    except Exception as error:  # protobuf's own kinds, which onnx does not hide
        reason = str(error).strip().partition("\n")[0]
        raise Error(f"not an ONNX model: {reason}") from None
    return proto


def _name_of(node: NodeProto) -> str:
    return f"{node.name or ''.join(node.output[:1])} ({node.op_type})"


def _attributes(node: NodeProto) -> dict[str, Any]:
    return {a.name: helper.get_attribute_value(a) for a in node.attribute}


def _per_output(name: str, constant: _Array, outputs: int) -> _Array:
    """A constant that is added to every frame alike: a scalar, or one value for each output."""
    if constant.size == 1 and constant.ndim <= 2:
        return np.broadcast_to(constant.reshape(-1), outputs)
    if constant.ndim == 1 or (constant.ndim == 2 and len(constant) == 1):
        return constant.reshape(-1)
    raise Error(f"{name}: only a vector can be added, found shape {constant.shape}")


class _Importer:
    """Walks the one chain of nodes that leads from the input to the output."""

    def __init__(self, proto: onnx.ModelProto) -> None:
        self._graph = proto.graph
        self._metadata = {entry.key: entry.value for entry in proto.metadata_props}.get(_METADATA)
        self._network = Network()
        # A sigmoid that may be part of a SiLU: its name, and its input.
        self._gate: tuple[str, str] | None = None
        self._constants: dict[str, _Array] = {}
        for tensor in self._graph.initializer:
            if tensor.data_location == TensorProto.EXTERNAL:
                raise Error(f"{tensor.name}: values in another file are not read")
            self._constants[tensor.name] = self._values(tensor.name, tensor)

    @staticmethod
    def _values(name: str, tensor: TensorProto) -> _Array:
        if not all(0 <= length < 1 << 31 for length in tensor.dims):
            raise Error(f"{name}: no array has the shape {tuple(tensor.dims)}")
        try:
            array: _Array = numpy_helper.to_array(tensor)
            return array
        except Exception as error:
            raise Error(f"{name}: broken values: {error}") from None

    def run(self) -> Model:
        inputs = [i.name for i in self._graph.input if i.name not in self._constants]
        if len(inputs) != 1 or len(self._graph.output) != 1:
            raise Error(f"expected one input and one output, found {len(inputs)} and "
                        f"{len(self._graph.output)}")
        value = inputs[0]
        for node in self._graph.node:
            if not self._is_constant(node):
                value = self._follow(node, value)
        self._close_gate()
        if value != self._graph.output[0].name:
            raise Error(f"the output {self._graph.output[0].name} is not where the chain ends")
        return self._restore(self._network.model())

    def _is_constant(self, node: NodeProto) -> bool:
        """Whether the node takes nothing but constants. Its output is one more of them then."""
        name = _name_of(node)
        if node.op_type == "Constant":
            value, = [a.t for a in node.attribute if a.name == "value"] or [None]
            if value is None:
                raise Error(f"{name}: only a tensor is read")
            self._constants[node.output[0]] = self._values(name, value)
            return True
        if not all(other in self._constants for other in node.input):
            return False
        values = [self._constants[other] for other in node.input]
        if node.op_type == "Identity" and len(values) == 1:
            self._constants[node.output[0]] = values[0]
        elif node.op_type == "Transpose" and len(values) == 1 and values[0].ndim == 2:
            order = _attributes(node).get("perm", [1, 0])
            self._constants[node.output[0]] = values[0].T if list(order) == [1, 0] else values[0]
        else:
            raise Error(f"{name}: of constants alone cannot be represented")
        return True

    def _follow(self, node: NodeProto, value: str) -> str:
        """Takes the next node of the chain that has come to `value`, and returns its output."""
        name = _name_of(node)
        output: str = node.output[0]
        if self._gate is not None and node.op_type == "Mul":
            gate, before = self._gate
            if set(node.input) == {before, value}:
                self._gate = None
                self._network.activation(name, "silu")
                return output
        self._close_gate()
        if node.domain not in ("", "ai.onnx") or list(node.input).count(value) != 1:
            raise Error(f"{name} cannot be represented")
        if node.op_type == "Sigmoid":
            self._gate = name, value
        else:
            self._take(node, name, value)
        return output

    def _close_gate(self) -> None:
        """A sigmoid whose output did not turn out to gate its input is an activation."""
        if self._gate is not None:
            self._network.activation(self._gate[0], "sigmoid")
        self._gate = None

    def _take(self, node: NodeProto, name: str, value: str) -> None:
        attributes = _attributes(node)
        kind = node.op_type
        if kind == "Gemm":
            self._gemm(name, self._constants_of(node, name, value, 1, 2), attributes)
        elif kind == "MatMul":
            weights, = self._constants_of(node, name, value, 1)
            self._network.linear(name, self._matrix(name, weights).T, None)
        elif kind == "Add":
            values, = self._constants_of(node, name, value, 1, either_side=True)
            self._network.shift(name, _per_output(name, values, self._network.num_outputs))
        elif kind == "BatchNormalization":
            gamma, beta, mean, var = self._constants_of(node, name, value, 4)
            if attributes.get("training_mode", 0):
                raise Error(f"{name}: training_mode cannot be represented")
            self._network.batch_norm(name, gamma, beta, mean, var, attributes.get("epsilon", 1e-5))
        elif kind == "Dropout":
            rate_and_mode = self._constants_of(node, name, value, 0, 2)
            if any(mode.any() for mode in rate_and_mode[1:]):
                raise Error(f"{name}: training_mode cannot be represented")
        elif kind == "Softmax":
            self._constants_of(node, name, value, 0)
            if attributes.get("axis", -1) not in (1, -1):
                raise Error(f"{name}: axis is {attributes['axis']}; only 1 and -1 are represented")
            self._network.softmax(name)
        elif kind in _ACT_FNS:
            self._constants_of(node, name, value, 0)
            self._activation(name, kind, attributes)
        elif kind != "Identity":
            raise Error(f"{name} cannot be represented")

    def _constants_of(self, node: NodeProto, name: str, value: str, least: int,
                      most: int | None = None, either_side: bool = False) -> list[_Array]:
        """What a node takes beside the chain's value, which comes first; `least` to `most`
        constants. One that is left out in the middle counts as empty."""
        given = list(node.input)
        while given and given[-1] == "":
            given.pop()
        if given[:1] != [value] and not either_side:
            raise Error(f"{name}: only the first input can be the chain's value")
        given.remove(value)
        constants = [self._constants.get(other) if other else np.zeros(0) for other in given]
        known = [constant for constant in constants if constant is not None]
        if len(known) != len(constants):
            raise Error(f"{name}: takes more than the chain's value and constants")
        most = least if most is None else most
        if not least <= len(known) <= most:
            raise Error(f"{name}: expected {least} to {most} constants, found {len(known)}")
        return known

    @staticmethod
    def _matrix(name: str, weights: _Array) -> _Array:
        if weights.ndim != 2:
            raise Error(f"{name}: only a product with a matrix is represented")
        return weights

    def _gemm(self, name: str, constants: list[_Array], attributes: dict[str, Any]) -> None:
        weights, *added = constants
        if attributes.get("transA", 0):
            raise Error(f"{name}: transA cannot be represented")
        weights = self._matrix(name, weights)
        weights = weights if attributes.get("transB", 0) else weights.T
        parameter(name, "alpha", attributes.get("alpha", 1.0), 1.0)
        if added:
            parameter(name, "beta", attributes.get("beta", 1.0), 1.0)
        bias = _per_output(name, added[0], len(weights)) if added else None
        self._network.linear(name, weights, bias)

    def _activation(self, name: str, kind: str, attributes: dict[str, Any]) -> None:
        if kind == "LeakyRelu":
            parameter(name, "alpha", attributes.get("alpha", 0.01), LEAKY_SLOPE)
        elif kind == "Elu":
            parameter(name, "alpha", attributes.get("alpha", 1.0), ELU_ALPHA)
        self._network.activation(name, _ACT_FNS[kind])

    def _restore(self, model: Model) -> Model:
        """Gives the model what stood around the network, if it was exported from one."""
        if self._metadata is None:
            return model
        try:
            around = json.loads(self._metadata)
            model.features = FeatureDescription(**around["features"])
            if around["normalisation"] is not None:
                minvals, normvals = map(_unpacked, around["normalisation"])
                model.normalisation = minvals, normvals
            model.props, model.notes = around["props"], around["notes"]
            for name in _CURVES:
                model._core.set_curve(name, _unpacked(around[name]))
            return _with_vectors(model, around["idle_vectors"])
        except (KeyError, TypeError, ValueError, AttributeError, RecursionError) as error:
            raise Error(f"broken metadata {_METADATA!r}: {error}") from None


def _with_vectors(model: Model, idle: list[dict[str, str]]) -> Model:
    """The model with exactly these vectors beside those that compute."""
    layers = []
    for layer, vectors in zip(model.layers, idle, strict=True):
        used = ("gamma_inf", "beta_inf") if layer.batch_norm else ("bias",)
        layers.append({"weights": layer.weights, "act_fn": layer.act_fn,
                       "batch_norm": layer.batch_norm,
                       **{name: getattr(layer, name) for name in used},
                       **{name: _unpacked(text) for name, text in vectors.items()}})
    whole = Model.from_arrays(layers, softmax=model.softmax)
    whole._take_surroundings(model)
    return whole
