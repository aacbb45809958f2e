"""What is found out about models: small objects, each with a to_dict()."""
from __future__ import annotations

import dataclasses
from collections.abc import Iterator, Mapping, Sequence
from typing import Any, TypeVar

import numpy as np
import numpy.typing as npt

from . import _mlnn
from ._messages import _str

_Floats = npt.NDArray[np.float32]


def _plain(value: Any) -> Any:
    if isinstance(value, _Result):
        return value.to_dict()
    if isinstance(value, dict):
        return {key: _plain(inner) for key, inner in value.items()}
    return [_plain(inner) for inner in value] if isinstance(value, list) else value


@dataclasses.dataclass(frozen=True)
class _Result:
    """The base of what follows."""

    def to_dict(self) -> dict[str, Any]:
        """All of it in dictionaries, lists and plain values."""
        return {field.name: _plain(getattr(self, field.name)) for field in dataclasses.fields(self)}

    def _repr_html_(self) -> str:
        from . import _html
        return _html.of_result(self)


def flat(result: _Result, before: str = "") -> dict[str, Any]:
    """What a result holds, by names. What is in other results that it holds has theirs before its own,
    and of lists there is the length."""
    row: dict[str, Any] = {}
    for field in dataclasses.fields(result):
        value = getattr(result, field.name)
        held = value if isinstance(value, dict) else {field.name: value}
        for name, one in held.items():
            if isinstance(one, _Result):
                row.update(flat(one, f"{before}{name}."))
            else:
                row[before + name] = len(one) if isinstance(one, list) else one
    return row


def _pandas(rows: Sequence[Mapping[str, Any]]) -> Any:
    import pandas  # only where a table is wanted
    return pandas.DataFrame(list(rows))


_R = TypeVar("_R", bound=_Result)


class Results(list[_R]):
    """A list of results of one kind, which makes a table."""

    def to_dict(self) -> list[dict[str, Any]]:
        """Each of them in dictionaries, lists and plain values."""
        return [one.to_dict() for one in self]

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each; needs pandas."""
        return _pandas([flat(one) for one in self])

    def _repr_html_(self) -> str:
        from . import _html
        return _html.of_list(self)


def _text(values: Mapping[str, Any]) -> dict[str, Any]:
    """What the binding gives, with its bytes as strings."""
    return {key: _str(value) if isinstance(value, bytes) else value
            for key, value in values.items()}


@dataclasses.dataclass(frozen=True)
class Suspicion(_Result):
    """Something in a model that can hardly be meant. Places count from 1; None where there is none."""

    kind: str  # a word that stays the same, such as "values_not_finite"
    text: str
    layer: int | None
    array: str | None
    row: int | None
    column: int | None
    count: int | None  # how many there are, of which the place is the first
    line: int | None   # of a text file

    def __str__(self) -> str:
        return self.text


@dataclasses.dataclass(frozen=True)
class Misfit(_Result):
    """The first place of a file that does not fit its format, and what is wrong there."""

    offset: int         # of the first byte that does not fit
    line: int | None    # of a text file, from 1
    column: int | None  # in bytes, from 1
    field: str
    expected: str
    found: str
    hint: str | None
    text: str           # all of it in a sentence

    def __str__(self) -> str:
        return self.text


@dataclasses.dataclass(frozen=True)
class Digest(_Result):
    """The digests of a model's parts, by their names."""

    format: str  # "text" or "image": which has which parts
    sections: dict[str, str]
    version: int = _mlnn.DIGEST_VERSION

    def changes_since(self, before: Digest) -> list[str]:
        """What became of the parts of an earlier digest, a line each; of those that both have."""
        if self.version != before.version:
            raise ValueError(f"a digest of version {before.version}, expected {self.version}")
        return [_str(line) for line in _mlnn.digest_changes(
            self.format == "image", list(self.sections.items()),
            before.format == "image", list(before.sections.items()))]


@dataclasses.dataclass(frozen=True)
class IntegerPass(_Result):
    """What a forward pass in integers needs in place of the model's arrays."""

    bytes: int
    working_bytes: int
    integer_layers: int


@dataclasses.dataclass(frozen=True)
class Budget(_Result):
    """What a model needs of whoever deploys it."""

    parameter_bytes: int     # of all arrays
    read_bytes: int          # of those that a forward pass reads
    working_bytes: int       # beside the model, for one frame at a time
    multiply_adds: int       # for one frame
    activations: int         # that are not linear, for one frame
    weight_forms: str | None  # how an image stores the weights
    quantized: str | None    # which layers are quantised by rows
    integer_pass: IntegerPass | None  # of such a model
    image_bytes: int | None  # of the file; None where it cannot be written
    text_bytes: int | None


@dataclasses.dataclass(frozen=True)
class Trace(_Result):
    """The values of all stages for one recording, by their names and in their order: "inputs",
    "layer-1-affine", "layer-1", ..., "outputs"; frames x values each."""

    stages: dict[str, _Floats]

    def __getitem__(self, stage: str) -> _Floats:
        return self.stages[stage]

    def __iter__(self) -> Iterator[str]:
        return iter(self.stages)

    def __len__(self) -> int:
        return len(self.stages)

    def to_pandas(self, stage: str = "outputs") -> Any:
        """A pandas.DataFrame of a stage, with a row for each frame; needs pandas."""
        import pandas
        return pandas.DataFrame(self.stages[stage])


@dataclasses.dataclass(frozen=True)
class Difference(_Result):
    """How far apart two arrays are. Places count from 0, and in pairs of arrays from the first."""

    count: int      # pairs of values
    differing: int  # those that are not the same
    largest: float
    mean: float
    root_mean_square: float
    largest_ulps: int
    cosine: float
    row: int        # where the difference is largest
    column: int


@dataclasses.dataclass(frozen=True)
class StatementDifference(_Result):
    """One thing that two models do not agree on; None where a model does not say it."""

    what: str
    a: str | None
    b: str | None


@dataclasses.dataclass(frozen=True)
class LayerDifference(_Result):
    """How the parameters of a layer differ. Layers count from 1."""

    layer: int
    same_shape: bool
    same_kind: bool
    is_same: bool  # the same numbers in the same arrays
    arrays: dict[str, Difference]


@dataclasses.dataclass(frozen=True)
class StageDifference(_Result):
    """How far apart two models are at a stage over all frames, and where most. Frames and units
    count from 0."""

    stage: str
    values_a: int  # for one frame
    values_b: int
    is_beyond: bool
    difference: Difference
    recording: str
    frame: int
    unit: int


@dataclasses.dataclass(frozen=True)
class Behaviour(_Result):
    """How the results of two models differ over recordings."""

    recordings: int
    frames: int
    same_decisions: int  # frames with the same best class
    stages: list[StageDifference]

    @property
    def first_beyond(self) -> StageDifference | None:
        """The first stage that differs by more than the tolerance."""
        return next((stage for stage in self.stages if stage.is_beyond), None)

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each stage; needs pandas."""
        return Results(self.stages).to_pandas()


@dataclasses.dataclass(frozen=True)
class ModelDifference(_Result):
    """Where two models differ. True where they do."""

    statements: list[StatementDifference]
    numbers: list[LayerDifference]  # of the layers that both have
    quantized: str | None  # how the second is the first, quantised by rows
    behaviour: Behaviour | None

    def __bool__(self) -> bool:
        return bool(self.statements or any(not layer.is_same for layer in self.numbers)
                    or (self.behaviour and self.behaviour.stages[-1].is_beyond))

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each array of each layer that both have; needs pandas."""
        return _pandas([{"layer": layer.layer, "array": name, **flat(difference)}
                        for layer in self.numbers for name, difference in layer.arrays.items()])


@dataclasses.dataclass(frozen=True)
class TraceSide(_Result):
    """What one of two traces has of a stage."""

    is_present: bool
    frames: int
    values: int
    value_at_largest: float


@dataclasses.dataclass(frozen=True)
class TraceDifference(_Result):
    """How two traces differ at a stage."""

    stage: str
    a: TraceSide
    b: TraceSide
    is_beyond: bool  # only one has it, the shapes differ, or a difference is over the tolerance
    difference: Difference


@dataclasses.dataclass(frozen=True)
class PrecisionLoss(_Result):
    """What a model loses when its parameters keep so many bits."""

    bits: int
    largest_weight_error: float
    mean_weight_error: float
    largest_output_difference: float
    same_best_class: int   # frames
    right_recordings: int  # of those whose class is known


@dataclasses.dataclass(frozen=True)
class Sweep(_Result):
    """What a model loses with each number of bits."""

    recordings: int
    frames: int
    right_recordings: int  # of the model as it is
    losses: list[PrecisionLoss]

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each number of bits; needs pandas."""
        return Results(self.losses).to_pandas()


@dataclasses.dataclass(frozen=True)
class StageLoss(_Result):
    """How far the values of a stage are from those of the model as it is."""

    stage: str
    values: int  # for one frame
    largest: float
    mean: float


@dataclasses.dataclass(frozen=True)
class DecisionLoss(_Result):
    """What decisions a pass over a quantised model makes."""

    same_best_class: int           # frames that are decided as before
    same_best_class_share: float
    right_recordings: int | None   # of those whose class is known; None without any
    accuracy: float | None         # the same as a share


@dataclasses.dataclass(frozen=True)
class QuantizationLoss(_Result):
    """What a model loses when its weights are quantised to so many bits."""

    bits: int
    keeps: bool             # whether both passes keep the share of decisions that is asked for
    image_bytes: int
    floats: DecisionLoss
    integers: DecisionLoss  # of the pass in integers
    stages: list[StageLoss]  # each layer, before and after its activation, and the outputs


@dataclasses.dataclass(frozen=True)
class QuantizationProof(_Result):
    """What a model loses by quantisation with each number of bits."""

    recordings: int
    known_recordings: int  # those whose class is known
    frames: int
    keep: float            # the share of decisions that is asked for
    right_recordings: int | None  # of the model as it is
    accuracy: float | None
    image_bytes: int       # of the model as it is
    smallest_width: int | None  # the fewest bits that keep enough, which is what to take
    losses: list[QuantizationLoss]

    def to_pandas(self) -> Any:
        """A pandas.DataFrame with a row for each number of bits; needs pandas."""
        return Results(self.losses).to_pandas()
