import pathlib

import numpy as np
import pytest

import mlnn

DIGITS = pathlib.Path(__file__).parents[2] / "examples" / "digits"


@pytest.fixture
def digits():
    assert (DIGITS / "synth.txt").is_file()
    return DIGITS


@pytest.fixture(autouse=True)
def nothing_printed(capfd):
    """Whatever happens, the library prints nothing."""
    yield
    assert capfd.readouterr().err == ""


@pytest.fixture
def model():
    """4 -> 3 (batch norm, tanh) -> 2, softmax, with something in every member."""
    rng = np.random.default_rng(1)
    made = mlnn.Model.from_arrays([
        {"weights": rng.normal(size=(3, 4)), "gamma": [1, 2, 3], "beta": [4, 5, 6],
         "gamma_inf": [0.5, 1.5, -1], "beta_inf": [0.1, 0.2, 0.3], "act_fn": "tanh"},
        (rng.normal(size=(2, 3)), [0.5, -0.5]),
    ])
    made.props = {"name": "small", "odd": "caf\udce9"}
    made.notes = ["made by hand", ""]
    made.loss, made.accuracy = [0.5, 0.25], [0.125]
    made.features = mlnn.FeatureDescription(num_bands=2, win_size_left=1, reserved=7)
    return made


def naive(model, inputs):
    """The forward pass in NumPy, in double precision."""
    x = np.asarray(inputs, np.float64)
    act_fns = {"linear": lambda v: v, "sigmoid": lambda v: 1 / (1 + np.exp(-v)), "tanh": np.tanh,
               "relu": lambda v: np.maximum(v, 0), "leaky_relu": lambda v: np.where(v < 0, v / 100, v),
               "elu": lambda v: np.where(v < 0, np.expm1(v), v),
               "softplus": lambda v: np.logaddexp(0, v), "silu": lambda v: v / (1 + np.exp(-v))}
    for layer in model.layers:
        x = x @ layer.weights.astype(np.float64).T
        x = x * layer.gamma_inf + layer.beta_inf if layer.batch_norm else x + layer.bias
        x = act_fns[layer.act_fn](x)
    if model.softmax:
        x = np.exp(x - x.max(axis=1, keepdims=True))
        x /= x.sum(axis=1, keepdims=True)
    return x
