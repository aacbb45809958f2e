"""Layers that are put into models, taken out, copied and pickled."""
import copy
import pickle
import threading

import numpy as np
import pytest

from conftest import naive

import mlnn


def inputs_for(model, frames=11):
    return np.random.default_rng(5).normal(size=(frames, model.num_inputs)).astype(np.float32)


def test_layers_are_copied_and_pickled(model):
    for made in (model.layers[0].copy(), copy.copy(model.layers[0]), copy.deepcopy(model.layers[0]),
                 pickle.loads(pickle.dumps(model.layers[0]))):
        assert made != model.layers[0] and repr(made) == repr(model.layers[0])
        assert made._layer.record() == model.layers[0]._layer.record()
        made.weights[:] = 0
        assert model.layers[0].weights.any()
    pickled = pickle.dumps(model.layers[0])
    record = model.layers[0]._layer.record()
    with pytest.raises(ValueError, match="^not the record of a layer$"):
        pickle.loads(pickled.replace(record, b"\xff" * len(record)))


def test_layers_go_in_and_out(model):
    inputs = inputs_for(model)
    first, last = model.layers
    expected = model(inputs, stacked=True)
    model.layers.insert(1, (np.eye(3), np.zeros(3)))
    assert model.description == "4,3,3,2" and model.layers[0] == first and model.layers[2] == last
    assert np.abs(model(inputs, stacked=True) - expected).max() < 1e-6
    del model.layers[1]
    assert (model(inputs, stacked=True) == expected).all()
    model.layers[1] = (np.ones((5, 3)), np.zeros(5))
    assert model.description == "4,3,5" and len(model.layers) == 2
    assert last.bias.tolist() == [0.5, -0.5]  # goes on living
    model.layers[1] = last
    assert model.layers[1] != last and (model(inputs, stacked=True) == expected).all()
    model.layers.append(([[1, 1]], [0]))
    popped = model.layers.pop()
    assert popped.weights.tolist() == [[1, 1]] and model.description == "4,3,2"
    model.layers[:] = [([[1, 2]], [3], "relu")]
    assert model.description == "2,1" and model.layers[0].act_fn == "relu"
    model.layers = [*model.layers, ([[4]], [0])]
    assert model.description == "2,1,1"
    model.layers.clear()
    assert model.description == mlnn.Model().description and first.num_inputs == 4


def test_views_of_layers_that_were_replaced_are_their_own(model):
    weights = model.layers[0].weights
    before = weights.copy()
    model.layers[0] = (np.zeros((3, 4)), np.zeros(3))
    weights *= 2
    assert (weights == 2 * before).all() and not model.layers[0].weights.any()


@pytest.mark.parametrize("edit, message", [
    (lambda layers: layers.insert(1, (np.eye(4), np.zeros(4))), "layer 2: 4 inputs after 3 outputs"),
    (lambda layers: layers.insert(1, (np.ones((4, 3)), np.zeros(4))), "layer 3: 3 inputs after 4 outputs"),
    (lambda layers: layers.__setitem__(0, (np.ones((2, 4)), np.zeros(2))),
     "layer 2: 3 inputs after 2 outputs"),
    (lambda layers: layers.__setitem__(slice(None), [([[1]], [0]), ([[1, 2]], [0])]),
     "layer 2: 2 inputs after 1 outputs"),
    (lambda layers: layers.append(([[1]], [0])), "layer 3: 1 inputs after 2 outputs"),
    (lambda layers: layers.__delitem__(slice(None, None, 2)),
     "layers: only such as follow each other can be replaced"),
    (lambda layers: layers.insert(0, ([[1]], [0, 0])), "layer 1: bias has 2 values for 1 outputs"),
])
def test_layers_that_do_not_fit_change_nothing(model, edit, message):
    before = model.copy()
    with pytest.raises(ValueError) as caught:
        edit(model.layers)
    assert str(caught.value) == message and model == before
    with pytest.raises(IndexError, match="^layer 2 of 2$"):
        model.layers[2] = model.layers[0]


def test_a_pass_that_is_kept_sees_the_layers_of_now(model):
    inputs = inputs_for(model, 1)
    for _ in range(3):
        model(inputs, stacked=True)
        model.layers[1] = (np.ones((7, 3)), np.arange(7))
        assert model(inputs, stacked=True).shape == (1, 7)
        model.layers[0] = (np.ones((3, 4)), np.zeros(3))
        assert np.abs(model(inputs, stacked=True) - naive(model, inputs)).max() < 1e-6


def test_layers_of_another_model_and_of_this_one_go_in(model):
    other = model.copy()
    model.layers = other.layers
    assert model == other
    model.layers[:] = [*model.layers, (np.eye(2), [1, 1]), *other.layers[:0]]
    assert model.description == "4,3,2,2" and other.description == "4,3,2"
    model.layers[1:2] = [other.layers[1], (np.eye(2), [0, 0], "relu")]
    assert [layer.act_fn for layer in model.layers] == ["tanh", "linear", "relu", "linear"]


def test_threads_may_run_a_model_whose_layers_are_replaced(model):
    """Each result is that of one of the two layers, never of something between."""
    inputs = inputs_for(model, 40)
    variants = [(np.full((2, 3), value), [value, -value]) for value in (1.0, 3.0)]
    expected = []
    for variant in variants:
        model.layers[1] = variant
        expected.append(model(inputs, stacked=True))
    results, stop = [], threading.Event()

    def run():
        while not stop.is_set() or not results:
            results.append(model(inputs, stacked=True))

    threads = [threading.Thread(target=run) for _ in range(2)]
    for thread in threads:
        thread.start()
    for number in range(200):
        model.layers[1] = variants[number % 2]
    stop.set()
    for thread in threads:
        thread.join()
    assert all(any((result == one).all() for one in expected) for result in results)
