"""Modules of PyTorch beyond a Sequential of known steps: own ones, compiled ones, those whose
weights are made of others."""
import operator
import random

import numpy as np
import pytest

import mlnn

torch = pytest.importorskip("torch")
nn, functional = torch.nn, torch.nn.functional
TOLERANCE = 1e-5


def trained(module, inputs=5):
    """The module after running statistics have got values of their own."""
    torch.manual_seed(2)
    with torch.no_grad():
        for _ in range(4):
            module.train()(2 * torch.randn(40, inputs) + 0.5)
    return module


def difference(module, inputs=5):
    """The largest one between the model and the module in double precision."""
    modes = [step.training for step in module.modules()]
    model = mlnn.from_torch(module)
    assert [step.training for step in module.modules()] == modes
    frames = np.random.default_rng(3).normal(size=(9, inputs)).astype(np.float32)
    module.eval()
    with torch.no_grad():
        expected = module.double()(torch.from_numpy(frames).double()).numpy()
    module.float()
    outputs = model(frames, stacked=True)
    assert outputs.shape == expected.shape
    return (np.abs(outputs - expected) / (1 + np.abs(expected).max())).max()


def refusal(module):
    try:
        mlnn.from_torch(module)
    except mlnn.Error as error:
        return str(error)
    return None


class Own(nn.Module):
    """A forward function around a few parts, as given."""

    def __init__(self, forward, **parts):
        super().__init__()
        self.compute = forward
        for name, part in parts.items():
            if isinstance(part, torch.Tensor) and not isinstance(part, nn.Parameter):
                self.register_buffer(name, part)
            else:
                setattr(self, name, part)

    def forward(self, x):
        return self.compute(self, x)


def own(forward, **parts):
    torch.manual_seed(1)
    made = {name: part() if callable(part) and not isinstance(part, nn.Module) else part
            for name, part in parts.items()}
    return Own(forward, **made)


def linear(inputs=5, outputs=5, **more):
    return lambda: nn.Linear(inputs, outputs, **more)


VECTOR = torch.tensor([0.5, 1.5, 2.0, -0.75, 3.0])
GELU = "SiLU is the nearest activation that can be: put it in, and train on"


# --- Graphs that are chains ---

@pytest.mark.parametrize("forward", [
    lambda self, x: self.a(x),
    lambda self, x: torch.relu(self.a(x)),
    lambda self, x: functional.relu(self.a(x), inplace=True),
    lambda self, x: self.a(x).relu_(),
    lambda self, x: self.b(self.a(x).tanh()).softmax(-1),
    lambda self, x: functional.softmax(self.b(torch.sigmoid(self.a(x))), dim=1),
    lambda self, x: functional.leaky_relu(self.a(x), 0.01),
    lambda self, x: functional.elu(self.b(functional.softplus(self.a(x)))),
    lambda self, x: functional.silu(self.a(x)),
    lambda self, x: (lambda y: y * torch.sigmoid(y))(self.a(x)),
    lambda self, x: (lambda y: y.sigmoid() * y)(self.a(x)),
    lambda self, x: (lambda y: y * self.gate(y))(self.a(x)),
    lambda self, x: self.a(x).clamp(min=0),
    lambda self, x: torch.clamp_min(self.a(x), 0),
    lambda self, x: torch.maximum(self.a(x), torch.tensor(0.0)),
    lambda self, x: self.a((x - self.v) / 2),
    lambda self, x: self.a(x * self.v + 1).tanh(),
    lambda self, x: self.a(self.v - x).div(3.0).neg(),
    lambda self, x: 1 - self.b(2 * self.a(x).tanh() - self.v),
    lambda self, x: operator.iadd(self.a(x), self.v),
    lambda self, x: operator.itruediv(self.a(x).add_(1), 3),
    lambda self, x: torch.add(self.a(x), self.v, alpha=0.5),
    lambda self, x: torch.sub(self.v, self.a(x), alpha=2),
    lambda self, x: x @ self.a.weight + self.v,
    lambda self, x: torch.addmm(self.v, x, self.a.weight.t(), beta=0.5, alpha=2),
    lambda self, x: functional.linear(x, self.a.weight * self.v, self.a.bias.exp()),
    lambda self, x: self.n(self.a(x)).relu(),
    lambda self, x: self.b(self.n(self.a(self.n(x)).relu())),
    lambda self, x: functional.batch_norm(self.a(x), self.n.running_mean, self.n.running_var,
                                          self.n.weight, self.n.bias, eps=self.n.eps),
    lambda self, x: functional.dropout(self.a(x), 0.5, self.training),
    lambda self, x: functional.alpha_dropout(self.a(x), 0.5),
    lambda self, x: self.a(torch.flatten(x, 1)),
    lambda self, x: self.a(x.view(x.size(0), -1)),
    lambda self, x: self.a(x.reshape(-1, 5)).view(x.shape[0], 5),
    lambda self, x: self.a(x.view(x.shape[0], x.shape[1]).contiguous()),
    lambda self, x: self.a(x.to(torch.float64)) if x is None else self.a(x),
    lambda self, x: (self.a(x) if x is not None else x),
])
def test_own_modules_compute_the_same(forward):
    module = own(forward, a=linear(), b=linear(), v=VECTOR, gate=nn.Sigmoid,
                 n=lambda: trained(nn.BatchNorm1d(5)))
    assert difference(module) < TOLERANCE


class Wrapped(nn.Module):
    def __init__(self, inner):
        super().__init__()
        self.inner = inner

    def forward(self, x, mask=None, scale=2.0):
        x = self.inner(x)
        return x * scale if mask is None else x * mask


class Same(nn.Linear):
    """Another name for what is there already."""


class Positive(nn.Linear):
    def forward(self, x):
        return functional.linear(x, self.weight.abs(), self.bias)


class Named(nn.Sequential):
    def forward(self, x):
        for layer in self:
            x = layer(x).relu()
        return x


def test_wrappers_and_subclasses_compute_the_same():
    torch.manual_seed(1)
    for module in (Wrapped(nn.Sequential(nn.Linear(5, 4), nn.Tanh(), nn.Linear(4, 3))),
                   Wrapped(Wrapped(nn.Linear(5, 2))), Same(5, 3), Positive(5, 3), nn.Linear(5, 2),
                   nn.Sequential(Wrapped(nn.Linear(5, 4)), nn.ReLU(), Same(4, 2), nn.Softmax(1)),
                   Named(nn.Linear(5, 4), nn.Linear(4, 2))):
        assert difference(module) < TOLERANCE
    assert [layer.act_fn for layer in mlnn.from_torch(Named(nn.Linear(5, 4), nn.Linear(4, 2))).layers] == (
        ["relu", "relu"])


def sequential(*more):
    torch.manual_seed(1)
    return trained(nn.Sequential(
        nn.BatchNorm1d(5), nn.Flatten(), nn.Linear(5, 4), nn.BatchNorm1d(4), nn.ReLU(),
        nn.Dropout(0.5), nn.BatchNorm1d(4), nn.Linear(4, 3), *more))


def test_a_norm_before_the_first_linear_map_or_after_an_activation_is_taken_by_the_next():
    module = sequential(nn.Softmax(1))
    model = mlnn.from_torch(module)
    assert [layer.batch_norm for layer in model.layers] == [True, False]
    first = module[0].double()
    scale = first.weight.detach() / torch.sqrt(first.running_var + first.eps)
    assert (model.layers[0].weights == (module[2].weight.detach().double() * scale).float().numpy()).all()
    assert difference(module) < TOLERANCE


@pytest.mark.parametrize("kind", ["Dropout", "Dropout1d", "Dropout2d", "Dropout3d", "AlphaDropout",
                                  "FeatureAlphaDropout"])
def test_dropouts_of_every_kind_do_nothing(kind):
    if not hasattr(nn, kind):
        pytest.skip(f"this PyTorch has no {kind}")
    model = mlnn.from_torch(nn.Sequential(nn.Linear(5, 3), getattr(nn, kind)(0.5), nn.ReLU()))
    assert [layer.act_fn for layer in model.layers] == ["relu"]


@pytest.mark.parametrize("norm", ["weight_norm", "spectral_norm"])
def test_weights_that_are_made_before_each_call_are_those_of_now(norm):
    torch.manual_seed(1)
    module = nn.Sequential(getattr(nn.utils, norm)(nn.Linear(5, 4)), nn.ReLU(), nn.Linear(4, 2))
    trained(module)
    with torch.no_grad():
        first = module[0]
        (first.weight_g if norm == "weight_norm" else first.weight_orig).mul_(3)  # "weight" is stale
    assert difference(module) < TOLERANCE


def test_pruned_layers_are_computed():
    torch.manual_seed(1)
    module = nn.Sequential(nn.Linear(5, 4), nn.ReLU(), nn.Linear(4, 2))
    nn.utils.prune.l1_unstructured(module[0], "weight", 0.5)
    nn.utils.prune.random_unstructured(module[0], "bias", 1)
    nn.utils.prune.ln_structured(module[2], "weight", 0.5, 2, 0)
    with torch.no_grad():
        module[0].weight_orig.mul_(2)
    assert (mlnn.from_torch(module).layers[0].weights == 0).sum() == 10
    assert difference(module) < TOLERANCE


def test_parametrisations_are_computed():
    torch.manual_seed(1)
    module = nn.Sequential(nn.Linear(5, 5), nn.ReLU(), nn.Linear(5, 2))
    nn.utils.parametrizations.orthogonal(module[0])
    nn.utils.parametrizations.spectral_norm(module[2])
    vectors = module[2].parametrizations.weight[0]._u.clone()
    assert difference(module) < TOLERANCE
    assert (vectors.double() == module[2].parametrizations.weight[0]._u).all()


# --- Many ---

def generated(choose):
    """A Sequential of up to a dozen steps, of which not all fit each other."""
    norm = lambda width: trained(nn.BatchNorm1d(width, affine=choose([True, False])), width)
    steps, width = [], 5
    for _ in range(choose([1, 2, 3])):
        if choose([True, False, False]):
            steps.append(norm(width))
        outputs = choose([1, 2, 4])
        linear = nn.Linear(width, outputs, bias=choose([True, False]))
        steps.append(choose([lambda: linear, lambda: nn.utils.weight_norm(linear),
                             lambda: Wrapped(linear)])())
        width = outputs
        for step in (lambda: norm(width), lambda: Wrapped(nn.Identity()), nn.Flatten, nn.AlphaDropout,
                     lambda: choose([nn.ReLU, nn.Tanh, nn.SiLU, nn.Sigmoid, nn.GELU, nn.Softplus])(),
                     lambda: norm(width)):
            if choose([True, False, False]):
                steps.append(step())
    return nn.Sequential(*steps, *([nn.Softmax(1)] if choose([True, False]) else []))


def test_generated_modules_compute_the_same_or_are_refused_by_name():
    taken = refused = 0
    for number in range(60):
        torch.manual_seed(number)
        module = generated(random.Random(number).choice)
        told = refusal(module)
        if told is None:
            assert difference(module) < TOLERANCE, (number, module)
            taken += 1
        else:
            paths = [f"{path} (" for path, _ in module.named_modules()] + ["mul (", "mul_1 ("]
            assert told.startswith(tuple(paths)) or ".mul (" in told, told
            refused += 1
    print(f"{taken} taken, {refused} refused")
    assert taken > 20


# --- Compiled ones ---

@pytest.mark.parametrize("training", [False, True])
@pytest.mark.parametrize("compile", ["trace", "script", "frozen", "fx"])
def test_compiled_modules_compute_the_same(compile, training, tmp_path):
    module = sequential(nn.SiLU(), nn.Linear(3, 2), nn.Softmax(1)).train(training)
    if compile == "trace":
        made = torch.jit.trace(module.eval(), torch.zeros(3, 5)).train(training)
    elif compile == "fx":
        made = torch.fx.symbolic_trace(module)
    else:
        made = torch.jit.script(module)
        made = torch.jit.freeze(made.eval()) if compile == "frozen" else made
    model = mlnn.from_torch(made)
    if compile != "fx":
        torch.jit.save(made, tmp_path / "m.pt")
        assert mlnn.from_torch(torch.jit.load(tmp_path / "m.pt")) == model
    frames = np.random.default_rng(3).normal(size=(9, 5)).astype(np.float32)
    with torch.no_grad():
        expected = module.eval()(torch.from_numpy(frames)).numpy()
    assert np.abs(model(frames, stacked=True) - expected).max() < TOLERANCE


@pytest.mark.parametrize("forward", [
    lambda self, x: functional.softplus(self.a(x)), lambda self, x: self.a((x - self.v) / 2).tanh(),
    lambda self, x: self.a(x.view(x.size(0), -1)).relu(), lambda self, x: x @ self.a.weight + self.v,
    lambda self, x: functional.elu(1 - self.a(torch.flatten(x, 1))),
    lambda self, x: (lambda y: y * torch.sigmoid(y))(self.a(x))])
def test_traced_functions_compute_the_same(forward):
    module = torch.jit.trace(own(forward, a=linear(), v=VECTOR), torch.zeros(3, 5))
    assert difference(module) < TOLERANCE
    assert difference(nn.Sequential(module, nn.Linear(5, 2))) < TOLERANCE
    assert difference(own(lambda self, x: self.inner(x).softmax(1), inner=module)) < TOLERANCE


def test_what_was_traced_in_training_is_refused_by_its_place():
    module = nn.Sequential(nn.Linear(5, 3), nn.Dropout(0.5), nn.Linear(3, 2))
    made = torch.jit.trace(module.train(), torch.zeros(3, 5), check_trace=False)
    assert refusal(made) == "1 (dropout): drops values at inference too; hand it training=self.training"
    made = torch.jit.trace(nn.Sequential(nn.Linear(5, 3), nn.GELU()), torch.zeros(3, 5))
    assert refusal(nn.Sequential(made)) == f"0.1 (gelu) cannot be represented; {GELU}"


# --- What is refused ---

@pytest.mark.parametrize("forward, message", [
    (lambda self, x: functional.gelu(self.a(x)), f"gelu (gelu) cannot be represented; {GELU}"),
    (lambda self, x: self.g(self.a(x)), f"g (GELU) cannot be represented; {GELU}"),
    (lambda self, x: self.a(x) + x,
     "add (add) cannot be represented: it takes more than the value before it"),
    (lambda self, x: self.a(x) * self.b(x), "b (Linear): takes more than the chain's value"),
    (lambda self, x: self.a(x)[:, 0], "getitem (getitem) cannot be represented"),
    (lambda self, x: self.a(x).mean(0), "mean (mean) cannot be represented"),
    (lambda self, x: (self.a(x), x), "the output is not where the chain of steps ends"),
    (lambda self, x: x if x.sum() > 0 else self.a(x),
     "Own: cannot be traced: symbolically traced variables cannot be used as inputs to control flow"),
    (lambda self, x: self.a(x) + torch.randn(5),
     "Own: computes something else than its trace, which cannot be represented"),
    (lambda self, x: functional.dropout(self.a(x)),
     "dropout (dropout): drops values at inference too; hand it training=self.training"),
    (lambda self, x: functional.log_softmax(self.a(x), 1),
     "log_softmax (log_softmax) cannot be represented; leave it out, or end with a Softmax"),
    (lambda self, x: functional.leaky_relu(self.a(x), 0.2),
     "leaky_relu (leaky_relu): negative_slope is 0.2; only 0.01 can be represented"),
    (lambda self, x: self.a(x.half().float()), "half (half) cannot be represented"),
    (lambda self, x: self.a(x.flatten()),
     "flatten (flatten): dimensions 0 to -1; only from 1 on can be represented"),
    (lambda self, x: self.a(x.view(-1, 5)).view(-1, 1),
     "view_1 (view): only a shape that keeps the values of each frame together can be represented"),
    (lambda self, x: self.a(x).view(-1), "view (view): only to frames x values can be represented"),
    (lambda self, x: self.a(x).clamp(0, 6), "clamp (clamp): only from 0 on, as a ReLU, can be represented"),
    (lambda self, x: 1 / self.a(x),
     "truediv (div): only by a constant, and without rounding, can be represented"),
    (lambda self, x: self.a(x) / 0, "truediv (div): by 0 cannot be represented"),
    (lambda self, x: (lambda y: (y.relu_(), y)[1])(self.a(x)),
     "the output is not where the chain of steps ends"),
    (lambda self, x: (lambda y: (torch.sigmoid(y), y.relu_())[0] * y)(self.a(x)),
     "relu_ (relu_): takes a value that the chain has left behind"),
    (lambda self, x: self.a(x) + self.v.mul_(2), "mul_ (mul_): of constants alone cannot be represented"),
    (lambda self, x: self.a(x).mul(torch.ones(4)), "mul (mul): scale of shape (4,) after 5 outputs"),
    (lambda self, x: self.a(x).relu() + 1,
     "add (add): must follow a linear map directly, or stand before one"),
    (lambda self, x: functional.batch_norm(self.a(x), None, None, training=True),
     "batch_norm (batch_norm): keeps no running statistics"),
])
def test_what_is_no_chain_of_known_steps_is_refused_by_its_place(forward, message):
    module = own(forward, a=linear(), b=linear(), v=VECTOR, g=nn.GELU)
    before = {name: value.clone() for name, value in module.state_dict().items()}
    assert refusal(module) == message
    assert all((module.state_dict()[name] == value).all() for name, value in before.items())


def relu(x):
    return torch.tanh(x)


torch.fx.wrap("relu")


def test_a_function_of_another_module_is_not_taken_by_its_name():
    module = own(lambda self, x: relu(self.a(x)), a=linear())
    assert refusal(module) == f"relu ({__name__}.relu) cannot be represented"


def test_hooks_within_own_modules_are_refused():
    for register, part in ("register_forward_hook", "a"), ("register_forward_pre_hook", "inner"):
        inner = Wrapped(nn.Linear(5, 5))
        module = own(lambda self, x: self.inner(self.a(x)), a=linear(), inner=inner)
        getattr(getattr(module, part), register)(lambda *arguments: None)
        assert refusal(module) == (
            f"{part} ({type(getattr(module, part)).__name__}): has forward hooks, which cannot be "
            "represented")
    module = Wrapped(nn.Linear(5, 5))
    module.register_forward_hook(lambda *arguments: None)
    assert refusal(module) == "Wrapped: has forward hooks, which cannot be represented"


def test_what_counts_its_calls_is_refused():
    def counting(self, x):
        self.calls = getattr(self, "calls", 0) + 1
        return self.a(x) * self.calls
    assert refusal(own(counting, a=linear())) == (
        "Own: computes something else than its trace, which cannot be represented")


def test_nothing_of_the_process_changes():
    module = own(lambda self, x: functional.dropout(self.a(x), 0.5, self.training), a=linear())
    module.train()
    torch.manual_seed(5)
    expected = torch.rand(3)
    torch.manual_seed(5)
    mlnn.from_torch(module)
    assert (torch.rand(3) == expected).all()
    assert module.training and module.a.training and torch.is_grad_enabled()
    with pytest.raises(mlnn.Error, match="^dict cannot be represented; expected a torch.nn.Module$"):
        mlnn.from_torch({})
