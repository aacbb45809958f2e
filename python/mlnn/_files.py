"""Whole files in and out."""
from __future__ import annotations

import contextlib
import os
from collections.abc import Iterator
from typing import IO, cast

from . import _mlnn


@contextlib.contextmanager
def _told_of(path: str) -> Iterator[None]:
    """What fails within is told of this file, whichever was at work."""
    try:
        yield
    except OSError as error:
        raise OSError(error.errno, error.strerror, path) from None


def _read_from(file: IO[bytes]) -> bytes:
    """All that a file object of bytes has left."""
    data = file.read()
    if not isinstance(data, (bytes, bytearray, memoryview)):
        raise TypeError(f"expected a file of bytes, opened with \"rb\"; it gave {type(data).__name__}")
    return bytes(data)


def _bytes_and_path(
    source: str | os.PathLike[str] | IO[bytes] | bytes,
) -> tuple[bytes, str | None]:
    """The bytes themselves, of a file object, or of the file of that name, with its path if it has one."""
    if isinstance(source, bytes):
        return source, None
    if not isinstance(source, (str, os.PathLike)) and hasattr(source, "read"):
        return _read_from(source), None
    path = os.fspath(cast("str | os.PathLike[str]", source))
    with _told_of(path), open(path, "rb") as file:
        return file.read(), path


def _write_into(file: IO[bytes], data: bytes) -> None:
    """Writes all of it into a file object of bytes, which may take a part at a time."""
    rest = memoryview(data)
    while len(rest):
        taken = file.write(rest)
        rest = rest[len(rest) if taken is None else taken:]


def _write_whole(path: str | os.PathLike[str], data: bytes) -> None:
    """Writes a file that appears when it is complete. What is there but no regular file, like a
    pipe or a device, is written into. Raises OSError, and leaves an older file then."""
    name = os.fsencode(path)
    # "-" is a file here, and no standard output.
    error = _mlnn.write_file(b"./-" if name == b"-" else name, data)
    if error:
        raise OSError(error, os.strerror(error), os.fsdecode(path))
