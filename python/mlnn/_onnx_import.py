"""ONNX graphs as models, by the meaning that operators have in the graph's operator set."""
from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import ModelProto, NodeProto

from . import Error, Model
from ._onnx_graph import Graph, attributes_of, in_domain, name_of, real, values_of
from ._onnx_metadata import restored
from .convert import ELU_ALPHA, LEAKY_SLOPE, Network, parameter

ACT_FNS = {"Sigmoid": "sigmoid", "Tanh": "tanh", "Relu": "relu", "LeakyRelu": "leaky_relu",
           "Elu": "elu", "Softplus": "softplus"}  # by their operators

# From these operator sets on:
_BROADCASTS = 7         # shapes are broadcast as NumPy does, and operators are for inference
_DROPS_BY_INPUT = 12    # Dropout has an input for training
_SOFTMAX_OF_LAST = 13   # Softmax is over one axis, the last by default
_SCALES_BY_AXIS = 13    # DequantizeLinear has an axis
_TRAINS_BY_MODE = 14    # BatchNormalization has an attribute for training

_Array = npt.NDArray[Any]


def imported(proto: ModelProto) -> Model:
    """The model that computes what the graph computes. Raises Error for what has no place in one,
    by the name of the node."""
    try:
        graph = Graph(proto)
        model = _Importer(graph).run()
    except Error:
        raise
    except (AttributeError, IndexError, TypeError, ValueError) as error:
        # Shapes, types and attributes that no operator has; a ModelProto may hold anything.
        raise Error(f"the graph does not fit together: {error}") from None
    return model if graph.metadata is None else restored(model, graph.metadata)


def _training(name: str, told: str = "training_mode") -> Error:
    return Error(f"{name}: {told} cannot be represented")


class _Importer:
    """Walks the one chain of nodes that leads from the input to the output."""

    def __init__(self, graph: Graph) -> None:
        self._graph = graph
        self._network = Network()
        # A sigmoid that may be part of a SiLU: its name, and its input.
        self._gate: tuple[str, str] | None = None

    def run(self) -> Model:
        value = self._graph.input
        for node in self._graph.nodes:
            if not in_domain(node):
                raise Error(f"{name_of(node)} cannot be represented")
            if not self._is_constant(node):
                value = self._follow(node, value)
        self._close_gate()
        if value != self._graph.output:
            raise Error(f"the output {self._graph.output} is not where the chain ends")
        return self._network.model()

    def _is_constant(self, node: NodeProto) -> bool:
        """Whether the node takes nothing but constants. Its output is one more of them then."""
        constants = self._graph.constants
        if not all(other in constants for other in node.input):
            return False
        name = name_of(node)
        values = [constants[other] for other in node.input]
        if node.op_type == "Constant":
            result = _constant(name, node)
        elif node.op_type == "Identity" and len(values) == 1:
            result = values[0]
        elif node.op_type == "DequantizeLinear" and 2 <= len(values) <= 3:
            result = _dequantized(name, values, attributes_of(node),
                                  self._graph.opset >= _SCALES_BY_AXIS)
        elif node.op_type == "Transpose" and len(values) == 1 and values[0].ndim == 2:
            order = attributes_of(node).get("perm", [1, 0])
            result = values[0].T if list(order) == [1, 0] else values[0]
        else:
            raise Error(f"{name}: of constants alone cannot be represented")
        constants[node.output[0]] = result
        return True

    def _follow(self, node: NodeProto, value: str) -> str:
        """Takes the next node of the chain that has come to `value`, and returns its output."""
        name = name_of(node)
        output: str = node.output[0]
        if self._gate is not None and node.op_type == "Mul":
            gate, before = self._gate
            if set(node.input) == {before, value}:
                self._gate = None
                self._network.activation(name, "silu")
                return output
        self._close_gate()
        if list(node.input).count(value) != 1:
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
        attributes = attributes_of(node)
        kind = node.op_type
        if kind == "Gemm":
            self._gemm(name, self._reals_of(node, name, value, 1, 2), attributes)
        elif kind == "MatMul":
            weights, = self._reals_of(node, name, value, 1)
            self._network.linear(name, _matrix(name, weights).T, None)
        elif kind == "Add":
            self._add(node, name, value, attributes)
        elif kind == "BatchNormalization":
            self._batch_norm(node, name, value, attributes)
        elif kind == "Dropout":
            self._dropout(node, name, value, attributes)
        elif kind == "Softmax":
            self._constants_of(node, name, value, 0)
            self._softmax(name, attributes)
        elif kind in ACT_FNS:
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
        found = [self._graph.constants.get(other) if other else np.zeros(0) for other in given]
        known = [constant for constant in found if constant is not None]
        if len(known) != len(found):
            raise Error(f"{name}: takes more than the chain's value and constants")
        most = least if most is None else most
        if not least <= len(known) <= most:
            raise Error(f"{name}: expected {least} to {most} constants, found {len(known)}")
        return known

    def _reals_of(self, node: NodeProto, name: str, value: str, least: int,
                  most: int | None = None, either_side: bool = False) -> list[_Array]:
        found = self._constants_of(node, name, value, least, most, either_side)
        return [real(name, constant) for constant in found]

    def _only_for_matrices(self, name: str) -> None:
        """Refuses an operator that means something else where the chain's values have another
        number of dimensions than frames x values."""
        if self._graph.rank != 2:
            raise Error(f"{name}: of values of {self._graph.rank} dimensions "
                        "cannot be represented")

    def _gemm(self, name: str, constants: list[_Array], attributes: dict[str, Any]) -> None:
        self._only_for_matrices(name)
        weights, *added = constants
        if attributes.get("transA", 0):
            raise Error(f"{name}: transA cannot be represented")
        weights = _matrix(name, weights)
        weights = weights if attributes.get("transB", 0) else weights.T
        parameter(name, "alpha", attributes.get("alpha", 1.0), 1.0)
        bias = None
        if added:
            parameter(name, "beta", attributes.get("beta", 1.0), 1.0)
            if self._graph.opset < _BROADCASTS:
                _needs_broadcast(name, attributes)
            bias = _per_output(name, added[0], len(weights), 2)
        self._network.linear(name, weights, bias)

    def _add(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        old = self._graph.opset < _BROADCASTS
        values, = self._reals_of(node, name, value, 1, either_side=not old)
        rank, outputs = self._graph.rank, self._network.num_outputs
        if old:
            _needs_broadcast(name, attributes)
            axis = attributes.get("axis", -1)
            if values.size != 1 and (values.ndim != 1 or axis not in (rank - 1, -1)):
                raise Error(f"{name}: only a vector along the last axis can be added, found shape "
                            f"{values.shape} at axis {axis}")
        self._network.shift(name, _per_output(name, values, outputs, rank))

    def _batch_norm(self, node: NodeProto, name: str, value: str,
                    attributes: dict[str, Any]) -> None:
        gamma, beta, mean, var = self._reals_of(node, name, value, 4)
        if self._graph.opset < _BROADCASTS and not attributes.get("is_test", 0):
            raise _training(name, "without is_test, which is training,")
        if self._graph.opset >= _TRAINS_BY_MODE and attributes.get("training_mode", 0):
            raise _training(name)
        if any(node.output[1:]):
            raise _training(name, "more than one output, which is training,")
        self._only_for_matrices(name)
        self._network.batch_norm(name, gamma, beta, mean, var, attributes.get("epsilon", 1e-5))

    def _dropout(self, node: NodeProto, name: str, value: str,
                 attributes: dict[str, Any]) -> None:
        by_input = self._graph.opset >= _DROPS_BY_INPUT
        rate_and_mode = self._constants_of(node, name, value, 0, 2 if by_input else 0)
        if any(mode.any() for mode in rate_and_mode[1:]):
            raise _training(name)
        if self._graph.opset < _BROADCASTS and not attributes.get("is_test", 0):
            raise _training(name, "without is_test, which is training,")

    def _softmax(self, name: str, attributes: dict[str, Any]) -> None:
        axis = attributes.get("axis", -1 if self._graph.opset >= _SOFTMAX_OF_LAST else 1)
        rank = self._graph.rank
        if axis not in (rank - 1, -1):
            only = "1 and -1 are" if rank == 2 else f"the last of {rank} is"
            raise Error(f"{name}: axis is {axis}; only {only} represented")
        self._network.softmax(name)

    def _activation(self, name: str, kind: str, attributes: dict[str, Any]) -> None:
        if kind == "LeakyRelu":
            parameter(name, "alpha", attributes.get("alpha", 0.01), LEAKY_SLOPE)
        elif kind == "Elu":
            parameter(name, "alpha", attributes.get("alpha", 1.0), ELU_ALPHA)
        self._network.activation(name, ACT_FNS[kind])


def _constant(name: str, node: NodeProto) -> _Array:
    tensor = attributes_of(node).get("value")
    if tensor is None:
        raise Error(f"{name}: only a tensor is read")
    return values_of(name, tensor)


def _dequantized(name: str, values: Sequence[_Array], attributes: dict[str, Any],
                 by_axis: bool) -> _Array:
    """Whole numbers times their scale: of all, or along an axis. Each is rounded once."""
    codes, scale = values[:2]
    zero = values[2] if len(values) > 2 else np.zeros(scale.shape, codes.dtype)
    if codes.dtype not in (np.int8, np.uint8, np.int32) or zero.dtype != codes.dtype:
        raise Error(f"{name}: {codes.dtype} less {zero.dtype} cannot be represented")
    if attributes.get("block_size", 0):
        raise Error(f"{name}: block_size cannot be represented")
    if zero.shape != scale.shape:
        raise Error(f"{name}: zero points of shape {zero.shape} for scales of shape {scale.shape}")
    if scale.ndim:
        axis = attributes.get("axis", 1)
        if not by_axis or scale.shape != (codes.shape[axis],):
            raise Error(f"{name}: scales of shape {scale.shape} for values of shape {codes.shape}")
        along = [1] * codes.ndim
        along[axis] = -1
        scale, zero = scale.reshape(along), zero.reshape(along)
    steps = codes.astype(np.int64) - zero
    with np.errstate(over="ignore"):
        products: _Array = (steps * real(name, scale).astype(np.float64)).astype(scale.dtype)
    return products


def _matrix(name: str, weights: _Array) -> _Array:
    if weights.ndim != 2:
        raise Error(f"{name}: only a product with a matrix is represented")
    return weights


def _per_output(name: str, constant: _Array, outputs: int, rank: int) -> _Array:
    """A constant that is added to every frame alike: a scalar, or one value for each output."""
    vectors: Sequence[int] = constant.shape[:-1]
    if constant.ndim <= rank and all(length == 1 for length in vectors):
        vector = constant.reshape(-1)
        return np.broadcast_to(vector, outputs) if constant.size == 1 else vector
    raise Error(f"{name}: only a vector can be added, found shape {constant.shape}")


def _needs_broadcast(name: str, attributes: dict[str, Any]) -> None:
    """Refuses what was added value by value before shapes were broadcast unasked."""
    if not attributes.get("broadcast", 0):
        raise Error(f"{name}: only with broadcast is the same added to every frame")
