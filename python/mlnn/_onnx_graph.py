"""An ONNX model as what its import walks over: constants, and the nodes that its output needs."""
from __future__ import annotations

from collections.abc import Iterable
from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import GraphProto, ModelProto, NodeProto, TensorProto, ValueInfoProto, helper, numpy_helper

from ._messages import Error
from ._onnx_metadata import KEY

_FIRST_OPSET, _LAST_OPSET = 1, 21  # whose operators' meanings the import knows
_DOMAINS = ("", "ai.onnx")         # two names of one: the domain of ONNX itself
_REALS = (TensorProto.FLOAT, TensorProto.DOUBLE, TensorProto.FLOAT16, TensorProto.BFLOAT16)

_Array = npt.NDArray[Any]


def name_of(node: NodeProto) -> str:
    """A node in messages."""
    return f"{node.name or ''.join(node.output[:1])} ({node.op_type})"


def attributes_of(node: NodeProto) -> dict[str, Any]:
    """A node's attributes. Raises Error where one stands twice or has no value of its own."""
    found: dict[str, Any] = {}
    for attribute in node.attribute:
        if attribute.name in found or attribute.ref_attr_name:
            raise Error(f"{name_of(node)}: the attribute {attribute.name} has no single value")
        found[attribute.name] = helper.get_attribute_value(attribute)
    return found


def values_of(name: str, tensor: TensorProto) -> _Array:
    """The values of a tensor, by whose name an Error refuses it."""
    if not all(0 <= length < 1 << 31 for length in tensor.dims):
        raise Error(f"{name}: no array has the shape {tuple(tensor.dims)}")
    if tensor.data_location == TensorProto.EXTERNAL:
        raise Error(f"{name}: values in another file are not read, but for a model that is "
                    "given by its file's name")
    try:
        array: _Array = numpy_helper.to_array(tensor)
        return array
    except Exception as error:
        raise Error(f"{name}: broken values: {error}") from None


class Graph:
    """What a ModelProto states, refused where it could be read in two ways.

    `opset` is the operator set. `dimensions` are those of the one input, None where the graph does
    not tell a length: two for frames x values. `nodes` are those that the output depends
    on, as they follow each other. `constants` has the values of the initialisers,
    by their names; whoever walks over the nodes adds what they make of these.
    """

    def __init__(self, proto: ModelProto) -> None:
        graph = proto.graph
        self.opset = _opset_of(proto)
        self.constants = _initialisers_of(graph)
        given = _one_input_and_output(graph, self.constants)
        self.input: str = given.name
        self.output = str(graph.output[0].name)
        self.dimensions = _dimensions_of(given)
        _refuse_names_given_twice(graph)
        self.nodes = _needed(graph.node, self.output)


def _opset_of(proto: ModelProto) -> int:
    for function in proto.functions:
        raise Error(f"{function.name}: functions of a model cannot be represented")
    stated = {entry.version for entry in proto.opset_import if entry.domain in _DOMAINS}
    if len(stated) != 1:
        raise Error(f"expected one operator set of ONNX, found {len(stated)}")
    version: int = stated.pop()
    if not _FIRST_OPSET <= version <= _LAST_OPSET:
        raise Error(f"operator set {version} is not known; {_FIRST_OPSET} to {_LAST_OPSET} are")
    return version


def metadata_of(proto: ModelProto) -> str | None:
    """What this package says in a file of its own."""
    found = [entry.value for entry in proto.metadata_props if entry.key == KEY]
    if len(found) > 1:
        raise Error(f"the metadata {KEY!r} stands twice")
    return found[0] if found else None


def _initialisers_of(graph: GraphProto) -> dict[str, _Array]:
    for sparse in graph.sparse_initializer:
        raise Error(f"{sparse.values.name}: sparse values are not read")
    constants: dict[str, _Array] = {}
    for tensor in graph.initializer:
        if tensor.name in constants:
            raise Error(f"{tensor.name}: two initialisers have this name")
        constants[tensor.name] = values_of(tensor.name, tensor)
    return constants


def _one_input_and_output(graph: GraphProto, constants: dict[str, _Array]) -> ValueInfoProto:
    """Returns the one input that is no default of a constant."""
    inputs = [i for i in graph.input if i.name not in constants]
    if len(inputs) != 1 or len(graph.output) != 1:
        raise Error(f"expected one input and one output, found {len(inputs)} and "
                    f"{len(graph.output)}")
    return inputs[0]


def _dimensions_of(given: ValueInfoProto) -> list[int | None]:
    kind = given.type.tensor_type
    if given.type.WhichOneof("value") != "tensor_type" or kind.elem_type not in _REALS:
        raise Error(f"{given.name}: an input of other than real numbers cannot be represented")
    if not kind.shape.dim:
        raise Error(f"{given.name}: an input without dimensions cannot be represented")
    return [d.dim_value if d.WhichOneof("value") == "dim_value" and d.dim_value > 0 else None
            for d in kind.shape.dim]


def _refuse_names_given_twice(graph: GraphProto) -> None:
    known = {i.name for i in graph.input} | {i.name for i in graph.initializer}
    for node in graph.node:
        output: str
        for output in filter(None, node.output):
            if output in known:
                raise Error(f"{name_of(node)}: {output} has a value already")
            known.add(output)


def _needed(nodes: Iterable[NodeProto], output: str) -> list[NodeProto]:
    """Those that the output depends on. What else a graph computes, nobody sees."""
    wanted: set[str] = {output}
    kept = []
    for node in reversed(list(nodes)):
        if wanted.isdisjoint(filter(None, node.output)):
            continue
        wanted.update(node.input)
        kept.append(node)
    return kept[::-1]


def in_domain(node: NodeProto) -> bool:
    """Whether the node is an operator of ONNX itself."""
    return node.domain in _DOMAINS


def real(name: str, constant: _Array) -> _Array:
    """A constant with which the chain's values are computed."""
    if constant.dtype.kind != "f":
        raise Error(f"{name}: expected real numbers, found {np.dtype(constant.dtype)}")
    return constant
