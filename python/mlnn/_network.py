"""A network of another framework, step by step, and the model that it becomes.

What is computed of its numbers is computed in double precision and rounded once; an array of which
nothing is computed stays as it is, to the last bit.
"""
from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

from . import Error, Model

LEAKY_SLOPE = 0.01  # of leaky_relu
ELU_ALPHA = 1.0     # of elu
FAR = 1024.0        # from here on what a shift leaves of a value would lose too many of its bits
_SINGLE = float(np.finfo(np.float32).eps)

_Array = npt.NDArray[Any]


class _Affine:
    """`values * scale + shift`, of values that a linear map is still to take. Both are scalars or
    have a value for each; `width` is how many there are, 0 where that is not known."""

    def __init__(self, width: int) -> None:
        self.width = width
        self.scale, self.shift = np.float64(1) * np.ones(()), np.zeros(())
        self.name = ""  # of the last step

    def then(self, name: str, scale: _Array, shift: _Array) -> None:
        self.name = name
        for vector in scale, shift:
            self.width = max(self.width, *vector.shape, 0)
        with np.errstate(all="ignore"):  # what matters of it is refused
            self.scale, self.shift = self.scale * scale, self.shift * scale + shift
        if not (np.isfinite(self.scale).all() and np.isfinite(self.shift).all()):
            raise Error(f"{name}: a scale or shift before a linear map is not finite")

    def into(self, name: str, weights: _Array, bias: _Array | None) -> tuple[_Array, _Array | None]:
        """The weights and the bias of a linear map that takes the values before scale and shift."""
        far = float(np.abs(self.shift).max())
        if far > FAR:
            raise Error(f"{self.name}: shifts values by {far:g} before a linear map, where single "
                        f"precision keeps too little of them beyond {FAR:g}; shift the frames instead")
        exact = weights.astype(np.float64)
        with np.errstate(all="ignore"):
            scaled = exact * self.scale
            offset = exact @ np.broadcast_to(self.shift, exact.shape[1])
        _single(name, "weights", scaled, weights)
        if not self.shift.any():
            return scaled, bias
        whole = np.isfinite(weights).all(axis=1)  # where not, a value is not finite either
        total = offset if bias is None else offset + bias.astype(np.float64)
        _single(name, "bias", total, np.where(whole, 0 if bias is None else bias, np.inf))
        return scaled, total


class Network:
    """Gathers the steps of a network and makes the model.

    Every step has a name, by which an Error refuses it: where it does not fit the steps before it,
    or where a finite value becomes infinite or undefined in single precision. `inputs` is how many
    values a frame has, where that is known. A scale or a shift becomes part of the linear map right
    before it, or else of the one that follows; vectors of it are given as such, what is the same for
    all values without dimensions.
    """

    def __init__(self, inputs: int = 0) -> None:
        self._inputs = inputs
        self._layers: list[dict[str, Any]] = []
        self._softmax: str | None = None  # the name of the step, once there is one
        self._open = False  # whether the last layer may still take a shift, a scale or an activation
        self._before: _Affine | None = None  # what the next linear map is to take along

    @property
    def num_outputs(self) -> int:
        """The outputs of the last linear map; 0 where there is none."""
        return len(self._layers[-1]["weights"]) if self._layers else 0

    @property
    def width(self) -> int:
        """How many values the last step gives; 0 where that is not known."""
        return self.num_outputs or (self._before.width if self._before else 0) or self._inputs

    def expect(self, inputs: int) -> None:
        """Takes note of how many values a frame has, where that was not known."""
        if not self.width:
            self._inputs = inputs

    def linear(self, name: str, weights: npt.ArrayLike, bias: npt.ArrayLike | None) -> None:
        """Adds a linear map: weights of outputs x inputs, and a bias or none."""
        self._refuse_after_softmax(name)
        weights = _numbers(name, "weights", weights)
        if weights.ndim != 2:
            raise Error(f"{name}: expected weights of two dimensions, found shape {weights.shape}")
        if self.width and weights.shape[1] != self.width:
            raise Error(f"{name}: takes {weights.shape[1]} inputs after {self.width} outputs")
        if 0 in weights.shape:
            raise Error(f"{name}: weights of shape {weights.shape} compute nothing")
        _single(name, "weights", weights, weights)
        if bias is not None:
            bias = _vector(name, "bias", bias, len(weights))
            _single(name, "bias", bias, bias)
        if self._before is not None:
            weights, bias = self._before.into(name, weights, bias)
            self._before = None
        self._layers.append({"weights": weights, "bias": bias, "act_fn": "linear"})
        self._open = True

    def shift(self, name: str, values: npt.ArrayLike) -> None:
        """Adds values to the outputs of a linear map, or to what one will take."""
        shift = self._per_value(name, "shift", values)
        if not self._open:
            self._scale_and_shift(name, np.ones(()), shift)
            return
        layer = self._linear_before(name)
        shift = np.broadcast_to(shift, self.num_outputs)
        bias = layer["bias"]
        if bias is None:
            _single(name, "shift", shift, shift)
            layer["bias"] = shift
        else:
            with np.errstate(invalid="ignore"):
                layer["bias"] = bias.astype(np.float64) + shift
            _single(name, "shift", layer["bias"], bias, shift)

    def scale(self, name: str, values: npt.ArrayLike) -> None:
        """Multiplies the outputs of a linear map, or what one will take."""
        scale = self._per_value(name, "scale", values).astype(np.float64)
        if not self._open:
            self._scale_and_shift(name, scale, np.zeros(()))
            return
        layer = self._linear_before(name)
        factors = np.broadcast_to(scale, self.num_outputs)
        for what, given in ("weights", layer["weights"]), ("bias", layer["bias"]):
            if given is not None and (factors != 1).any():
                along = factors[:, None] if given.ndim == 2 else factors
                with np.errstate(all="ignore"):
                    layer[what] = given.astype(np.float64) * along
                _single(name, what, layer[what], given)

    def batch_norm(self, name: str, gamma: npt.ArrayLike, beta: npt.ArrayLike,
                   mean: npt.ArrayLike, var: npt.ArrayLike, eps: float) -> None:
        """Makes the linear map right before a batch-norm layer, or is taken by the one after it."""
        self._refuse_after_softmax(name)
        layer = self._linear_before(name) if self._open else None
        given = [_vector(name, what, values, self.width) for what, values in
                 (("gamma", gamma), ("beta", beta), ("mean", mean), ("variance", var))]
        for what, values in zip(("gamma", "beta"), given):
            _vector(name, what, values, given[0].size)
            _single(name, what, values, values)
        outputs = given[0].size
        bias = np.zeros(outputs) if layer is None or layer["bias"] is None else layer["bias"]
        with np.errstate(all="ignore"):  # what matters of it is refused
            gamma64, beta64, mean64, var64 = (values.astype(np.float64) for values in given)
            if (var64 + eps <= 0).any():
                raise Error(f"{name}: variance {np.nanmin(var64):g} plus eps {eps:g} is not positive")
            offset = bias.astype(np.float64) - mean64
            root = np.sqrt(var64 + eps)
            scale = gamma64 / root
            shift = beta64 + offset * scale
        if layer is None:
            self._scale_and_shift(name, scale, shift)
            return
        scale = _single(name, "scale", scale, given[0], given[3])
        shift = _single(name, "shift", shift, bias, *given)
        del layer["bias"]
        layer.update(gamma=given[0], beta=given[1], gamma_inf=_as_given(given[0], root == 1, scale),
                     beta_inf=_as_given(given[1], offset == 0, shift))

    def activation(self, name: str, act_fn: str) -> None:
        """Gives the linear map before an activation, by the name that models have for it."""
        self._refuse_after_softmax(name)
        if act_fn == "linear":
            return
        self._refuse_before_nothing_linear()
        if not self._layers or self._layers[-1]["act_fn"] != "linear":
            raise Error(f"{name}: an activation must follow a linear map")
        self._layers[-1]["act_fn"] = act_fn
        self._open = False

    def softmax(self, name: str) -> None:
        """Ends the network."""
        self._refuse_after_softmax(name)
        self._refuse_before_nothing_linear()
        if not self._layers:
            raise Error(f"{name}: a softmax must follow a linear map")
        self._softmax, self._open = name, False

    def model(self) -> Model:
        """The model. Raises Error for a network without a linear map."""
        if not self._layers:
            raise Error("the network has no linear map")
        self._refuse_before_nothing_linear()
        return Model._of_arrays(self._layers, softmax=self._softmax is not None)

    def _scale_and_shift(self, name: str, scale: _Array, shift: _Array) -> None:
        """What the next linear map will take along."""
        self._refuse_after_softmax(name)
        if self._before is None:
            self._before = _Affine(self.width)
        self._before.then(name, scale, shift)

    def _per_value(self, name: str, what: str, values: npt.ArrayLike) -> _Array:
        self._refuse_after_softmax(name)
        array = _numbers(name, what, values)
        return _vector(name, what, array, self.width) if array.ndim else array

    def _refuse_after_softmax(self, name: str) -> None:
        if self._softmax:
            raise Error(f"{name}: nothing can follow the softmax ({self._softmax})")

    def _refuse_before_nothing_linear(self) -> None:
        if self._before is not None:
            raise Error(f"{self._before.name}: must follow a linear map directly, or stand before one")

    def _linear_before(self, name: str) -> dict[str, Any]:
        """The layer whose linear map stands right before, which has no batch norm."""
        if "gamma_inf" in self._layers[-1]:
            raise Error(f"{name}: cannot be represented after the batch norm of a linear map")
        return self._layers[-1]


def _numbers(name: str, what: str, values: npt.ArrayLike) -> _Array:
    if isinstance(values, np.ma.MaskedArray):
        raise Error(f"{name}: {what}: a masked array cannot be represented")
    array = np.asarray(values)
    if array.dtype.kind not in "fiu":
        raise Error(f"{name}: {what}: expected real numbers, found {array.dtype}")
    return array


def _vector(name: str, what: str, values: npt.ArrayLike, outputs: int) -> _Array:
    """The values, one for each output; as many as there are where `outputs` is 0."""
    array = _numbers(name, what, values)
    if array.ndim != 1 or array.size == 0 or array.size != (outputs or array.size):
        raise Error(f"{name}: {what} of shape {array.shape} after {outputs or 'unknown'} outputs")
    return array


def _single(name: str, what: str, values: _Array, *sources: _Array) -> _Array:
    """The values in single precision, which must be finite where the sources are."""
    with np.errstate(over="ignore"):
        single = values.astype(np.float32, copy=False)
    lost = ~np.isfinite(single)
    for source in sources if lost.any() else ():
        lost = lost & np.isfinite(source)
    if lost.any():
        raise Error(f"{name}: {what}: {values[lost].flat[0]:g} is beyond single precision")
    return single


def _as_given(given: _Array, where: _Array, computed: _Array) -> _Array:
    """What was computed, but the given values, bit for bit, where they come out unchanged."""
    result = computed.copy()
    result[where] = given[where]
    return result


def parameter(name: str, what: str, found: float, wanted: float) -> None:
    """Refuses a step whose parameter is not the one that a model's activation has."""
    if not abs(found - wanted) <= _SINGLE * abs(wanted):
        raise Error(f"{name}: {what} is {found:g}; only {wanted:g} can be represented")


_WAYS_OUT = {
    "gelu": "SiLU is the nearest activation that can be: put it in, and train on",
    "log_softmax": "leave it out, or end with a Softmax",
    "prelu": "LeakyReLU with a slope of 0.01 can be",
    "layer_norm": "BatchNorm1d can be",
    "relu6": "ReLU can be",
}
_OTHER_NAMES = {"erf": "gelu", "logsoftmax": "log_softmax", "layernorm": "layer_norm",
                "layernormalization": "layer_norm", "gelunew": "gelu"}


def way_out(kind: str) -> str:
    """What to do instead of a step that is refused, to stand behind the refusal; "" where there is
    nothing to say."""
    word = kind.lower()
    told = _WAYS_OUT.get(_OTHER_NAMES.get(word, word))
    return f"; {told}" if told else ""
