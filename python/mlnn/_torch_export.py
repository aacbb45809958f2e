"""Models as modules of PyTorch."""
from __future__ import annotations

from typing import Any

import numpy as np

from . import Error, Layer, Model
from ._network import ELU_ALPHA, LEAKY_SLOPE


def exported(model: Model) -> Any:
    """A torch.nn.Sequential, in evaluation mode, that computes what the model computes of input
    vectors. Raises Error for a model without layers, or with layers that do not fit each other."""
    import torch
    layers = list(model.layers)
    if not layers:
        raise Error("a model without layers cannot be exported")
    before = layers[0].num_inputs
    steps: list[Any] = []
    for number, layer in enumerate(layers, 1):
        refuse_misfit(f"layer{number}", layer, before)
        steps += _steps_of(layer)
        before = layer.num_outputs
    if model.softmax:
        steps.append(torch.nn.Softmax(dim=1))
    module = torch.nn.Sequential(*steps)
    module.load_state_dict({name: torch.from_numpy(np.array(values))
                            for name, values in model.state_dict().items()})
    return module.eval()


def refuse_misfit(name: str, layer: Layer, inputs: int) -> None:
    """Refuses a layer that does not fit the one before it, or in itself."""
    if layer.num_inputs != inputs:
        raise Error(f"{name}: {layer.num_inputs} inputs after {inputs} outputs")
    for what in ("gamma_inf", "beta_inf") if layer.batch_norm else ("bias",):
        if getattr(layer, what).size != layer.num_outputs:
            raise Error(f"{name}: {what} does not fit the weights")


def _steps_of(layer: Layer) -> list[Any]:
    from torch import nn
    kinds = {"sigmoid": nn.Sigmoid, "tanh": nn.Tanh, "relu": nn.ReLU, "silu": nn.SiLU,
             "leaky_relu": lambda: nn.LeakyReLU(LEAKY_SLOPE), "elu": lambda: nn.ELU(ELU_ALPHA),
             "softplus": nn.Softplus}
    steps = [nn.Linear(layer.num_inputs, layer.num_outputs, bias=not layer.batch_norm)]
    if layer.batch_norm:
        steps.append(nn.BatchNorm1d(layer.num_outputs, eps=0.0))
    if layer.act_fn != "linear":
        steps.append(kinds[layer.act_fn]())
    return steps
