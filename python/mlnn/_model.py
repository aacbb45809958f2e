"""The model."""
from __future__ import annotations

import os
from collections.abc import Iterable, Mapping, MutableMapping, MutableSequence, Sequence
from typing import IO, Any, cast

import numpy as np
import numpy.typing as npt

from . import _analysis, _mlnn, _state
from ._features import FeatureDescription
from ._files import _read_from, _told_of, _write_into, _write_whole
from ._layer import Layer, _Layers
from ._messages import Error, _str, _warn, _hear, _says_error
from ._results import Budget, Digest, QuantizationProof, Results, Suspicion, Sweep, Trace
from ._values import (NORM_LENGTH, _CURVES, _NORM, _VECTORS, _Floats, _act_fn, _bytes, _float32,
                      _frames, _integer, _refuse_too_large, _single, _size)
from ._views import _Curve, _Lines, _Props


_TEXT_SUFFIXES = {".txt"}
_IMAGE_SUFFIXES = {".mlnn", ".bin"}


class Model:
    """A feed-forward network with its features, notes, properties and training curves.

    Two models are equal where all that they hold has the same bits; `is` tells whether they are one.
    """

    __slots__ = ("_core", "__weakref__")  # so a misspelt name is no new attribute

    _core: _mlnn.Core

    def __init__(self) -> None:
        """A model without layers; its softmax is on."""
        self._core = _mlnn.Core()

    @classmethod
    def _of(cls, core: _mlnn.Core) -> Model:
        model = cls.__new__(cls)
        model._core = core
        return model

    # --- Reading and writing ---

    @classmethod
    def load(cls, path: str | os.PathLike[str] | IO[bytes], act_fn: str | None = None) -> Model:
        """Reads a text model or a binary image, from a file, a pipe or a device, or from what is left
        of a file object that was opened for bytes.

        Activations that a file does not record (version 1, batch-norm layers of texts) are set
        on all layers but the last to `act_fn`, else to what the property hidden_act_fn says;
        without either there is a warning, and they stay linear.
        Raises OSError where the file cannot be read, Error where it is no model.
        """
        if not isinstance(path, (str, os.PathLike)) and hasattr(path, "read"):
            return cls.from_bytes(_read_from(path), act_fn)
        path = os.fspath(cast("str | os.PathLike[str]", path))  # so a number is no descriptor
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
        core, result, messages = _mlnn.open(data, "" if act_fn is None else _act_fn(act_fn))
        if result != 0 and not messages and data.startswith(_mlnn.IMAGE_MAGIC):
            raise Error(_mlnn.shorter_than_head(len(data)))
        _hear(result, messages)
        return cls._of(core)

    def to_bytes(self) -> bytes:
        """The binary image: features, normalisation and layers, and nothing else.

        A normalisation that is not set becomes one that changes nothing, without which the
        image could not be read. Raises Error for a model above 2^31 - 1 bytes.
        """
        return self._written("image")[0]

    def to_text(self) -> bytes:
        """The text, as save writes it; numbers read back exactly.

        What a text has only in lines of notes and properties is put there: the feature
        description, the normalisation, the activation of hidden batch-norm layers. What it
        cannot hold at all is left out; save tells what that is.
        Raises Error where the text could not be read again, as with values that are not finite.
        """
        return self._written("text")[0]

    def to_c_array(self, name: str = "model_image") -> str:
        """A source of C and C++ that defines the binary image as an array of that name, as the command
        `mlnn convert --to c-array` writes it. Raises ValueError for a name that C does not take, Error as
        to_bytes."""
        text, _lost, why_not = self._core.c_array(name)
        if why_not:
            raise Error(_str(why_not))
        return text

    def save(self, path: str | os.PathLike[str] | IO[bytes], format: str | None = None,
             strict: bool = False) -> None:
        """Writes a file: "text" or "image", or as the name's suffix says (.txt; .mlnn, .bin). A file object
        that was opened for bytes is written into, and its format must be given.

        Warns of what the format cannot hold; with `strict` that raises Error, and nothing is
        written. The file appears when it is complete; where that fails, an older one stays.
        A pipe or a device is written into. Raises OSError with the name of the file.
        """
        file: IO[bytes] | None = None
        name: str | os.PathLike[str] = ""
        if not isinstance(path, (str, os.PathLike)) and hasattr(path, "write"):
            file = path
        else:
            name = cast("str | os.PathLike[str]", path)
        suffix = os.path.splitext(os.fsdecode(name))[1]
        if format is None:
            format = ("text" if suffix in _TEXT_SUFFIXES else
                      "image" if suffix in _IMAGE_SUFFIXES else None)
        if format not in ("text", "image"):
            raise ValueError('format must be "text" or "image", or the suffix .txt, .mlnn or .bin')
        data, lost = self._written(format)
        if lost and strict:
            raise Error("nothing written: " + "; ".join(lost))
        if file is not None:
            _write_into(file, data)
        else:
            _write_whole(name, data)
        for line in lost:
            _warn(line)

    def _written(self, format: str) -> tuple[bytes, list[str]]:
        data, lost, why_not = self._core.written(format)
        if why_not:
            raise Error(_str(why_not))
        return data, [_str(line) for line in lost]

    @classmethod
    def from_arrays(cls, layers: Iterable[Mapping[str, Any] | Sequence[Any]],
                    softmax: bool = True) -> Model:
        """Makes a model of arrays, which are copied.

        Each layer is `(weights, bias)`, `(weights, bias, act_fn)`, or a mapping with `weights`
        (outputs x inputs) and any of `bias`, `gamma`, `beta`, `gamma_inf`, `beta_inf`, `act_fn`
        and `batch_norm`, which is true by default where `gamma_inf` is given. The softmax is as if
        it was switched on afterwards. Raises ValueError where shapes do not fit each other.
        """
        model = cls._of_arrays(layers, False)
        if softmax:
            model.softmax = True
        return model

    @classmethod
    def _of_arrays(cls, layers: Iterable[Mapping[str, Any] | Sequence[Any]], softmax: bool) -> Model:
        """The same, with the activations as they are, the last one's under a softmax, too."""
        model = cls()
        model._core.restore_softmax(False)
        for number, layer in enumerate(layers, 1):
            try:
                model._append(_as_mapping(layer))
            except (KeyError, TypeError, ValueError) as error:
                raise type(error)(f"layer {number}: {error}") from None
        model._core.restore_softmax(softmax)
        model._warn_of_single_output()
        return model

    def _append(self, layer: Mapping[str, Any]) -> None:
        unknown = set(layer) - {"weights", "act_fn", "batch_norm", *_VECTORS}
        if unknown:
            raise ValueError(f"unknown {', '.join(sorted(unknown))}")
        if "weights" not in layer:
            raise ValueError("weights are missing")
        act_fn = _act_fn(layer.get("act_fn", "linear"))
        vectors = {name: _float32(layer[name], 1, name) for name in _VECTORS
                   if layer.get(name) is not None}
        _refuse_too_large(*_columns_and_rows(layer["weights"]))
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

    def to_arrays(self) -> list[dict[str, Any]]:
        """The layers as from_arrays takes them, which makes the same network of them; copies. (A last
        layer that is not linear under a softmax, as a file may have, is to be made so again.)"""
        return [{"weights": layer.weights.copy(), "act_fn": layer.act_fn,
                 "batch_norm": layer.batch_norm,
                 **{name: getattr(layer, name).copy() for name in _VECTORS
                    if getattr(layer, name).size}} for layer in self.layers]

    def state_dict(self) -> dict[str, npt.NDArray[Any]]:
        """The values by the names that they have in the Sequential of mlnn.to_torch: "0.weight" and
        so on. Weights, biases, scales and shifts are views of the model's own; running statistics
        are those of a batch norm that does nothing else."""
        return _state.state_of(list(self.layers))

    def load_state_dict(self, state: Mapping[str, Any], eps: float = 0.0) -> Model:
        """Copies values in by these names: arrays, or tensors as of a Sequential that mlnn.to_torch
        gave and that was trained further. `eps` is that of its batch norms. Returns the model.
        Raises ValueError for other names or shapes; nothing changes then."""
        _state.load_state(list(self.layers), state, float(eps))
        return self

    def copy(self) -> Model:
        """A model of its own with the same values, properties included."""
        return self._of(self._core.copy())

    __copy__ = copy

    def __eq__(self, other: object) -> bool:  # and so no hash
        if not isinstance(other, Model):
            return NotImplemented
        return self._core is other._core or (
            self.description == other.description and self.__getstate__() == other.__getstate__())

    def __deepcopy__(self, memo: dict[int, Any]) -> Model:
        return self.copy()

    def _take_surroundings(self, other: Model) -> None:
        """Takes over everything of another model but its layers."""
        self._core.restore_softmax(other.softmax)
        self.features, self.normalisation = other.features, other.normalisation
        self.props, self.notes = other.props, other.notes
        for name in _CURVES:
            self._core.set_curve(name, other._core.curve(name))

    def __getstate__(self) -> dict[str, Any]:
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

    def __setstate__(self, state: dict[str, Any]) -> None:
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
    def layers(self) -> MutableSequence[Layer]:
        """The layers, from the inputs to the outputs. Changes go to the model: what is put in is
        copied, and must fit the layers beside it."""
        return _Layers(self._core)

    @layers.setter
    def layers(self, layers: Iterable[Any]) -> None:
        _Layers(self._core)[:] = layers

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
                      self._set_notes, lambda line: self._core.append_note(_bytes(line, "a note")))

    @notes.setter
    def notes(self, lines: Iterable[str]) -> None:
        if isinstance(lines, str):
            raise TypeError("notes: expected lines, got a string")
        self._set_notes(lines)

    def _set_notes(self, lines: Iterable[str]) -> None:
        self._core.set_notes([_bytes(line, "a note") for line in lines])

    @property
    def loss(self) -> MutableSequence[float]:
        """The loss values of training, kept in single precision. Changes go to the model."""
        return _Curve(self._core, "loss")

    @loss.setter
    def loss(self, values: Iterable[float]) -> None:
        self._core.set_curve("loss", _float32(list(values), 1, "loss"))

    @property
    def accuracy(self) -> MutableSequence[float]:
        """The accuracy values of training, likewise."""
        return _Curve(self._core, "accuracy")

    @accuracy.setter
    def accuracy(self, values: Iterable[float]) -> None:
        self._core.set_curve("accuracy", _float32(list(values), 1, "accuracy"))

    @property
    def normalisation(self) -> tuple[_Floats, _Floats] | None:
        """Copies of (minvals, normvals): a frame becomes (x - minvals) * normvals. None: unset.

        Setting copies two arrays of `NORM_LENGTH` values, or removes both by None. Others, and
        half of it, raise ValueError.
        """
        minvals, normvals = (self._core.norm(name) for name in _NORM)
        return (minvals, normvals) if minvals.size and normvals.size else None

    @normalisation.setter
    def normalisation(self, values: Iterable[npt.ArrayLike] | None) -> None:
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
        """Whether a softmax is applied to the outputs. Switching it on makes the last layer linear, and
        warns where it was not, or where there is a single output."""
        return self._core.softmax()

    @softmax.setter
    def softmax(self, on: bool) -> None:
        before = self.layers[-1].act_fn if on and not self.softmax and len(self.layers) else "linear"
        _hear(*self._core.set_softmax(bool(on)))
        if before != "linear":
            _warn(f"the last layer's {before} became linear, since a softmax is on")
        self._warn_of_single_output()

    def _warn_of_single_output(self) -> None:
        if self.softmax and self.num_outputs == 1:
            _warn("the only output is always 1, since a softmax is on")

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

    def quantize(self, bits: int = 8, *, least_squares: bool = False,
                 largest_error: float | None = None,
                 correct: npt.ArrayLike | None = None) -> Model:
        """Rounds weights to 2^bits - 1 whole multiples of a scale for each output; 2 to 8 bits.

        The model keeps ordinary floats; its image takes 8 or 4 bits a weight. Scales come from an
        output's largest weight, or with `least_squares` are those of the least squared error. A
        layer stays as it is where its relative error would be over `largest_error`. `correct` are
        input vectors, as `stack` gives, over which the mean error is taken out of the biases.
        Returns the model. Raises Error for other bits and for weights that are not finite; nothing
        changes then, nor at Ctrl-C.
        """
        _hear(*self._core.quantize(_integer(bits, "bits"), bool(least_squares), _most(largest_error),
                                   self._corrections(correct)))
        return self

    def _corrections(self, correct: npt.ArrayLike | None) -> _Floats | None:
        inputs = None if correct is None else _frames(correct)
        if inputs is not None and inputs.shape[1] != self.num_inputs:
            raise ValueError(f"correct: input vectors of {inputs.shape[1]} values; "
                             f"expected {self.num_inputs}")
        return inputs

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
        inputs, outputs = _size(num_inputs, "num_inputs"), _size(num_outputs, "num_outputs")
        _refuse_too_large(inputs, outputs)
        _hear(*self._core.create_first(inputs, outputs, _single(init_scale, "init_scale"), bool(batch_norm)))
        return self.layers[-1]

    def add_layer(self, num_outputs: int, init_scale: float = 0.1,
                  batch_norm: bool = False) -> Layer:
        """Adds a layer of random weights at the output end, and notes it."""
        outputs = _size(num_outputs, "num_outputs")
        _refuse_too_large(self.num_outputs, outputs)
        _hear(*self._core.add_random(outputs, _single(init_scale, "init_scale"), bool(batch_norm)))
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
        return self._core.frame_width()

    def __call__(self, frames: Any, stacked: bool | None = None, *,
                 integers: bool = False, words: str | None = None, threads: int = 1) -> Any:
        """Runs the model over one recording: frames x values in, frames x outputs out, float32.
        A single frame of one dimension gives its outputs, of one dimension; a list or a mapping of
        recordings, arrays each, gives a list or a dictionary of their outputs.

        Frames as wide as `frame_width` are single ones: they are normalised, and stacked with
        their neighbours. Frames as wide as `num_inputs` are input vectors already; where both
        fit they are single, unless `stacked` is true. `stacked=False` refuses input vectors.
        A float32 array whose frames' values lie side by side is not copied, nor is the result.
        Other threads of Python run meanwhile.
        With `integers` layers that `quantize` has rounded are computed in integers: inputs are
        rounded to 8 bits, or to 16 in the "first" layer or in "all" as `words` says, and results
        are the same to the bit on every processor.
        So many `threads`, 1 to 256, share the work and end with the call; results are the same to
        the bit with any number.
        Raises ValueError for frames of another width, Error where the layers do not fit each other.
        """
        if threads != 1:
            threads = _integer(threads, "threads", 1, 256)
        if words is None and not integers:
            few = self._core.evaluate_few(frames, stacked)  # the cheap way first
            if few is not None:
                return few
        if words not in (None, "first", "all"):
            raise ValueError(f"words: expected 'first', 'all' or None, got {words!r}")
        if words is not None and not integers:
            raise ValueError("words: given without integers")
        many = _recordings_of(frames)
        if many is not None:
            outputs_of = {key: self(one, stacked, integers=integers, words=words, threads=threads)
                          for key, one in many.items()}
            return outputs_of if isinstance(frames, Mapping) else list(outputs_of.values())
        frame = _single_frame(frames)
        if frame is not None:
            return self(frame, stacked, integers=integers, words=words, threads=threads)[0]
        given = _frames(frames)
        if stacked is not None:
            stacked = bool(stacked)
        found = self._core.evaluate(given, stacked,
                                    (words or "none") if integers else None, threads)
        if found is None:
            raise ValueError(f"frames of {given.shape[1]} values; "
                             f"expected {self._expected(stacked)}")
        result, messages, outputs = found
        _hear(result, messages)
        return outputs

    def _expected(self, stacked: bool | None) -> str:
        single = f"{self.frame_width} (single frames)" if self.frame_width else None
        vector = f"{self.num_inputs} (input vectors)"
        wanted: dict[bool | None, list[str | None]] = {
            True: [vector], False: [single], None: [single, vector]}
        return " or ".join(filter(None, wanted[stacked])) or "nothing: the model tells no width of frames"

    def stack(self, frames: npt.ArrayLike) -> _Floats:
        """The input vectors of one recording's single frames: normalised, with their context.

        Frames x values in, frames x inputs out, float32; frames before the first or after the
        last repeat it. Raises ValueError where such frames do not make the model's inputs.
        """
        return self._core.stack(_frames(frames))

    # --- What one can know of it ---

    def plot(self) -> Any:
        """A matplotlib figure of the training curves and, layer by layer, of how often weights occur and of
        the weights as an image. Notebooks show it; `figure.savefig(path)` writes it. Needs matplotlib."""
        from . import _plot
        return _plot.of_model(self)

    def check(self) -> Results[Suspicion]:
        """What can hardly be meant in the model: what would make it give nonsense without a word."""
        return _analysis.check(self._core)

    def digest(self, format: str = "text") -> Digest:
        """The digests of the model's parts, of those that a "text" or an "image" holds."""
        return _analysis.digest(self._core, format)

    def budget(self) -> Budget:
        """What the model needs of whoever deploys it: bytes and operations."""
        return _analysis.budget(self._core)

    def trace(self, frames: npt.ArrayLike, stacked: bool = False) -> Trace:
        """The values of every stage of the forward pass over one recording. Frames are taken as by
        a call, and are input vectors with `stacked`. Raises ValueError for other frames."""
        return _analysis.trace(self._core, frames, bool(stacked))

    def sweep(self, recordings: Mapping[str, npt.ArrayLike] | Iterable[npt.ArrayLike],
              bits: Iterable[int] = range(1, 17), *, classes: Sequence[int | None] | None = None,
              stacked: bool = False) -> Sweep:
        """What the model would lose with each number of bits that retain_precision_bits left, over
        these recordings: frames x values each, an iterable or a mapping from names. `classes` are
        those of the recordings, from 0, None where it is not known. The model stays as it is."""
        return _analysis.sweep(self._core, recordings, bits, classes, bool(stacked))

    def prove_quantization(self, recordings: Mapping[str, npt.ArrayLike] | Iterable[npt.ArrayLike],
                           bits: int = 8, *, least_squares: bool = False,
                           largest_error: float | None = None, correct: npt.ArrayLike | None = None,
                           classes: Sequence[int | None] | None = None, keep: float = 0.95,
                           stacked: bool = False) -> QuantizationProof:
        """What the model would lose by `quantize` with these options, over these recordings and by both
        passes, in floats and in integers. Recordings and `classes` are as for `sweep`; they should
        be others than those of `correct`. `keep` is the share that has to be kept of the best
        classes and of the recordings that are right; `losses[0].keeps` tells whether it is. The
        model stays as it is. Raises ValueError for recordings that it does not take or gives no
        numbers for, Error for weights that are not finite."""
        return self.sweep_quantization(
            recordings, [bits], least_squares=least_squares, largest_error=largest_error,
            correct=correct, classes=classes, keep=keep, stacked=stacked)

    def sweep_quantization(self, recordings: Mapping[str, npt.ArrayLike] | Iterable[npt.ArrayLike],
                           bits: Iterable[int] = range(4, 9), *, least_squares: bool = False,
                           largest_error: float | None = None, correct: npt.ArrayLike | None = None,
                           classes: Sequence[int | None] | None = None, keep: float = 0.95,
                           stacked: bool = False) -> QuantizationProof:
        """The same with each number of bits; `smallest_width` are the fewest that keep enough."""
        return _analysis.prove_quantization(
            self._core, recordings, bits, bool(least_squares), _most(largest_error),
            self._corrections(correct), classes, float(keep), bool(stacked))

    def __repr__(self) -> str:
        return f"<mlnn.Model {self._core.debug_description()}>"

    def _repr_html_(self) -> str:
        from . import _html
        return _html.of_model(self)


def _most(largest_error: float | None) -> float:
    return float("inf") if largest_error is None else float(largest_error)


def _recordings_of(frames: Any) -> Mapping[Any, Any] | None:
    """Recordings in place of one: by their names, or by their places in a list of arrays."""
    if isinstance(frames, Mapping):
        return frames
    if isinstance(frames, (list, tuple)) and frames and all(
            len(getattr(one, "shape", ())) == 2 for one in frames):
        return dict(enumerate(frames))
    return None


def _single_frame(frames: Any) -> _Floats | None:
    """The one frame that an array of one dimension or a list of numbers is, as frames x values."""
    is_list = isinstance(frames, (list, tuple)) and len(frames) > 0 and isinstance(frames[0], (int, float))
    if not is_list and (len(getattr(frames, "shape", ())) != 1 or len(frames) == 0):
        return None
    return _float32(frames, 1, "frames")[np.newaxis]


def _columns_and_rows(weights: npt.ArrayLike) -> tuple[int, int]:
    """The inputs and outputs of weights, without a copy of what may be larger than the memory; 0 where there
    is more to ask, which others do."""
    shape: tuple[Any, ...] = getattr(weights, "shape", ())
    return (int(shape[1]), int(shape[0])) if len(shape) == 2 else (0, 0)


def _as_mapping(layer: Mapping[str, Any] | Sequence[Any]) -> Mapping[str, Any]:
    if isinstance(layer, Mapping):
        return layer
    parts = tuple(layer)
    if not 2 <= len(parts) <= 3:
        raise ValueError("expected (weights, bias) or (weights, bias, act_fn)")
    return dict(zip(("weights", "bias", "act_fn"), parts))
