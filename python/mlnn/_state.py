"""The values of a model by the names that they have in PyTorch: those of to_torch's Sequential."""
from __future__ import annotations

from collections.abc import Iterator, Mapping
from typing import Any

import numpy as np
import numpy.typing as npt

from ._layer import Layer
from ._values import _float32

_Array = npt.NDArray[Any]


def places(layers: list[Layer]) -> Iterator[tuple[Layer, int, int | None]]:
    """Each layer with the places of its linear map and, where it has one, of its batch norm among the
    steps of a Sequential."""
    place = 0
    for layer in layers:
        linear, place = place, place + 1
        norm = None
        if layer.batch_norm:
            norm, place = place, place + 1
        place += layer.act_fn != "linear"
        yield layer, linear, norm


def state_of(layers: list[Layer]) -> dict[str, _Array]:
    """The values by their names. Weights, biases, scales and shifts are views."""
    state: dict[str, _Array] = {}
    for layer, linear, norm in places(layers):
        state[f"{linear}.weight"] = layer.weights
        if norm is None:
            state[f"{linear}.bias"] = layer.bias
            continue
        state[f"{norm}.weight"], state[f"{norm}.bias"] = layer.gamma_inf, layer.beta_inf
        state[f"{norm}.running_mean"] = np.zeros(layer.num_outputs, np.float32)
        state[f"{norm}.running_var"] = np.ones(layer.num_outputs, np.float32)
        state[f"{norm}.num_batches_tracked"] = np.zeros((), np.int64)
    return state


def load_state(layers: list[Layer], state: Mapping[str, Any], eps: float) -> None:
    """Copies values into the layers. Raises ValueError for names or shapes that are not the layers',
    and changes nothing then."""
    own = state_of(layers)
    counts = {name for name in own if name.endswith(".num_batches_tracked")}
    told = [f"missing {name}" for name in own if name not in state and name not in counts]
    told += [f"unexpected {name}" for name in state if name not in own]
    if told:
        raise ValueError(f"state: {', '.join(told)}")
    given = {name: _float32(state[name], own[name].ndim, name) for name in own if name not in counts}
    for name, values in given.items():
        if values.shape != own[name].shape:
            raise ValueError(f"{name}: the shape is {own[name].shape}, got {values.shape}")
    for _, _, norm in places(layers):
        if norm is not None:
            _fold_statistics(given, f"{norm}", eps)
    for name, values in given.items():
        own[name][...] = values


def _fold_statistics(given: dict[str, _Array], norm: str, eps: float) -> None:
    """Makes of a batch norm's values the scale and shift of inference."""
    weight, bias, mean, var = (given[f"{norm}.{name}"].astype(np.float64) for name in
                               ("weight", "bias", "running_mean", "running_var"))
    if not (var + eps > 0).all():
        raise ValueError(f"{norm}.running_var: with eps {eps:g} not positive")
    scale = weight / np.sqrt(var + eps)
    for name, values in ("weight", scale), ("bias", bias - mean * scale):
        given[f"{norm}.{name}"] = _float32(values, 1, f"{norm}.{name}")
