"""Modules of PyTorch that were compiled, by torch.jit.trace or torch.jit.script, as a chain of calls."""
from __future__ import annotations

from typing import Any

from ._messages import Error
from ._torch_calls import Apply, Chain, Marker, Ref
from ._torch_modules import name_of

_OTHER_NAMES = {"__and__": "and", "__or__": "or", "__not__": "not", "__getitem__": "getitem"}
_OTHER_ARGUMENTS = ("batch_norm", "elu", "softmax")  # than those of the functions of these names


def take_script(apply: Apply, path: str, module: Any) -> None:
    """Walks along what the compiled module does. Raises Error where it is no chain."""
    graph = _frozen(path, module)
    given = list(graph.inputs())
    if len(given) != 2:  # the module itself and the frames
        raise Error(f"{name_of(path, module)}: expected one input, found {len(given) - 1}")
    chain = Chain(apply)
    chain.start(given[1].debugName())
    _take_block(chain, path, graph)
    results = [Ref(value.debugName()) for value in graph.outputs()]
    chain.end(results[0] if len(results) == 1 else results)


def _frozen(path: str, module: Any) -> Any:
    """The module's graph, with the values of its parameters in it. Changes nothing of the module."""
    import torch
    try:
        return torch.jit.freeze(module, optimize_numerics=False).graph
    except (AttributeError, RuntimeError) as error:  # as of modules that are frozen already
        if not hasattr(module, "training") and hasattr(module, "graph"):
            return module.graph
        raise Error(f"{name_of(path, module)}: {str(error).strip().partition(chr(10))[0]}") from None


def _take_block(chain: Chain, path: str, block: Any) -> None:
    for node in block.nodes():
        kind = node.kind()
        if kind == "prim::If":
            _take_branch(chain, path, node)
        elif node.outputsSize() == 1:
            _take_node(chain, path, node)
        elif kind == "prim::RaiseException" or node.outputsSize():
            raise Error(f"{_place(path, node)} ({kind}) cannot be represented")


def _take_branch(chain: Chain, path: str, node: Any) -> None:
    """Takes the branch that a condition leads to, where that is known."""
    condition = chain.known(next(node.inputs()).debugName())
    if isinstance(condition, Marker):
        raise Error(f"{_place(path, node)} (prim::If): what it depends on is not known before a network "
                    "runs")
    branch = list(node.blocks())[0 if condition else 1]
    _take_block(chain, path, branch)
    for outer, inner in zip(node.outputs(), branch.outputs()):
        chain.alias(outer.debugName(), Ref(inner.debugName()))


def _take_node(chain: Chain, path: str, node: Any) -> None:
    result = node.output().debugName()
    space, _, function = node.kind().rpartition("::")
    if node.kind() == "prim::Constant":
        chain.know(result, node.output().toIValue())
        return
    function = _OTHER_NAMES.get(function, function)
    function = function.lower() if space == "prim" else function
    told = f"{_place(path, node)} ({function})"
    if space not in ("aten", "prim"):
        raise Error(f"{told} cannot be represented")
    if function in _OTHER_ARGUMENTS:
        function = f"aten::{function}"
    chain.call(result, told, function, [Ref(value.debugName()) for value in node.inputs()], {})


def _place(path: str, node: Any) -> str:
    """Where a node stands: by the modules that were traced, else by the name of its result."""
    scope = node.scopeName().rpartition("/")[2].partition("__module.")[2]
    inner: str = scope or (node.output().debugName() if node.outputsSize() == 1 else node.kind())
    return f"{path}.{inner}" if path else inner
