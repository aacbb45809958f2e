"""Getting a model ready for a file format, and finding out what that cannot hold.

A text holds notes, properties, training curves and the softmax. It records no activation of
batch-norm layers, and takes the feature description and the normalisation from note lines. A
binary image holds those two itself, and every layer with all its arrays, but nothing else.

What a text does to a model is not foretold but tried: a skeleton of the model, which has no
parameters, is written and read back.
"""
from __future__ import annotations

import collections
import dataclasses

import numpy as np
import numpy.typing as npt

from . import Error, FeatureDescription, Model, _NORM, _mlnn

_HIDDEN_ACT_FN = "hidden_act_fn"
_FORMATS = {"text": "the text format", "image": "a binary image"}


def fit(model: Model, format: str) -> tuple[Model, list[str]]:
    """A copy of the model made ready for the format, and what that cannot hold, as in
    "the text format does not hold 2 note lines".

    Raises Error where the format has no way to write the model so that it can be read.
    """
    ready = model.copy()
    if format == "image":
        ready._core.complete_norm()
        present = _skeleton(model, layers_only=True)
        lost = _differences(model, present)
    else:
        _refuse_unreadable(model)
        _put_activation_into_property(ready)
        _put_description_into_notes(ready)
        _put_normalisation_into_notes(ready)
        wanted = _skeleton(model)
        wanted.props = ready.props
        present = _read_back(ready)
        lost = _differences(wanted, present) + _unused_vectors(model)
    return ready, [f"{_FORMATS[format]} does not hold {what}" for what in lost]


def _skeleton(model: Model, layers_only: bool = False) -> Model:
    """A model that is like the given one in all but its parameters: its layers have no outputs."""
    skeleton = Model()
    for layer in model.layers:
        skeleton._core.append(layer.num_inputs, 0, layer.batch_norm)
        skeleton.layers[-1].act_fn = layer.act_fn
    if layers_only:
        skeleton.features, skeleton.normalisation = model.features, model.normalisation
        skeleton._core.restore_softmax(model.softmax)
    else:
        skeleton._take_surroundings(model)
    return skeleton


def _read_back(model: Model) -> Model:
    core, result, messages = _mlnn.parse(_skeleton(model)._core.text())
    if result != 0:
        reason = messages[-1][1].decode(errors="backslashreplace")
        raise Error(f"the text format has no way to write this model so that it can be read: {reason}")
    present = Model._of(core)
    unrecorded, name = present._unrecorded_activations(b"", None)
    if name is not None:
        for layer in unrecorded:
            layer.act_fn = name
    return present


# --- Getting ready for a text ---

def _refuse_unreadable(model: Model) -> None:
    arrays = {"the loss curve": model.loss, "the accuracy curve": model.accuracy}
    for number, layer in enumerate(model.layers, 1):
        if layer.batch_norm and layer.num_inputs == 0 and layer.num_outputs > 0:
            raise Error(f"the text format has no way to write batch-norm layer {number}, which "
                        "has outputs but no inputs")
        for name in layer._used():
            arrays[f"{name} of layer {number}"] = getattr(layer, name)
    for name, values in arrays.items():
        if not np.isfinite(np.asarray(values, np.float32)).all():
            raise Error(f"{name}: the text format has no way to write values that are not finite "
                        "so that they can be read")


def _put_activation_into_property(model: Model) -> None:
    names = {layer.act_fn for layer in model.layers[:-1] if layer.batch_norm}
    if len(names) != 1:
        return
    name, = names
    # Without the property they read back as linear. It is not made to say so, since whoever
    # reads them should go on being told that the file itself does not.
    if model.props.get(_HIDDEN_ACT_FN, "linear") != name:
        model.props[_HIDDEN_ACT_FN] = name


def _sayable(model: Model) -> FeatureDescription:
    """The nearest to the model's feature description that a text can say."""
    description = dataclasses.replace(model.features, feat_type=0, reserved=0)
    length = description.feat_len
    return description if length in (0, model.num_inputs) else dataclasses.replace(
        description, num_bands=0)


def _put_description_into_notes(model: Model) -> None:
    description = _sayable(model)
    if _description_reads_back(model, description):
        return
    norm_markers = _mlnn.MINVALS_MARKER, _mlnn.NORMVALS_MARKER
    markers = _mlnn.FEAT_DESC_MARKER, _mlnn.FEAT_DESC_TOOL_MARKER
    line = f"{_mlnn.FEAT_DESC_TOOL_MARKER} {_mlnn.FEAT_DESC_MARKER} {description}"
    for index, note in enumerate(model.notes):
        if all(m in note for m in markers) and not any(m in note for m in norm_markers):
            model.notes[index] = line
            return
    model.notes.append(line)


def _description_reads_back(model: Model, description: FeatureDescription) -> bool:
    try:
        return str(_read_back(model).features) == str(description)
    except Error:
        return False


def _put_normalisation_into_notes(model: Model) -> None:
    present = _read_back(model)
    markers = _mlnn.MINVALS_MARKER, _mlnn.NORMVALS_MARKER
    for name, marker in zip(_NORM, markers):
        wanted = model._core.norm(name)
        if _same(present._core.norm(name), wanted):
            continue
        # Later lines win over earlier ones, so all old ones go.
        notes = [note for note in model.notes
                 if next((m for m in markers if m in note), None) != marker]
        if wanted.size:
            values = ",".join(f"{value:.9g}" for value in wanted)
            notes.append(f"TRAIN rbm_train mlnn convert -{marker} {values}")
        model.notes = notes


# --- What is lost ---

def _same(a: npt.NDArray[np.float32], b: npt.NDArray[np.float32]) -> bool:
    return np.array_equal(a, b, equal_nan=True) and np.array_equal(np.signbit(a), np.signbit(b))


def _counted(number: int, what: str, plural: str = "") -> str:
    return f"1 {what}" if number == 1 else f"{number} {plural or what + 's'}"


def _differences(wanted: Model, present: Model) -> list[str]:
    lost = []
    missing = collections.Counter(wanted.notes) - collections.Counter(present.notes)
    if missing:
        lost.append(_counted(missing.total(), "note line"))
    read_back = dict(present.props)
    props = [key for key, value in wanted.props.items() if read_back.get(key) != value]
    if props:
        lost.append(f"{_counted(len(props), 'property', 'properties')} ({', '.join(props)})")
    for name in "loss", "accuracy":
        values = getattr(wanted, name)
        if values != getattr(present, name):
            lost.append(f"the {name} curve ({_counted(len(values), 'value')})")
    if wanted.features != present.features:
        lost.append(f"the feature description {wanted.features}, which becomes {present.features}")
    if not _same_norm(wanted, present):
        lost.append("the normalisation")
    for number, (a, b) in enumerate(zip(wanted.layers, present.layers), 1):
        if a.act_fn != b.act_fn:
            lost.append(f"the activation of batch-norm layer {number} ({a.act_fn})")
    return lost


def _same_norm(wanted: Model, present: Model) -> bool:
    """Whether they normalise alike: no arrays mean what arrays mean that change nothing."""
    completed = wanted.copy(), present.copy()
    for model in completed:
        model._core.complete_norm()
    norms = [[model._core.norm(name) for name in _NORM] for model in completed]
    return all(_same(a, b) for a, b in zip(*norms))


def _unused_vectors(model: Model) -> list[str]:
    """A layer block of a text has no place for what its kind of layer does not use."""
    lost = []
    for number, layer in enumerate(model.layers, 1):
        if not any(getattr(layer, name).any() for name in layer._unused()):
            continue
        lost.append(f"the unused bias of batch-norm layer {number}" if layer.batch_norm else
                    f"the batch-norm vectors that plain layer {number} was folded from")
    return lost
