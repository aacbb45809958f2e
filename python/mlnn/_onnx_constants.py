"""What ONNX nodes make of constants alone: weights, and the shapes that values are to take."""
from __future__ import annotations

from collections.abc import Callable, Sequence
from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import NodeProto, TensorProto

from ._messages import Error
from ._onnx_graph import attributes_of, name_of, real, values_of

SCALES_BY_AXIS = 13  # from this operator set on DequantizeLinear has an axis
_AXES_BY_INPUT = 13  # and Squeeze and Unsqueeze have their axes as an input

_Array = npt.NDArray[Any]


def constant_of(node: NodeProto, values: Sequence[_Array], opset: int) -> _Array:
    """The output of a node that takes these constants. Raises Error for what is not known."""
    name, attributes = name_of(node), attributes_of(node)
    fewest, most, make = _MAKERS.get(node.op_type, (0, -1, _constant))
    if not fewest <= len(values) <= most:
        raise Error(f"{name}: of constants alone cannot be represented")
    return make(name, values, attributes, opset)


def _constant(name: str, _values: Sequence[_Array], attributes: dict[str, Any], _opset: int) -> _Array:
    if "value" in attributes:
        return values_of(name, attributes["value"])
    for kind, dtype in ("float", np.float32), ("int", np.int64):
        for suffix in "", "s":
            if f"value_{kind}{suffix}" in attributes:
                return np.asarray(attributes[f"value_{kind}{suffix}"], dtype)
    raise Error(f"{name}: only a tensor is read")


def _identity(_name: str, values: Sequence[_Array], _attributes: dict[str, Any], _opset: int) -> _Array:
    return values[0]


def _dequantized(name: str, values: Sequence[_Array], attributes: dict[str, Any],
                 opset: int) -> _Array:
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
        if opset < SCALES_BY_AXIS or scale.shape != (codes.shape[axis],):
            raise Error(f"{name}: scales of shape {scale.shape} for values of shape {codes.shape}")
        along = [1] * codes.ndim
        along[axis] = -1
        scale, zero = scale.reshape(along), zero.reshape(along)
    steps = codes.astype(np.int64) - zero
    with np.errstate(over="ignore"):
        products: _Array = (steps * real(name, scale).astype(np.float64)).astype(scale.dtype)
    return products


def _transposed(name: str, values: Sequence[_Array], attributes: dict[str, Any], _opset: int) -> _Array:
    if values[0].ndim != 2:
        raise Error(f"{name}: of constants alone cannot be represented")
    return values[0].T if list(attributes.get("perm", [1, 0])) == [1, 0] else values[0]


_REALS: dict[Any, type[np.floating[Any]]] = {
    TensorProto.FLOAT: np.float32, TensorProto.DOUBLE: np.float64, "FLOAT": np.float32,
    "DOUBLE": np.float64}  # Cast names its types by words before operator set 6


def refuse_narrow(name: str, attributes: dict[str, Any]) -> type[np.floating[Any]]:
    """The type to which a Cast turns real numbers; refuses one that loses more than a model's does."""
    to = attributes.get("to")
    kind = _REALS.get(to.decode() if isinstance(to, bytes) else to)
    if kind is None:
        raise Error(f"{name}: only to single and double precision can be represented")
    return kind


def _cast(name: str, values: Sequence[_Array], attributes: dict[str, Any], _opset: int) -> _Array:
    if values[0].dtype == np.int64 and attributes.get("to") == TensorProto.INT64:
        return values[0]  # of a shape
    kind = refuse_narrow(name, attributes)
    return real(name, values[0]).astype(kind)


def _axes(name: str, values: Sequence[_Array], attributes: dict[str, Any], opset: int) -> list[int]:
    if opset < _AXES_BY_INPUT:
        found = attributes.get("axes", [])
    else:
        found = values[1].reshape(-1).tolist() if len(values) == 2 else []
    if len(found) != 1:
        raise Error(f"{name}: of constants alone is represented along one axis")
    return [int(found[0])]


def _unsqueezed(name: str, values: Sequence[_Array], attributes: dict[str, Any], opset: int) -> _Array:
    return np.expand_dims(values[0], _axes(name, values, attributes, opset)[0])


def _squeezed(name: str, values: Sequence[_Array], attributes: dict[str, Any], opset: int) -> _Array:
    return np.squeeze(values[0], _axes(name, values, attributes, opset)[0])


def _gathered(name: str, values: Sequence[_Array], attributes: dict[str, Any], _opset: int) -> _Array:
    if values[0].ndim != 1 or attributes.get("axis", 0) not in (0, -1):
        raise Error(f"{name}: of constants alone cannot be represented")
    return np.asarray(values[0][values[1]])


def _joined(name: str, values: Sequence[_Array], attributes: dict[str, Any], _opset: int) -> _Array:
    if any(value.ndim != 1 for value in values) or attributes.get("axis", 0) not in (0, -1):
        raise Error(f"{name}: of constants alone cannot be represented")
    return np.concatenate(values)


_Maker = Callable[[str, Sequence[_Array], dict[str, Any], int], _Array]
_MAKERS: dict[str, tuple[int, int, _Maker]] = {
    "Constant": (0, 0, _constant), "Identity": (1, 1, _identity), "Cast": (1, 1, _cast),
    "DequantizeLinear": (2, 3, _dequantized), "Transpose": (1, 1, _transposed),
    "Unsqueeze": (1, 2, _unsqueezed), "Squeeze": (1, 2, _squeezed),
    "Gather": (2, 2, _gathered), "Concat": (1, 1 << 10, _joined),
}
