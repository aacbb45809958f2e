"""Handlers of signals, as that of Ctrl-C, run while the library is at work.

The library looks for signals every few hundredths of a second. So each test takes work that is longer than that,
however fast the machine is: it doubles the work until a handler that is due before it begins runs within."""
import ctypes
import functools
import signal
import time

import numpy as np
import pytest

import mlnn
from mlnn import _mlnn

RAISE = functools.partial(getattr(ctypes.CDLL(None), "raise"), int(signal.SIGUSR1))
INFINITE = float("inf")


class Stopped(Exception):
    pass


def runs_within(call, handle):
    """Whether a handler that is due before a call of C++ begins, runs within it and ends it."""
    ended = []

    def handler(*_):
        handle()
        raise Stopped

    # Of these no step is a line of Python, between which the handler could run.
    steps = [RAISE, functools.partial(call), functools.partial(ended.append, True)]
    before = signal.signal(signal.SIGUSR1, handler)
    try:
        tuple(map(functools.partial.__call__, steps))
        time.sleep(0.01)  # where it runs at the latest
        raise AssertionError("the handler did not run")
    except Stopped:
        return not ended
    finally:
        signal.signal(signal.SIGUSR1, before)


def stop(make, smallest, largest, handle=lambda: None):
    """Whether the handler runs within the call that `make` gives for a size."""
    size = smallest
    while size <= largest:
        if runs_within(make(size), handle):
            return True
        size *= 2
    return False


def wide(size):
    """A network of so many weights."""
    rng = np.random.default_rng(1)
    rows = size // 256
    return mlnn.Model.from_arrays([(rng.normal(size=(rows, 256)).astype(np.float32), np.zeros(rows))])


def square():
    rng = np.random.default_rng(1)
    return mlnn.Model.from_arrays([(rng.normal(size=(512, 512)).astype(np.float32), np.zeros(512), "tanh")] * 3)


FRAMES = 2**8, 2**18  # the fewest and the most
WEIGHTS = 2**14, 2**25
WEIGHTS_TO_COPY = 2**21, 2**28


def ones(size):
    return np.ones((size, 512), np.float32)


def test_while_a_model_runs():
    model = square()
    told = []

    def handle():
        try:
            model.zeros()
        except RuntimeError as error:
            assert model(ones(1), stacked=True).shape == (1, 512)  # reading is allowed
            told.append(str(error))

    assert stop(lambda size: functools.partial(model._core.evaluate, ones(size), True, None, 1), *FRAMES, handle)
    assert told == ["the model cannot be changed while this thread runs it"]
    assert not model.zeros().layers[0].weights.any()


def test_while_a_model_is_analysed():
    model, other = square(), square()
    bits = functools.partial(functools.partial, _mlnn.sweep, model._core)
    assert stop(lambda size: bits([("a", ones(size))], [-1], [8], True), *FRAMES)
    assert stop(lambda size: functools.partial(_mlnn.prove_quantization, model._core, [("a", ones(size))], [-1],
                                               [8], False, INFINITE, None, 1.0, True), *FRAMES)
    assert stop(lambda size: functools.partial(_mlnn.trace, model._core, ones(size), True), *FRAMES)
    assert stop(lambda size: functools.partial(_mlnn.behaviour_differences, model._core, other._core,
                                               [("a", ones(size))], True, 0.0), *FRAMES)
    assert model == other


def test_while_a_text_is_written():
    assert stop(lambda size: functools.partial(wide(size)._core.written, "text"), *WEIGHTS)


def test_while_a_text_is_read():
    assert stop(lambda size: functools.partial(_mlnn.open, wide(size).to_text(), ""), *WEIGHTS)


def test_while_an_array_of_c_is_written():
    assert stop(lambda size: functools.partial(wide(size)._core.c_array, "a"), *WEIGHTS)


def counted(size):
    """A network of so many weights that is made soon."""
    weights = np.arange(size, dtype=np.float32).reshape(-1, 256)
    return mlnn.Model.from_arrays([(weights, np.zeros(len(weights)))])


def coded(size):
    """The same with weights that are whole multiples."""
    model = counted(size)
    model.layers[0].weights %= 127
    return model


def test_while_a_model_is_copied():
    assert stop(lambda size: counted(size)._core.copy, *WEIGHTS_TO_COPY)


def test_while_a_layer_becomes_bytes():
    assert stop(lambda size: counted(size).layers[0]._layer.record, *WEIGHTS_TO_COPY)
    assert stop(lambda size: coded(size).layers[0]._layer.record, *WEIGHTS)


def test_while_a_layer_is_made_of_bytes():
    model = mlnn.Model()

    def append(size):
        model.layers = []  # nor what was too short to be stopped
        return functools.partial(model._core.append_record, counted(size).layers[0]._layer.record())

    assert stop(append, *WEIGHTS_TO_COPY)
    assert not model.layers


def test_while_the_codes_of_weights_are_sought():
    assert stop(lambda size: coded(size).layers[0]._layer.row_codes, *WEIGHTS)


def test_a_layer_that_is_not_drawn_to_the_end_is_not_there():
    rows = WEIGHTS[0] // 256, WEIGHTS[1] // 256
    model = mlnn.Model()

    def first(outputs):
        model.layers = []
        return functools.partial(model._core.create_first, 256, outputs, 0.1, False)

    def draw():
        mlnn.Model().create_first_layer(2, 2)  # which a handler may, too

    assert stop(first, *rows, draw)
    assert not model.layers
    model.create_first_layer(3, 256)
    before = model.copy()

    def second(outputs):
        model.layers[1:] = []
        model.notes = []
        return functools.partial(model._core.add_random, outputs, 0.1, True)

    assert stop(second, *rows, draw)
    assert model == before


def test_a_handler_may_change_what_a_layer_must_fit():
    model = mlnn.Model()
    model.create_first_layer(2, 256)

    def handler(*_):
        model.layers = [(np.zeros((3, 2)), np.zeros(3))]

    before = signal.signal(signal.SIGUSR1, handler)
    try:
        tuple(map(functools.partial.__call__, [RAISE, functools.partial(model._core.add_random, 2**12, 0.1, False)]))
        time.sleep(0.01)
    finally:
        signal.signal(signal.SIGUSR1, before)
    assert len(model.layers) == 1 or model.layers[1].num_inputs == 3


def test_a_model_that_is_not_quantised_to_the_end_stays_as_it_is():
    model = None

    def make(size):
        nonlocal model
        model = wide(size)
        return functools.partial(model._core.quantize, 8, True, INFINITE, None)

    assert stop(make, *WEIGHTS)
    assert model == wide(model.layers[0].weights.size)
    model = square()
    assert stop(lambda size: functools.partial(model._core.quantize, 8, False, INFINITE, ones(size)), *FRAMES)
    assert model == square()


def test_what_a_handler_changes_of_a_model_that_is_quantised_is_quantised():
    model = wide(2**18)

    def handler(*_):
        nonlocal model
        model *= 0.5

    before = signal.signal(signal.SIGUSR1, handler)
    try:
        quantize = functools.partial(model._core.quantize, 8, True, INFINITE, None)
        tuple(map(functools.partial.__call__, [RAISE, quantize]))
        time.sleep(0.01)
    finally:
        signal.signal(signal.SIGUSR1, before)
    expected = wide(2**18)
    expected *= 0.5  # which is the same before as afterwards
    assert model == expected.quantize(8, least_squares=True)


def test_a_file_that_is_not_written_to_the_end_is_not_there(tmp_path):
    path = tmp_path / "m.mlnn"

    def make(size):
        path.write_bytes(b"old")  # which a shorter one has replaced before the signal came
        return functools.partial(_mlnn.write_file, str(path).encode(), bytes(size))

    assert stop(make, 2**24, 2**29)
    assert path.read_bytes() == b"old" and list(tmp_path.iterdir()) == [path]
