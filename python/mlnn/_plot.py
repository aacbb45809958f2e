"""Pictures by matplotlib, which is imported when they are made. No state of pyplot changes."""
from __future__ import annotations

import io
from collections.abc import Sequence
from typing import TYPE_CHECKING, Any

import numpy as np
import numpy.typing as npt

from ._messages import _visible
from ._values import _CURVES, _Floats, _frames

if TYPE_CHECKING:
    from ._layer import Layer
    from ._model import Model

MOST_LAYERS = 16  # of a picture; a network of more shows the first ones
BINS = 60


def _figure(rows: int, columns: int, width: float, height: float) -> tuple[Any, Any]:
    """A figure that notebooks show, and its axes, rows x columns."""
    from matplotlib.figure import Figure

    class Picture(Figure):  # type: ignore[misc]
        """A figure that shows itself in notebooks, whether pyplot is at work or not."""

        def _repr_png_(self) -> bytes:
            data = io.BytesIO()
            self.savefig(data, format="png")
            return data.getvalue()

    figure = Picture(figsize=(width, height), layout="constrained")
    return figure, figure.subplots(rows, columns, squeeze=False)


def _plain(words: str) -> str:
    """Words for a picture: nothing in them is taken for mathematics."""
    return _visible(words).replace("$", r"\$")


def _finite(values: _Floats) -> npt.NDArray[Any]:
    """The values for an image; those that are not finite stay empty."""
    return np.where(np.isfinite(values), values, np.nan)


def of_model(model: Model) -> Any:
    layers = list(model.layers)[:MOST_LAYERS]
    curves = [(name, list(getattr(model, name))) for name in _CURVES if len(getattr(model, name))]
    rows = len(layers) + bool(curves)
    figure, axes = _figure(max(rows, 1), 2, 9, 2.6 * max(rows, 1))
    used = [_plot_curve(axes[0][i], *curve) for i, curve in enumerate(curves)]
    for row, layer in enumerate(layers, int(bool(curves))):
        _plot_layer(axes[row], row + (not curves), layer)
        used += [axes[row][0], axes[row][1]]
    for one in axes.flat:
        one.set_visible(any(one is axis for axis in used))
    name = model.props.get("name", "")
    figure.suptitle(_plain(f"{name} {model.description}".strip()[:200]))
    return figure


def _plot_curve(axis: Any, name: str, values: Sequence[float]) -> Any:
    axis.plot(range(1, len(values) + 1), values, marker="." if len(values) < 40 else None)
    axis.set_title(name)
    axis.set_xlabel("epoch")
    return axis


def _plot_layer(axes: Any, number: int, layer: Layer) -> None:
    weights = layer.weights
    axes[0].hist(weights[np.isfinite(weights)].astype(np.float64), BINS)
    axes[0].set_title(f"layer {number}: weights")
    axes[1].set_title(f"{layer.num_inputs} -> {layer.num_outputs}, {layer.act_fn}")
    if not weights.size:
        return
    image = axes[1].imshow(_finite(weights), aspect="auto", interpolation="nearest", cmap="coolwarm")
    most = float(np.abs(weights[np.isfinite(weights)]).max(initial=0)) or 1.0
    image.set_clim(-most, most)
    axes[1].set_xlabel("input")
    axes[1].set_ylabel("output")
    axes[1].figure.colorbar(image, ax=axes[1])


def plot_posteriors(frames: npt.ArrayLike, out: npt.ArrayLike,
                    labels: Sequence[str] | None = None) -> Any:
    """A matplotlib figure of a recording: its frames as an image, and under them what a model gives for
    each, as `model(frames)` does. `labels` name the outputs. Notebooks show it; `figure.savefig(path)`
    writes it. Raises ValueError where the two are not of the same number of frames, or labels not of
    the outputs. Needs matplotlib."""
    seen, given = _frames(frames), _frames(out)
    if len(seen) != len(given):
        raise ValueError(f"{len(seen)} frames, but outputs of {len(given)}")
    if labels is not None and len(labels) != given.shape[1]:
        raise ValueError(f"labels: {len(labels)} for {given.shape[1]} outputs")
    figure, axes = _figure(2, 1, 8, 5)
    for axis, values, title in (axes[0][0], seen, "frames"), (axes[1][0], given, "outputs"):
        image = axis.imshow(_finite(values).T, aspect="auto", interpolation="nearest", origin="lower")
        axis.set_title(title)
        axis.set_xlabel("frame")
        figure.colorbar(image, ax=axis)
    axes[0][0].set_ylabel("value")
    axes[1][0].set_ylabel("output")
    if labels is not None:
        axes[1][0].set_yticks(range(len(labels)), [_plain(str(label)) for label in labels])
    return figure
