"""What notebooks show: HTML and pictures."""
import html.parser
import re
import xml.etree.ElementTree

import numpy as np
import pytest

import mlnn


class Reader(html.parser.HTMLParser):
    """Checks that all tags are closed in their order; keeps the tags, and the text of cells."""

    def __init__(self, text):
        super().__init__()
        self.open, self.tags, self.cells = [], set(), []
        self.feed(text)
        self.close()
        assert self.open == []

    def handle_starttag(self, tag, attributes):
        self.tags.add(tag)
        self.open.append(tag)
        if tag in ("td", "th"):
            self.cells.append("")

    def handle_endtag(self, tag):
        assert self.open.pop() == tag

    def handle_data(self, data):
        if self.open and self.open[-1] in ("td", "th"):
            self.cells[-1] += data


def shown(thing):
    text = thing._repr_html_()
    text.encode()  # as notebooks keep it
    for picture in re.findall(r"<svg.*?</svg>", text, re.S):
        xml.etree.ElementTree.fromstring(picture)
    return Reader(text)


def test_a_model_shows_its_network_its_layers_and_what_it_says_of_itself(digits):
    reader = shown(mlnn.load(digits / "synth-bn.txt"))
    assert reader.tags == {"p", "b", "svg", "rect", "polygon", "text", "table", "thead", "tbody", "tr", "th", "td"}
    assert reader.cells[:12] == ["layer", "inputs", "outputs", "kind", "activation", "parameters",
                                 "1", "600", "64", "batch norm", "relu", "38656"]
    assert "label_words" in reader.cells
    text = mlnn.load(digits / "synth-bn.txt")._repr_html_()
    assert "<b>mlnn.Model</b> 600,64,48,10, 42440 parameters, softmax" in text
    assert text.count("<rect") == 4 and text.count("<polygon") == 3
    assert [width for width in re.findall(r'y="14" text-anchor="middle">(\d+)<', text)] == ["600", "64", "48", "10"]


@pytest.mark.parametrize("evil", ["<script>alert(1)</script>", '"><img src=x onerror=alert(1)>', "&lt;b&gt;",
                                  "\x1b[31m\u202e\udcff\x00"])
def test_nothing_that_a_file_says_is_taken_for_html(model, evil):
    model.props[evil] = evil
    model.props["name"] = evil
    model.notes.append(evil)
    other = model.copy()
    other.props[evil] = evil + "2"
    for thing in model, mlnn.diff(model, other), model.digest():
        reader = shown(thing)
        assert not reader.tags & {"script", "img"}
        assert not set("\x1b\u202e\x00") & set(thing._repr_html_())
    if evil.isprintable():
        assert evil in shown(model).cells


def test_long_and_many_values_are_cut():
    model = mlnn.Model.from_arrays([([[1.0]], [0])] * 100)
    model.props = {f"property {i}": "x" * 10**4 for i in range(1000)}
    text = model._repr_html_()
    shown(model)
    assert len(text) < 60000
    assert "… 60 more …" in text and "… 76 more …" in text and "… 960 more …" in text


def test_networks_of_every_size_are_shown():
    empty = mlnn.Model()
    assert "<svg" not in empty._repr_html_()
    shown(empty)
    for outputs in 0, 1, 5:
        model = mlnn.Model.from_arrays([(np.zeros((outputs, 3)), np.zeros(outputs))], softmax=False)
        shown(model)
        shown(model.layers[0])
        shown(model.layers)


def test_a_layer_shows_its_arrays_and_their_values(model):
    layer = model.layers[1]
    layer.weights = [[1, 2, 3], [-1, np.nan, np.inf]]
    reader = shown(layer)
    assert reader.cells == ["array", "shape", "lowest", "mean", "highest", "not finite",
                            "weights", "2 x 3", "-1", "1.25", "3", "2", "bias", "2", "-0.5", "0", "0.5", "0"]
    layer.weights[:] = np.nan
    assert shown(layer).cells[6:12] == ["weights", "2 x 3", "", "", "", "6"]


def test_results_are_shown(model):
    other = model.copy()
    other.layers[0].weights[0, 0] += 1
    frames = np.ones((3, 4), np.float32)
    difference = mlnn.diff(model, other, [frames], stacked=True)
    assert {"layer", "weights.largest", "is_same"} <= set(shown(difference).cells)
    assert {"stage", "layer-1", "difference.largest"} <= set(shown(difference.behaviour).cells)
    for thing in (difference.behaviour, difference.numbers[0], model.budget(), model.digest(),
                  model.trace(frames, stacked=True), model.sweep([frames], [4, 8], stacked=True),
                  model.sweep_quantization([frames], [4, 8], stacked=True),
                  mlnn.compare(model.trace(frames, True), other.trace(frames, True)), model.check()):
        shown(thing)
    assert mlnn.Model.from_arrays([([[1.0]], [0])]).check()._repr_html_()


def test_tables_are_those_of_pandas(model):
    pandas = pytest.importorskip("pandas")
    other = model.copy()
    other.layers[0].weights[0, 0] += 1
    frames = np.ones((3, 4), np.float32)
    sweep = model.sweep([frames], [4, 8], stacked=True).to_pandas()
    assert list(sweep["bits"]) == [4, 8] and isinstance(sweep, pandas.DataFrame)
    proof = model.sweep_quantization([frames], [4, 8], stacked=True).to_pandas()
    assert list(proof["bits"]) == [4, 8] and list(proof["integers.same_best_class"]) == [3, 3]
    difference = mlnn.diff(model, other, [frames], stacked=True)
    arrays = difference.to_pandas()
    assert list(zip(arrays["layer"], arrays["array"])) == [
        (one.layer, name) for one in difference.numbers for name in one.arrays]
    assert arrays.query("layer == 1 and array == 'weights'")["differing"].item() == 1
    stages = difference.behaviour.to_pandas()
    assert list(stages["stage"]) == [stage.stage for stage in difference.behaviour.stages]
    assert list(stages["difference.largest"]) == [
        stage.difference.largest for stage in difference.behaviour.stages]
    trace = model.trace(frames, stacked=True)
    assert (trace.to_pandas("layer-1").to_numpy() == trace["layer-1"]).all()
    found = mlnn.compare(trace, other.trace(frames, stacked=True))
    assert list(found.to_pandas()["a.values"]) == [one.a.values for one in found]
    assert found.to_dict() == [one.to_dict() for one in found]
    assert len(model.check().to_pandas()) == len(model.check())


def png(figure):
    data = figure._repr_png_()
    assert data.startswith(b"\x89PNG\r\n")
    return data


def test_a_figure_has_curves_and_two_pictures_of_each_layer(model):
    pytest.importorskip("matplotlib")
    model.props["name"] = r"$\bad$"
    figure = model.plot()
    axes = [axis for axis in figure.axes if axis.get_visible() and axis.get_title()]
    assert [axis.get_title() for axis in axes] == [
        "loss", "accuracy", "layer 1: weights", "4 -> 3, tanh", "layer 2: weights", "3 -> 2, linear"]
    assert list(axes[0].lines[0].get_ydata()) == [0.5, 0.25]
    assert sum(patch.get_height() for patch in axes[2].patches) == 12
    assert (axes[3].images[0].get_array() == model.layers[0].weights).all()
    png(figure)


def test_what_is_not_finite_stays_empty_in_a_figure():
    pytest.importorskip("matplotlib")
    png(mlnn.Model.from_arrays([([[np.nan, np.inf]], [0])], softmax=False).plot())
    png(mlnn.Model().plot())
    png(mlnn.Model.from_arrays([(np.zeros((0, 2**31 - 1), np.float32), [])], softmax=False).plot())


def test_posteriors_are_shown_under_their_frames(digits):
    pytest.importorskip("matplotlib")
    model = mlnn.load(digits / "synth.txt")
    frames = np.load(digits / "frames" / "3_en-us_f4.npy")
    labels = [f"<{i}>$" for i in range(10)]
    out = model(frames)
    figure = mlnn.plot_posteriors(frames, out, labels)
    assert (figure.axes[0].images[0].get_array() == frames.T).all()
    assert (figure.axes[1].images[0].get_array() == out.T).all()
    png(figure)
    with pytest.raises(ValueError, match="42 frames, but outputs of 41"):
        mlnn.plot_posteriors(frames, out[1:])
    with pytest.raises(ValueError, match="labels: 2 for 10 outputs"):
        mlnn.plot_posteriors(frames, out, ["a", "b"])
