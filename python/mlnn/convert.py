"""Models of other frameworks: PyTorch, scikit-learn.

A network is taken step by step: linear maps, scale-and-shift (batch norm), activations and a
softmax at the end. What a model has no place for is refused by its name.
"""
from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

from . import Error, Model

LEAKY_SLOPE = 0.01  # of leaky_relu
ELU_ALPHA = 1.0     # of elu
_SINGLE = float(np.finfo(np.float32).eps)

_Array = npt.NDArray[Any]


class Network:
    """Gathers the steps of a network and makes the model.

    Every step has a name, by which an Error refuses it: where it does not fit the steps before it,
    or where a finite value becomes infinite or undefined in single precision. What is
    computed is computed in double precision; an array of which nothing is computed stays as it
    is, to the last bit.
    """

    def __init__(self) -> None:
        self._layers: list[dict[str, Any]] = []
        self._softmax: str | None = None  # the name of the step, once there is one
        self._open = False  # whether the last layer may still take a shift, a scale or an activation

    @property
    def num_outputs(self) -> int:
        """The outputs of the last linear map; 0 where there is none."""
        return len(self._layers[-1]["weights"]) if self._layers else 0

    def linear(self, name: str, weights: npt.ArrayLike, bias: npt.ArrayLike | None) -> None:
        """Adds a linear map: weights of outputs x inputs, and a bias or none."""
        self._refuse_after_softmax(name)
        weights = _numbers(name, "weights", weights)
        if weights.ndim != 2:
            raise Error(f"{name}: expected weights of two dimensions, found shape {weights.shape}")
        if self._layers and weights.shape[1] != self.num_outputs:
            raise Error(f"{name}: takes {weights.shape[1]} inputs after {self.num_outputs} outputs")
        if 0 in weights.shape:
            raise Error(f"{name}: weights of shape {weights.shape} compute nothing")
        _single(name, "weights", weights, weights)
        if bias is not None:
            bias = _vector(name, "bias", bias, len(weights))
            _single(name, "bias", bias, bias)
        self._layers.append({"weights": weights, "bias": bias, "act_fn": "linear"})
        self._open = True

    def shift(self, name: str, values: npt.ArrayLike) -> None:
        """Adds values to the outputs of a linear map that stands right before."""
        layer = self._linear_before(name)
        shift = _vector(name, "shift", values, self.num_outputs)
        bias = layer["bias"]
        if bias is None:
            _single(name, "shift", shift, shift)
            layer["bias"] = shift
        else:
            with np.errstate(invalid="ignore"):
                layer["bias"] = bias.astype(np.float64) + shift
            _single(name, "shift", layer["bias"], bias, shift)

    def batch_norm(self, name: str, gamma: npt.ArrayLike, beta: npt.ArrayLike,
                   mean: npt.ArrayLike, var: npt.ArrayLike, eps: float) -> None:
        """Makes the linear map right before a batch-norm layer."""
        layer = self._linear_before(name)
        outputs = self.num_outputs
        given = [_vector(name, what, values, outputs) for what, values in
                 (("gamma", gamma), ("beta", beta), ("mean", mean), ("variance", var))]
        for what, values in zip(("gamma", "beta"), given):
            _single(name, what, values, values)
        bias = np.zeros(outputs) if layer["bias"] is None else layer["bias"]
        with np.errstate(all="ignore"):  # what matters of it is refused
            gamma64, beta64, mean64, var64 = (values.astype(np.float64) for values in given)
            if (var64 + eps <= 0).any():
                raise Error(f"{name}: variance {np.nanmin(var64):g} plus eps {eps:g} is not positive")
            offset = bias.astype(np.float64) - mean64
            root = np.sqrt(var64 + eps)
            scale = gamma64 / root
            shift = beta64 + offset * scale
        scale = _single(name, "scale", scale, given[0], given[3])
        shift = _single(name, "shift", shift, bias, *given)
        del layer["bias"]
        layer.update(gamma=given[0], beta=given[1], gamma_inf=_as_given(given[0], root == 1, scale),
                     beta_inf=_as_given(given[1], offset == 0, shift))

    def activation(self, name: str, act_fn: str) -> None:
        """Gives the linear map before an activation, by the name that models have for it."""
        self._refuse_after_softmax(name)
        if act_fn == "linear":
            return
        if not self._layers or self._layers[-1]["act_fn"] != "linear":
            raise Error(f"{name}: an activation must follow a linear map")
        self._layers[-1]["act_fn"] = act_fn
        self._open = False

    def softmax(self, name: str) -> None:
        """Ends the network."""
        self._refuse_after_softmax(name)
        if not self._layers:
            raise Error(f"{name}: a softmax must follow a linear map")
        self._softmax, self._open = name, False

    def model(self) -> Model:
        """The model. Raises Error for a network without a linear map."""
        if not self._layers:
            raise Error("the network has no linear map")
        return Model.from_arrays(self._layers, softmax=self._softmax is not None)

    def _refuse_after_softmax(self, name: str) -> None:
        if self._softmax:
            raise Error(f"{name}: nothing can follow the softmax ({self._softmax})")

    def _linear_before(self, name: str) -> dict[str, Any]:
        """The layer whose linear map stands right before, which has no batch norm."""
        self._refuse_after_softmax(name)
        if not self._open:
            raise Error(f"{name}: must follow a linear map directly")
        if "gamma_inf" in self._layers[-1]:
            raise Error(f"{name}: cannot be represented after the batch norm of a linear map")
        return self._layers[-1]


def _numbers(name: str, what: str, values: npt.ArrayLike) -> _Array:
    if isinstance(values, np.ma.MaskedArray):
        raise Error(f"{name}: {what}: a masked array cannot be represented")
    array = np.asarray(values)
    if array.dtype.kind not in "fiu":
        raise Error(f"{name}: {what}: expected real numbers, found {array.dtype}")
    return array


def _vector(name: str, what: str, values: npt.ArrayLike, outputs: int) -> _Array:
    array = _numbers(name, what, values)
    if array.shape != (outputs,):
        raise Error(f"{name}: {what} of shape {array.shape} after {outputs} outputs")
    return array


def _single(name: str, what: str, values: _Array, *sources: _Array) -> _Array:
    """The values in single precision, which must be finite where the sources are."""
    with np.errstate(over="ignore"):
        single = values.astype(np.float32, copy=False)
    lost = ~np.isfinite(single)
    for source in sources if lost.any() else ():
        lost = lost & np.isfinite(source)
    if lost.any():
        raise Error(f"{name}: {what}: {values[lost].flat[0]:g} is beyond single precision")
    return single


def _as_given(given: _Array, where: _Array, computed: _Array) -> _Array:
    """What was computed, but the given values, bit for bit, where they come out unchanged."""
    result = computed.copy()
    result[where] = given[where]
    return result


def parameter(name: str, what: str, found: float, wanted: float) -> None:
    """Refuses a step whose parameter is not the one that a model's activation has."""
    if not abs(found - wanted) <= _SINGLE * abs(wanted):
        raise Error(f"{name}: {what} is {found:g}; only {wanted:g} can be represented")


def _tensor(name: str, what: str, values: Any) -> _Array | None:
    """The values of a tensor, in its own precision where NumPy has that."""
    if values is None:
        return None
    import torch
    try:
        values = values.detach().cpu()
        array: _Array = (values.float() if values.dtype == torch.bfloat16 else values).numpy()
    except (RuntimeError, TypeError) as error:  # as of tensors without values
        raise Error(f"{name}: {what}: {str(error).partition(chr(10))[0]}") from None
    return array


def _refuse_what_it_does_besides(name: str, step: Any) -> None:
    """Refuses a step that does more than its type says."""
    if step._forward_pre_hooks or step._forward_hooks:
        raise Error(f"{name}: has forward hooks, which cannot be represented")
    if "forward" in vars(step):
        raise Error(f"{name}: has a forward function of its own, which cannot be represented")


def _refuse_hooks_of_the_process() -> None:
    """Refuses what every module of the process does besides."""
    from torch.nn.modules import module
    for hooks in "_global_forward_pre_hooks", "_global_forward_hooks":
        if getattr(module, hooks, None):
            raise Error("modules of this process have forward hooks (register_module_forward_hook), "
                        "which cannot be represented")


def _add_torch(network: Network, path: str, step: Any) -> None:
    from torch import nn
    kind = type(step)
    name = f"{path} ({kind.__name__})" if path else kind.__name__
    if isinstance(step, nn.Module):
        _refuse_what_it_does_besides(name, step)
    if kind is nn.Sequential:
        for key, inner in step._modules.items():  # the iterators leave out what comes again
            _add_torch(network, f"{path}.{key}" if path else key, inner)
    elif kind is nn.Linear:
        weights = _tensor(name, "weight", step.weight)
        if weights is None:
            raise Error(f"{name}: has no weight")
        network.linear(name, weights, _tensor(name, "bias", step.bias))
    elif kind is nn.BatchNorm1d:
        _add_torch_batch_norm(network, name, step)
    elif kind is nn.Softmax:
        if step.dim not in (1, -1):
            raise Error(f"{name}: dim is {step.dim}; only 1 and -1 can be represented")
        network.softmax(name)
    elif kind not in (nn.Identity, nn.Dropout):  # which do nothing at inference
        _add_torch_activation(network, name, step)


def _add_torch_batch_norm(network: Network, name: str, step: Any) -> None:
    gamma, beta, mean, var = (_tensor(name, what, getattr(step, what)) for what in
                              ("weight", "bias", "running_mean", "running_var"))
    if mean is None or var is None:
        raise Error(f"{name}: keeps no running statistics")
    ones = np.ones(step.num_features, np.float32)
    network.batch_norm(name, ones if gamma is None else gamma, 0 * ones if beta is None else beta,
                       mean, var, step.eps)


def _add_torch_activation(network: Network, name: str, step: Any) -> None:
    from torch import nn
    names = {nn.Sigmoid: "sigmoid", nn.Tanh: "tanh", nn.ReLU: "relu", nn.SiLU: "silu",
             nn.LeakyReLU: "leaky_relu", nn.ELU: "elu", nn.Softplus: "softplus"}
    kind = type(step)
    if kind not in names:
        raise Error(f"{name} cannot be represented")
    if kind is nn.LeakyReLU:
        parameter(name, "negative_slope", step.negative_slope, LEAKY_SLOPE)
    elif kind is nn.ELU:
        parameter(name, "alpha", step.alpha, ELU_ALPHA)
    elif kind is nn.Softplus:
        parameter(name, "beta", step.beta, 1.0)
        if not step.threshold >= 17:  # where log1p(exp(-x)) is below half a single-precision step
            raise Error(f"{name}: threshold is {step.threshold:g}; from 17 on it does not show")
    network.activation(name, names[kind])


def from_torch(module: Any) -> Model:
    """Makes a model that computes what the torch.nn.Sequential does in its evaluation mode.

    Takes Linear, BatchNorm1d (after a Linear), Sigmoid, Tanh, ReLU, LeakyReLU, ELU, Softplus,
    SiLU, Softmax at the end, Identity and Dropout, and Sequentials of these. Batch norm becomes
    a batch-norm layer: `gamma` and `beta` are the learned values, `gamma_inf` and `beta_inf`
    come from the running statistics. The module stays as it is, and shares nothing with the model.
    Raises Error, with the name of the step, for whatever else there is: hooks, steps that do not
    fit each other, values that are finite in double precision only.
    """
    from torch import nn
    if type(module) is not nn.Sequential:
        raise Error(f"{type(module).__name__} cannot be represented; expected a Sequential")
    _refuse_hooks_of_the_process()
    network = Network()
    _add_torch(network, "", module)
    return network.model()


_SKLEARN = {"identity": "linear", "logistic": "sigmoid", "tanh": "tanh", "relu": "relu"}


def from_sklearn(estimator: Any) -> Model:
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
    model.loss = getattr(estimator, "loss_curve_", [])
    if hasattr(estimator, "classes_"):
        model.props["labels"] = ",".join(str(label) for label in estimator.classes_)
    return model
