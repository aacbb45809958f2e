"""What one can know about models: the library's analysis, as objects of Python."""
from __future__ import annotations

import os
from collections.abc import Iterable, Mapping, Sequence
from typing import IO, TYPE_CHECKING, Any

import numpy.typing as npt

from . import _mlnn
from ._files import _bytes_and_path
from ._messages import Error, _str
from ._results import (Behaviour, Budget, DecisionLoss, Difference, Digest, IntegerPass, LayerDifference, Misfit,
                       ModelDifference, PrecisionLoss, QuantizationLoss, QuantizationProof, Results,
                       StageDifference, StageLoss, StatementDifference, Suspicion, Sweep, Trace,
                       TraceDifference, TraceSide, _text)
from ._values import _Floats, _frames, _integer

if TYPE_CHECKING:
    from . import Model

TOLERANCE = 1e-4

_Recordings = Mapping[str, npt.ArrayLike] | Iterable[npt.ArrayLike]


def check(core: _mlnn.Core) -> Results[Suspicion]:
    return Results(Suspicion(**_text(found)) for found in _mlnn.check(core))


def diagnose(source: str | os.PathLike[str] | IO[bytes] | bytes) -> Misfit | None:
    """The first place of a model file, of a file object, or of bytes, that does not fit its format; None where
    all fits. Raises OSError where the file cannot be read."""
    data, _ = _bytes_and_path(source)
    found = _mlnn.diagnose(data)
    return None if found is None else Misfit(**_text(found))


def digest(core: _mlnn.Core, format: str) -> Digest:
    if format not in ("text", "image"):
        raise ValueError('format must be "text" or "image"')
    return Digest(format, _mlnn.digest(core, format == "image"))


def budget(core: _mlnn.Core) -> Budget:
    found = _text(_mlnn.budget(core))
    integers = found.pop("integer_pass")
    return Budget(integer_pass=None if integers is None else IntegerPass(**integers), **found)


def trace(core: _mlnn.Core, frames: npt.ArrayLike, stacked: bool) -> Trace:
    return Trace(dict(_mlnn.trace(core, _frames(frames), stacked)))


def sweep(core: _mlnn.Core, recordings: _Recordings, bits: Iterable[int],
          classes: Sequence[int | None] | None, stacked: bool) -> Sweep:
    named = _named(recordings)
    found = _mlnn.sweep(core, named, _classes(core, classes, len(named)),
                        [_integer(width, "bits", 0, 31) for width in bits], stacked)
    losses = [PrecisionLoss(**loss) for loss in found.pop("losses")]
    return Sweep(losses=losses, **found)


def prove_quantization(core: _mlnn.Core, recordings: _Recordings, bits: Iterable[int], least_squares: bool,
                       largest_error: float, correct: _Floats | None,
                       classes: Sequence[int | None] | None, keep: float,
                       stacked: bool) -> QuantizationProof:
    if not 0 <= keep <= 1:
        raise ValueError(f"keep: expected 0 to 1, got {keep:g}")
    widths = [_integer(width, "bits", *_mlnn.ROW_BITS) for width in bits]
    named = _named(recordings)
    found, refusal = _mlnn.prove_quantization(core, named, _classes(core, classes, len(named)), widths,
                                              least_squares, largest_error, correct, keep, stacked)
    if refusal:
        raise Error(_str(refusal))
    losses = [_quantization_loss(loss) for loss in found.pop("losses")]
    return QuantizationProof(losses=losses, **found)


def _quantization_loss(found: dict[str, Any]) -> QuantizationLoss:
    floats, integers = (DecisionLoss(**found.pop(which)) for which in ("floats", "integers"))
    stages = [StageLoss(**stage) for stage in found.pop("stages")]
    return QuantizationLoss(floats=floats, integers=integers, stages=stages, **found)


def _classes(core: _mlnn.Core, classes: Sequence[int | None] | None, recordings: int) -> list[int]:
    """The class of each recording, -1 where it is not known."""
    known: list[int | None] = [None] * recordings if classes is None else list(classes)
    if len(known) != recordings:
        raise ValueError(f"classes: {len(known)} for {recordings} recordings")
    outputs = core.num_outputs()
    return [-1 if one is None else _integer(one, "classes", 0, outputs - 1) for one in known]


def diff(a: Model, b: Model, recordings: _Recordings | None = None, *,
         tolerance: float = TOLERANCE, stacked: bool = False) -> ModelDifference:
    """Tells where two models differ: in what they say, in numbers, and over recordings, if there
    are any, in behaviour. Each recording holds frames x values; they are an iterable, or a mapping
    from names. Each model makes its own input vectors of them, unless `stacked`. Raises ValueError
    where a model does not take such frames."""
    one, other = map(_core_of, (a, b))
    statements = [StatementDifference(**_text(found)) for found in _mlnn.statement_differences(one, other)]
    numbers = [_layer_difference(found) for found in _mlnn.number_differences(one, other)]
    behaviour = None
    if recordings is not None:
        found = _mlnn.behaviour_differences(one, other, _named(recordings), bool(stacked), float(tolerance))
        stages = [_stage_difference(one) for one in found.pop("stages")]
        behaviour = Behaviour(stages=stages, **found)
    return ModelDifference(statements, numbers, _mlnn.quantization(one, other), behaviour)


def _core_of(model: Any) -> _mlnn.Core:
    from . import Model
    if not isinstance(model, Model):
        raise TypeError(f"expected a model, got {type(model).__name__}")
    return model._core


def _layer_difference(found: dict[str, Any]) -> LayerDifference:
    arrays = {name: Difference(**one) for name, one in found.pop("arrays")}
    return LayerDifference(arrays=arrays, **found)


def _stage_difference(found: dict[str, Any]) -> StageDifference:
    return StageDifference(difference=Difference(**found.pop("difference")), **_text(found))


def compare(a: Trace | Mapping[str, npt.ArrayLike], b: Trace | Mapping[str, npt.ArrayLike], *,
            tolerance: float = TOLERANCE, common_only: bool = False) -> Results[TraceDifference]:
    """Compares the results of two engines stage by stage: two traces, as Model.trace gives, or
    mappings from the names of stages to frames x values. Raises ValueError for other names."""
    found = _mlnn.trace_differences(_stages(a), _stages(b), bool(common_only), float(tolerance))
    return Results(TraceDifference(one["stage"], TraceSide(**one["a"]), TraceSide(**one["b"]),
                                   one["is_beyond"], Difference(**one["difference"])) for one in found)


def average(models: Iterable[Model], weights: Iterable[float] | None = None) -> Model:
    """The weighted mean of models of one shape. What is not averaged comes from the first one.
    Weights are above 0, and count in proportion to their sum. Raises Error where models have no
    mean."""
    from . import Model
    cores = [_core_of(model) for model in models]
    if not cores:
        raise ValueError("expected one model at least")
    given = [1.0] * len(cores) if weights is None else [float(weight) for weight in weights]
    if len(given) != len(cores):
        raise ValueError(f"weights: {len(given)} for {len(cores)} models")
    if not all(0 < weight < float("inf") for weight in given):
        raise ValueError("weights: expected numbers above 0")
    try:
        return Model._of(_mlnn.average(cores, given))
    except ValueError as error:
        raise Error(str(error)) from None


def _named(recordings: _Recordings) -> list[tuple[str, _Floats]]:
    if isinstance(recordings, Mapping):
        return [(str(name), _frames(frames)) for name, frames in recordings.items()]
    return [(f"recording {i}", _frames(frames)) for i, frames in enumerate(recordings, 1)]


def _stages(trace: Trace | Mapping[str, npt.ArrayLike]) -> list[tuple[str, _Floats]]:
    stages = trace.stages if isinstance(trace, Trace) else trace
    return [(name, _frames(values)) for name, values in stages.items()]
