"""Lists, dictionaries and arrays that live in a model."""
from __future__ import annotations

from collections.abc import Mapping, MutableMapping, MutableSequence

from ._messages import _str
from ._values import _bytes, _float32



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
