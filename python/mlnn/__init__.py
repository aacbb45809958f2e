"""Feed-forward networks on mel audio features: load, run, edit and save them.

    import mlnn
    model = mlnn.load("examples/digits/synth.txt")
    posteriors = model(frames)      # float32, frames x values in, frames x outputs out

What the library says becomes Python's: an error is raised as `mlnn.Error`, a warning goes
through `warnings` (category `mlnn.Warning`), information through the logger "mlnn".
Nothing is printed.

Threads may share a model: its calls take turns where one of them changes it, and run side by
side where they only read it. `docs/python.md` has the details.
"""
from __future__ import annotations

import os

from . import _mlnn
from ._analysis import average, compare, diagnose, diff
from ._cluster import score_recordings
from ._features import FeatureDescription
from ._files import _told_of, _write_whole  # noqa: F401  (the conversions read and write files)
from ._layer import Layer
from ._messages import Error, Warning  # noqa: A004  (read as mlnn.Warning)
from ._model import Model
from ._plot import plot_posteriors
from ._values import ACT_FNS, NORM_LENGTH, _CURVES, _VECTORS, _integer  # noqa: F401

__version__ = _mlnn.version
__all__ = ["ACT_FNS", "Error", "FeatureDescription", "Layer", "Model", "Warning", "average",
           "compare", "diagnose", "diff", "from_onnx", "from_sklearn", "from_torch", "load",
           "plot_posteriors", "score_recordings", "seed_random", "to_onnx", "to_torch"]

# Where they are found; pickles and messages call them so.
for _public in Error, FeatureDescription, Layer, Model, Warning:
    _public.__module__ = __name__


def load(path, act_fn: str | None = None) -> Model:
    """Reads a text model or a binary image; see Model.load."""
    return Model.load(path, act_fn)


def seed_random(seed: int) -> None:
    """Restarts the random source that create_first_layer and add_layer draw from. It is one for
    all threads, and starts with the same seed in every process."""
    _mlnn.seed_random(_integer(seed, "seed", 0, 2**32 - 1))


def from_torch(module) -> Model:
    """Makes a model of a torch.nn.Module; see mlnn.convert."""
    from . import convert
    return convert.from_torch(module)


def from_sklearn(estimator) -> Model:
    """Makes a model of a fitted estimator; see mlnn.convert."""
    from . import convert
    return convert.from_sklearn(estimator)


def to_torch(model: Model):
    """Makes a torch.nn.Sequential of a model; see mlnn.convert."""
    from . import convert
    return convert.to_torch(model)


def to_onnx(model: Model, path=None, *, quantized: bool = False, frames=None,
            normalisation: bool = False, context: bool = False):
    """Exports a model as ONNX; see mlnn.onnx."""
    from . import onnx
    return onnx.to_onnx(model, path, quantized=quantized, frames=frames,
                        normalisation=normalisation, context=context)


def from_onnx(source) -> Model:
    """Imports an ONNX file or ModelProto; see mlnn.onnx."""
    from . import onnx
    return onnx.from_onnx(source)
