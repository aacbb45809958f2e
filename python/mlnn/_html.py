"""Models, layers and results as HTML, which notebooks show. Nothing that a file says gets into it
unescaped, and nothing of it grows beyond what one looks at."""
from __future__ import annotations

import dataclasses
import html
from collections.abc import Iterable, Mapping, Sequence
from typing import TYPE_CHECKING, Any

import numpy as np

from ._messages import _visible
from ._results import flat
from ._values import _CURVES, _Floats

if TYPE_CHECKING:
    from ._layer import Layer
    from ._model import Model

LONGEST_TEXT = 200
MOST_ROWS = 40      # of a table; the middle of a longer one is left out
MOST_COLUMNS = 24   # of the picture of a network
BINS = 40

# Lengths of pictures, in pixels.
_STEP, _HEIGHT, _NARROW, _BAR = 96, 120, 12, 14


def text(value: object) -> str:
    """The value as HTML text: escaped, on a line, and cut where it is long."""
    shown = f"{value:.6g}" if isinstance(value, float) else str(value)
    if len(shown) > LONGEST_TEXT:
        shown = shown[:LONGEST_TEXT] + "…"
    return html.escape(_visible(shown).replace("\n", " "))


def table(headings: Sequence[str], rows: Sequence[Sequence[object]]) -> str:
    """A table; numbers to the right."""
    left_out = len(rows) - MOST_ROWS
    lines = [_row(cells) for cells in (rows if left_out <= 0 else rows[:MOST_ROWS // 2])]
    if left_out > 0:
        lines.append(f'<tr><td colspan="{len(headings)}">… {left_out} more …</td></tr>')
        lines += [_row(cells) for cells in rows[-(MOST_ROWS // 2):]]
    head = "".join(f"<th>{text(heading)}</th>" for heading in headings)
    return f"<table><thead><tr>{head}</tr></thead><tbody>{''.join(lines)}</tbody></table>"


def _row(cells: Sequence[object]) -> str:
    return f"<tr>{''.join(_cell(cell) for cell in cells)}</tr>"


def _cell(cell: object) -> str:
    if cell is None:
        return "<td></td>"
    is_number = isinstance(cell, (int, float)) and not isinstance(cell, bool)
    return f'<td style="text-align:{"right" if is_number else "left"}">{text(cell)}</td>'


# --- Pictures ---

def _svg(width: float, height: float, parts: Iterable[str]) -> str:
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:g}" height="{height:g}" '
            f'viewBox="0 0 {width:g} {height:g}" font-family="sans-serif" font-size="11" '
            f'fill="currentColor" style="max-width:100%">{"".join(parts)}</svg>')


def _label(x: float, y: float, words: object) -> str:
    return f'<text x="{x:g}" y="{y:g}" text-anchor="middle">{text(words)}</text>'


def network(model: Model) -> str:
    """A picture of the network: a bar for the inputs and for each layer's outputs, the higher the wider
    the layer, with what lies between."""
    layers = _ends(list(model.layers), MOST_COLUMNS)
    if not layers:
        return ""
    widths: list[int | None] = [model.num_inputs]
    widths += [None if layer is None else layer.num_outputs for layer in layers]
    highest = np.log1p(max(width or 0 for width in widths))
    sizes = [0.0 if width is None else _NARROW + (_HEIGHT - _NARROW) * float(np.log1p(width) / (highest or 1))
             for width in widths]
    middle = 20 + _HEIGHT / 2
    parts = []
    for i, (width, size) in enumerate(zip(widths, sizes)):
        x = _STEP / 2 + i * _STEP
        if i and sizes[i - 1] and size:
            parts.append(_between(x - _STEP, sizes[i - 1], x, size, middle))
        if width is None:
            parts.append(_label(x, middle, f"… {len(model.layers) - MOST_COLUMNS} more …"))
            continue
        parts.append(f'<rect x="{x - _BAR / 2:g}" y="{middle - size / 2:.1f}" width="{_BAR}" '
                     f'height="{size:.1f}" rx="3" fill="#0969da"/>')
        parts.append(_label(x, 14, width))
        layer = layers[i - 1] if i else None
        parts.append(_label(x, 36 + _HEIGHT, layer.act_fn if layer else "inputs"))
        if layer is not None and layer.batch_norm:
            parts.append(_label(x, 50 + _HEIGHT, "batch norm"))
    if model.softmax:
        parts.append(_label(_STEP / 2 + (len(widths) - 1) * _STEP, 64 + _HEIGHT, "softmax"))
    return _svg(_STEP * len(widths), 72 + _HEIGHT, parts)


def _between(x0: float, size0: float, x1: float, size1: float, middle: float) -> str:
    points = [(x0, middle - size0 / 2), (x1, middle - size1 / 2), (x1, middle + size1 / 2),
              (x0, middle + size0 / 2)]
    return (f'<polygon points="{" ".join(f"{x:g},{y:.1f}" for x, y in points)}" '
            'fill="#0969da" fill-opacity="0.15"/>')


def _ends(items: list[Any], most: int) -> list[Any]:
    """The items; where they are too many, those of both ends, and None between them."""
    return items if len(items) <= most else [*items[:most // 2], None, *items[-(most // 2):]]


def histogram(values: _Floats) -> str:
    """A picture of how often values occur, of those that are finite."""
    finite = values[np.isfinite(values)].astype(np.float64)
    if not finite.size:
        return ""
    counts, edges = np.histogram(finite, BINS)
    heights = 60 * counts / counts.max()
    bars = [f'<rect x="{10 + 6 * i}" y="{66 - height:.1f}" width="5" height="{height:.1f}" fill="#0969da"/>'
            for i, height in enumerate(heights)]
    ends = [f'<text x="10" y="80">{edges[0]:.4g}</text>',
            f'<text x="{10 + 6 * BINS}" y="80" text-anchor="end">{edges[-1]:.4g}</text>']
    return _svg(20 + 6 * BINS, 84, [*bars, *ends])


# --- Models and layers ---

def _parameters(layer: Layer) -> int:
    return sum(getattr(layer, name).size for name in layer._used())


def layers_table(layers: Sequence[Layer]) -> str:
    rows = [[i, layer.num_inputs, layer.num_outputs, "batch norm" if layer.batch_norm else "plain",
             layer.act_fn, _parameters(layer)] for i, layer in enumerate(layers, 1)]
    return table(["layer", "inputs", "outputs", "kind", "activation", "parameters"], rows)


def of_model(model: Model) -> str:
    parameters = sum(map(_parameters, model.layers))
    parts = [f"<p><b>mlnn.Model</b> {text(model.description)}, {parameters} parameters"
             f"{', softmax' if model.softmax else ''}</p>", network(model), layers_table(model.layers)]
    features = str(model.features).strip()
    rows: list[Sequence[object]] = [["features", features]] if model.features.num_bands else []
    if model.normalisation is not None:
        rows.append(["normalisation", "of frames, by mean and scale"])
    rows += [[name, value] for name, value in model.props.items()]
    rows += [[name, f"{len(curve)} values, the last {curve[-1]:.6g}"]
             for name in _CURVES for curve in [getattr(model, name)] if len(curve)]
    if len(model.notes):
        rows.append(["notes", f"{len(model.notes)} lines, the last: {model.notes[-1]}"])
    return "".join([*parts, table(["", ""], rows) if rows else ""])


def of_layer(layer: Layer) -> str:
    kind = "batch norm" if layer.batch_norm else "plain"
    rows = [_array_row(name, getattr(layer, name)) for name in layer._used()]
    return (f"<p><b>mlnn.Layer</b> {layer.num_inputs} → {layer.num_outputs}, {kind}, {text(layer.act_fn)}</p>"
            + table(["array", "shape", "lowest", "mean", "highest", "not finite"], rows)
            + histogram(layer.weights))


def _array_row(name: str, values: _Floats) -> list[object]:
    finite = values[np.isfinite(values)]
    shape = " x ".join(map(str, values.shape))
    if not finite.size:
        return [name, shape, None, None, None, values.size]
    return [name, shape, float(finite.min()), float(finite.mean(dtype=np.float64)), float(finite.max()),
            values.size - finite.size]


# --- Results ---

def of_result(result: Any) -> str:
    """A result: what it says itself, then each thing that it holds more of."""
    plain: list[Sequence[object]] = []
    inner = []
    for field in dataclasses.fields(result):
        value = getattr(result, field.name)
        if isinstance(value, (list, dict)) or dataclasses.is_dataclass(value):
            inner.append(f"<p>{text(field.name)}</p>{_of_value(value)}")
        else:
            plain.append([field.name, value])
    name = f"<p><b>mlnn.{text(type(result).__name__)}</b></p>"
    return "".join([name, table(["", ""], plain) if plain else "", *inner])


def _of_value(value: Any) -> str:
    if isinstance(value, dict):
        return of_mapping(value)
    return of_list(value) if isinstance(value, list) else of_result(value)


def of_list(results: Sequence[Any]) -> str:
    """Results of one kind, one a row."""
    if not results:
        return "<p>none</p>"
    rows = [flat(result) for result in results]
    headings = list(dict.fromkeys(name for row in rows for name in row))
    return table(headings, [[row.get(name) for name in headings] for row in rows])


def of_mapping(values: Mapping[str, Any]) -> str:
    if all(isinstance(value, np.ndarray) for value in values.values()):
        return table(["array", "shape", "lowest", "mean", "highest", "not finite"],
                     [_array_row(name, value) for name, value in values.items()])
    if all(dataclasses.is_dataclass(value) for value in values.values()):
        rows = [{"": name, **flat(value)} for name, value in values.items()]
        headings = list(dict.fromkeys(name for row in rows for name in row))
        return table(headings, [[row.get(name) for name in headings] for row in rows])
    return table(["", ""], list(values.items()))
