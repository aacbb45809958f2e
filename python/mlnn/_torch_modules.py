"""The modules of PyTorch that are steps of a network, and what they do besides."""
from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt

from ._messages import Error
from ._network import ELU_ALPHA, LEAKY_SLOPE, Network, parameter, way_out

_Array = npt.NDArray[Any]


def name_of(path: str, step: Any) -> str:
    """A module in messages."""
    kind = type(step).__name__
    return f"{path} ({kind})" if path else kind


def array_of(name: str, what: str, values: Any) -> _Array | None:
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


def refuse_hooks_of_the_process() -> None:
    """Refuses what every module of the process does besides."""
    from torch.nn.modules import module
    for hooks in "_global_forward_pre_hooks", "_global_forward_hooks":
        if getattr(module, hooks, None):
            raise Error("modules of this process have forward hooks (register_module_forward_hook), "
                        "which cannot be represented")


def refuse_hooks(name: str, step: Any) -> None:
    """Refuses a step with hooks, but for those that make its weights."""
    if step._forward_hooks or not all(map(_makes_weights, step._forward_pre_hooks.values())):
        raise Error(f"{name}: has forward hooks, which cannot be represented")


def refuse_what_it_does_besides(name: str, step: Any) -> None:
    """Refuses a step that does more than its type says."""
    refuse_hooks(name, step)
    if "forward" in vars(step):
        raise Error(f"{name}: has a forward function of its own, which cannot be represented")


def _makes_weights(hook: Any) -> bool:
    """Whether the hook does nothing but make a parameter of others, as before every call."""
    from torch.nn.utils import prune
    from torch.nn.utils.spectral_norm import SpectralNorm
    from torch.nn.utils.weight_norm import WeightNorm
    return type(hook) in (WeightNorm, SpectralNorm) or (
        isinstance(hook, prune.BasePruningMethod)
        and type(hook).apply_mask is prune.BasePruningMethod.apply_mask)


def _parameter(name: str, step: Any, what: str) -> _Array | None:
    """A parameter as the step would compute with it: one that its hooks make, made anew."""
    from torch.nn.utils import prune
    from torch.nn.utils.spectral_norm import SpectralNorm
    values = None
    for hook in step._forward_pre_hooks.values():
        if isinstance(hook, prune.BasePruningMethod):
            if hook._tensor_name == what:
                values = hook.apply_mask(step)
        elif hook.name == what:
            values = (hook.compute_weight(step, do_power_iteration=False)
                      if isinstance(hook, SpectralNorm) else hook.compute_weight(step))
    return array_of(name, what, getattr(step, what) if values is None else values)


def kind_of(step: Any) -> Any:
    """The known class whose work the step does, which may be one of a subclass; None for others."""
    from torch import nn
    if type(step) in known():
        return type(step)
    own: Any = type(step)
    for kind in own.__mro__[1:]:
        if kind in known() and own.__call__ is nn.Module.__call__ and own.forward is kind.forward:
            return kind
    return None


def known() -> dict[Any, Any]:
    """What takes a step, by its class. Containers are not among them."""
    from torch import nn
    takers: dict[Any, Any] = {nn.Linear: _linear, nn.BatchNorm1d: _batch_norm, nn.Softmax: _softmax,
                              nn.Flatten: _flatten, nn.Identity: _nothing}
    takers.update({getattr(nn, name): _nothing for name in
                   ("Dropout", "Dropout1d", "Dropout2d", "Dropout3d", "AlphaDropout",
                    "FeatureAlphaDropout") if hasattr(nn, name)})
    takers.update({kind: _activation for kind in (nn.Sigmoid, nn.Tanh, nn.ReLU, nn.SiLU, nn.LeakyReLU,
                                                  nn.ELU, nn.Softplus)})
    return takers


def take_module(network: Network, path: str, step: Any) -> None:
    """Adds a module that is no container. Raises Error, with its name, for those without a place."""
    name = name_of(path, step)
    refuse_what_it_does_besides(name, step)
    kind = kind_of(step)
    if kind is None:
        raise Error(f"{name} cannot be represented{way_out(type(step).__name__)}")
    if step._forward_pre_hooks and kind_of(step).__name__ != "Linear":
        raise Error(f"{name}: has forward hooks, which cannot be represented")
    known()[kind](network, name, step)


def _linear(network: Network, name: str, step: Any) -> None:
    weights = _parameter(name, step, "weight")
    if weights is None:
        raise Error(f"{name}: has no weight")
    network.linear(name, weights, _parameter(name, step, "bias"))


def _batch_norm(network: Network, name: str, step: Any) -> None:
    gamma, beta, mean, var = (array_of(name, what, getattr(step, what)) for what in
                              ("weight", "bias", "running_mean", "running_var"))
    if mean is None or var is None:
        raise Error(f"{name}: keeps no running statistics")
    ones = np.ones(step.num_features, np.float32)
    network.batch_norm(name, ones if gamma is None else gamma, 0 * ones if beta is None else beta,
                       mean, var, step.eps)


def _softmax(network: Network, name: str, step: Any) -> None:
    softmax(network, name, 1 if step.dim is None else step.dim)  # as it is for two dimensions


def _flatten(_network: Network, name: str, step: Any) -> None:
    refuse_other_flatten(name, step.start_dim, step.end_dim)


def _nothing(_network: Network, _name: str, _step: Any) -> None:
    """What does nothing at inference."""


def _activation(network: Network, name: str, step: Any) -> None:
    from torch import nn
    names = {nn.Sigmoid: "sigmoid", nn.Tanh: "tanh", nn.ReLU: "relu", nn.SiLU: "silu",
             nn.LeakyReLU: "leaky_relu", nn.ELU: "elu", nn.Softplus: "softplus"}
    kind = names[kind_of(step)]
    given = {"leaky_relu": ("negative_slope",), "elu": ("alpha",), "softplus": ("beta", "threshold")}
    activation(network, name, kind, **{what: getattr(step, what) for what in given.get(kind, ())})


# --- Shared with functions ---

def softmax(network: Network, name: str, dim: int | None) -> None:
    """A softmax along a dimension, of frames x values."""
    if dim not in (1, -1):
        raise Error(f"{name}: dim is {dim}; only 1 and -1 can be represented")
    network.softmax(name)


def refuse_other_flatten(name: str, start: int, end: int) -> None:
    """Refuses what would mix frames: of frames x values nothing else is left to flatten."""
    if start not in (1, -1) or end not in (1, -1):
        raise Error(f"{name}: dimensions {start} to {end}; only from 1 on can be represented")


def activation(network: Network, name: str, kind: str, *, negative_slope: float = LEAKY_SLOPE,
               alpha: float = ELU_ALPHA, beta: float = 1.0, threshold: float = 20.0) -> None:
    """An activation with its parameters."""
    if kind == "leaky_relu":
        parameter(name, "negative_slope", negative_slope, LEAKY_SLOPE)
    elif kind == "elu":
        parameter(name, "alpha", alpha, ELU_ALPHA)
    elif kind == "softplus":
        parameter(name, "beta", beta, 1.0)
        if not threshold >= 17:  # where log1p(exp(-x)) is below half a single-precision step
            raise Error(f"{name}: threshold is {threshold:g}; from 17 on it does not show")
    network.activation(name, kind)
