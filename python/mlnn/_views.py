"""Lists, dictionaries and arrays that live in a model."""
from __future__ import annotations

from collections.abc import (Callable, ItemsView, Iterable, Iterator, Mapping, MutableMapping,
                             MutableSequence, ValuesView)
from typing import Any, Protocol, TypeVar, overload

import numpy.typing as npt

from . import _mlnn
from ._messages import _str
from ._values import _Floats, _bytes, _float32, _single

_Item = TypeVar("_Item")


class _Lines(MutableSequence[_Item]):
    """A list that lives in a model: every change goes there."""

    def __init__(self, get: Callable[[], list[_Item]], set_: Callable[[list[_Item]], None],
                 add: Callable[[_Item], None]) -> None:
        self._get, self._set, self._add = get, set_, add

    def __len__(self) -> int:
        return len(self._get())

    def __getitem__(self, index: int | slice) -> Any:
        return self._get()[index]

    def _change(self, edit: Callable[[list[_Item]], None]) -> None:
        items = list(self._get())
        edit(items)
        self._set(items)

    def __setitem__(self, index: int | slice, value: Any) -> None:
        self._change(lambda items: items.__setitem__(index, value))

    def __delitem__(self, index: int | slice) -> None:
        self._change(lambda items: items.__delitem__(index))

    def insert(self, index: int, value: _Item) -> None:
        self._change(lambda items: items.insert(index, value))

    def append(self, value: _Item) -> None:
        self._add(value)  # without a look at the others

    def extend(self, values: Iterable[_Item]) -> None:
        added = list(values)
        self._change(lambda items: items.extend(added))

    def __eq__(self, other: object) -> bool:  # and so no hash
        if isinstance(other, (_Lines, list, tuple)):
            return list(self) == list(other)
        return NotImplemented

    def __iter__(self) -> Iterator[_Item]:
        return iter(self._get())

    def __repr__(self) -> str:
        return repr(list(self))


class _Curve(_Lines[float]):
    """A curve of a model, whose values are looked at without making a list of all."""

    def __init__(self, core: _mlnn.Core, name: str) -> None:
        super().__init__(self._all, lambda values: core.set_curve(name, _float32(values, 1, name)),
                         lambda value: core.append_to_curve(name, _single(value, name)))
        self._core, self._name = core, name

    def _values(self) -> _Floats:
        return self._core.curve(self._name)

    def _all(self) -> list[float]:
        values: list[float] = self._values().tolist()
        return values

    def __len__(self) -> int:
        return len(self._values())

    def __getitem__(self, index: int | slice) -> Any:
        return self._values()[index].tolist()


class _Props(MutableMapping[str, str]):
    """The properties of a model, as a dictionary that lives there."""

    def __init__(self, core: _mlnn.Core) -> None:
        self._core = core

    def _get(self) -> dict[str, str]:
        return {_str(key): _str(value) for key, value in self._core.props().items()}

    def _set(self, props: Mapping[str, str]) -> None:
        if not isinstance(props, Mapping):
            raise TypeError(f"props: expected a mapping, got {props!r}")
        self._core.set_props({_bytes(key, "a property's name"): _bytes(value, f"property {key!r}")
                              for key, value in props.items()})

    def __getitem__(self, key: str) -> str:
        value = self._core.prop(_bytes(key, "a property's name")) if isinstance(key, str) else None
        if value is None:
            raise KeyError(key)
        return _str(value)

    def __setitem__(self, key: str, value: str) -> None:
        self._core.set_prop(_bytes(key, "a property's name"), _bytes(value, f"property {key!r}"))

    def __delitem__(self, key: str) -> None:
        if not isinstance(key, str) or not self._core.remove_prop(_bytes(key, "")):
            raise KeyError(key)

    def __iter__(self) -> Iterator[str]:
        return iter(self._get())

    # One look at the model each, where the mixin would look once for every property.

    def items(self) -> ItemsView[str, str]:
        return self._get().items()

    def values(self) -> ValuesView[str]:
        return self._get().values()

    def __len__(self) -> int:
        return len(self._core.props())

    def __repr__(self) -> str:
        return repr(self._get())


class _Holder(Protocol):
    """What has arrays: a Layer, which knows this module."""

    _layer: _mlnn.Layer


class _Array:
    """One array of a layer. Reading gives a view; writing copies values into it."""

    def __set_name__(self, owner: type[_Holder], name: str) -> None:
        self._name = name

    @overload
    def __get__(self, layer: None, owner: type[_Holder]) -> _Array: ...

    @overload
    def __get__(self, layer: _Holder, owner: type[_Holder] | None = None) -> _Floats: ...

    def __get__(self, layer: _Holder | None,
                owner: type[_Holder] | None = None) -> _Array | _Floats:
        if layer is None:
            return self
        held = layer._layer
        return held.weights() if self._name == "weights" else held.vector(self._name)

    def __set__(self, layer: _Holder, values: npt.ArrayLike) -> None:
        view = self.__get__(layer)
        new = _float32(values, view.ndim, self._name)
        held = layer._layer
        if view.shape != new.shape and view.size == 0 and new.shape == held.weights().shape[:1]:
            held.grow(self._name)
            view = self.__get__(layer)
        if view.shape != new.shape:
            raise ValueError(f"{self._name}: the shape {view.shape} of a layer's array is fixed, "
                             f"got {new.shape}")
        view[...] = new
