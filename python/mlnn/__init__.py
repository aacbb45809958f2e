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

import contextlib
import dataclasses
import logging
import operator
import os
import re
import stat
import struct
import sys
import tempfile
import warnings
from collections.abc import Iterable, Mapping, MutableMapping, MutableSequence, Sequence

import numpy as np

from . import _mlnn

__version__ = _mlnn.version
__all__ = ["ACT_FNS", "Error", "FeatureDescription", "Layer", "Model", "Warning", "from_onnx",
           "from_sklearn", "from_torch", "load", "seed_random", "to_onnx"]

ACT_FNS = tuple(_mlnn.act_fns())  # the names of the activations, in the order of their codes
NORM_LENGTH = _mlnn.NORM_LENGTH   # values in each of the two arrays of a normalisation

_VERSION_1_HEADER = b"MultiLayerNNModel\n"
_HIDDEN_ACT_FN = "hidden_act_fn"
_TEXT_SUFFIXES = {".txt"}
_IMAGE_SUFFIXES = {".mlnn", ".bin"}
_BEGINNINGS = {"warning": "Warning: ", "info": "info: "}  # of messages that are not errors
_VECTORS = ("bias", "gamma", "beta", "gamma_inf", "beta_inf")
_NORM = ("minvals", "normvals")
_CURVES = ("loss", "accuracy")
_MAX_LINKS = 40  # that are followed, as the system does

_log = logging.getLogger(__name__)

_Messages = list[tuple[str, bytes]]  # what the library said: severity and text of each message


class Error(ValueError):
    """The library refused something; the text is what it said."""


class Warning(UserWarning):  # noqa: A001  (read as mlnn.Warning)
    """The library did what was asked, but with a reservation."""


def _str(text: bytes) -> str:
    return text.decode("utf-8", "surrogateescape")


def _bytes(text: str, what: str) -> bytes:
    if not isinstance(text, str):
        raise TypeError(f"{what}: expected a string, got {text!r}")
    return text.encode("utf-8", "surrogateescape")


def _integer(value, what: str, low: int = -2**31, high: int = 2**31 - 1) -> int:
    """The value as one of the integers that the library takes; 32 bits by default."""
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{what}: expected an integer, got {value!r}") from None
    if not low <= number <= high:
        raise ValueError(f"{what}: expected {low} to {high}, got {number}")
    return number


def _size(value, what: str) -> int:
    return _integer(value, what, 0)


def _warn(text: str) -> None:
    """Warns, at the line of the caller that is not of this package."""
    level, frame = 1, sys._getframe()
    while frame.f_back is not None and frame.f_globals.get("__package__") == __package__:
        level, frame = level + 1, frame.f_back
    warnings.warn(text, Warning, stacklevel=level)


def _hear(result: int, messages: _Messages,
          failed=lambda result, messages: result != 0) -> None:
    """Makes Python's what a call said: an exception, warnings, lines of a log."""
    if failed(result, messages):
        told = [_str(text) for severity, text in messages if severity != "info"]
        raise Error("\n".join(told) or "refused, without a reason")
    for severity, text in messages:
        line = _str(text).removeprefix(_BEGINNINGS.get(severity, ""))
        if severity == "warning":
            _warn(line)
        else:
            _log.info("%s", line)


def _says_error(_result: int, messages: _Messages) -> bool:
    return any(severity == "error" for severity, _ in messages)


def _float32(values, dimensions: int, what: str) -> np.ndarray:
    """The values as float32; the array itself where it is one already."""
    array = np.asarray(values)
    if array.ndim != dimensions:
        raise ValueError(f"{what}: expected {dimensions} dimensions, got shape {array.shape}")
    if array.dtype.kind not in "fiub":
        raise TypeError(f"{what}: expected numbers, got {array.dtype}")
    with np.errstate(over="ignore"):
        single = np.require(array, np.float32, "A")
    if single is not array and (np.isinf(single) & np.isfinite(array)).any():
        raise ValueError(f"{what}: a value is too large for single precision")
    return single


def _frames(values) -> np.ndarray:
    """The same for frames, whose values must also lie side by side."""
    array = _float32(values, 2, "frames")
    side_by_side = array.shape[1] <= 1 or array.strides[1] == array.itemsize
    apart = array.shape[0] <= 1 or array.strides[0] >= array.shape[1] * array.itemsize
    whole = array.strides[0] % array.itemsize == 0
    return array if side_by_side and apart and whole else np.ascontiguousarray(array)


def _single(value, what: str) -> float:
    """The same for one number."""
    return float(_float32(value, 0, what))


def _act_fn(name: str) -> str:
    if name not in ACT_FNS:
        raise ValueError(f"no activation {name!r}; there are {', '.join(ACT_FNS)}")
    return name


@dataclasses.dataclass(frozen=True)
class FeatureDescription:
    """What a model expects on its input. `dataclasses.replace` makes a changed one."""

    num_bands: int = 0        # mel bands of a frame; 0: not stated
    win_size_left: int = 0    # frames of context before the current one
    win_size_right: int = 0   # frames of context after it
    use_deltas: bool = False  # deltas and delta-deltas follow the bands
    use_line_kernels: bool = False
    line_kernel_width: int = 0
    feat_type: int = 0
    reserved: int = 0

    _LAYOUT = struct.Struct("=iiiBB??i")

    @classmethod
    def _unpack(cls, data: bytes) -> FeatureDescription:
        left, right, width, kind, reserved, deltas, kernels, bands = cls._LAYOUT.unpack(data)
        return cls(bands, left, right, deltas, kernels, width, kind, reserved)

    @property
    def frame_len(self) -> int:
        """The values of one frame; 0: not stated."""
        return _mlnn.describe(self._pack())[1]

    @property
    def feat_len(self) -> int:
        """The values of an input vector: a frame with its context. 0: not stated."""
        return _mlnn.describe(self._pack())[2]

    def __str__(self) -> str:
        """The text form, as model files have it."""
        return _mlnn.describe(self._pack())[0]

    def _pack(self) -> bytes:
        try:
            return self._LAYOUT.pack(self.win_size_left, self.win_size_right,
                                     self.line_kernel_width, self.feat_type, self.reserved,
                                     self.use_deltas, self.use_line_kernels, self.num_bands)
        except struct.error as error:
            raise ValueError(f"feature description: {error}") from None


class _Lines(MutableSequence):
    """A list that lives in a model: every change goes there."""

    def __init__(self, get, set_):
        self._get, self._set = get, set_

    def __len__(self):
        return len(self._get())

    def __getitem__(self, index):
        return self._get()[index]

    def _change(self, edit):
        items = list(self._get())
        edit(items)
        self._set(items)

    def __setitem__(self, index, value):
        self._change(lambda items: items.__setitem__(index, value))

    def __delitem__(self, index):
        self._change(lambda items: items.__delitem__(index))

    def insert(self, index, value):
        self._change(lambda items: items.insert(index, value))

    def extend(self, values):
        values = list(values)
        self._change(lambda items: items.extend(values))

    def __eq__(self, other):
        if isinstance(other, (_Lines, list, tuple)):
            return list(self) == list(other)
        return NotImplemented

    __hash__ = None

    def __iter__(self):
        return iter(self._get())

    def __repr__(self):
        return repr(list(self))


class _Props(MutableMapping):
    """The properties of a model, as a dictionary that lives there."""

    def __init__(self, core):
        self._core = core

    def _get(self) -> dict[str, str]:
        return {_str(key): _str(value) for key, value in self._core.props().items()}

    def _set(self, props: Mapping[str, str]) -> None:
        if not isinstance(props, Mapping):
            raise TypeError(f"props: expected a mapping, got {props!r}")
        self._core.set_props({_bytes(key, "a property's name"): _bytes(value, f"property {key!r}")
                              for key, value in props.items()})

    def __getitem__(self, key):
        value = self._core.prop(_bytes(key, "a property's name")) if isinstance(key, str) else None
        if value is None:
            raise KeyError(key)
        return _str(value)

    def __setitem__(self, key, value):
        self._core.set_prop(_bytes(key, "a property's name"), _bytes(value, f"property {key!r}"))

    def __delitem__(self, key):
        if not isinstance(key, str) or not self._core.remove_prop(_bytes(key, "")):
            raise KeyError(key)

    def __iter__(self):
        return iter(self._get())

    # One look at the model each, where the mixin would look once for every property.

    def items(self):
        return self._get().items()

    def values(self):
        return self._get().values()

    def __len__(self):
        return len(self._core.props())

    def __repr__(self):
        return repr(self._get())


class _Array:
    """One array of a layer. Reading gives a view; writing copies values into it."""

    def __set_name__(self, owner, name):
        self._name = name

    def __get__(self, layer, owner=None):
        if layer is None:
            return self
        held = layer._layer
        return held.weights() if self._name == "weights" else held.vector(self._name)

    def __set__(self, layer, values):
        view = self.__get__(layer)
        new = _float32(values, view.ndim, self._name)
        if view.shape != new.shape and view.size == 0 and new.shape == layer.weights.shape[:1]:
            layer._layer.grow(self._name)
            view = self.__get__(layer)
        if view.shape != new.shape:
            raise ValueError(f"{self._name}: the shape {view.shape} of a layer's array is fixed, "
                             f"got {new.shape}")
        view[...] = new


class Layer:
    """One layer of a model: `act_fn(weights @ x + bias)`, or in a batch-norm layer
    `act_fn(gamma_inf * (weights @ x) + beta_inf)`.

    The arrays are views, float32 and writable, of the model's own values: `weights` is
    outputs x inputs, the vectors have a value for each output or none. A view keeps the layer
    alive, and a layer its model. A layer that was removed from its model goes on living alone.
    Shapes are fixed, so a view never goes stale; only an empty vector can be given its values.
    """

    weights = _Array()
    bias = _Array()
    gamma = _Array()
    beta = _Array()
    gamma_inf = _Array()
    beta_inf = _Array()

    def __init__(self):
        raise TypeError("layers are made by Model.from_arrays and Model.add_layer")

    @classmethod
    def _of(cls, held: _mlnn.Layer) -> Layer:
        layer = cls.__new__(cls)
        layer._layer = held
        return layer

    @property
    def act_fn(self) -> str:
        """The name of the activation, one of `ACT_FNS`."""
        return self._layer.act_fn

    @act_fn.setter
    def act_fn(self, name: str) -> None:
        self._layer.act_fn = _act_fn(name)

    @property
    def batch_norm(self) -> bool:
        """Whether the layer is a batch-norm layer."""
        return self._layer.batch_norm

    def _used(self) -> tuple[str, ...]:
        """The arrays that a layer of this kind computes or is trained with."""
        return ("weights", "bias") if not self.batch_norm else ("weights", *_VECTORS[1:])

    def _unused(self) -> tuple[str, ...]:
        return tuple(name for name in _VECTORS if name not in self._used())

    @property
    def num_inputs(self) -> int:
        """The columns of `weights`."""
        return self.weights.shape[1]

    @property
    def num_outputs(self) -> int:
        """The rows of `weights`."""
        return self.weights.shape[0]

    def __eq__(self, other):
        return isinstance(other, Layer) and self._layer is other._layer

    def __hash__(self):
        return hash(self._layer)

    def __repr__(self):
        kind = "batch norm" if self.batch_norm else "plain"
        return f"<mlnn.Layer {self.num_inputs} -> {self.num_outputs}, {kind}, {self.act_fn}>"


class _Layers(Sequence):
    """The layers of a model, from its inputs to its outputs."""

    def __init__(self, core):
        self._core = core

    def __len__(self):
        return self._core.num_layers()

    def __getitem__(self, index):
        count = len(self)
        if isinstance(index, slice):
            return [self[i] for i in range(*index.indices(count))]
        if not -count <= _integer(index, "layer") < count:
            raise IndexError(f"layer {index} of {count}")
        return Layer._of(self._core.layer(index % count))

    def __repr__(self):
        return repr(list(self))


class Model:
    """A feed-forward network with its features, notes, properties and training curves."""

    def __init__(self):
        """A model without layers; its softmax is on."""
        self._core = _mlnn.Core()

    @classmethod
    def _of(cls, core: _mlnn.Core) -> Model:
        model = cls.__new__(cls)
        model._core = core
        return model

    # --- Reading and writing ---

    @classmethod
    def load(cls, path: str | os.PathLike, act_fn: str | None = None) -> Model:
        """Reads a text model or a binary image, from a file, a pipe or a device.

        Activations that a file does not record (version 1, batch-norm layers of texts) are set
        on all layers but the last to `act_fn`, else to what the property hidden_act_fn says;
        without either there is a warning, and they stay linear.
        Raises OSError where the file cannot be read, Error where it is no model.
        """
        path = os.fspath(path)  # so a number is no descriptor
        try:
            file = open(path, "rb")
        except IsADirectoryError:
            raise
        except OSError as error:
            text = _str(_mlnn.opening_error(os.fsencode(path))) or error.strerror
            raise OSError(error.errno, text, path) from None
        with file, _told_of(path):
            data = file.read()
        return cls.from_bytes(data, act_fn)

    @classmethod
    def from_bytes(cls, data: bytes, act_fn: str | None = None) -> Model:
        """Reads a model of either format from memory, as load does from a file."""
        data = data if isinstance(data, bytes) else bytes(memoryview(data))
        core, result, messages = _mlnn.parse(data)
        if result != 0 and not messages and data.startswith(_mlnn.IMAGE_MAGIC):
            raise Error(_mlnn.shorter_than_head(len(data)))
        _hear(result, messages)
        model = cls._of(core)
        model._complete_activations(data[:len(_VERSION_1_HEADER)], act_fn)
        return model

    def _unrecorded_activations(self, head: bytes, given: str | None):
        """The hidden layers whose activation the file that begins so does not record, and the
        name that they take: the given one, or the property's; None without either."""
        if head.startswith(_mlnn.IMAGE_MAGIC):
            return [], None
        version_1 = head.startswith(_VERSION_1_HEADER)
        unrecorded = [layer for layer in self.layers[:-1] if version_1 or layer.batch_norm]
        name = self.props.get(_HIDDEN_ACT_FN) if given is None else _act_fn(given)
        return unrecorded, name if name in ACT_FNS else None

    def _complete_activations(self, head: bytes, given: str | None) -> None:
        unrecorded, name = self._unrecorded_activations(head, given)
        if not unrecorded:
            return
        if name is None:
            _warn(f"the file does not record the activation of {len(unrecorded)} hidden layer(s), "
                  f"and no property {_HIDDEN_ACT_FN} names one; they are taken as linear")
            return
        for layer in unrecorded:
            layer.act_fn = name
        _log.info("activation of %d hidden layer(s) set to %s", len(unrecorded), name)

    def to_bytes(self) -> bytes:
        """The binary image: features, normalisation and layers, and nothing else.

        A normalisation that is not set becomes one that changes nothing, without which the
        image could not be read. Raises Error for a model above 2^31 - 1 bytes.
        """
        whole = self.copy()
        whole._core.complete_norm()
        result, messages, image = whole._core.image()
        _hear(result, messages)
        return image

    def to_text(self) -> bytes:
        """The text, as save writes it; numbers read back exactly.

        What a text has only in lines of notes and properties is put there: the feature
        description, the normalisation, the activation of hidden batch-norm layers. What it
        cannot hold at all is left out; save tells what that is.
        Raises Error where the text could not be read again, as with values that are not finite.
        """
        return self._written("text")[0]

    def save(self, path: str | os.PathLike, format: str | None = None,
             strict: bool = False) -> None:
        """Writes a file: "text" or "image", or as the name's suffix says (.txt; .mlnn, .bin).

        Warns of what the format cannot hold; with `strict` that raises Error, and nothing is
        written. The file appears when it is complete; where that fails, an older one stays.
        A pipe or a device is written into. Raises OSError with the name of the file.
        """
        suffix = os.path.splitext(os.fsdecode(path))[1]
        if format is None:
            format = ("text" if suffix in _TEXT_SUFFIXES else
                      "image" if suffix in _IMAGE_SUFFIXES else None)
        if format not in ("text", "image"):
            raise ValueError('format must be "text" or "image", or the suffix .txt, .mlnn or .bin')
        data, lost = self._written(format)
        if lost and strict:
            raise Error("nothing written: " + "; ".join(lost))
        _write_whole(path, data)
        for line in lost:
            _warn(line)

    def _written(self, format: str) -> tuple[bytes, list[str]]:
        from . import _fit
        ready, lost = _fit.fit(self, format)
        return ready._core.text() if format == "text" else ready.to_bytes(), lost

    @classmethod
    def from_arrays(cls, layers: Iterable, softmax: bool = True) -> Model:
        """Makes a model of arrays, which are copied.

        Each layer is `(weights, bias)`, `(weights, bias, act_fn)`, or a mapping with `weights`
        (outputs x inputs) and any of `bias`, `gamma`, `beta`, `gamma_inf`, `beta_inf`, `act_fn`
        and `batch_norm`, which is true by default where `gamma_inf` is given.
        Raises ValueError where shapes do not fit each other.
        """
        model = cls()
        for number, layer in enumerate(layers, 1):
            try:
                model._append(_as_mapping(layer))
            except (KeyError, TypeError, ValueError) as error:
                raise type(error)(f"layer {number}: {error}") from None
        model._core.restore_softmax(bool(softmax))
        return model

    def _append(self, layer: Mapping) -> None:
        unknown = set(layer) - {"weights", "act_fn", "batch_norm", *_VECTORS}
        if unknown:
            raise ValueError(f"unknown {', '.join(sorted(unknown))}")
        if "weights" not in layer:
            raise ValueError("weights are missing")
        act_fn = _act_fn(layer.get("act_fn", "linear"))
        vectors = {name: _float32(layer[name], 1, name) for name in _VECTORS
                   if layer.get(name) is not None}
        weights = _float32(layer["weights"], 2, "weights")
        outputs, inputs = weights.shape
        if len(self.layers) and inputs != self.num_outputs:
            raise ValueError(f"{inputs} inputs after {self.num_outputs} outputs")
        for name, values in vectors.items():
            if values.shape != (outputs,):
                raise ValueError(f"{name} has {values.size} values for {outputs} outputs")
        batch_norm = bool(layer.get("batch_norm", "gamma_inf" in vectors))
        if batch_norm and not {"gamma_inf", "beta_inf"} <= set(vectors):
            raise ValueError("a batch-norm layer needs gamma_inf and beta_inf")
        self._core.append(inputs, outputs, batch_norm)
        added = self.layers[-1]
        added.weights = weights
        for name, values in vectors.items():
            setattr(added, name, values)
        added.act_fn = act_fn

    def copy(self) -> Model:
        """A model of its own with the same values, properties included."""
        return self._of(self._core.copy())

    __copy__ = copy

    def __deepcopy__(self, memo):
        return self.copy()

    def _take_surroundings(self, other: Model) -> None:
        """Takes over everything of another model but its layers."""
        self._core.restore_softmax(other.softmax)
        self.features, self.normalisation = other.features, other.normalisation
        self.props, self.notes = other.props, other.notes
        for name in _CURVES:
            self._core.set_curve(name, other._core.curve(name))

    def __getstate__(self) -> dict:
        core = self._core
        return {
            "version": 1,
            "layers": [layer._layer.record() for layer in self.layers],
            "softmax": self.softmax,
            "features": core.features(),
            "norm": tuple(core.norm(name).tobytes() for name in _NORM),
            "props": core.props(),
            "notes": core.notes(),
            "curves": tuple(core.curve(name).tobytes() for name in _CURVES),
        }

    def __setstate__(self, state: dict) -> None:
        if state["version"] != 1:
            raise Error(f"a pickle of version {state['version']}, expected 1")
        self._core = core = _mlnn.Core()
        for record in state["layers"]:
            core.append_record(record)
        core.restore_softmax(state["softmax"])
        core.set_features(state["features"])
        for name, data in zip(_NORM, state["norm"]):
            core.set_norm(name, np.frombuffer(data, np.float32))
        core.set_props(state["props"])
        core.set_notes(state["notes"])
        for name, data in zip(_CURVES, state["curves"]):
            core.set_curve(name, np.frombuffer(data, np.float32))

    # --- What a model holds ---

    @property
    def layers(self) -> Sequence[Layer]:
        """The layers, from the inputs to the outputs."""
        return _Layers(self._core)

    @property
    def props(self) -> MutableMapping[str, str]:
        """The properties. Changes go to the model."""
        return _Props(self._core)

    @props.setter
    def props(self, props: Mapping[str, str]) -> None:
        _Props(self._core)._set(props)

    @property
    def notes(self) -> MutableSequence[str]:
        """The lines of the model's history. Changes go to the model."""
        return _Lines(lambda: [_str(line) for line in self._core.notes()],
                      self._set_notes)

    @notes.setter
    def notes(self, lines: Iterable[str]) -> None:
        if isinstance(lines, str):
            raise TypeError("notes: expected lines, got a string")
        self._set_notes(lines)

    def _set_notes(self, lines: Iterable[str]) -> None:
        self._core.set_notes([_bytes(line, "a note") for line in lines])

    def _curve(self, name: str) -> _Lines:
        return _Lines(lambda: self._core.curve(name).tolist(),
                      lambda values: self._core.set_curve(name, _float32(values, 1, name)))

    @property
    def loss(self) -> MutableSequence[float]:
        """The loss values of training, kept in single precision. Changes go to the model."""
        return self._curve("loss")

    @loss.setter
    def loss(self, values: Iterable[float]) -> None:
        self._core.set_curve("loss", _float32(list(values), 1, "loss"))

    @property
    def accuracy(self) -> MutableSequence[float]:
        """The accuracy values of training, likewise."""
        return self._curve("accuracy")

    @accuracy.setter
    def accuracy(self, values: Iterable[float]) -> None:
        self._core.set_curve("accuracy", _float32(list(values), 1, "accuracy"))

    @property
    def normalisation(self) -> tuple[np.ndarray, np.ndarray] | None:
        """Copies of (minvals, normvals): a frame becomes (x - minvals) * normvals. None: unset.

        Setting copies two arrays of `NORM_LENGTH` values, or removes both by None. Others, and
        half of it, raise ValueError.
        """
        minvals, normvals = (self._core.norm(name) for name in _NORM)
        return (minvals, normvals) if minvals.size and normvals.size else None

    @normalisation.setter
    def normalisation(self, values) -> None:
        empty = np.zeros(0, np.float32)
        arrays = ([empty, empty] if values is None else
                  [_float32(array, 1, "normalisation") for array in values])
        sizes = [array.size for array in arrays]
        if values is not None and sizes != [NORM_LENGTH, NORM_LENGTH]:
            raise ValueError(f"normalisation: expected two arrays of {NORM_LENGTH} values, got "
                             f"{' and '.join(map(str, sizes)) or 'none'}")
        for name, array in zip(_NORM, arrays):
            self._core.set_norm(name, array)

    @property
    def features(self) -> FeatureDescription:
        """What the model expects on its input."""
        return FeatureDescription._unpack(self._core.features())

    @features.setter
    def features(self, description: FeatureDescription) -> None:
        if not isinstance(description, FeatureDescription):
            raise TypeError(f"features: expected a FeatureDescription, got {description!r}")
        self._core.set_features(description._pack())

    @property
    def softmax(self) -> bool:
        """Whether a softmax is applied to the outputs. Switching it on makes the last layer linear."""
        return self._core.softmax()

    @softmax.setter
    def softmax(self, on: bool) -> None:
        _hear(*self._core.set_softmax(bool(on)))

    @property
    def num_inputs(self) -> int:
        """The values of an input vector: the first layer's inputs; 0 without layers."""
        return self._core.num_inputs()

    @property
    def num_outputs(self) -> int:
        """The last layer's outputs; 0 without layers."""
        return self._core.num_outputs()

    @property
    def checksum(self) -> int:
        """The number of layers plus the sum of their checksums, modulo 2^32."""
        return self._core.checksum()

    @property
    def description(self) -> str:
        """The widths, as in "360,512,40"."""
        return self._core.description()

    # --- Operations ---

    def fold(self) -> Model:
        """Turns batch-norm layers into plain ones that compute the same. Returns the model.

        Raises Error at a layer whose gamma_inf sums to zero; the layers before it are folded then.
        """
        _hear(*self._core.fold())
        return self

    def retain_precision_bits(self, bits: int) -> Model:
        """Snaps weights and biases to one grid of 2^bits steps, downwards. Returns the model."""
        _hear(*self._core.retain_bits(_integer(bits, "bits")), failed=_says_error)
        return self

    def zeros(self) -> Model:
        """Sets all parameters to 0. Returns the model."""
        _hear(*self._core.zeros())
        return self

    def set_act_fn(self, name: str) -> Model:
        """Sets the activation of all layers; under softmax the last one's becomes linear."""
        _hear(*self._core.set_act_fn(_act_fn(name)))
        return self

    def create_first_layer(self, num_inputs: int, num_outputs: int, init_scale: float = 0.1,
                           batch_norm: bool = False) -> Layer:
        """Makes the first layer, of random weights (see seed_random)."""
        _hear(*self._core.create_first(
            _size(num_inputs, "num_inputs"), _size(num_outputs, "num_outputs"),
            _single(init_scale, "init_scale"), bool(batch_norm)))
        return self.layers[-1]

    def add_layer(self, num_outputs: int, init_scale: float = 0.1,
                  batch_norm: bool = False) -> Layer:
        """Adds a layer of random weights at the output end, and notes it."""
        _hear(*self._core.add_random(_size(num_outputs, "num_outputs"),
                                     _single(init_scale, "init_scale"), bool(batch_norm)))
        return self.layers[-1]

    def delete_layers(self, count: int) -> Model:
        """Removes layers from the output end. Those that are held elsewhere go on living alone.

        Returns the model. Raises Error where there are fewer layers; nothing changes then.
        """
        count = _integer(count, "count")
        if not 0 <= count <= len(self.layers):
            raise Error(f"cannot delete {count} of {len(self.layers)} layers")
        _hear(*self._core.delete_layers(count))
        return self

    def __iadd__(self, other: Model) -> Model:
        """Adds the other model's parameters. Raises Error for layers of another shape or kind,
        which stay as they are; the others are added."""
        if not isinstance(other, Model):
            return NotImplemented
        _hear(*self._core.add(other._core), failed=_says_error)
        return self

    def __imul__(self, factor: float) -> Model:
        _hear(*self._core.scale(_single(factor, "factor")))
        return self

    # --- Running ---

    @property
    def frame_width(self) -> int:
        """The values of a single frame; 0 where the model does not tell.

        Where the description states no bands, the length of the normalisation counts if it
        makes the model's inputs.
        """
        if self.features.num_bands != 0:
            return self.features.frame_len
        return NORM_LENGTH if self._makes_inputs(NORM_LENGTH) else 0

    def _makes_inputs(self, width: int) -> bool:
        d = self.features
        possible = width > 0 and d.win_size_left >= 0 and d.win_size_right >= 0
        return possible and width * (d.win_size_left + 1 + d.win_size_right) == self.num_inputs

    def __call__(self, frames, stacked: bool | None = None) -> np.ndarray:
        """Runs the model over one recording: frames x values in, frames x outputs out, float32.

        Frames as wide as `frame_width` are single ones: they are normalised, and stacked with
        their neighbours. Frames as wide as `num_inputs` are input vectors already; where both
        fit they are single, unless `stacked` is true. `stacked=False` refuses input vectors.
        A float32 array whose frames' values lie side by side is not copied, nor is the result.
        Other threads of Python run meanwhile.
        Raises ValueError for frames of another width, Error where the layers do not fit each other.
        """
        frames = _frames(frames)
        width, single = frames.shape[1], self.frame_width
        if not stacked and width == single and self._makes_inputs(single):
            result, messages, outputs = self._core.evaluate_frames(frames)
        elif stacked is not False and (width == self.num_inputs or not len(self.layers)):
            result, messages, outputs = self._core.evaluate(frames)
        else:
            raise ValueError(f"frames of {width} values; expected {self._expected(stacked)}")
        _hear(result, messages)
        return outputs

    def _expected(self, stacked: bool | None) -> str:
        single = f"{self.frame_width} (single frames)" if self.frame_width else None
        vector = f"{self.num_inputs} (input vectors)"
        wanted = {True: [vector], False: [single], None: [single, vector]}[stacked]
        return " or ".join(filter(None, wanted)) or "nothing: the model tells no width of frames"

    def stack(self, frames) -> np.ndarray:
        """The input vectors of one recording's single frames: normalised, with their context.

        Frames x values in, frames x inputs out, float32; frames before the first or after the
        last repeat it. Raises ValueError where such frames do not make the model's inputs.
        """
        return self._core.stack(_frames(frames))

    def __repr__(self):
        return f"<mlnn.Model {self._core.debug_description()}>"


def _as_mapping(layer) -> Mapping:
    if isinstance(layer, Mapping):
        return layer
    parts = tuple(layer)
    if not 2 <= len(parts) <= 3:
        raise ValueError("expected (weights, bias) or (weights, bias, act_fn)")
    return dict(zip(("weights", "bias", "act_fn"), parts))


@contextlib.contextmanager
def _told_of(path: str):
    """What fails within is told of this file, whichever was at work."""
    try:
        yield
    except OSError as error:
        raise OSError(error.errno, error.strerror, path) from None


def _write_whole(path, data: bytes) -> None:
    """Writes a file that appears when it is complete. What is there but no regular file, like a
    pipe or a device, is written into. Raises OSError, and leaves an older file then."""
    path = os.fsdecode(path)
    with _told_of(path):
        descriptor = _descriptor_named(path)
        if descriptor is not None:
            with open(os.dup(descriptor), "wb") as file:
                file.write(data)
            return
        try:
            present = os.open(path, os.O_WRONLY | os.O_CLOEXEC)
        except FileNotFoundError:
            if not os.path.basename(path):
                raise
            _put_in_place(path, _mode_of_new_file(), data)
            return
        with open(present, "wb") as file:
            mode = os.fstat(present).st_mode
            if stat.S_ISREG(mode):
                _put_in_place(path, mode & 0o777, data)
            else:
                file.write(data)


def _descriptor_named(path: str) -> int | None:
    """The open file that a name like /dev/stdout or /proc/self/fd/3 stands for. What it is in
    the file system is not to be replaced: who opened it goes on writing there."""
    for _ in range(_MAX_LINKS):
        folder, name = os.path.split(path)
        if name.isdecimal() and _shows_own_descriptors(folder):
            return int(name)
        try:
            path = os.path.join(folder, os.readlink(path))
        except OSError:
            return None
    return None


def _shows_own_descriptors(folder: str) -> bool:
    return re.fullmatch(rf"/proc/{os.getpid()}(/task/\d+)?/fd", os.path.realpath(folder)) is not None


def _put_in_place(path: str, mode: int, data: bytes) -> None:
    """Writes a file beside, and gives it the name when it is complete."""
    path = os.path.realpath(path)  # a link stays one
    with tempfile.NamedTemporaryFile(dir=os.path.dirname(path), prefix=".mlnn-",
                                     delete=False) as file:
        try:
            file.write(data)
            file.flush()
            os.fsync(file.fileno())
            os.chmod(file.name, mode)
            os.replace(file.name, path)
        except BaseException:
            os.unlink(file.name)
            raise


def _mode_of_new_file() -> int:
    mask = os.umask(0)
    os.umask(mask)
    return 0o666 & ~mask


def load(path: str | os.PathLike, act_fn: str | None = None) -> Model:
    """Reads a text model or a binary image; see Model.load."""
    return Model.load(path, act_fn)


def seed_random(seed: int) -> None:
    """Restarts the random source that create_first_layer and add_layer draw from. It is one for
    all threads, and starts with the same seed in every process."""
    _mlnn.seed_random(_integer(seed, "seed", 0, 2**32 - 1))


def from_torch(module) -> Model:
    """Makes a model of a torch.nn.Sequential; see mlnn.convert."""
    from . import convert
    return convert.from_torch(module)


def from_sklearn(estimator) -> Model:
    """Makes a model of a fitted MLPClassifier or MLPRegressor; see mlnn.convert."""
    from . import convert
    return convert.from_sklearn(estimator)


def to_onnx(model: Model, path=None):
    """Exports a model as ONNX; see mlnn.onnx."""
    from . import onnx
    return onnx.to_onnx(model, path)


def from_onnx(source) -> Model:
    """Imports an ONNX file or ModelProto; see mlnn.onnx."""
    from . import onnx
    return onnx.from_onnx(source)
