"""What one can know about models: check, diagnose, digest, budget, trace, diff, compare, average,
sweep."""
import json

import numpy as np
import pytest
from conftest import naive

import mlnn


def inputs_for(model, frames=20, seed=5):
    rng = np.random.default_rng(seed)
    return rng.normal(size=(frames, model.num_inputs)).astype(np.float32)


def plain(model):
    """Without a feature description that its frames would have to fit."""
    model.features = mlnn.FeatureDescription()
    return model


# --- One model ---

def test_a_check_finds_what_can_hardly_be_meant(digits, model):
    assert mlnn.load(digits / "synth.txt").check() == []
    model = plain(model)
    model.layers[1].weights[1, 2] = np.nan
    found = {suspicion.kind: suspicion for suspicion in model.check()}
    nan = found["values_not_finite"]
    assert (nan.layer, nan.array, nan.row, nan.column, nan.count) == (2, "weights", 2, 3, 1)
    assert str(nan) == nan.text and "weights" in nan.text and nan.line is None
    assert nan.to_dict()["row"] == 2


def test_a_model_in_memory_knows_its_activations(model):
    for layer in model.layers:
        layer.act_fn = "linear"
    kinds = {suspicion.kind for suspicion in model.check()}
    assert "activation_not_recorded" not in kinds and "hidden_layers_linear" in kinds


def test_a_diagnosis_finds_the_first_place_that_does_not_fit(digits, tmp_path):
    text = (digits / "synth.txt").read_bytes()
    assert mlnn.diagnose(digits / "synth.txt") is None and mlnn.diagnose(text) is None
    lines = text.split(b"\n")
    place = next(i for i, line in enumerate(lines) if line.startswith(b"layer 1 size "))
    lines[place + 2] = b"nonsense " + lines[place + 2]
    (tmp_path / "broken.txt").write_bytes(b"\n".join(lines))
    misfit = mlnn.diagnose(tmp_path / "broken.txt")
    assert (misfit.line, misfit.column) == (place + 3, 1)
    assert misfit.offset == len(b"\n".join(lines[:place + 2])) + 1
    assert misfit.found == "'nonsense'" and misfit.field.startswith("layer 1, ")
    assert str(misfit).startswith(f"line {place + 3}, column 1: {misfit.field}")
    image = mlnn.load(digits / "synth.txt").to_bytes()
    assert mlnn.diagnose(image[:-1]).line is None
    with pytest.raises(FileNotFoundError):
        mlnn.diagnose(tmp_path / "none")
    assert mlnn.diagnose(b"\xff").to_dict()["expected"] == mlnn.diagnose(b"\xff").expected


def test_a_digest_tells_which_parts_changed(model):
    before = model.digest()
    assert before == model.copy().digest() and before.changes_since(before) == []
    assert set(before.sections) >= {"features", "layers", "layer 1", "layer 2", "notes", "softmax"}
    model.layers[0].weights[0, 0] += 1
    model.notes.append("changed")
    after = model.digest()
    changed = {name for name in after.sections if after.sections[name] != before.sections[name]}
    assert changed == {"layer 1", "layers", "notes"}
    assert [line.partition(":")[0] for line in after.changes_since(before)] == ["notes", "layers", "layer 1"]
    image = model.digest("image")
    assert image.sections["layer 1"] == after.sections["layer 1"] and "notes" not in image.sections
    assert image.changes_since(after) == []
    with pytest.raises(ValueError, match='format must be "text" or "image"'):
        model.digest("csv")


def test_a_budget_counts_what_the_shape_says(model):
    found = model.budget()
    assert found.multiply_adds == 3 * 4 + 3 + 2 * 3 and found.activations == 3 + 2
    assert found.parameter_bytes == 4 * sum(
        getattr(layer, name).size for layer in model.layers
        for name in ("weights", "bias", "gamma", "beta", "gamma_inf", "beta_inf"))
    assert found.image_bytes == len(model.to_bytes()) and found.text_bytes == len(model.to_text())
    assert found.integer_pass is None and found.quantized is None
    quantized = mlnn.Model.from_arrays([(np.random.default_rng(1).normal(size=(50, 70)), np.zeros(50))])
    quantized = quantized.quantize().budget()
    assert quantized.integer_pass.integer_layers == 1 and "8 bits" in quantized.quantized
    assert json.loads(json.dumps(quantized.to_dict()))["integer_pass"]["integer_layers"] == 1
    model.layers[0].weights[0, 0] = np.nan
    assert model.budget().text_bytes is None  # a text that could not be read again


def test_a_trace_has_the_values_of_every_stage(model):
    model = plain(model)
    inputs = inputs_for(model, 700)
    trace = model.trace(inputs)
    assert list(trace.stages) == ["inputs", "layer-1-affine", "layer-1", "layer-2-affine", "layer-2",
                                  "outputs"]
    assert (trace["inputs"] == inputs).all() and (trace["outputs"] == model(inputs)).all()
    first = model.layers[0]
    affine = inputs @ first.weights.T * first.gamma_inf + first.beta_inf
    assert np.allclose(trace["layer-1-affine"], affine, atol=1e-5)
    assert np.allclose(trace["layer-1"], np.tanh(trace["layer-1-affine"]), atol=1e-6)
    assert np.abs(trace["outputs"] - naive(model, inputs)).max() < 1e-5
    with pytest.raises(ValueError, match="the recording"):
        model.trace(np.zeros((2, 3)))
    with pytest.raises(ValueError):
        mlnn.Model().trace(np.zeros((2, 3)))


def test_a_trace_is_gone_through_by_its_stages(model):
    trace = model.trace(np.zeros((3, 4)), stacked=True)
    assert list(trace) == list(trace.stages) and len(trace) == len(trace.stages) and "layer-1" in trace
    assert all(trace[stage] is values for stage, values in trace.stages.items())


def test_the_trace_of_single_frames_is_that_of_their_input_vectors(digits):
    model = mlnn.load(digits / "synth.txt")
    frames = np.load(sorted((digits / "frames").glob("*.npy"))[0])
    trace = model.trace(frames)
    assert (trace["inputs"] == model.stack(frames)).all()
    assert (trace["outputs"] == model(frames)).all()
    assert (model.trace(model.stack(frames), stacked=True)["outputs"] == model(frames)).all()


# --- Several ---

def test_a_difference_is_false_where_models_are_the_same(model):
    model = plain(model)
    same = mlnn.diff(model, model.copy(), [inputs_for(model)])
    assert not same and same.statements == [] and all(layer.is_same for layer in same.numbers)
    assert same.behaviour.same_decisions == same.behaviour.frames == 20
    assert same.behaviour.first_beyond is None and same.quantized is None
    assert not mlnn.diff(model, model)
    assert mlnn.diff(model, model).behaviour is None


def test_differences_are_found_in_statements_numbers_and_behaviour(model):
    model = plain(model)
    other = model.copy()
    other.props["name"] = "other"
    other.notes = []
    other.layers[1].bias[1] += 0.5
    found = mlnn.diff(model, other, {"first": inputs_for(model), "second": inputs_for(model, 3, 6)})
    assert found
    assert ("property name", "small", "other") in [(s.what, s.a, s.b) for s in found.statements]
    assert [layer.is_same for layer in found.numbers] == [True, False]
    bias = found.numbers[1].arrays["bias"]
    assert (bias.count, bias.differing, bias.largest, bias.row, bias.column) == (2, 1, 0.5, 1, 0)
    assert found.numbers[1].arrays["weights"].differing == 0
    beyond = found.behaviour.first_beyond
    assert beyond.stage == "layer-2-affine" and beyond.unit == 1
    assert beyond.difference.largest == pytest.approx(0.5, abs=1e-6)
    assert (found.behaviour.recordings, found.behaviour.frames) == (2, 23)
    outputs = np.concatenate([model(inputs_for(model)), model(inputs_for(model, 3, 6))])
    others = np.concatenate([other(inputs_for(model)), other(inputs_for(model, 3, 6))])
    last = found.behaviour.stages[-1]
    assert last.stage == "outputs" and last.recording in ("first", "second")
    assert last.difference.largest == np.abs(outputs.astype(float) - others).max()
    assert found.behaviour.same_decisions == (outputs.argmax(1) == others.argmax(1)).sum()
    assert json.loads(json.dumps(found.to_dict()))["behaviour"]["frames"] == 23
    loose = mlnn.diff(model, other, [inputs_for(model)], tolerance=2)
    assert loose.behaviour.first_beyond is None
    with pytest.raises(ValueError, match="recording 1"):
        mlnn.diff(model, other, [np.zeros((3, 9))])


def test_without_frames_no_place_differs_most(model):
    model = plain(model)
    for recordings in ([], [inputs_for(model, 0)]):
        found = mlnn.diff(model, model, recordings)
        assert not found and found.behaviour.frames == 0
        assert all((s.recording, s.frame, s.unit) == ("", 0, 0) for s in found.behaviour.stages)


def test_only_models_are_compared_and_averaged(model):
    for call in (lambda: mlnn.diff(model, 3), lambda: mlnn.diff(None, model), lambda: mlnn.average([model, "x"])):
        with pytest.raises(TypeError, match="^expected a model, got (int|NoneType|str)$"):
            call()


def test_a_quantised_model_is_told_as_such():
    model = mlnn.Model()
    model.create_first_layer(20, 10)
    assert mlnn.diff(model, model.copy().quantize(6)).quantized == "6 bits in layer 1"


def test_traces_are_compared_stage_by_stage(model):
    model = plain(model)
    inputs = inputs_for(model)
    trace = model.trace(inputs)
    assert not any(stage.is_beyond for stage in mlnn.compare(trace, trace))
    changed = {name: values.copy() for name, values in trace.stages.items() if name != "layer-1"}
    changed["outputs"][7, 1] += 0.25
    found = {stage.stage: stage for stage in mlnn.compare(trace, changed)}
    assert [name for name, stage in found.items() if stage.is_beyond] == ["layer-1", "outputs"]
    assert not found["layer-1"].b.is_present
    outputs = found["outputs"]
    assert (outputs.difference.row, outputs.difference.column) == (1, 7)  # values x frames
    assert outputs.difference.largest == pytest.approx(0.25)
    assert outputs.b.value_at_largest == changed["outputs"][7, 1]
    common = mlnn.compare(trace, changed, common_only=True, tolerance=1)
    assert "layer-1" not in [s.stage for s in common] and not any(s.is_beyond for s in common)
    with pytest.raises(ValueError, match="no stage is called 'layer'"):
        mlnn.compare(trace, {"layer": inputs})


def test_a_mean_is_weighted(model):
    other = model.copy()
    for layer in other.layers:
        layer.weights[...] *= 3
    mean = mlnn.average([model, other])
    for one, three in zip(mean.layers, model.layers):
        assert (one.weights == 2 * three.weights).all()
    assert (mean.layers[1].bias == model.layers[1].bias).all() and mean.notes == model.notes
    weighted = mlnn.average(iter([model, other]), weights=[3, 1])
    assert np.allclose(weighted.layers[0].weights, 1.5 * model.layers[0].weights, rtol=1e-6)
    assert mlnn.average([model]) == model and mlnn.average([model, model, model]) == model
    for models, weights, kind, message in [
            ([], None, ValueError, "expected one model at least"),
            ([model, other], [1], ValueError, "weights: 1 for 2 models"),
            ([model, other], [1, 0], ValueError, "weights: expected numbers above 0"),
            ([model, mlnn.Model()], None, mlnn.Error, "model 2: "),
            ([model, model.copy().delete_layers(1)], None, mlnn.Error, "model 2: ")]:
        with pytest.raises(kind, match=f"^{message}"):
            mlnn.average(models, weights)


def test_a_sweep_measures_each_width(digits):
    model = mlnn.load(digits / "synth.txt")
    paths = sorted((digits / "frames").glob("*.npy"))[:6]
    recordings = [np.load(path) for path in paths]
    best = [int(np.log(np.maximum(model(frames), 1e-30)).sum(0).argmax()) for frames in recordings]
    before = model.copy()
    found = model.sweep(recordings, [4, 20], classes=[*best[:5], None])
    assert model == before
    assert (found.recordings, found.right_recordings) == (6, 5)
    assert found.frames == sum(map(len, recordings))
    coarse, fine = found.losses
    assert (coarse.bits, fine.bits) == (4, 20) and fine.right_recordings == 5
    reduced = model.copy().retain_precision_bits(4)
    pairs = [(model(frames), reduced(frames)) for frames in recordings]
    assert coarse.largest_output_difference == max(
        np.abs(a.astype(float) - b).max() for a, b in pairs)
    assert coarse.same_best_class == sum((a.argmax(1) == b.argmax(1)).sum() for a, b in pairs)
    assert fine.largest_weight_error < coarse.largest_weight_error
    with pytest.raises(ValueError, match="^classes: 1 for 6 recordings$"):
        model.sweep(recordings, [4], classes=[0])
    with pytest.raises(ValueError, match="^bits: expected 0 to 31, got 32$"):
        model.sweep(recordings, [32])
    with pytest.raises(ValueError, match="^classes: expected 0 to "):
        model.sweep(recordings[:1], [4], classes=[999])


def small():
    """Two classes: 7 x + y + 0.5 against 5 x + 2.4 y. With 2 bits y is lost."""
    return mlnn.Model.from_arrays([([[7, 1], [5, 2.4]], [0.5, 0])], softmax=False)


X, Y = np.array([[1, 0]], np.float32), np.array([[0, 1], [0, 2], [0, 4]], np.float32)


def test_a_proof_of_quantisation_tells_what_is_lost():
    model = small()
    before = model.copy()
    found = model.prove_quantization({"x": X, "y": Y}, 2, classes=[0, 1], keep=0.75)
    assert model == before
    assert (found.recordings, found.known_recordings, found.frames, found.keep) == (2, 2, 4, 0.75)
    assert (found.right_recordings, found.accuracy, found.smallest_width) == (2, 1, None)
    assert found.image_bytes == len(model.to_bytes())
    [loss] = found.losses
    assert (loss.bits, loss.keeps) == (2, False)
    assert loss.image_bytes == len(model.copy().quantize(2).to_bytes())
    assert loss.floats.to_dict() == loss.integers.to_dict() == {
        "same_best_class": 1, "same_best_class_share": 0.25, "right_recordings": 1, "accuracy": 0.5}
    assert [stage.stage for stage in loss.stages] == ["layer-1-affine", "layer-1", "outputs"]
    assert loss.stages[-1].values == 2 and loss.stages[-1].largest == float(np.float32(2.4) * 4)


def test_a_sweep_of_quantisation_finds_the_width_to_take():
    model = small()
    found = model.sweep_quantization([X, Y], [8, 2, 3], keep=1)
    assert [loss.bits for loss in found.losses] == [8, 2, 3]
    assert [loss.keeps for loss in found.losses] == [True, False, True]
    assert found.smallest_width == 3
    assert found.right_recordings is found.accuracy is found.losses[0].floats.accuracy is None
    assert [loss.bits for loss in model.sweep_quantization([X]).losses] == [4, 5, 6, 7, 8]
    lenient = model.sweep_quantization(iter([X, Y]), range(2, 9), classes=[None, 1], keep=0)
    assert (lenient.smallest_width, lenient.known_recordings, lenient.accuracy) == (2, 1, 1)


def test_a_proof_of_quantisation_takes_the_options_of_quantize():
    model = small()
    corrected = model.prove_quantization([X, Y], 2, correct=Y).losses[0]
    assert corrected.floats.same_best_class == 3
    changed = model.copy().quantize(2, correct=Y)
    differences = np.abs(changed(np.vstack([X, Y])).astype(float) - model(np.vstack([X, Y])))
    assert corrected.stages[-1].mean == pytest.approx(differences.mean(), rel=1e-12)
    left = model.prove_quantization([X, Y], 2, largest_error=0.1).losses[0]
    assert left.stages[-1].largest == 0 and left.image_bytes == len(model.to_bytes())


def test_a_proof_of_quantisation_takes_scales_of_the_least_squared_error(rng=np.random.default_rng(3)):
    model = mlnn.Model.from_arrays([(rng.normal(size=(3, 20)), np.zeros(3), "tanh")], softmax=False)
    inputs = rng.normal(size=(50, 20)).astype(np.float32)
    squares, largest = (model.prove_quantization([inputs], 3, least_squares=one).losses[0].stages[-1].mean
                        for one in (True, False))
    expected = np.abs(model.copy().quantize(3, least_squares=True)(inputs).astype(float) - model(inputs)).mean()
    assert squares == pytest.approx(expected, rel=1e-12) and squares != largest


def test_a_proof_of_quantisation_says_what_the_tool_says(digits):
    model = mlnn.load(digits / "synth.txt")
    recordings = [np.load(path) for path in sorted((digits / "frames").glob("*.npy"))]
    found = model.sweep_quantization(recordings)
    assert found.smallest_width == 8 and found.image_bytes == 174220
    assert [f"{loss.floats.same_best_class_share:.4f}" for loss in found.losses] == [
        "0.5562", "0.8178", "0.9116", "0.9445", "0.9671"]


@pytest.mark.parametrize("call, kind, message", [
    (lambda m: m.prove_quantization([X], 9), ValueError, "bits: expected 2 to 8, got 9"),
    (lambda m: m.sweep_quantization([X], [1]), ValueError, "bits: expected 2 to 8, got 1"),
    (lambda m: m.prove_quantization([X], keep=1.5), ValueError, "keep: expected 0 to 1, got 1.5"),
    (lambda m: m.prove_quantization([X], keep=float("nan")), ValueError, "keep: expected 0 to 1, got nan"),
    (lambda m: m.prove_quantization([X], classes=[0, 1]), ValueError, "classes: 2 for 1 recordings"),
    (lambda m: m.prove_quantization([X], classes=[2]), ValueError, "classes: expected 0 to 1, got 2"),
    (lambda m: m.prove_quantization([X], correct=np.ones((1, 3))), ValueError,
     "correct: input vectors of 3 values; expected 2"),
    (lambda m: m.prove_quantization({"a": np.ones((1, 3))}), ValueError, "a has 3 values in a frame; expected 2 "),
    (lambda m: m.prove_quantization({"a": X * np.nan}), ValueError,
     "a: the outputs are not finite, which proves nothing"),
])
def test_a_proof_of_quantisation_refuses(call, kind, message):
    model = small()
    before = model.copy()
    with pytest.raises(kind, match=f"^{message}"):
        call(model)
    assert model == before


def test_a_model_that_cannot_be_quantised_proves_nothing():
    model = mlnn.Model.from_arrays([([[np.inf, 1]], [0], "sigmoid")], softmax=False)
    with pytest.raises(mlnn.Error, match="^ERROR: quantizeRows: layer 1 has a weight that is not finite$"):
        model.prove_quantization([np.array([[1, 0]])])
