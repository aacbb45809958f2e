"""The shape of what flows through an ONNX graph: how many dimensions, and which of them a frame is.

A model knows frames x values. A graph's values may have more dimensions, of which the last is the
frame's, and may change their shape as long as each frame's values stay together.
"""
from __future__ import annotations

from collections.abc import Sequence

import numpy as np
import numpy.typing as npt

from ._messages import Error

_DIMENSION = -1_000_000  # from here down an integer of a constant stands for a dimension of a shape
_RANKS = 100

_Integers = npt.NDArray[np.int64]


class Shape:
    """The dimensions of the chain's value: `declared` as far as the graph tells, None where not."""

    def __init__(self, declared: Sequence[int | None]) -> None:
        self.dimensions = list(declared)
        self.is_given = True  # whether it is still the input's

    @property
    def rank(self) -> int:
        return len(self.dimensions)

    @property
    def width(self) -> int:
        """The values of a frame; 0 where that is not known."""
        return (self.dimensions[-1] or 0) if self.dimensions else 0

    def has_width(self, width: int) -> None:
        """Takes note of what a linear map gave."""
        self.dimensions[-1] = width
        self.is_given = False

    def constant(self) -> _Integers:
        """What the operator Shape gives, as far as reshape() understands it."""
        return np.array([_DIMENSION - self.rank * _RANKS - place for place in range(self.rank)])

    def flatten(self, name: str, axis: int) -> None:
        """Makes matrices of what is there, whose columns are the dimensions from `axis` on."""
        if axis < 0:
            axis += self.rank
        if axis == self.rank - 1:
            self._keep_frames(2)
        elif axis == 1 and self.rank > 2 and self.is_given:
            self._join()
        else:
            raise Error(f"{name}: at axis {axis} of {self.rank} dimensions cannot be represented")

    def reshape(self, name: str, target: Sequence[int], zero_copies: bool) -> None:
        """Takes another shape, as long as the values of a frame stay together."""
        wanted = [self._wanted(item, place, zero_copies) for place, item in enumerate(target)]
        if not wanted or not (self._keeps_width(wanted) or self._joins(wanted)):
            raise Error(f"{name}: only a shape that keeps the values of each frame together can be "
                        "represented")
        if self._keeps_width(wanted):
            self._keep_frames(len(wanted))
        else:
            self._join()

    def _wanted(self, item: int, place: int, zero_copies: bool) -> int | tuple[int]:
        """A length, -1 for what is left, or as a tuple the dimension that it is the length of."""
        if item == 0 and zero_copies and place < self.rank:
            return (place,)
        rank, place = divmod(_DIMENSION - item, _RANKS)
        if item <= _DIMENSION and rank == self.rank:
            return (place,)
        return item

    def _is_kept(self, wanted: int | tuple[int], place: int) -> bool:
        return wanted == (place,) or (
            not isinstance(wanted, tuple) and wanted > 0 and wanted == self.dimensions[place])

    def _keeps_width(self, wanted: Sequence[int | tuple[int]]) -> bool:
        last, leading = self.rank - 1, wanted[:-1]
        if (last,) in leading:
            return False
        is_same_rank = len(wanted) == self.rank
        in_place = is_same_rank and all(
            self._is_kept(item, place) for place, item in enumerate(leading))
        if wanted[-1] == -1:
            return in_place
        return self._is_kept(wanted[-1], last) and (
            in_place or leading.count(-1) == 1 or (self.rank == 1 and set(leading) == {1})
            or (is_same_rank and all(_may_be(item, place) for place, item in enumerate(leading))))

    def _joins(self, wanted: Sequence[int | tuple[int]]) -> bool:
        """Whether all dimensions but the first become one."""
        if not self.is_given or self.rank < 2 or len(wanted) != 2:
            return False
        inner = self.dimensions[1:]
        size = None if None in inner else int(np.prod([length or 0 for length in inner]))
        return (self._is_kept(wanted[0], 0) and wanted[1] in (-1, size)) or (
            wanted == [-1, size] and size is not None and size > 0)

    def _keep_frames(self, rank: int) -> None:
        self.dimensions = [*[None] * (rank - 1), *self.dimensions[-1:]]

    def _join(self) -> None:
        inner = self.dimensions[1:]
        size = None if None in inner else int(np.prod([length or 0 for length in inner]))
        self.dimensions = [self.dimensions[0], size]


def _may_be(wanted: int | tuple[int], place: int) -> bool:
    """Whether a dimension may have this length: its own, or one that the graph takes alone."""
    return wanted == (place,) or (not isinstance(wanted, tuple) and wanted > 0)
