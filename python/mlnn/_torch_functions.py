"""Functions of PyTorch as steps of a network: torch.relu(x), x @ weights, x.flatten(1)."""
from __future__ import annotations

import inspect
from collections.abc import Callable, Mapping, Sequence
from typing import Any

import numpy as np
import numpy.typing as npt

from ._messages import Error
from ._network import Network, way_out
from ._torch_calls import FRAMES, VALUE, WIDTH
from ._torch_modules import activation, array_of, refuse_other_flatten, softmax

_Array = npt.NDArray[Any]


def apply(network: Network, told: str, function: str, args: Sequence[Any],
          kwargs: Mapping[str, Any]) -> None:
    """Adds the step that a function makes of the chain's value, VALUE among the arguments. Raises
    Error, with its name as it is told, for a function without a place."""
    taker = _TAKERS.get(function)
    if taker is None:
        raise Error(f"{told} cannot be represented{way_out(function)}")
    try:
        bound = inspect.signature(taker).bind(network, told, *args, **kwargs)
    except TypeError:
        raise Error(f"{told}: with these arguments cannot be represented") from None
    taker(*bound.args, **bound.kwargs)


def _only_value(told: str, value: Any) -> None:
    if value is not VALUE:
        raise Error(f"{told}: only the first argument can be the chain's value")


def _matrix(told: str, values: Any) -> _Array:
    array = array_of(told, "weights", values) if hasattr(values, "detach") else None
    if array is None or array.ndim != 2:
        raise Error(f"{told}: only a product with a matrix is represented")
    return array


def _operand(told: str, other: Any) -> _Array:
    """A number, or a tensor that changes every frame alike."""
    if isinstance(other, (int, float)) and not isinstance(other, bool):
        return np.asarray(other, np.float64)
    array = array_of(told, "operand", other) if hasattr(other, "detach") else None
    if array is None or array.ndim > 2 or (array.ndim == 2 and array.shape[0] != 1):
        raise Error(f"{told}: only numbers and vectors can be represented")
    return array.reshape(()) if array.size == 1 else array.reshape(-1)


def _linear(network: Network, told: str, input: Any, weight: Any, bias: Any = None) -> None:
    _only_value(told, input)
    network.linear(told, _matrix(told, weight), array_of(told, "bias", bias))


def _matmul(network: Network, told: str, input: Any, other: Any) -> None:
    _only_value(told, input)
    network.linear(told, _matrix(told, other).T, None)


def _addmm(network: Network, told: str, input: Any, mat1: Any, mat2: Any, *args: Any,
           beta: Any = 1, alpha: Any = 1) -> None:
    _only_value(told, mat1)
    beta, alpha = [*args, *(beta, alpha)[len(args):]]
    network.linear(told, _matrix(told, mat2).T, None)
    network.scale(told, _operand(told, alpha))
    network.shift(told, _operand(told, beta) * _operand(told, input))


def _add(network: Network, told: str, input: Any, other: Any, alpha: Any = 1) -> None:
    if input is not VALUE:
        network.scale(told, _operand(told, alpha))
        network.shift(told, _operand(told, input))
    else:
        network.shift(told, _operand(told, alpha) * _operand(told, other))


def _sub(network: Network, told: str, input: Any, other: Any, alpha: Any = 1) -> None:
    if input is not VALUE:
        network.scale(told, -_operand(told, alpha))
        network.shift(told, _operand(told, input))
    else:
        network.shift(told, -_operand(told, alpha) * _operand(told, other))


def _rsub(network: Network, told: str, input: Any, other: Any, alpha: Any = 1) -> None:
    _sub(network, told, other, input, alpha)


def _mul(network: Network, told: str, input: Any, other: Any) -> None:
    network.scale(told, _operand(told, other if input is VALUE else input))


def _div(network: Network, told: str, input: Any, other: Any, rounding_mode: Any = None) -> None:
    if input is not VALUE or rounding_mode is not None:
        raise Error(f"{told}: only by a constant, and without rounding, can be represented")
    divisor = _operand(told, other)
    if not divisor.all():
        raise Error(f"{told}: by 0 cannot be represented")
    network.scale(told, 1 / divisor.astype(np.float64))


def _neg(network: Network, told: str, input: Any) -> None:
    _only_value(told, input)
    network.scale(told, -np.ones(()))


def _batch_norm(network: Network, told: str, input: Any, running_mean: Any, running_var: Any,
                weight: Any = None, bias: Any = None, training: Any = False, momentum: Any = 0.1,
                eps: float = 1e-5) -> None:
    _only_value(told, input)
    mean, var = (array_of(told, "statistics", values) for values in (running_mean, running_var))
    if training or mean is None or var is None:
        raise Error(f"{told}: keeps no running statistics")
    gamma, beta = array_of(told, "weight", weight), array_of(told, "bias", bias)
    ones = np.ones(mean.shape, np.float32)
    network.batch_norm(told, ones if gamma is None else gamma, 0 * ones if beta is None else beta,
                       mean, var, eps)


def _script_batch_norm(network: Network, told: str, input: Any, weight: Any, bias: Any, mean: Any,
                       var: Any, training: Any, momentum: Any, eps: float, _cudnn: Any) -> None:
    _batch_norm(network, told, input, mean, var, weight, bias, training, momentum, eps)


def _relu(network: Network, told: str, input: Any, inplace: Any = False) -> None:
    activation(network, told, "relu")


def _silu(network: Network, told: str, input: Any, inplace: Any = False) -> None:
    activation(network, told, "silu")


def _sigmoid(network: Network, told: str, input: Any) -> None:
    activation(network, told, "sigmoid")


def _tanh(network: Network, told: str, input: Any) -> None:
    activation(network, told, "tanh")


def _leaky_relu(network: Network, told: str, input: Any, negative_slope: float = 0.01,
                inplace: Any = False) -> None:
    activation(network, told, "leaky_relu", negative_slope=negative_slope)


def _elu(network: Network, told: str, input: Any, alpha: float = 1.0, inplace: Any = False) -> None:
    activation(network, told, "elu", alpha=alpha)


def _script_elu(network: Network, told: str, input: Any, alpha: float, scale: float,
                input_scale: float) -> None:
    if (scale, input_scale) != (1, 1):
        raise Error(f"{told}: with a scale cannot be represented")
    activation(network, told, "elu", alpha=alpha)


def _softplus(network: Network, told: str, input: Any, beta: float = 1, threshold: float = 20) -> None:
    activation(network, told, "softplus", beta=beta, threshold=threshold)


def _clamp(network: Network, told: str, input: Any, min: Any = None, max: Any = None) -> None:
    if min is None or max is not None or _operand(told, min).any():
        raise Error(f"{told}: only from 0 on, as a ReLU, can be represented")
    activation(network, told, "relu")


def _maximum(network: Network, told: str, input: Any, other: Any) -> None:
    limit = _operand(told, other if input is VALUE else input)
    if limit.any() or limit.ndim:
        raise Error(f"{told}: only with 0, as a ReLU, can be represented")
    activation(network, told, "relu")


def _softmax(network: Network, told: str, input: Any, dim: Any = None, _stacklevel: Any = 3,
             dtype: Any = None) -> None:
    softmax(network, told, 1 if dim is None else dim)  # as it is for two dimensions


def _script_softmax(network: Network, told: str, input: Any, dim: Any, dtype: Any = None) -> None:
    softmax(network, told, dim)


def _dropout(network: Network, told: str, input: Any, p: float = 0.5, training: Any = True,
             inplace: Any = False) -> None:
    if training and p:
        raise Error(f"{told}: drops values at inference too; hand it training=self.training")


def _dropout_of_features(network: Network, told: str, input: Any, p: float = 0.5,
                         training: Any = False, inplace: Any = False) -> None:
    _dropout(network, told, input, p, training)


def _flatten(network: Network, told: str, input: Any, start_dim: int = 0, end_dim: int = -1) -> None:
    refuse_other_flatten(told, start_dim, end_dim)


def _view(network: Network, told: str, input: Any, *shape: Any) -> None:
    _only_value(told, input)
    target = list(shape[0]) if len(shape) == 1 and isinstance(shape[0], (list, tuple)) else list(shape)
    if len(target) != 2 or not (target[0] is FRAMES or target[0] == -1):
        raise Error(f"{told}: only to frames x values can be represented")
    width = target[1]
    if width is WIDTH or (width == -1 and target[0] is FRAMES):
        return
    if not isinstance(width, int) or width < 1 or width != (network.width or width):
        raise Error(f"{told}: only a shape that keeps the values of each frame together can be "
                    "represented")
    network.expect(width)


def _to(network: Network, told: str, input: Any, *args: Any, **kwargs: Any) -> None:
    """A change of type or device, which keeps single precision at least."""
    import torch
    kept: Sequence[Any] = (torch.float32, torch.float64, None, False, True, 6, 7)  # 6, 7: in scripts
    for given in (*args, *kwargs.values()):
        if not any(given is item for item in kept) and not isinstance(given, (torch.device, str)):
            raise Error(f"{told}: only to single and double precision can be represented")


def _nothing(network: Network, told: str, input: Any, *_: Any) -> None:
    """What leaves values as they are."""


_TAKERS: dict[str, Callable[..., None]] = {
    "linear": _linear, "matmul": _matmul, "mm": _matmul, "addmm": _addmm,
    "add": _add, "sub": _sub, "rsub": _rsub, "mul": _mul, "div": _div, "neg": _neg,
    "batch_norm": _batch_norm, "aten::batch_norm": _script_batch_norm,
    "relu": _relu, "silu": _silu, "sigmoid": _sigmoid, "tanh": _tanh, "leaky_relu": _leaky_relu,
    "elu": _elu, "aten::elu": _script_elu, "softplus": _softplus,
    "clamp": _clamp, "clip": _clamp, "clamp_min": _clamp, "maximum": _maximum,
    "softmax": _softmax, "aten::softmax": _script_softmax,
    "dropout": _dropout, "dropout1d": _dropout, "dropout2d": _dropout, "dropout3d": _dropout,
    "alpha_dropout": _dropout_of_features, "feature_alpha_dropout": _dropout_of_features,
    "feature_dropout": _dropout,
    "flatten": _flatten, "view": _view, "reshape": _view, "to": _to,
    "float": _nothing, "double": _nothing, "contiguous": _nothing, "detach": _nothing,
    "clone": _nothing,
}
