"""The layers of a model."""
from __future__ import annotations

from collections.abc import Iterable, Mapping, MutableSequence, Sequence
from typing import Any

import numpy as np
import numpy.typing as npt

from . import _mlnn
from ._values import _IN_BATCH_NORM, _VECTORS, _Floats, _act_fn, _integer
from ._views import _Array


class Layer:
    """One layer of a model: `act_fn(weights @ x + bias)`, or in a batch-norm layer
    `act_fn(gamma_inf * (weights @ x) + beta_inf)`.

    The arrays are views, float32 and writable, of the model's own values: `weights` is
    outputs x inputs, the vectors have a value for each output or none. A view keeps the layer
    alive, and a layer its model. A layer that was removed from its model goes on living alone.
    Shapes are fixed, so a view never goes stale; only an empty vector can be given its values.
    """

    __slots__ = ("_layer", "__weakref__")  # so a misspelt name is no new attribute

    _layer: _mlnn.Layer

    weights = _Array()
    bias = _Array()
    gamma = _Array()
    beta = _Array()
    gamma_inf = _Array()
    beta_inf = _Array()

    def __init__(self) -> None:
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
        return ("weights", *(name for name in _VECTORS if _IN_BATCH_NORM[name] == self.batch_norm))

    def _unused(self) -> tuple[str, ...]:
        return tuple(name for name in _VECTORS if name not in self._used())

    @property
    def row_codes(self) -> tuple[npt.NDArray[np.int8], _Floats] | None:
        """The weights as whole numbers, outputs x inputs, and a scale for each output, whose
        products they are without any rounding; as Model.quantize makes them. None for others."""
        return self._layer.row_codes()

    @property
    def num_inputs(self) -> int:
        """The columns of `weights`."""
        return self.weights.shape[1]

    @property
    def num_outputs(self) -> int:
        """The rows of `weights`."""
        return self.weights.shape[0]

    def copy(self) -> Layer:
        """A layer of its own with the same values, which belongs to no model."""
        return _layer_of(self._layer.record())

    __copy__ = copy

    def __deepcopy__(self, memo: dict[int, Any]) -> Layer:
        return self.copy()

    def __reduce__(self) -> tuple[Any, ...]:
        return _layer_of, (self._layer.record(),)

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Layer) and self._layer is other._layer

    def __hash__(self) -> int:
        return hash(self._layer)

    def __repr__(self) -> str:
        kind = "batch norm" if self.batch_norm else "plain"
        return f"<mlnn.Layer {self.num_inputs} -> {self.num_outputs}, {kind}, {self.act_fn}>"

    def _repr_html_(self) -> str:
        from . import _html
        return _html.of_layer(self)


def _layer_of(record: bytes) -> Layer:
    """A layer that belongs to no model, from its binary record."""
    core = _mlnn.Core()
    core.append_record(record)
    return Layer._of(core.layer(0))


# What Model.from_arrays takes for a layer.
_Given = Layer | Mapping[str, Any] | Sequence[Any]


def _record_of(layer: _Given) -> bytes:
    """The binary record of a layer, or of one that is made of arrays."""
    from ._model import Model
    made = layer if isinstance(layer, Layer) else Model._of_arrays([layer], False).layers[0]
    return made._layer.record()


class _Layers(MutableSequence[Layer]):
    """The layers of a model, from its inputs to its outputs. What is put in is copied; what is taken
    out goes on living in whoever holds it. Layers must fit those beside them: where they would not,
    ValueError is raised, and nothing changes."""

    def __init__(self, core: _mlnn.Core) -> None:
        self._core = core

    def __len__(self) -> int:
        return self._core.num_layers()

    def __getitem__(self, index: int | slice) -> Any:
        count = len(self)
        if isinstance(index, slice):
            return [self[i] for i in range(*index.indices(count))]
        if not -count <= _integer(index, "layer") < count:
            raise IndexError(f"layer {index} of {count}")
        return Layer._of(self._core.layer(index % count))

    def _replace(self, begin: int, end: int, layers: Iterable[_Given]) -> None:
        self._core.replace_layers(begin, end, [_record_of(layer) for layer in layers])

    def _range(self, index: int | slice) -> tuple[int, int]:
        """The places that an index means, which follow each other."""
        count = len(self)
        if isinstance(index, slice):
            begin, end, step = index.indices(count)
            if step != 1:
                raise ValueError("layers: only such as follow each other can be replaced")
            return begin, max(begin, end)
        if not -count <= _integer(index, "layer") < count:
            raise IndexError(f"layer {index} of {count}")
        return index % count, index % count + 1

    def __setitem__(self, index: int | slice, value: Any) -> None:
        self._replace(*self._range(index), value if isinstance(index, slice) else [value])

    def __delitem__(self, index: int | slice) -> None:
        self._replace(*self._range(index), [])

    def insert(self, index: int, value: _Given) -> None:
        """Puts a layer, or one of arrays as Model.from_arrays takes it, before the one at `index`."""
        begin, _, _ = slice(_integer(index, "layer"), None).indices(len(self))
        self._replace(begin, begin, [value])

    def __repr__(self) -> str:
        return repr(list(self))

    def _repr_html_(self) -> str:
        from . import _html
        return _html.layers_table(self)
