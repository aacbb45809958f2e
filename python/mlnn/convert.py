"""Models of other frameworks: PyTorch, scikit-learn.

A network is taken step by step: linear maps, scale-and-shift (batch norm), activations and a
softmax at the end. What a model has no place for is refused by its name.
"""
from __future__ import annotations

from typing import Any

from . import Model
from ._network import ELU_ALPHA as ELU_ALPHA, LEAKY_SLOPE as LEAKY_SLOPE
from ._network import Network as Network, parameter as parameter


def from_torch(module: Any) -> Model:
    """Makes a model that computes what the torch.nn.Module does in its evaluation mode.

    Takes Linear, BatchNorm1d, Sigmoid, Tanh, ReLU, LeakyReLU, ELU, Softplus, SiLU, Softmax at the
    end, Flatten, Identity and dropouts, Sequentials of these, their functions and arithmetic with
    constants; own modules as torch.fx traces them, and compiled ones, where each step takes what
    the one before gave. weight_norm, spectral_norm and pruning are computed.
    Batch norm after a linear map becomes a batch-norm layer: `gamma` and `beta` are the learned
    values, `gamma_inf` and `beta_inf` come from the running statistics. Batch norm and arithmetic
    elsewhere become part of the linear map that follows, in double precision and rounded once.
    The module stays as it is, and shares nothing with the model; one that was traced is run on a
    few frames, and must give what the model gives.
    Raises Error, with the name of the step, for whatever else there is: hooks, steps that do not
    fit each other, values that are finite in double precision only.
    """
    from . import _torch_import
    return _torch_import.imported(module)


def to_torch(model: Model) -> Any:
    """Makes a torch.nn.Sequential that computes what the model computes of input vectors.

    It is in its evaluation mode. A batch-norm layer becomes Linear and a BatchNorm1d of mean 0,
    variance 1 and eps 0, with `gamma_inf` and `beta_inf` as its weight and bias. The module shares
    nothing with the model; Model.load_state_dict takes its values back.
    Raises Error for a model without layers, or with layers that do not fit each other.
    """
    from . import _torch_export
    return _torch_export.exported(model)


def from_sklearn(estimator: Any) -> Model:
    """Makes a model that computes the estimator's predict_proba, or a regressor's predict.

    Takes a fitted MLPClassifier or MLPRegressor, logistic and linear models, Pipelines of
    StandardScaler, MinMaxScaler or MaxAbsScaler in front of one, and the best one of a grid or
    random search. Outputs are in the order of `classes_`, which the property `labels` names; a
    classifier of two classes has one output, the probability of the second. The loss curve comes
    along.
    Raises Error for anything else, and for names of classes with commas.
    """
    from . import _sklearn_import
    return _sklearn_import.imported(estimator)
