#!/usr/bin/env python3
"""Writes the pages of the reference that are made: a page for each header of the interface, and one
that shows what the command says of itself.

Usage: reference.py FOLDER TOOL HEADER...      writes into FOLDER; TOOL is the command `mlnn`
"""
import itertools
import pathlib
import re
import subprocess
import sys

ABOUT = {
    "features": "What a model expects on its input.",
    "layers": "One layer, and the messages of the library.",
    "model": "The container, its files, and operations on whole models.",
    "inference": "Forward passes, and what stands around them.",
    "analysis": "What one can know about models: the library ``mlnn::analysis``.",
}


def heading(text, line):
    return f"{text}\n{line * len(text)}\n\n"


def toctree(pages):
    return ".. toctree::\n   :maxdepth: 1\n\n" + "".join(f"   {page}\n" for page in pages) + "\n"


def header_page(header):
    return heading(header, "=") + f".. doxygenfile:: {header}\n"


def cpp_page(headers):
    text = heading("C++", "=")
    text += ("These headers are installed, and are the interface. :doc:`/docs/architecture` tells how the code is cut,\n"
             ":doc:`/docs/hacking` what a program includes and links.\n\n")
    for folder, names in itertools.groupby(headers, lambda name: name.split("/")[0]):
        text += heading(folder, "-") + ABOUT[folder] + "\n\n" + toctree(name[:-2] for name in names)
    return text


def c_page(headers):
    text = heading("C", "=") + ":doc:`The guide </docs/c>` tells how a program uses it.\n\n"
    return text + toctree(name[:-2] for name in headers)


def says(tool, *words):
    found = subprocess.run([tool, *words], check=True, capture_output=True, text=True)
    return "\n".join(f"   {line}".rstrip() for line in found.stdout.splitlines())


def command_page(tool):
    """What `--help` prints of the command, and of each of its commands."""
    whole = says(tool, "--help")
    commands = re.findall(r"^     ([a-z-]+)  ", whole.split("Subcommands:")[1], re.MULTILINE)
    text = heading("The command", "=") + ":doc:`The guide </docs/tool>` tells what its commands have in common.\n\n"
    text += f".. code-block:: none\n\n{whole}\n\n"
    for command in commands:
        text += heading(f"mlnn {command}", "-") + f".. code-block:: none\n\n{says(tool, command, '--help')}\n\n"
    return text


def write(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text, encoding="utf-8")


def main(folder, tool, *headers):
    folder = pathlib.Path(folder)
    of_c = [name for name in headers if name.startswith("c/")]
    of_cpp = [name for name in headers if name not in of_c]
    for header in headers:
        write(folder / f"{header[:-2]}.rst", header_page(header))
    write(folder / "cpp.rst", cpp_page(of_cpp))
    write(folder / "c.rst", c_page(of_c))
    write(folder / "command.rst", command_page(tool))


main(*sys.argv[1:])
