"""The commands of the package: python3 -m mlnn export-onnx, import-onnx."""
from __future__ import annotations

import argparse
import sys
import warnings

import mlnn


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="mlnn", description="Models as ONNX, and back.")
    commands = parser.add_subparsers(dest="command", required=True)
    export = commands.add_parser("export-onnx", help="write a model as ONNX")
    export.add_argument("model", help="text model or binary image")
    export.add_argument("out", help="ONNX file to write")
    export.add_argument("--act-fn", choices=mlnn.ACT_FNS,
                        help="activation of hidden layers whose file records none")
    export.add_argument("--quantized", action="store_true",
                        help="write weights that were quantised by rows in 8 bits")
    fetch = commands.add_parser("import-onnx", help="write an ONNX file as a model")
    fetch.add_argument("onnx", help="ONNX file to read")
    fetch.add_argument("out", help="model to write: .txt, or .mlnn or .bin")
    return parser


def _shown(text: str) -> str:
    """The text with what could drive a terminal, or hide in it, made visible, but for the ends
    of lines: failures may have several."""
    def visible(character: str) -> str:
        if character.isprintable() or character == "\n":
            return character
        if "\udc80" <= character <= "\udcff":  # a byte of a name that is no UTF-8
            return f"\\x{ord(character) - 0xdc00:02x}"
        return character.encode("unicode_escape").decode()
    return "".join(map(visible, text))


def _line_of(error: Exception) -> str:
    """The line that the tool prints of a failure."""
    if isinstance(error, MemoryError):
        return "ERROR: out of memory"
    text = str(error)
    if isinstance(error, OSError) and error.strerror:
        text = error.strerror
        if not text.startswith("ERR"):
            text = f"{error.filename}: {text}"
    return _shown(text if text.startswith("ERR") else f"ERROR: {text}")


def main(arguments: list[str] | None = None) -> int:
    options = _parser().parse_args(arguments)
    warnings.showwarning = lambda message, *rest: print(
        "Warning: " + _shown(str(message)), file=sys.stderr)
    warnings.simplefilter("always", mlnn.Warning)
    try:
        if options.command == "export-onnx":
            mlnn.to_onnx(mlnn.load(options.model, options.act_fn), options.out,
                         quantized=options.quantized)
        else:
            mlnn.from_onnx(options.onnx).save(options.out)
    except (ImportError, MemoryError, OSError, ValueError) as error:
        print(_line_of(error), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
