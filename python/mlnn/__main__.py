"""The commands of the package: python3 -m mlnn export-onnx, import-onnx; and, where the tool was built
along, all of its commands."""
from __future__ import annotations

import argparse
import os
import sys
import warnings
from typing import Any

import numpy as np

import mlnn
from mlnn._messages import _visible


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="mlnn", description="Models as ONNX, and back. The tool, whose commands are more, was not "
                                 "built along with this package.")
    commands = parser.add_subparsers(dest="command", required=True)
    export = commands.add_parser("export-onnx", help="write a model as ONNX")
    export.add_argument("model", help="text model or binary image")
    export.add_argument("out", help="ONNX file to write")
    export.add_argument("--act-fn", choices=mlnn.ACT_FNS,
                        help="activation of hidden layers whose file records none")
    export.add_argument("--quantized", action="store_true",
                        help="write weights that were quantised by rows in 8 bits")
    export.add_argument("--frames", action="extend", nargs="+", metavar="FILE",
                        help="round inputs of quantised layers to 8 bits by what these recordings need")
    export.add_argument("--normalisation", action="store_true",
                        help="begin the graph with the normalisation of frames")
    export.add_argument("--context", action="store_true",
                        help="begin the graph with the context window: it takes a recording's frames")
    fetch = commands.add_parser("import-onnx", help="write an ONNX file as a model")
    fetch.add_argument("onnx", help="ONNX file to read")
    fetch.add_argument("out", help="model to write: .txt, or .mlnn or .bin")
    return parser


def _line_of(error: Exception) -> str:
    """The line that the tool prints of a failure."""
    if isinstance(error, MemoryError):
        return "ERROR: out of memory"
    text = str(error)
    if isinstance(error, OSError) and error.strerror:
        text = error.strerror
        if not text.startswith("ERR"):
            text = f"{error.filename}: {text}"
    return _visible(text if text.startswith("ERR") else f"ERROR: {text}")


def _recording(name: str) -> np.ndarray[Any, Any]:
    """What numpy.save wrote into a file."""
    try:
        with open(name, "rb") as file:
            found = np.load(file, allow_pickle=False)
    except (EOFError, ValueError):
        found = None
    if not isinstance(found, np.ndarray):
        raise ValueError(f"{name}: expected an array in NumPy's format")
    return found


def _vectors_of(model: mlnn.Model, names: list[str]) -> np.ndarray[Any, np.dtype[np.float32]]:
    """The input vectors of recordings in files, one behind the other."""
    found = []
    for name in names:
        frames = _recording(name)
        try:
            stacked = frames.ndim == 2 and frames.shape[1] == model.num_inputs != model.frame_width
            found.append(np.asarray(frames, np.float32) if stacked else model.stack(frames))
        except (TypeError, ValueError) as error:
            raise ValueError(f"{name}: {error}") from None
    return np.concatenate(found)


def _tool() -> str | None:
    """The program of the tool: in the package, or where CMake installs it beside this package."""
    package = os.path.dirname(__file__)
    beside = os.path.join(package, *[os.pardir] * 4, "bin", "mlnn")
    return next((path for path in (os.path.join(package, "_tool"), beside) if _is_program(path)), None)


def _is_program(path: str) -> bool:
    if not os.path.isfile(path) or not os.access(path, os.X_OK):
        return False
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"  # a script could be the one that came here


def main(arguments: list[str] | None = None) -> int:
    words = sys.argv[1:] if arguments is None else arguments
    if words[:1] not in (["export-onnx"], ["import-onnx"]):
        program = _tool()
        if program is not None:
            os.environ.setdefault("MLNN_PYTHON", sys.executable)
            sys.stdout.flush()
            os.execv(program, ["mlnn", *words])
    options = _parser().parse_args(arguments)
    warnings.showwarning = lambda message, *rest: print(
        "Warning: " + _visible(str(message)), file=sys.stderr)
    warnings.simplefilter("always", mlnn.Warning)
    try:
        if options.command == "export-onnx":
            model = mlnn.load(options.model, options.act_fn)
            frames = _vectors_of(model, options.frames) if options.frames else None
            mlnn.to_onnx(model, options.out, quantized=options.quantized, frames=frames,
                         normalisation=options.normalisation, context=options.context)
        else:
            mlnn.from_onnx(options.onnx).save(options.out)
    except (ImportError, MemoryError, OSError, ValueError) as error:
        print(_line_of(error), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
