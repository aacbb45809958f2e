"""Models of other frameworks: PyTorch, scikit-learn.

A network is taken step by step: linear maps, scale-and-shift (batch norm), activations and a
softmax at the end. What a model has no place for is refused by its name.
"""
from __future__ import annotations

import numpy as np

from . import Error, Model

LEAKY_SLOPE = 0.01  # of leaky_relu
ELU_ALPHA = 1.0     # of elu
_SINGLE = np.finfo(np.float32).eps


class Network:
    """Gathers the steps of a network and makes the model."""

    def __init__(self):
        self._layers: list[dict] = []
        self._softmax = None  # the name of the step, once there is one
        self._open = False    # whether the last layer may still take a scale or an activation

    def linear(self, name: str, weights, bias) -> None:
        self._refuse_after_softmax(name)
        weights = np.asarray(weights, np.float64)
        bias = np.zeros(len(weights)) if bias is None else np.asarray(bias, np.float64)
        self._layers.append({"weights": weights, "bias": bias, "act_fn": "linear"})
        self._open = True

    def shift(self, name: str, values) -> None:
        """Adds values to the outputs of a linear map that stands right before."""
        self._need_linear(name)
        layer = self._layers[-1]
        layer["bias"] = layer["bias"] + np.broadcast_to(np.asarray(values, np.float64),
                                                        layer["bias"].shape)

    def batch_norm(self, name: str, gamma, beta, mean, var, eps: float) -> None:
        """Makes the linear map right before a batch-norm layer."""
        self._need_linear(name)
        layer = self._layers[-1]
        if "gamma_inf" in layer:
            raise Error(f"{name}: a second batch norm after one linear map cannot be represented")
        gamma, beta, mean, var = (np.asarray(v, np.float64) for v in (gamma, beta, mean, var))
        scale = gamma / np.sqrt(var + eps)
        offset = layer.pop("bias") - mean
        shift = np.where(offset == 0, beta, beta + offset * scale)  # as is, the sign of 0 too
        layer.update(gamma=gamma, beta=beta, gamma_inf=scale, beta_inf=shift)

    def activation(self, name: str, act_fn: str) -> None:
        self._refuse_after_softmax(name)
        if act_fn == "linear":
            return
        if not self._layers or self._layers[-1]["act_fn"] != "linear":
            raise Error(f"{name}: an activation must follow a linear map")
        self._layers[-1]["act_fn"] = act_fn
        self._open = False

    def softmax(self, name: str) -> None:
        self._refuse_after_softmax(name)
        if not self._layers:
            raise Error(f"{name}: a softmax must follow a linear map")
        self._softmax, self._open = name, False

    def model(self) -> Model:
        layers = [{key: value if key == "act_fn" else np.asarray(value, np.float32)
                   for key, value in layer.items()} for layer in self._layers]
        return Model.from_arrays(layers, softmax=self._softmax is not None)

    def _refuse_after_softmax(self, name: str) -> None:
        if self._softmax:
            raise Error(f"{name}: nothing can follow the softmax ({self._softmax})")

    def _need_linear(self, name: str) -> None:
        self._refuse_after_softmax(name)
        if not self._open:
            raise Error(f"{name}: must follow a linear map directly")


def parameter(name: str, what: str, found: float, wanted: float) -> None:
    """Refuses a step whose parameter is not the one that a model's activation has."""
    if abs(found - wanted) > _SINGLE * abs(wanted):
        raise Error(f"{name}: {what} is {found:g}; only {wanted:g} can be represented")


def _tensor(values):
    return None if values is None else values.detach().cpu().double().numpy()


def _add_torch(network: Network, name: str, step) -> None:
    from torch import nn
    plain = {nn.Sigmoid: "sigmoid", nn.Tanh: "tanh", nn.ReLU: "relu", nn.SiLU: "silu",
             nn.LeakyReLU: "leaky_relu", nn.ELU: "elu", nn.Softplus: "softplus"}
    kind = type(step)
    if kind is nn.Sequential:
        for key, inner in step.named_children():
            _add_torch(network, f"{name}.{key}" if name else key, inner)
        return
    name = f"{name} ({kind.__name__})"
    if kind is nn.Linear:
        network.linear(name, _tensor(step.weight), _tensor(step.bias))
    elif kind is nn.BatchNorm1d:
        if step.running_mean is None:
            raise Error(f"{name}: keeps no running statistics")
        ones = np.ones(step.num_features)
        gamma, beta = (ones, 0 * ones) if not step.affine else map(_tensor, (step.weight, step.bias))
        network.batch_norm(name, gamma, beta, _tensor(step.running_mean),
                           _tensor(step.running_var), step.eps)
    elif kind in plain:
        if kind is nn.LeakyReLU:
            parameter(name, "negative_slope", step.negative_slope, LEAKY_SLOPE)
        elif kind is nn.ELU:
            parameter(name, "alpha", step.alpha, ELU_ALPHA)
        elif kind is nn.Softplus:
            parameter(name, "beta", step.beta, 1.0)
            if step.threshold < 17:  # where log1p(exp(-x)) is below half a single-precision step
                raise Error(f"{name}: threshold is {step.threshold:g}; from 17 on it does not show")
        network.activation(name, plain[kind])
    elif kind is nn.Softmax:
        if step.dim not in (1, -1):
            raise Error(f"{name}: dim is {step.dim}; only 1 and -1 can be represented")
        network.softmax(name)
    elif kind not in (nn.Identity, nn.Dropout):  # which do nothing at inference
        raise Error(f"{name} cannot be represented")


def from_torch(module) -> Model:
    """Makes a model that computes what the torch.nn.Sequential does in its evaluation mode.

    Takes Linear, BatchNorm1d (after a Linear), Sigmoid, Tanh, ReLU, LeakyReLU, ELU, Softplus,
    SiLU, Softmax at the end, Identity and Dropout, and Sequentials of these. Batch norm becomes
    a batch-norm layer: `gamma` and `beta` are the learned values, `gamma_inf` and `beta_inf`
    come from the running statistics.
    Raises Error, with the name of the step, for whatever else there is.
    """
    from torch import nn
    if type(module) is not nn.Sequential:
        raise Error(f"{type(module).__name__} cannot be represented; expected a Sequential")
    network = Network()
    _add_torch(network, "", module)
    return network.model()


_SKLEARN = {"identity": "linear", "logistic": "sigmoid", "tanh": "tanh", "relu": "relu"}


def from_sklearn(estimator) -> Model:
    """Makes a model that computes the estimator's predict_proba, or a regressor's predict.

    Takes a fitted MLPClassifier or MLPRegressor. Outputs are in the order of `classes_`, which
    the property `labels` names; a classifier of two classes has one output, the probability of
    the second. The loss curve comes along.
    Raises Error for anything else.
    """
    from sklearn.neural_network import MLPClassifier, MLPRegressor
    name = type(estimator).__name__
    if type(estimator) not in (MLPClassifier, MLPRegressor):
        raise Error(f"{name} cannot be represented; expected an MLPClassifier or MLPRegressor")
    if not hasattr(estimator, "coefs_"):
        raise Error(f"{name}: is not fitted")
    network = Network()
    last = len(estimator.coefs_) - 1
    for i, (weights, bias) in enumerate(zip(estimator.coefs_, estimator.intercepts_)):
        network.linear(f"{name} layer {i + 1}", weights.T, bias)
        act_fn = estimator.activation if i < last else estimator.out_activation_
        if act_fn == "softmax":
            network.softmax(name)
        else:
            network.activation(f"{name} layer {i + 1}", _SKLEARN[act_fn])
    model = network.model()
    model.loss = getattr(estimator, "loss_curve_", ())
    if hasattr(estimator, "classes_"):
        model.props["labels"] = ",".join(str(label) for label in estimator.classes_)
    return model
