"""Modules as people have them, each with what becomes of it: the same results, or a refusal by the
place and name of the step, with the way out where there is one."""
import collections

import pytest

torch = pytest.importorskip("torch")
from test_torch import TOLERANCE, Same, Wrapped, difference, own, refusal, trained  # noqa: E402

nn, functional = torch.nn, torch.nn.functional
TAKEN = None
SILU = "; SiLU is the nearest activation that can be: put it in, and train on"


class Mlp(nn.Module):
    """What most write: layers by number, an activation by choice, dropout in between."""

    def __init__(self, widths=(5, 8, 6, 3), activation=nn.ReLU, norm=None, first=False, bias=True):
        super().__init__()
        self.layers = nn.ModuleList(nn.Linear(a, b, bias=bias) for a, b in zip(widths, widths[1:]))
        self.norms = nn.ModuleList(norm(width) if norm else nn.Identity() for width in widths[1:-1])
        self.activation, self.first, self.drop = activation(), first, nn.Dropout(0.3)

    def forward(self, x):
        for layer, norm in zip(self.layers, self.norms):
            x = layer(x)
            x = self.activation(norm(x)) if self.first else norm(self.activation(x))
            x = self.drop(x)
        return self.layers[-1](x)


class Classifier(nn.Module):
    def __init__(self, **more):
        super().__init__()
        self.backbone, self.head = Mlp(**more), nn.Linear(3, 4)

    def features(self, x):
        return torch.tanh(self.backbone(x))

    def forward(self, x, probabilities=True):
        x = self.head(self.features(x))
        return x.softmax(dim=-1) if probabilities else x


class Residual(nn.Module):
    def __init__(self):
        super().__init__()
        self.a, self.b = nn.Linear(5, 5), nn.Linear(5, 2)

    def forward(self, x):
        return self.b(x + self.a(x).relu())


class Heads(nn.Module):
    def __init__(self):
        super().__init__()
        self.a, self.b = nn.Linear(5, 2), nn.Linear(5, 3)

    def forward(self, x):
        return {"a": self.a(x), "b": self.b(x)}


class Noisy(nn.Module):
    def __init__(self):
        super().__init__()
        self.a = nn.Linear(5, 5)

    def forward(self, x):
        return self.a(x + 0.1 * torch.randn_like(x)) if self.training else self.a(x)


class Standardised(nn.Module):
    """Takes raw features, with the statistics of the training set as buffers."""

    def __init__(self):
        super().__init__()
        self.register_buffer("mean", torch.tensor([1.0, -2.0, 3.0, 0.5, 0.0]))
        self.register_buffer("std", torch.tensor([0.5, 2.0, 1.0, 4.0, 1.5]))
        self.net = Mlp()

    def forward(self, x):
        return self.net((x - self.mean) / (self.std + 1e-6))


class Swish(nn.Module):
    def forward(self, x):
        return x * torch.sigmoid(x)


class Scaled(nn.Module):
    """A temperature before the softmax."""

    def __init__(self):
        super().__init__()
        self.net, self.temperature = Mlp(), nn.Parameter(torch.tensor(1.7))

    def forward(self, x):
        return functional.softmax(self.net(x) / self.temperature, dim=1)


class LowRank(nn.Module):
    def __init__(self):
        super().__init__()
        self.u, self.v = nn.Parameter(torch.randn(5, 2)), nn.Parameter(torch.randn(2, 4))

    def forward(self, x):
        return torch.tanh(x @ self.u @ self.v)


class Looping(nn.Module):
    """One layer, several times."""

    def __init__(self):
        super().__init__()
        self.cell = nn.Linear(5, 5)

    def forward(self, x):
        for _ in range(3):
            x = torch.tanh(self.cell(x))
        return x


class Counting(nn.Module):
    def __init__(self):
        super().__init__()
        self.a = nn.Linear(5, 5)
        self.register_buffer("seen", torch.zeros(()))

    def forward(self, x):
        self.seen += 1
        return self.a(x) * self.seen


def sequential(*steps):
    return trained(nn.Sequential(*steps))


def pruned(structured):
    module = nn.Sequential(nn.Linear(5, 4), nn.ReLU(), nn.Linear(4, 2))
    if structured:
        nn.utils.prune.ln_structured(module[0], "weight", 0.5, 2, 0)
    else:
        nn.utils.prune.global_unstructured([(module[0], "weight"), (module[2], "weight")],
                                           pruning_method=nn.utils.prune.L1Unstructured, amount=0.4)
    return module


def removed():
    module = pruned(False)
    for step in module[0], module[2]:
        nn.utils.prune.remove(step, "weight")
    return module


def averaged():
    module = torch.optim.swa_utils.AveragedModel(Mlp())
    module.update_parameters(Mlp())
    return module


def lazy():
    module = nn.Sequential(nn.LazyLinear(4), nn.LazyBatchNorm1d(), nn.ReLU(), nn.LazyLinear(2))
    return trained(module)


def tied():
    module = nn.Sequential(nn.Linear(5, 5), nn.Tanh(), nn.Linear(5, 5))
    module[2].weight = module[0].weight
    return module


MODULES = {
    # Plain ones.
    "linear": (lambda: nn.Linear(5, 3), TAKEN),
    "linear without a bias": (lambda: nn.Linear(5, 3, bias=False), TAKEN),
    "sequential": (lambda: nn.Sequential(nn.Linear(5, 4), nn.ReLU(), nn.Linear(4, 2)), TAKEN),
    "sequential with names": (lambda: nn.Sequential(collections.OrderedDict(
        fc=nn.Linear(5, 4), act=nn.Sigmoid(), out=nn.Linear(4, 2))), TAKEN),
    "nested": (lambda: nn.Sequential(nn.Sequential(nn.Linear(5, 4), nn.Sequential(nn.ELU())), nn.Linear(4, 2)), TAKEN),
    "softmax at the end": (lambda: nn.Sequential(nn.Linear(5, 4), nn.Softmax(dim=-1)), TAKEN),
    "softmax without a dimension": (lambda: nn.Sequential(nn.Linear(5, 4), nn.Softmax()), TAKEN),
    "one output": (lambda: nn.Sequential(nn.Linear(5, 4), nn.ReLU(), nn.Linear(4, 1), nn.Sigmoid()), TAKEN),
    "dropouts": (lambda: nn.Sequential(nn.Dropout(0.2), nn.Linear(5, 4), nn.ReLU(), nn.AlphaDropout(), nn.Linear(4, 2),
                                       nn.FeatureAlphaDropout()), TAKEN),
    "flatten": (lambda: nn.Sequential(nn.Flatten(), nn.Linear(5, 4), nn.Flatten(1), nn.Tanh()), TAKEN),
    "double": (lambda: nn.Sequential(nn.Linear(5, 4), nn.SiLU(), nn.Linear(4, 2)).double(), TAKEN),
    "tied weights": (tied, TAKEN),
    "lazy, with values": (lazy, TAKEN),
    # Own ones.
    "mlp": (Mlp, TAKEN),
    "mlp with silu": (lambda: Mlp(activation=nn.SiLU), TAKEN),
    "mlp with an own swish": (lambda: Mlp(activation=Swish), TAKEN),
    "mlp without biases": (lambda: Mlp(bias=False), TAKEN),
    "deep mlp": (lambda: Mlp(widths=(5,) + (7,) * 12 + (2,), activation=nn.Tanh), TAKEN),
    "classifier": (Classifier, TAKEN),
    "standardised": (Standardised, TAKEN),
    "temperature": (Scaled, TAKEN),
    "low rank": (LowRank, TAKEN),
    "a layer several times": (Looping, TAKEN),
    "noise in training": (Noisy, TAKEN),
    "wrapper": (lambda: Wrapped(Mlp()), TAKEN),
    "wrapper in a wrapper": (lambda: Wrapped(Wrapped(Mlp())), TAKEN),
    "subclass": (lambda: Same(5, 3), TAKEN),
    "arguments by name": (lambda: own(lambda self, x: self.a(input=x), a=lambda: nn.Linear(5, 3)), TAKEN),
    "functions": (lambda: own(lambda self, x: functional.leaky_relu(functional.linear(x, self.w)),
                              w=torch.randn(4, 5)), TAKEN),
    "arithmetic": (lambda: own(lambda self, x: (self.a(2 * x - 1) + 3) / 4, a=lambda: nn.Linear(5, 3)), TAKEN),
    "shapes in between": (lambda: own(lambda self, x: self.a(x.view(x.size(0), -1).contiguous()), a=lambda: nn.Linear(5, 3)),
                          TAKEN),
    "averaged": (averaged, TAKEN),
    "data parallel": (lambda: nn.DataParallel(Mlp()), TAKEN),
    "data parallel within": (lambda: Wrapped(nn.DataParallel(nn.Sequential(nn.Linear(5, 4), nn.Tanh(), nn.Linear(4, 2)))), TAKEN),
    # Normalisation, wherever it stands.
    "norm after linear": (lambda: sequential(nn.Linear(5, 4), nn.BatchNorm1d(4), nn.ReLU(), nn.Linear(4, 2)), TAKEN),
    "norm after an activation": (lambda: sequential(nn.Linear(5, 4), nn.ReLU(), nn.BatchNorm1d(4), nn.Linear(4, 2)),
                                 TAKEN),
    "norm of the input": (lambda: sequential(nn.BatchNorm1d(5), nn.Linear(5, 4), nn.Tanh()), TAKEN),
    "norm without parameters": (lambda: sequential(nn.Linear(5, 4), nn.BatchNorm1d(4, affine=False), nn.ReLU(),
                                                   nn.Linear(4, 2)), TAKEN),
    "norm after a dropout": (lambda: sequential(nn.Linear(5, 4), nn.ReLU(), nn.Dropout(), nn.BatchNorm1d(4),
                                                nn.Linear(4, 2)), TAKEN),
    "mlp, norm first": (lambda: trained(Mlp(norm=nn.BatchNorm1d, first=True)), TAKEN),
    "mlp, activation first": (lambda: trained(Mlp(norm=nn.BatchNorm1d)), TAKEN),
    "norm at the end": (lambda: sequential(nn.Linear(5, 4), nn.BatchNorm1d(4)), TAKEN),
    "norm with a running mean of all": (lambda: sequential(nn.Linear(5, 4), nn.BatchNorm1d(4, momentum=None), nn.ELU()),
                                        TAKEN),
    # Weights that are made of others.
    "weight_norm": (lambda: nn.Sequential(nn.utils.weight_norm(nn.Linear(5, 4)), nn.ReLU(), nn.Linear(4, 2)), TAKEN),
    "spectral_norm": (lambda: nn.Sequential(nn.utils.spectral_norm(nn.Linear(5, 4)), nn.ReLU(), nn.Linear(4, 2)), TAKEN),
    "orthogonal": (lambda: nn.utils.parametrizations.orthogonal(nn.Linear(5, 5)), TAKEN),
    "pruned": (lambda: pruned(False), TAKEN),
    "pruned by rows": (lambda: pruned(True), TAKEN),
    "pruned for good": (removed, TAKEN),
    # Compiled ones.
    "traced": (lambda: torch.jit.trace(Classifier().eval(), torch.zeros(2, 5)), TAKEN),
    "scripted": (lambda: torch.jit.script(Mlp()), TAKEN),
    "traced by fx": (lambda: torch.fx.symbolic_trace(Standardised()), TAKEN),
    "compiled in a sequential": (lambda: nn.Sequential(torch.jit.script(Mlp()), nn.Linear(3, 2)), TAKEN),
    # What has no place.
    "gelu": (lambda: nn.Sequential(nn.Linear(5, 4), nn.GELU(), nn.Linear(4, 2)), f"1 (GELU) cannot be represented{SILU}"),
    "gelu by choice": (lambda: Mlp(activation=nn.GELU), f"activation (GELU) cannot be represented{SILU}"),
    "gelu in data parallel": (lambda: nn.DataParallel(nn.Sequential(nn.Linear(5, 4), nn.GELU())),
                              f"module.1 (GELU) cannot be represented{SILU}"),
    "gelu as a function": (lambda: own(lambda self, x: functional.gelu(self.a(x)), a=lambda: nn.Linear(5, 3)),
                           f"gelu (gelu) cannot be represented{SILU}"),
    "layer norm": (lambda: nn.Sequential(nn.Linear(5, 4), nn.LayerNorm(4), nn.ReLU()),
                   "1 (LayerNorm) cannot be represented; BatchNorm1d can be"),
    "prelu": (lambda: nn.Sequential(nn.Linear(5, 4), nn.PReLU()),
              "1 (PReLU) cannot be represented; LeakyReLU with a slope of 0.01 can be"),
    "another slope": (lambda: nn.Sequential(nn.Linear(5, 4), nn.LeakyReLU(0.2)),
                      "1 (LeakyReLU): negative_slope is 0.2; only 0.01 can be represented"),
    "relu6": (lambda: nn.Sequential(nn.Linear(5, 4), nn.ReLU6()), "1 (ReLU6) cannot be represented; ReLU can be"),
    "log softmax": (lambda: nn.Sequential(nn.Linear(5, 4), nn.LogSoftmax(1)),
                    "1 (LogSoftmax) cannot be represented; leave it out, or end with a Softmax"),
    "softmax within": (lambda: nn.Sequential(nn.Linear(5, 4), nn.Softmax(1), nn.Linear(4, 2)),
                       "2 (Linear): nothing can follow the softmax (1 (Softmax))"),
    "softmax over frames": (lambda: nn.Sequential(nn.Linear(5, 4), nn.Softmax(0)),
                            "1 (Softmax): dim is 0; only 1 and -1 can be represented"),
    "norm before an activation of nothing": (
        lambda: sequential(nn.Linear(5, 4), nn.ReLU(), nn.BatchNorm1d(4)),
        "2 (BatchNorm1d): must follow a linear map directly, or stand before one"),
    "convolution": (lambda: nn.Sequential(nn.Conv1d(1, 2, 3), nn.Flatten(), nn.Linear(6, 2)),
                    "0 (Conv1d) cannot be represented"),
    "recurrent": (lambda: nn.Sequential(nn.GRU(5, 4)), "0 (GRU) cannot be represented"),
    "residual": (Residual, "add (add) cannot be represented: it takes more than the value before it"),
    "two heads": (Heads, "b (Linear): takes more than the chain's value"),
    "that counts": (Counting, "Counting: cannot be traced: "),
    "hooks": (lambda: (lambda module: module[0].register_forward_hook(print) and module)(nn.Sequential(nn.Linear(5, 2))),
              "0 (Linear): has forward hooks, which cannot be represented"),
    "without values": (lambda: nn.Sequential(nn.LazyLinear(4)), "0 (LazyLinear): "),
    "without a linear map": (lambda: nn.Sequential(nn.ReLU()), "0 (ReLU): an activation must follow a linear map"),
}


@pytest.mark.filterwarnings("ignore")  # what PyTorch says of lazy modules and of compiling
@pytest.mark.parametrize("name", MODULES)
def test_each_is_taken_exactly_or_refused_by_place_and_name(name):
    make, expected = MODULES[name]
    torch.manual_seed(1)
    module = make()
    if expected is TAKEN:
        assert difference(module) < TOLERANCE
    else:
        told = refusal(module)
        assert told == expected or (expected.endswith(": ") and told.startswith(expected))


def test_most_are_taken():
    counted = collections.Counter(expected is TAKEN for _, expected in MODULES.values())
    assert counted[True] >= 50 and counted[False] >= 17
