"""Own modules of PyTorch, by torch.fx: what their forward functions do, as a chain of calls.

A trace runs the module's Python code once, without values. While it runs, torch.fx takes the place of
`torch.nn.Module.__call__` in the whole process.
"""
from __future__ import annotations

import operator
from collections.abc import Callable
from typing import Any

from ._messages import Error
from ._torch_calls import Apply, Chain, Ref
from ._torch_modules import kind_of, name_of, refuse_what_it_does_besides

_OPERATORS = {"truediv": "div", "and_": "and", "or_": "or", "not_": "not"}
_ATTRIBUTES = {"shape": "shape", "ndim": "ndim", "T": "t"}


def take_traced(apply: Apply, take: Callable[[str, Any], None], path: str, module: Any) -> None:
    """Walks along what the module does: `apply` takes its functions, and `take` its modules with
    their paths. Raises Error where it does not lead along one chain."""
    graph, root = _traced(path, module)
    chain = Chain(apply)
    inputs = [node for node in graph.nodes if node.op == "placeholder"]
    chain.start(inputs[0].name)
    for node in graph.nodes:
        if node.op == "get_attr":
            chain.know(node.name, operator.attrgetter(node.target)(root))
        elif node.op == "call_module":
            _take_module(chain, take, path, node, root.get_submodule(node.target))
        elif node.op in ("call_function", "call_method"):
            _take_call(chain, path, node)
        elif node.op == "output":
            chain.end(_refs(node.args[0]))


def _traced(path: str, module: Any) -> tuple[Any, Any]:
    """The module's graph, and a module around it, in which `inner` is the module itself: so it is
    called as everywhere, with its hooks and its default arguments."""
    import torch

    class Root(torch.nn.Module):  # type: ignore[misc]
        def __init__(self) -> None:
            super().__init__()
            self.inner = module

        def forward(self, x: Any) -> Any:
            return self.inner(x)

    class Tracer(torch.fx.Tracer):  # type: ignore[misc]
        proxy_buffer_attributes = True  # so a forward function that changes them changes nothing

        def is_leaf_module(self, m: Any, module_qualified_name: str) -> bool:
            return kind_of(m) is not None or isinstance(m, torch.jit.ScriptModule) or (
                type(m).__module__.startswith("torch.nn") and not isinstance(m, torch.nn.Sequential))

        def call_module(self, m: Any, *args: Any) -> Any:
            if not self.is_leaf_module(m, ""):
                name = _path_of(path, self.path_of_module(m))
                refuse_what_it_does_besides(name_of(name, m), m)
            return super().call_module(m, *args)

    root = Root()
    try:
        return Tracer().trace(root), root
    except Error:
        raise
    except Exception as error:  # whatever a forward function does with values that are not there
        reason = str(error).strip().partition("\n")[0] or type(error).__name__
        raise Error(f"{name_of(path, module)}: cannot be traced: {reason}") from None


def _path_of(path: str, target: str) -> str:
    """The path of what has this one within the root."""
    inner = target.partition(".")[2]
    return f"{path}.{inner}" if path and inner else path or inner


def _refs(item: Any) -> Any:
    import torch
    return torch.fx.node.map_arg(item, lambda node: Ref(node.name))


def _take_module(chain: Chain, take: Callable[[str, Any], None], path: str, node: Any,
                 step: Any) -> None:
    import torch
    inner = _path_of(path, node.target)
    told = name_of(inner, step)
    args, kwargs = _refs(node.args), _refs(node.kwargs)
    if kind_of(step) is torch.nn.Sigmoid:  # which may gate its input
        refuse_what_it_does_besides(told, step)
        chain.call(node.name, told, "sigmoid", args, kwargs)
    else:
        chain.module(node.name, told, args, kwargs)
        take(inner, step)


def _take_call(chain: Chain, path: str, node: Any) -> None:
    function, args = _function_of(node), list(_refs(node.args))
    told = f"{path}.{node.name} ({function})" if path else f"{node.name} ({function})"
    if function == "getattr":
        function, args = _ATTRIBUTES.get(args[1], f"getattr {args[1]}"), args[:1]
    chain.call(node.name, told, function, args, _refs(node.kwargs))


def _function_of(node: Any) -> str:
    """The name of a function of PyTorch or of Python, or of a tensor's method. Others, which may have
    the same names, come with their modules."""
    import torch
    target = node.target
    if isinstance(target, str):
        return target
    name: str = getattr(target, "__name__", repr(target))
    if target is torch.batch_norm:  # whose arguments are others than those of the function
        return "aten::batch_norm"
    if target in (getattr, len):
        return name
    if target is getattr(operator, name, None):
        return _OPERATORS.get(name, name)
    if any(target is getattr(home, name, None) for home in (torch, torch.nn.functional)):
        return name
    return f"{getattr(target, '__module__', None)}.{name}"
