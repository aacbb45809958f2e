"""Models out again: as modules of PyTorch, as arrays, and by names."""
import numpy as np
import pytest

from conftest import naive

import mlnn

WEIGHTS = np.arange(6, dtype=np.float32).reshape(2, 3)


def inputs_for(model, frames=11):
    return np.random.default_rng(5).normal(size=(frames, model.num_inputs)).astype(np.float32)


# --- PyTorch ---

@pytest.fixture
def torch():
    return pytest.importorskip("torch")


@pytest.mark.parametrize("act_fn", mlnn.ACT_FNS)
@pytest.mark.parametrize("softmax", [True, False])
def test_a_module_of_pytorch_gives_the_same_results(torch, model, act_fn, softmax):
    model.layers[0].act_fn = act_fn
    model._core.restore_softmax(softmax)
    module = mlnn.to_torch(model)
    assert type(module) is torch.nn.Sequential and not module.training
    inputs = inputs_for(model)
    with torch.no_grad():
        outputs = module(torch.from_numpy(inputs)).numpy()
        exact = module.double()(torch.from_numpy(inputs).double()).numpy()
    assert np.abs(outputs - model(inputs, stacked=True)).max() < 1e-5
    assert np.abs(exact - naive(model, inputs)).max() < 1e-7
    back = mlnn.from_torch(module.float())
    assert back.softmax == softmax
    for mine, its in zip(model.layers, back.layers):
        assert (mine.batch_norm, mine.act_fn) == (its.batch_norm, its.act_fn)
        for name in "weights", "gamma_inf", "beta_inf" if mine.batch_norm else "bias":
            assert getattr(mine, name).tobytes() == getattr(its, name).tobytes()


def test_the_digits_run_in_pytorch(torch, digits):
    for name in "synth", "synth-bn":
        model = mlnn.load(digits / f"{name}.txt")
        inputs = model.stack(np.load(digits / "frames" / "3_en-us_f4.npy"))
        with torch.no_grad():
            outputs = mlnn.to_torch(model)(torch.from_numpy(inputs)).numpy()
        assert np.abs(outputs - model(inputs, stacked=True)).max() < 2e-5


def test_a_module_shares_nothing_with_its_model(torch, model):
    module = mlnn.to_torch(model)
    before = model.copy()
    with torch.no_grad():
        module[0].weight.zero_()
    assert model == before
    model.layers[0].weights[:] = 7
    assert not module[0].weight.any()


def test_models_that_cannot_run_are_not_exported(torch, model):
    with pytest.raises(mlnn.Error, match="^a model without layers cannot be exported$"):
        mlnn.to_torch(mlnn.Model())


# --- By names ---

def test_values_have_the_names_that_they_have_in_pytorch(torch, model):
    state = model.state_dict()
    module = mlnn.to_torch(model)
    assert list(state) == list(module.state_dict())
    assert list(state) == ["0.weight", "1.weight", "1.bias", "1.running_mean", "1.running_var",
                           "1.num_batches_tracked", "3.weight", "3.bias"]
    for name, values in module.state_dict().items():
        assert (state[name] == values.numpy()).all() and state[name].shape == tuple(values.shape)
    state["3.bias"][:] = [8, 9]
    assert model.layers[1].bias.tolist() == [8, 9]


def test_a_module_that_was_trained_further_goes_back(torch, model):
    module = mlnn.to_torch(model).train()
    optimiser = torch.optim.SGD(module.parameters(), 0.1)
    torch.manual_seed(1)
    for _ in range(3):
        optimiser.zero_grad()
        module(torch.randn(20, 4) + 1)[:, 0].mean().backward()
        optimiser.step()
    assert model.load_state_dict(module.state_dict()) is model
    inputs = inputs_for(model)
    with torch.no_grad():
        expected = module.eval().double()(torch.from_numpy(inputs).double()).numpy()
    assert np.abs(model(inputs, stacked=True) - expected).max() < 1e-5
    same = mlnn.to_torch(model).state_dict()
    model.load_state_dict(same)
    assert all((model.state_dict()[name] == values.numpy()).all() for name, values in same.items())


def test_the_eps_of_a_batch_norm_counts():
    model = mlnn.Model.from_arrays([{"weights": WEIGHTS, "gamma_inf": [1, 1], "beta_inf": [0, 0]}])
    state = {**model.state_dict(), "1.running_var": [3, 8], "1.running_mean": [2, 0]}
    model.load_state_dict(state, eps=1)
    assert model.layers[0].gamma_inf.tolist() == [0.5, np.float32(1 / 3)]
    assert model.layers[0].beta_inf.tolist() == [-1, 0]


@pytest.mark.parametrize("change, message", [
    ({"3.bias": None}, "state: missing 3.bias"), ({"x": [1]}, "state: unexpected x"),
    ({"3.bias": [1, 2, 3]}, "3.bias: the shape is (2,), got (3,)"),
    ({"1.running_var": [1, 0, 1]}, "1.running_var: with eps 0 not positive"),
    ({"0.weight": [1]}, "0.weight: expected 2 dimensions, got shape (1,)"),
])
def test_a_state_that_does_not_fit_changes_nothing(model, change, message):
    state = {**{name: values * 2 for name, values in model.state_dict().items()}, **change}
    before = model.copy()
    with pytest.raises(ValueError) as caught:
        model.load_state_dict({name: values for name, values in state.items() if values is not None})
    assert str(caught.value) == message and model == before


def test_arrays_make_the_same_network(model):
    model.layers[1].gamma = [3, 4]
    arrays = model.to_arrays()
    again = mlnn.Model.from_arrays(arrays, softmax=model.softmax)
    again._take_surroundings(model)
    assert again == model
    arrays[0]["weights"][:] = 0
    assert again == model and set(arrays[1]) == {"weights", "act_fn", "batch_norm", "bias", "gamma"}
