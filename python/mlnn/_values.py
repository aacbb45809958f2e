"""Values of Python as the library takes them."""
from __future__ import annotations

import operator
from typing import Any

import numpy as np
import numpy.typing as npt

from . import _mlnn


ACT_FNS = tuple(_mlnn.act_fns())  # the names of the activations, in the order of their codes
NORM_LENGTH = _mlnn.NORM_LENGTH   # values in each of the two arrays of a normalisation

_IN_BATCH_NORM = dict(_mlnn.layer_vectors())  # by the names of the arrays, in their order
_VECTORS = tuple(_IN_BATCH_NORM)
_NORM = ("minvals", "normvals")
_CURVES = ("loss", "accuracy")

_Floats = npt.NDArray[np.float32]


def _bytes(text: str, what: str) -> bytes:
    if not isinstance(text, str):
        raise TypeError(f"{what}: expected a string, got {text!r}")
    return text.encode("utf-8", "surrogateescape")


def _integer(value: Any, what: str, low: int = -2**31, high: int = 2**31 - 1) -> int:
    """The value as one of the integers that the library takes; 32 bits by default."""
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{what}: expected an integer, got {value!r}") from None
    if not low <= number <= high:
        raise ValueError(f"{what}: expected {low} to {high}, got {number}")
    return number


def _size(value: Any, what: str) -> int:
    return _integer(value, what, 0)


def _float32(values: npt.ArrayLike, dimensions: int, what: str) -> _Floats:
    """The values as float32; the array itself where it is one already."""
    if isinstance(values, np.ma.MaskedArray):
        raise TypeError(f"{what}: a masked array would lose its mask; fill it first")
    array = _array(values, what)
    if array.ndim != dimensions:
        raise ValueError(f"{what}: expected {dimensions} dimensions, got shape {array.shape}")
    if array.dtype.kind not in "fiub":
        raise TypeError(f"{what}: expected numbers, got {array.dtype}")
    with np.errstate(over="ignore"):
        single = np.require(array, np.float32, "A")
    if single is not array and (np.isinf(single) & np.isfinite(array)).any():
        raise ValueError(f"{what}: a value is too large for single precision")
    return single


def _array(values: npt.ArrayLike, what: str) -> npt.NDArray[Any]:
    array = np.asarray(_detached(values))
    to_numpy = getattr(values, "to_numpy", None)  # pandas' own types of numbers come as objects
    if array.dtype.kind != "O" or to_numpy is None:
        return array
    try:
        numbers: npt.NDArray[Any] = to_numpy(dtype=np.float64)
    except (TypeError, ValueError):
        raise TypeError(f"{what}: expected numbers, and none missing") from None
    return numbers


def _detached(values: npt.ArrayLike) -> npt.ArrayLike:
    """The values of a tensor of PyTorch, which may have a gradient; anything else as it is."""
    detach = None if isinstance(values, np.ndarray) else getattr(values, "detach", None)
    result: npt.ArrayLike = values if detach is None else detach().cpu().numpy()
    return result


MOST_BYTES = 2**31 - 1  # of a layer's parameters: what the record of a layer holds


def _refuse_too_large(inputs: int, outputs: int) -> None:
    """Refuses a layer that no record holds, before its memory is taken."""
    needed = 4 * outputs * (inputs + len(_VECTORS))
    if needed > MOST_BYTES:
        raise ValueError(f"a layer of {inputs} inputs and {outputs} outputs takes {needed} bytes; "
                         f"{MOST_BYTES} are the most")


def _frames(values: npt.ArrayLike) -> _Floats:
    """The same for frames, whose values must also lie side by side."""
    array = _float32(values, 2, "frames")
    side_by_side = array.shape[1] <= 1 or array.strides[1] == array.itemsize
    apart = array.shape[0] <= 1 or array.strides[0] >= array.shape[1] * array.itemsize
    whole = array.strides[0] % array.itemsize == 0
    return array if side_by_side and apart and whole else np.ascontiguousarray(array)


def _single(value: npt.ArrayLike, what: str) -> float:
    """The same for one number."""
    return float(_float32(value, 0, what))


def _act_fn(name: str) -> str:
    if name not in ACT_FNS:
        raise ValueError(f"no activation {name!r}; there are {', '.join(ACT_FNS)}")
    return name
