"""What the library says, as exceptions, warnings and lines of a log."""
from __future__ import annotations

import logging
import sys
import warnings
from collections.abc import Callable


_BEGINNINGS = {"warning": "Warning: ", "info": "info: "}  # of messages that are not errors

_log = logging.getLogger("mlnn")

_Messages = list[tuple[str, bytes]]  # what the library said: severity and text of each message


class Error(ValueError):
    """The library refused something; the text is what it said."""


class Warning(UserWarning):  # noqa: A001  (read as mlnn.Warning)
    """The library did what was asked, but with a reservation."""


def _str(text: bytes) -> str:
    return text.decode("utf-8", "surrogateescape")


def _visible(text: str) -> str:
    """The text with what could drive a terminal, or hide in it, made visible, but for the ends
    of lines: failures may have several."""
    def visible(character: str) -> str:
        if character.isprintable() or character == "\n":
            return character
        if "\udc80" <= character <= "\udcff":  # a byte of a name that is no UTF-8
            return f"\\x{ord(character) - 0xdc00:02x}"
        return character.encode("unicode_escape").decode()
    return "".join(map(visible, text))


def _warn(text: str) -> None:
    """Warns, at the line of the caller that is not of this package."""
    level, frame = 1, sys._getframe()
    while frame.f_back is not None and frame.f_globals.get("__package__") == __package__:
        level, frame = level + 1, frame.f_back
    warnings.warn(text, Warning, stacklevel=level)


def _hear(result: int, messages: _Messages,
          failed: Callable[[int, _Messages], bool] = lambda result, messages: result != 0
          ) -> None:
    """Makes Python's what a call said: an exception, warnings, lines of a log."""
    if failed(result, messages):
        told = [_str(text) for severity, text in messages if severity != "info"]
        raise Error("\n".join(told) or "refused, without a reason")
    for severity, text in messages:
        line = _str(text).removeprefix(_BEGINNINGS.get(severity, ""))
        if severity == "warning":
            _warn(line)
        else:
            _log.info("%s", line)


def _says_error(_result: int, messages: _Messages) -> bool:
    return any(severity == "error" for severity, _ in messages)
