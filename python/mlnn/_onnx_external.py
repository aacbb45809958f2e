"""Values that an ONNX file keeps in other files beside it."""
from __future__ import annotations

import os
import stat
from collections.abc import Iterator

from onnx import ModelProto, TensorProto

from ._messages import Error

_MOST_BYTES = 2**31 - 1  # that one ModelProto can hold
_BYTES = {TensorProto.FLOAT: 4, TensorProto.DOUBLE: 8, TensorProto.FLOAT16: 2, TensorProto.BFLOAT16: 2,
          TensorProto.INT8: 1, TensorProto.UINT8: 1, TensorProto.INT32: 4, TensorProto.INT64: 8}


def read_external(proto: ModelProto, folder: str | os.PathLike[str]) -> None:
    """Puts into the model what it keeps in files of this folder, or of those below.

    Raises Error for a file elsewhere, to which a link may lead, for one that cannot be read or that
    is no regular file, and for one that is shorter than the model says. Nothing is read before all
    of it is known to fit.
    """
    total, found = 0, []
    for tensor in _tensors(proto):
        if tensor.data_location == TensorProto.EXTERNAL:
            size = _size_of(tensor)
            total += size
            if total > _MOST_BYTES:
                raise Error(f"{tensor.name}: values of more than {_MOST_BYTES} bytes in other files")
            found.append((tensor, size))
    for tensor, size in found:
        data = _read(tensor, size, os.fspath(folder))
        del tensor.external_data[:]
        tensor.data_location = TensorProto.DEFAULT
        tensor.raw_data = data


def _tensors(proto: ModelProto) -> Iterator[TensorProto]:
    """The constants of the graph: of branches within nothing is read."""
    yield from proto.graph.initializer
    for node in proto.graph.node:
        for attribute in node.attribute:
            if attribute.HasField("t"):
                yield attribute.t


def _size_of(tensor: TensorProto) -> int:
    """The bytes of the tensor's values."""
    if tensor.data_type not in _BYTES:
        raise Error(f"{tensor.name}: values of this type are not read from another file")
    size = _BYTES[tensor.data_type]
    for length in tensor.dims:
        if not 0 <= length < 1 << 31:
            raise Error(f"{tensor.name}: no array has the shape {tuple(tensor.dims)}")
        size *= length
    return size


def _read(tensor: TensorProto, size: int, folder: str) -> bytes:
    told = {entry.key: entry.value for entry in tensor.external_data}
    if len(told) != len(tensor.external_data):
        raise Error(f"{tensor.name}: where its values are, stands twice")
    offset = _number(tensor, told.get("offset", "0"))
    length = _number(tensor, told["length"]) if "length" in told else size
    if length != size:
        raise Error(f"{tensor.name}: {length} bytes for an array of {size}")
    location = told.get("location", "")
    path = _path_within(tensor, folder, location)
    try:
        # Nothing waits for a pipe that nobody writes into.
        descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        with open(descriptor, "rb") as file:
            status = os.fstat(descriptor)
            if not stat.S_ISREG(status.st_mode):
                raise Error(f"{tensor.name}: {location!r} is no regular file")
            if status.st_size < offset + size:
                raise Error(f"{tensor.name}: {location!r} ends after {status.st_size} bytes; its values "
                            f"take those from {offset} to {offset + size}")
            file.seek(offset)
            data = file.read(size)
    except OSError as error:
        raise Error(f"{tensor.name}: {location!r} cannot be read: {error.strerror}") from None
    if len(data) != size:
        raise Error(f"{tensor.name}: {location!r} has become shorter")
    return data


def _number(tensor: TensorProto, text: str) -> int:
    if not (text.isascii() and text.isdigit() and len(text) < 19):
        raise Error(f"{tensor.name}: {text!r} is no number of bytes")
    return int(text)


def _path_within(tensor: TensorProto, folder: str, location: str) -> str:
    """The file's path, which stays within the folder wherever links lead."""
    if not location or "\0" in location:
        raise Error(f"{tensor.name}: {location!r} names no file")
    root = os.path.realpath(folder)
    path = os.path.realpath(os.path.join(root, location))
    if os.path.isabs(location) or os.path.commonpath([root, path]) != root:
        raise Error(f"{tensor.name}: {location!r} is not within the model's folder")
    return path
