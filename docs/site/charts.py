#!/usr/bin/env python3
"""Draws the files of bench/results for the site, in colours for light and for dark pages.

Usage: charts.py FOLDER          writes FOLDER/charts.rst and the pictures that it shows
"""
import pathlib
import runpy
import sys

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402

ROOT = pathlib.Path(__file__).resolve().parents[2]
TABLES = runpy.run_path(str(ROOT / "bench" / "page"), run_name="page")
THEMES = {"light": ("#222222", "#0b5cad", "#8a8a8a"), "dark": ("#dddddd", "#7ab8ff", "#909090")}
MARKS = {"Eigen": "s", "OpenBLAS": "^", "oneDNN": "v", "xsmm": "D", "xsmm-blk": "P", "Eigen-dist": "X"}

HEAD = """Charts
======

Drawn from the files in ``bench/results``, which ``bench/run forward`` writes; :doc:`/docs/performance` has the same
figures as tables, tells how they are measured, and where a peer is faster.

"""


def colours(theme):
    text = THEMES[theme][0]
    return {"text.color": text, "axes.labelcolor": text, "axes.edgecolor": text, "xtick.color": text,
            "ytick.color": text, "svg.fonttype": "none", "svg.hashsalt": "mlnn", "font.size": 9,
            "font.family": "sans-serif"}


def rows_of(rows, net, hidden):
    return [row for row in rows if row["net"] == net and row["hidden"] == hidden]


def draw_passes(axes, rows, net, hidden, theme):
    """Time of a frame over the number of frames: ours, each peer, and what the processor could do."""
    _text, own, others = THEMES[theme]
    found = rows_of(rows, net, hidden)
    frames = [int(row["frames"]) for row in found]
    for peer in TABLES["peers_of"](found[0]):
        axes.plot(frames, [float(row[peer]) for row in found], color=others, linewidth=0.8,
                  marker=MARKS.get(peer, "."), markersize=3.5, label=peer)
    axes.plot(frames, [float(row["limit"]) for row in found], color=others, linestyle=":", label="limit")
    axes.plot(frames, [float(row["mlnn"]) for row in found], color=own, linewidth=2, marker="o", markersize=4,
              label="mlnn")
    axes.set_xscale("log", base=2)
    axes.set_yscale("log")
    axes.set_xticks(frames, [str(count) for count in frames])
    axes.set_title(f"{TABLES['SHAPES'].get(net, net)}, {hidden}", fontsize=9)


def passes(rows, theme):
    nets = list(dict.fromkeys(row["net"] for row in rows))
    hidden = list(dict.fromkeys(row["hidden"] for row in rows))
    figure, grid = plt.subplots(len(nets), len(hidden), figsize=(7.2, 2.2 * len(nets)), layout="constrained",
                                sharex=True, squeeze=False)
    for line, net in zip(grid, nets):
        for axes, activation in zip(line, hidden):
            draw_passes(axes, rows, net, activation, theme)
        line[0].set_ylabel("µs a frame")
    for axes in grid[-1]:
        axes.set_xlabel("frames at a time")
    figure.get_layout_engine().set(rect=(0, 0, 1, 0.94))
    figure.legend(*grid[0][0].get_legend_handles_labels(), loc="upper center", ncol=4, frameon=False)
    return figure


def precisions(rows, theme):
    """How many times as fast one frame is with weights of fewer bits."""
    found = [row for row in rows if row["hidden"] == "sigmoid" and row["frames"] == "1"]
    figure, axes = plt.subplots(figsize=(7.2, 2.4), layout="constrained")
    for step, (bits, alpha) in enumerate({"8 bits": 1, "4 bits": 0.5}.items()):
        ratios = [float(row["mlnn"]) / float(row[bits]) for row in found]
        places = [place + 0.36 * step for place in range(len(found))]
        bars = axes.bar(places, ratios, 0.34, color=THEMES[theme][1], alpha=alpha, label=bits)
        axes.bar_label(bars, fmt="%.2f")
    axes.axhline(1, color=THEMES[theme][2], linewidth=0.8)
    axes.margins(y=0.15)
    axes.set_xticks([place + 0.18 for place in range(len(found))],
                    [TABLES["SHAPES"].get(row["net"], row["net"]) for row in found])
    axes.set_ylabel("times as fast as floats")
    axes.legend(frameon=False)
    return figure


def drawn(folder, name, draw, rows, alt):
    """Writes a chart in both colours. Returns the lines that show it."""
    text = ""
    for theme in THEMES:
        with plt.rc_context(colours(theme)):
            figure = draw(rows, theme)
            figure.savefig(folder / f"{name}-{theme}.svg", transparent=True, metadata={"Date": None})
            plt.close(figure)
        text += f".. image:: {name}-{theme}.svg\n   :class: only-{theme}\n   :alt: {alt}\n\n"
    return text


def main(folder):
    folder = pathlib.Path(folder)
    text = HEAD
    for path in sorted((ROOT / "bench" / "results").glob("forward-*.tsv")):
        facts, rows = TABLES["read"](path)
        title = f"{facts['processor']}, family {facts['family']}"
        text += f"{title}\n{'-' * len(title)}\n\nCaches of {facts['caches']}. Kernels: {facts['kernels']}; {facts['run']}.\n\n"
        text += "Time of a frame by the number of frames evaluated together; lower is better.\n\n"
        text += drawn(folder, f"{path.stem}-passes", passes, rows,
                      "Microseconds a frame of mlnn and its peers, for each network, as the tables give them")
        text += "One frame, with weights of 8 and of 4 bits, beside floats; higher is better.\n\n"
        text += drawn(folder, f"{path.stem}-bits", precisions, rows,
                      "How many times as fast as floats one frame is with 8 and 4 bits, as the tables give it")
    (folder / "charts.rst").write_text(text, encoding="utf-8")


main(*sys.argv[1:])
