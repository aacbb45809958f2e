"""What makes input vectors of frames, as the first nodes of an ONNX graph: the normalisation and the
context window."""
from __future__ import annotations

import dataclasses
import json
from typing import Any

import numpy as np
import numpy.typing as npt
from onnx import ModelProto, NodeProto, TensorProto, helper, numpy_helper

from . import Error, FeatureDescription, Model
from ._onnx_metadata import KEY, unpacked

FRONT = "front"  # its entry in the metadata
_END = 2**63 - 1

_Floats = npt.NDArray[np.float32]


@dataclasses.dataclass(frozen=True)
class Front:
    """Which of it there is. `width` is that of a frame."""

    normalisation: bool
    context: bool
    width: int
    left: int
    right: int
    minvals: _Floats | None
    normvals: _Floats | None

    @property
    def span(self) -> int:
        """The frames of an input vector."""
        return self.left + 1 + self.right

    @property
    def input_name(self) -> str:
        if self.context:
            return "frames"
        return "vectors" if self.normalisation else "inputs"

    @property
    def input_width(self) -> int:
        return self.width if self.context else self.width * self.span

    def stated(self) -> dict[str, Any]:
        """What the metadata says of it."""
        return {"normalisation": self.normalisation, "context": self.context, "width": self.width}

    def nodes(self) -> tuple[list[NodeProto], list[TensorProto]]:
        """The nodes from the graph's input to "inputs", and their constants."""
        nodes: list[NodeProto] = []
        constants: list[TensorProto] = []
        value = self.input_name
        if self.normalisation and self.minvals is not None and self.normvals is not None:
            repeated = 1 if self.context else self.span
            for what, operator, values in (("minvals", "Sub", self.minvals),
                                           ("normvals", "Mul", self.normvals)):
                name = f"front.{what}"
                constants.append(numpy_helper.from_array(
                    np.tile(values[:self.width], repeated), name))
                nodes.append(helper.make_node(operator, [value, name], [f"{name}.out"], name))
                value = f"{name}.out"
        if self.context and self.span > 1:
            self._add_window(value, nodes, constants)
        if nodes:
            nodes[-1].output[0] = "inputs"
        return nodes, constants

    def _add_window(self, value: str, nodes: list[NodeProto], constants: list[TensorProto]) -> None:
        """Frames before the first and after the last repeat it; then each of the window's places is
        a run of frames, all of one length."""
        def number(name: str, what: int) -> str:
            constants.append(numpy_helper.from_array(np.array([what], np.int64), name))
            return name

        axis = number("front.axis", 0)

        def cut(name: str, of: str, start: int, end: int) -> str:
            nodes.append(helper.make_node(
                "Slice", [of, number(f"{name}.start", start), number(f"{name}.end", end), axis],
                [name], name))
            return name

        around = self.span - 1
        first = [cut("front.first", value, 0, 1)] * self.left if self.left else []
        last = [cut("front.last", value, -1, _END)] * self.right if self.right else []
        nodes.append(helper.make_node("Concat", [*first, value, *last], ["front.padded"], "front.padded",
                                      axis=0))
        places = [cut(f"front.place{place}", "front.padded", place,
                      place - around if place < around else _END) for place in range(self.span)]
        nodes.append(helper.make_node("Concat", places, ["front.stacked"], "front.stacked", axis=1))


def front_of(model: Model, normalisation: bool, context: bool) -> Front | None:
    """What is to stand before the model's network; None for nothing. Raises Error for a model that
    does not tell of its frames."""
    if not (normalisation or context):
        return None
    features, norm, width = model.features, model.normalisation, model.frame_width
    left, right = features.win_size_left, features.win_size_right
    if width == 0 or left < 0 or right < 0 or (left + 1 + right) * width != model.num_inputs:
        raise Error("the model does not tell what frames its inputs are made of")
    if normalisation and norm is not None and width > norm[0].size:
        raise Error(f"frames of {width} values, but a normalisation of {norm[0].size}")
    minvals, normvals = (None, None) if norm is None else norm
    return Front(normalisation, context, width, left, right, minvals, normvals)


def without_front(proto: ModelProto, metadata: str) -> tuple[ModelProto, Front | None]:
    """The model from its input vectors on, and what stood before. Raises Error where that is not what
    the metadata says."""
    try:
        around = json.loads(metadata)
        stated = around.get(FRONT)
        front = None if stated is None else _stated_front(around, stated)
    except (KeyError, TypeError, ValueError, AttributeError, RecursionError) as error:
        raise Error(f"broken metadata {KEY!r}: {error}") from None
    if front is None:
        return proto, None
    _refuse_other_size(proto, front)
    nodes, constants = front.nodes()
    made = {constant.name: constant for constant in constants}
    found = [tensor for tensor in proto.graph.initializer if tensor.name in made]
    if (list(proto.graph.node[:len(nodes)]) != nodes or len(found) != len(made)
            or {tensor.name: tensor for tensor in found} != made
            or [given.name for given in proto.graph.input] != [front.input_name]):
        raise _other_beginning()
    rest = ModelProto()
    rest.CopyFrom(proto)
    del rest.graph.node[:len(nodes)]
    kept = [tensor for tensor in rest.graph.initializer if tensor.name not in made]
    del rest.graph.initializer[:]
    rest.graph.initializer.extend(kept)
    if nodes:
        rest.graph.input[0].CopyFrom(input_info("inputs", front.width * front.span))
    return rest, front


def _refuse_other_size(proto: ModelProto, front: Front) -> None:
    """Refuses a beginning that takes more nodes or values than the graph has, before it is made."""
    sizes = [int(np.prod(tensor.dims)) for tensor in proto.graph.initializer]
    too_many = front.span - 1 > len(proto.graph.node) if front.context else (
        front.minvals is not None and front.input_width > max(sizes, default=0))
    if too_many:
        raise _other_beginning()


def _other_beginning() -> Error:
    return Error("the graph does not begin as its metadata says")


def _stated_front(around: dict[str, Any], stated: dict[str, Any]) -> Front:
    features = FeatureDescription(**around["features"])
    norm = around["normalisation"]
    minvals, normvals = (None, None) if norm is None else map(unpacked, norm)
    width = stated["width"]
    if not isinstance(width, int) or width < 1 or min(features.win_size_left, features.win_size_right) < 0:
        raise ValueError(f"frames of {width} values")
    return Front(bool(stated["normalisation"]), bool(stated["context"]), width, features.win_size_left,
                 features.win_size_right, minvals, normvals)


def refuse_other_frames(model: Model, front: Front) -> None:
    """Refuses a model that takes other frames than the graph took."""
    if model.frame_width != front.width or model.num_inputs != front.width * front.span:
        raise Error(f"broken metadata {KEY!r}: the model takes no frames of {front.width} values")


def input_info(name: str, width: int) -> Any:
    """The graph's input: any number of vectors."""
    return helper.make_tensor_value_info(name, TensorProto.FLOAT, ["frames", width])
