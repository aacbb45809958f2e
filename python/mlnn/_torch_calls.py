"""A program of PyTorch as a chain of calls: each takes what the one before gave, and constants."""
from __future__ import annotations

import dataclasses
import operator
from collections.abc import Callable, Mapping, Sequence
from typing import Any

from ._messages import Error
from ._network import way_out

Apply = Callable[[str, str, Sequence[Any], Mapping[str, Any]], None]


class Marker:
    """What stands for something that is not known before a network runs."""

    def __init__(self, told: str) -> None:
        self._told = told

    def __repr__(self) -> str:
        return self._told


VALUE = Marker("the chain's value")     # among the arguments of a step
FRAMES = Marker("the number of frames")
WIDTH = Marker("the width of a frame")


@dataclasses.dataclass(frozen=True)
class Ref:
    """The result of a call, by its name."""

    name: str


# What is computed of constants: of tensors by their own methods, of numbers as Python does. None of
# it changes what it is given.
_OF_TENSORS = frozenset((
    "t", "transpose", "permute", "matmul", "mm", "exp", "sqrt", "rsqrt", "abs", "float", "double",
    "contiguous", "detach", "clone", "squeeze", "unsqueeze", "reshape", "view", "pow", "sigmoid",
    "tanh", "expand_as", "sum"))
_OF_ALL: dict[str, Callable[..., Any]] = {
    "add": operator.add, "sub": operator.sub, "mul": operator.mul, "div": operator.truediv,
    "neg": operator.neg, "ne": operator.ne, "eq": operator.eq, "gt": operator.gt, "lt": operator.lt,
    "and": operator.and_, "or": operator.or_, "not": operator.not_, "getitem": operator.getitem,
    "listconstruct": lambda *items: list(items), "tupleconstruct": lambda *items: items,
    "numtotensor": lambda number: number, "int": lambda number: number,
}


class Chain:
    """Walks along the calls. `apply` takes each that changes the chain's value: its name in messages,
    the function's, and arguments with VALUE in them."""

    def __init__(self, apply: Apply) -> None:
        self._apply = apply
        self._known: dict[str, Any] = {}   # results that are constants
        self._passed: set[str] = set()     # results that were the chain's value, or are
        self._value = ""
        # A sigmoid that may be part of a SiLU: its name, its input and its arguments.
        self._gate: tuple[str, str, Sequence[Any], Mapping[str, Any]] | None = None

    def start(self, name: str) -> None:
        """Begins at the network's input."""
        self._value = name
        self._passed.add(name)

    def know(self, name: str, value: Any) -> None:
        """Takes note of a constant."""
        self._known[name] = value

    def known(self, name: str) -> Any:
        return self._known.get(name, FRAMES)

    def call(self, result: str, told: str, function: str, args: Sequence[Any],
             kwargs: Mapping[str, Any]) -> None:
        """Takes the call of a function, whose arguments hold a Ref for each result of others."""
        refs = list(_refs_in([args, kwargs]))
        taken = [ref for ref in refs if ref in self._passed]
        if not taken:
            self._known[result] = self._computed(told, function, args, kwargs)
        elif not self._measure(result, function, self._resolved_measured(args)):
            self._step(result, told, function, args, kwargs, taken)

    def module(self, result: str, told: str, args: Sequence[Any], kwargs: Mapping[str, Any]) -> None:
        """Takes the call of a module of one argument, which whoever walks adds to the network."""
        taken = [*args, *kwargs.values()] if set(kwargs) <= {"input"} else []
        if taken != [Ref(self._value)]:
            raise Error(f"{told}: takes more than the chain's value")
        self._close_gate()
        self._advance(result)

    def end(self, result: Any) -> None:
        """Takes what the program returns."""
        self._close_gate()
        if result != Ref(self._value):
            raise Error("the output is not where the chain of steps ends")

    def alias(self, result: str, other: Any) -> None:
        """Another name of a result."""
        if not isinstance(other, Ref):
            self._known[result] = other
        elif other.name in self._known:
            self._known[result] = self._known[other.name]
        elif other.name == self._value:
            self._advance(result)
        else:
            raise Error(f"{result}: takes a value that the chain has left behind")

    def _advance(self, result: str) -> None:
        self._value = result
        self._passed.add(result)

    def _resolved(self, item: Any) -> Any:
        if isinstance(item, Ref):
            return VALUE if item.name == self._value else self._known[item.name]
        if isinstance(item, (list, tuple)):
            return type(item)(self._resolved(inner) for inner in item)
        return item

    def _resolved_measured(self, args: Sequence[Any]) -> Sequence[Any]:
        """Arguments without the values, of which one may be measured that the chain has left behind."""
        return [self._known.get(item.name, VALUE) if isinstance(item, Ref) else item for item in args]

    def _resolved_all(self, args: Sequence[Any],
                      kwargs: Mapping[str, Any]) -> tuple[list[Any], dict[str, Any]]:
        return ([self._resolved(item) for item in args],
                {key: self._resolved(item) for key, item in kwargs.items()})

    def _computed(self, told: str, function: str, args: Sequence[Any], kwargs: Mapping[str, Any]) -> Any:
        import torch
        values, named = self._resolved_all(args, kwargs)
        markers = any(isinstance(item, Marker) for item in values)
        try:
            if function in _OF_ALL and not named and not (
                    markers and function not in ("getitem", "listconstruct", "tupleconstruct", "int",
                                                 "numtotensor")):
                return _OF_ALL[function](*values)
            if function in _OF_TENSORS and isinstance(values[0], torch.Tensor) and not markers:
                with torch.no_grad():
                    return getattr(torch.Tensor, function)(*values, **named)
        except (IndexError, TypeError, ValueError, RuntimeError, ZeroDivisionError) as error:
            raise Error(f"{told}: {str(error).partition(chr(10))[0]}") from None
        raise Error(f"{told}: of constants alone cannot be represented")

    def _measure(self, result: str, function: str, args: Sequence[Any]) -> bool:
        """Whether the call asks for the shape of a value, of which frames are known to be rows."""
        shape = (FRAMES, WIDTH)
        if function in ("size", "shape") and len(args) == 1:
            self._known[result] = shape
        elif function == "size" and len(args) == 2 and args[1] in (0, 1, -1, -2):
            self._known[result] = shape[args[1]]
        elif function in ("dim", "ndim", "ndimension") and len(args) == 1:
            self._known[result] = 2
        elif function == "len" and len(args) == 1:
            self._known[result] = FRAMES
        else:
            return False
        return True

    def _step(self, result: str, told: str, function: str, args: Sequence[Any],
              kwargs: Mapping[str, Any], taken: Sequence[str]) -> None:
        if self._gate is not None and function == "mul" and not kwargs:
            gate, before, *_ = self._gate
            if len(args) == 2 and set(taken) == {before, self._value} and len(taken) == 2:
                self._gate = None
                self._apply(told, "silu", [VALUE], {})
                self._advance(result)
                return
        self._close_gate()
        if list(taken) != [self._value]:
            raise Error(f"{told} cannot be represented{way_out(function)}: it takes more than the value "
                        "before it" if len(taken) > 1 else
                        f"{told}: takes a value that the chain has left behind")
        values, named = self._resolved_all(args, kwargs)
        if function == "sigmoid":
            self._gate = told, self._value, values, named
        else:
            self._apply(told, function, values, named)
        self._advance(result)

    def _close_gate(self) -> None:
        """A sigmoid whose output did not turn out to gate its input is an activation."""
        if self._gate is not None:
            told, _, values, named = self._gate
            self._gate = None
            self._apply(told, "sigmoid", values, named)


def _refs_in(item: Any) -> list[str]:
    if isinstance(item, Ref):
        return [item.name]
    if isinstance(item, Mapping):
        item = list(item.values())
    if isinstance(item, (list, tuple)):
        return [name for inner in item for name in _refs_in(inner)]
    return []
