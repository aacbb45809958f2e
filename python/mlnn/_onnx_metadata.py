"""What stands around a network - features, normalisation, notes, properties, curves, and those
arrays of a layer that take no part in inference - as the metadata of an ONNX file."""
from __future__ import annotations

import base64
import json
from typing import Any

import numpy as np
import numpy.typing as npt

from . import Error, FeatureDescription, Layer, Model, _CURVES, _VECTORS

KEY = "mlnn"  # the one key of the metadata, whose value is JSON

_Array = npt.NDArray[Any]


def surroundings(model: Model, **more: Any) -> str:
    """What stands around the model's network, for restored(), and further entries."""
    norm = model.normalisation
    return json.dumps({
        "features": vars(model.features),
        "normalisation": None if norm is None else [_packed(array) for array in norm],
        "props": dict(model.props),
        "notes": list(model.notes),
        **{name: _packed(model._core.curve(name)) for name in _CURVES},
        "idle_vectors": [_idle_vectors(layer) for layer in model.layers],
        **more,
    })


def restored(model: Model, metadata: str) -> Model:
    """The model with what surroundings() gave of another one with the same network."""
    try:
        around = json.loads(metadata)
        model.features = FeatureDescription(**around["features"])
        if around["normalisation"] is not None:
            minvals, normvals = map(unpacked, around["normalisation"])
            model.normalisation = minvals, normvals
        model.props, model.notes = around["props"], around["notes"]
        for name in _CURVES:
            model._core.set_curve(name, unpacked(around[name]))
        return _with_vectors(model, around["idle_vectors"])
    except (KeyError, TypeError, ValueError, AttributeError, RecursionError) as error:
        raise Error(f"broken metadata {KEY!r}: {error}") from None


def _packed(array: _Array) -> str:
    return base64.b64encode(np.asarray(array, "<f4").tobytes()).decode()


def unpacked(text: str) -> _Array:
    return np.frombuffer(base64.b64decode(text, validate=True), "<f4")


def _in_use(layer: Layer) -> tuple[str, ...]:
    """The vectors that the layer computes with."""
    return ("gamma_inf", "beta_inf") if layer.batch_norm else ("bias",)


def _idle_vectors(layer: Layer) -> dict[str, str]:
    """The vectors that a layer holds without using them."""
    used = _in_use(layer)
    return {name: _packed(getattr(layer, name)) for name in _VECTORS
            if name not in used and getattr(layer, name).size}


def _with_vectors(model: Model, idle: list[dict[str, str]]) -> Model:
    """The model with exactly these vectors beside those that compute."""
    layers = []
    for layer, vectors in zip(model.layers, idle, strict=True):
        used = _in_use(layer)
        for name in vectors:
            if name in used or name not in _VECTORS:
                raise ValueError(f"{name} is no vector beside the network")
        layers.append({"weights": layer.weights, "act_fn": layer.act_fn,
                       "batch_norm": layer.batch_norm,
                       **{name: getattr(layer, name) for name in used},
                       **{name: unpacked(text) for name, text in vectors.items()}})
    whole = Model._of_arrays(layers, model.softmax)
    whole._take_surroundings(model)
    return whole
