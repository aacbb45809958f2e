"""Modules of PyTorch as models."""
from __future__ import annotations

import contextlib
import warnings
from collections.abc import Iterator
from typing import Any

import numpy as np

from . import Error, Model
from ._network import Network
from ._torch_functions import apply
from ._torch_modules import (kind_of, name_of, refuse_hooks, refuse_hooks_of_the_process,
                             refuse_what_it_does_besides, take_module)
from ._torch_script import take_script
from ._torch_trace import take_traced

_IN_PLACE = {"iadd": "add", "isub": "sub", "imul": "mul", "itruediv": "div", "imatmul": "matmul"}
_FRAMES = 7         # on which a traced module is compared with its model
_TOLERANCE = 1e-3   # far above rounding, far below another meaning


class _Importer:
    def __init__(self) -> None:
        self.network = Network()
        self.was_traced = False

    def take(self, path: str, step: Any) -> None:
        """Adds a module, whichever: a container, a step, one that is traced."""
        import torch
        if not isinstance(step, torch.nn.Module):
            raise Error(f"{name_of(path, step)} cannot be represented; expected a module")
        if isinstance(step, torch.jit.ScriptModule):
            refuse_hooks(name_of(path, step), step)
            self.was_traced = True
            take_script(self._apply, path, step)
        elif type(step) is torch.nn.Sequential:
            refuse_what_it_does_besides(name_of(path, step), step)
            for key, inner in step._modules.items():  # the iterators leave out what comes again
                self.take(f"{path}.{key}" if path else key, inner)
        elif type(step) in _around():
            refuse_what_it_does_besides(name_of(path, step), step)
            self.take(f"{path}.module" if path else "module", step.module)
        elif kind_of(step) is not None or (
                type(step).__module__.startswith("torch.nn") and not isinstance(step, torch.nn.Sequential)):
            take_module(self.network, path, step)
        else:
            self.was_traced = True
            take_traced(self._apply, self.take, path, step)

    def _apply(self, told: str, function: str, args: Any, kwargs: Any) -> None:
        """What is done in place, is done to a value that nothing else takes."""
        plain = _IN_PLACE.get(function, function if function.endswith("__") else function.removesuffix("_"))
        apply(self.network, told, plain, args, kwargs)


def _around() -> tuple[Any, ...]:
    """What shares the work of a module among devices, and computes what it computes."""
    from torch.nn import parallel
    return tuple(getattr(parallel, name) for name in ("DataParallel", "DistributedDataParallel")
                 if hasattr(parallel, name))


@contextlib.contextmanager
def _evaluating(module: Any) -> Iterator[None]:
    """The module in its evaluation mode, and afterwards as it was."""
    import torch
    modes = [(step, step.training) for step in module.modules() if hasattr(step, "training")]
    values = [(buffer, buffer.detach().clone()) for buffer in module.buffers()]
    try:
        for step, _ in modes:
            step.training = False
        with torch.no_grad(), torch.random.fork_rng(devices=[]), warnings.catch_warnings():
            warnings.simplefilter("ignore")
            yield
    finally:
        for step, mode in modes:
            step.training = mode
        with torch.no_grad():
            for buffer, value in values:
                if buffer.device.type != "meta" and not torch.equal(buffer, value):
                    buffer.copy_(value)


def imported(module: Any) -> Model:
    """The model that computes what the module computes in its evaluation mode. Raises Error for what
    has no place in one, by its name."""
    import torch
    if not isinstance(module, torch.nn.Module):
        raise Error(f"{type(module).__name__} cannot be represented; expected a torch.nn.Module")
    refuse_hooks_of_the_process()
    importer = _Importer()
    with _evaluating(module):
        importer.take("", module)
        model = importer.network.model()
        if importer.was_traced:
            _refuse_other_results(module, model)
    return model


def _refuse_other_results(module: Any, model: Model) -> None:
    """Runs the module: what a trace cannot see, like random numbers and what is kept from call to
    call, shows in its results."""
    import torch
    name = type(module).__name__
    frames = np.random.default_rng(1).normal(size=(_FRAMES, model.num_inputs)).astype(np.float32)
    parameter = next(module.parameters(), torch.zeros(0))
    for few in frames, frames[:1]:
        try:
            found = module(torch.from_numpy(few.copy()).to(parameter.device, parameter.dtype))
            outputs = found.double().cpu().numpy()
        except Exception as error:  # whatever a module's own code raises
            reason = str(error).strip().partition("\n")[0] or type(error).__name__
            raise Error(f"{name}: cannot be run, to be compared: {reason}") from None
        expected = model(few, stacked=True)
        same = outputs.shape == expected.shape and np.allclose(
            outputs, expected, rtol=0, equal_nan=True,
            atol=_TOLERANCE * (1 + float(np.nanmax(np.abs(expected), initial=0))))
        if not same:
            raise Error(f"{name}: computes something else than its trace, which cannot be represented")
