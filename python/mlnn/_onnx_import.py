"""ONNX graphs as models, by the meaning that operators have in the graph's operator set."""
from __future__ import annotations

from collections.abc import Sequence
from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import ModelProto, NodeProto

from . import Error, Model
from ._network import ELU_ALPHA, LEAKY_SLOPE, Network, parameter, way_out
from ._onnx_constants import constant_of, refuse_narrow
from ._onnx_front import refuse_other_frames, without_front
from ._onnx_graph import Graph, attributes_of, in_domain, metadata_of, name_of, real
from ._onnx_metadata import restored
from ._onnx_shapes import Shape

ACT_FNS = {"Sigmoid": "sigmoid", "Tanh": "tanh", "Relu": "relu", "LeakyRelu": "leaky_relu",
           "Elu": "elu", "Softplus": "softplus"}  # by their operators

# From these operator sets on:
_SHAPES_BY_INPUT = 5    # Reshape has its shape as an input
_BROADCASTS = 7         # shapes are broadcast as NumPy does, and operators are for inference
_MAX_BROADCASTS = 8     # so are those of Max
_FLATTENS_FROM_BEHIND = 11  # Flatten's axis may be negative
_CLIPS_BY_INPUT = 11    # Clip has inputs for its limits
_DROPS_BY_INPUT = 12    # Dropout has an input for training
_SOFTMAX_OF_LAST = 13   # Softmax is over one axis, the last by default
_TRAINS_BY_MODE = 14    # BatchNormalization has an attribute for training

_LARGEST = float(np.finfo(np.float32).max)

_Array = npt.NDArray[Any]


def imported(proto: ModelProto) -> Model:
    """The model that computes what the graph computes. Raises Error for what has no place in one,
    by the name of the node."""
    try:
        metadata = metadata_of(proto)
        proto, front = (proto, None) if metadata is None else without_front(proto, metadata)
        model = _Importer(Graph(proto)).run()
    except Error:
        raise
    except (AttributeError, IndexError, TypeError, ValueError) as error:
        # Shapes, types and attributes that no operator has; a ModelProto may hold anything.
        raise Error(f"the graph does not fit together: {error}") from None
    if metadata is not None:
        model = restored(model, metadata)
    if front is not None:
        refuse_other_frames(model, front)
    return model


def _training(name: str, told: str = "training_mode") -> Error:
    return Error(f"{name}: {told} cannot be represented")


class _Importer:
    """Walks along the one chain of nodes that leads from the input to the output."""

    def __init__(self, graph: Graph) -> None:
        self._graph = graph
        self._network = Network()
        self._shape = Shape(graph.dimensions)
        # A sigmoid that may be part of a SiLU: its name, and its input.
        self._gate: tuple[str, str] | None = None
        # A QuantizeLinear, which a DequantizeLinear has to follow: its name, and its constants.
        self._rounding: tuple[str, list[_Array]] | None = None

    def run(self) -> Model:
        value = self._graph.input
        for node in self._graph.nodes:
            if not in_domain(node):
                raise Error(f"{name_of(node)} cannot be represented")
            if not self._is_constant(node, value):
                value = self._follow(node, value)
        self._close_gate()
        self._refuse_whole_numbers()
        if value != self._graph.output:
            raise Error(f"the output {self._graph.output} is not where the chain ends")
        return self._network.model()

    def _is_constant(self, node: NodeProto, value: str) -> bool:
        """Whether the node takes nothing but constants. Its output is one more of them then."""
        constants = self._graph.constants
        if node.op_type == "Shape" and list(node.input) == [value] and not node.attribute:
            constants[node.output[0]] = self._shape.constant()
            return True
        if not all(other in constants for other in node.input):
            return False
        values = [constants[other] for other in node.input]
        constants[node.output[0]] = constant_of(node, values, self._graph.opset)
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
            raise Error(f"{name} cannot be represented{way_out(node.op_type)}")
        if self._takes_rounding(node, name, value):
            return output
        if node.op_type == "Sigmoid":
            self._gate = name, value
        else:
            self._take(node, name, value)
        return output

    def _takes_rounding(self, node: NodeProto, name: str, value: str) -> bool:
        """Whether the node rounds inputs, or makes real numbers of them again. The model's inputs
        stay exact."""
        if self._rounding is not None and node.op_type == "DequantizeLinear":
            step = self._constants_of(node, name, value, 1, 2)
            before = self._rounding[1]
            if len(step) != len(before) or not all(map(np.array_equal, step, before)):
                raise Error(f"{name}: another scale or zero point than {self._rounding[0]} has")
            self._rounding = None
            return True
        self._refuse_whole_numbers()
        if node.op_type != "QuantizeLinear":
            return False
        self._rounding = name, self._constants_of(node, name, value, 1, 2)
        return True

    def _refuse_whole_numbers(self) -> None:
        if self._rounding is not None:
            raise Error(f"{self._rounding[0]}: only with a DequantizeLinear behind it can be represented")

    def _close_gate(self) -> None:
        """A sigmoid whose output did not turn out to gate its input is an activation."""
        if self._gate is not None:
            self._network.activation(self._gate[0], "sigmoid")
        self._gate = None

    def _take(self, node: NodeProto, name: str, value: str) -> None:
        attributes = attributes_of(node)
        kind = node.op_type
        if kind in _TAKERS:
            _TAKERS[kind](self, node, name, value, attributes)
        elif kind in ACT_FNS:
            self._constants_of(node, name, value, 0)
            self._activation(name, kind, attributes)
        elif kind != "Identity":
            raise Error(f"{name} cannot be represented{way_out(kind)}")

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
        if self._shape.rank != 2:
            raise Error(f"{name}: of values of {self._shape.rank} dimensions "
                        "cannot be represented")

    # --- Linear maps ---

    def _linear(self, name: str, weights: _Array, bias: _Array | None) -> None:
        if weights.ndim == 2 and self._shape.width not in (0, weights.shape[1]):
            raise Error(f"{name}: takes {weights.shape[1]} inputs after {self._shape.width} outputs")
        self._network.linear(name, weights, bias)
        self._shape.has_width(len(weights))

    def _gemm(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        weights, *added = self._reals_of(node, name, value, 1, 2)
        self._only_for_matrices(name)
        if attributes.get("transA", 0):
            raise Error(f"{name}: transA cannot be represented")
        weights = _matrix(name, weights)
        weights = weights if attributes.get("transB", 0) else weights.T
        bias = None
        if added:
            if self._graph.opset < _BROADCASTS:
                _needs_broadcast(name, attributes)
            vector = _per_output(name, added[0], 2)
            bias = _times(vector if vector.ndim else np.broadcast_to(vector, len(weights)),
                          attributes.get("beta", 1.0))
        self._linear(name, _times(weights, attributes.get("alpha", 1.0)), bias)

    def _matmul(self, node: NodeProto, name: str, value: str, _attributes: dict[str, Any]) -> None:
        weights, = self._reals_of(node, name, value, 1)
        self._linear(name, _matrix(name, weights).T, None)

    # --- Value by value ---

    def _operand(self, node: NodeProto, name: str, value: str,
                 attributes: dict[str, Any]) -> tuple[_Array, bool]:
        """The constant by which a node changes every frame alike, and whether it stands first."""
        old = self._graph.opset < _BROADCASTS
        values, = self._reals_of(node, name, value, 1, either_side=not old)
        if old:
            _needs_broadcast(name, attributes)
            axis = attributes.get("axis", -1)
            if values.size != 1 and (values.ndim != 1 or axis not in (self._shape.rank - 1, -1)):
                raise Error(f"{name}: only a vector along the last axis can be added, found shape "
                            f"{values.shape} at axis {axis}")
        vector = _per_output(name, values, self._shape.rank)
        width = self._network.width or self._shape.width
        if vector.ndim and width and vector.size != width:
            raise Error(f"{name}: shift of shape {vector.shape} after {width} outputs")
        return vector, node.input[0] != value

    def _add(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        self._network.shift(name, self._operand(node, name, value, attributes)[0])

    def _sub(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        operand, is_first = self._operand(node, name, value, attributes)
        if is_first:
            self._network.scale(name, -np.ones((), np.float32))
        self._network.shift(name, operand if is_first else -operand)

    def _mul(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        self._network.scale(name, self._operand(node, name, value, attributes)[0])

    def _div(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        operand, is_first = self._operand(node, name, value, attributes)
        if is_first:
            raise Error(f"{name}: only by a constant can be represented")
        if not operand.all():
            raise Error(f"{name}: by 0 cannot be represented")
        self._network.scale(name, 1 / operand.astype(np.float64))

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
        if not self._network.width and gamma.shape != (self._shape.width or gamma.size,):
            raise Error(f"{name}: gamma of shape {gamma.shape} after {self._shape.width} outputs")
        self._network.batch_norm(name, gamma, beta, mean, var, attributes.get("epsilon", 1e-5))

    # --- What changes nothing ---

    def _dropout(self, node: NodeProto, name: str, value: str,
                 attributes: dict[str, Any]) -> None:
        by_input = self._graph.opset >= _DROPS_BY_INPUT
        rate_and_mode = self._constants_of(node, name, value, 0, 2 if by_input else 0)
        if any(mode.any() for mode in rate_and_mode[1:]):
            raise _training(name)
        if self._graph.opset < _BROADCASTS and not attributes.get("is_test", 0):
            raise _training(name, "without is_test, which is training,")

    def _cast(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        self._constants_of(node, name, value, 0)
        refuse_narrow(name, attributes)

    def _flatten(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        self._constants_of(node, name, value, 0)
        self._refuse_scaled_before_joined(name)
        axis = attributes.get("axis", 1)
        if axis < 0 and self._graph.opset < _FLATTENS_FROM_BEHIND:
            raise Error(f"{name}: axis is {axis}, which operator set {self._graph.opset} has not")
        self._shape.flatten(name, axis)

    def _reshape(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        if self._graph.opset < _SHAPES_BY_INPUT:
            self._constants_of(node, name, value, 0)
            target = np.asarray(attributes.get("shape", []), np.int64)
        else:
            target, = self._constants_of(node, name, value, 1)
        if target.ndim != 1 or target.dtype != np.int64:
            raise Error(f"{name}: no shape is {target.dtype} of shape {target.shape}")
        self._refuse_scaled_before_joined(name)
        self._shape.reshape(name, target.tolist(), not attributes.get("allowzero", 0))

    def _refuse_scaled_before_joined(self, name: str) -> None:
        """Values that one scale each is known for already, cannot become more."""
        if self._network.width and not self._network.num_outputs:
            self._shape.is_given = False

    # --- Activations ---

    def _softmax(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        self._constants_of(node, name, value, 0)
        axis = attributes.get("axis", -1 if self._graph.opset >= _SOFTMAX_OF_LAST else 1)
        rank = self._shape.rank
        if axis not in (rank - 1, -1):
            only = "1 and -1 are" if rank == 2 else f"the last of {rank} is"
            raise Error(f"{name}: axis is {axis}; only {only} represented")
        self._network.softmax(name)

    def _clip(self, node: NodeProto, name: str, value: str, attributes: dict[str, Any]) -> None:
        """A clip from 0 on is a ReLU."""
        if self._graph.opset < _CLIPS_BY_INPUT:
            self._constants_of(node, name, value, 0)
            limits = [attributes.get("min", -_LARGEST), attributes.get("max", _LARGEST)]
        else:
            given = self._reals_of(node, name, value, 0, 2)
            if any(limit.size > 1 or (limit.size and limit.ndim) for limit in given):
                raise Error(f"{name}: limits that are no scalars cannot be represented")
            limits = [float(limit) if limit.size else open_end for limit, open_end in
                      zip([*given, *[np.zeros(0)] * (2 - len(given))], (-_LARGEST, _LARGEST))]
        low, high = limits
        if high < _LARGEST or low not in (0, -_LARGEST, -np.inf):
            raise Error(f"{name}: to {low:g} to {high:g}; only from 0 on, as a ReLU, can be represented")
        if low == 0:
            self._network.activation(name, "relu")

    def _max(self, node: NodeProto, name: str, value: str, _attributes: dict[str, Any]) -> None:
        """The larger one of a value and 0 is a ReLU."""
        limit, = self._reals_of(node, name, value, 1, either_side=True)
        if self._graph.opset < _MAX_BROADCASTS:
            raise Error(f"{name}: of operator set {self._graph.opset} does not broadcast a constant")
        vector = _per_output(name, limit, self._shape.rank)
        width = self._network.width or self._shape.width
        if limit.any() or (vector.ndim and vector.size != width):
            raise Error(f"{name}: only with 0, as a ReLU, can be represented")
        self._network.activation(name, "relu")

    def _activation(self, name: str, kind: str, attributes: dict[str, Any]) -> None:
        if kind == "LeakyRelu":
            parameter(name, "alpha", attributes.get("alpha", 0.01), LEAKY_SLOPE)
        elif kind == "Elu":
            parameter(name, "alpha", attributes.get("alpha", 1.0), ELU_ALPHA)
        self._network.activation(name, ACT_FNS[kind])


_TAKERS = {
    "Gemm": _Importer._gemm, "MatMul": _Importer._matmul, "Add": _Importer._add,
    "Sub": _Importer._sub, "Mul": _Importer._mul, "Div": _Importer._div,
    "BatchNormalization": _Importer._batch_norm, "Dropout": _Importer._dropout,
    "Softmax": _Importer._softmax, "Cast": _Importer._cast, "Flatten": _Importer._flatten,
    "Reshape": _Importer._reshape, "Clip": _Importer._clip, "Max": _Importer._max,
}


def _matrix(name: str, weights: _Array) -> _Array:
    if weights.ndim != 2:
        raise Error(f"{name}: only a product with a matrix is represented")
    return weights


def _times(values: _Array, factor: float) -> _Array:
    """The values as they are where the factor is 1, else in double precision."""
    if factor == 1:
        return values
    with np.errstate(all="ignore"):
        return values.astype(np.float64) * factor


def _per_output(name: str, constant: _Array, rank: int) -> _Array:
    """A constant that changes every frame alike: a scalar, or one value for each output."""
    vectors: Sequence[int] = constant.shape[:-1]
    if constant.ndim <= rank and all(length == 1 for length in vectors):
        return constant.reshape(()) if constant.size == 1 else constant.reshape(-1)
    raise Error(f"{name}: only a vector can be added, found shape {constant.shape}")


def _needs_broadcast(name: str, attributes: dict[str, Any]) -> None:
    """Refuses what was added value by value before shapes were broadcast unasked."""
    if not attributes.get("broadcast", 0):
        raise Error(f"{name}: only with broadcast is the same added to every frame")
