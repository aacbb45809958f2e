"""Estimators of scikit-learn as models."""
from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np

from . import Error, Model
from ._network import Network

_ACT_FNS = {"identity": "linear", "logistic": "sigmoid", "tanh": "tanh", "relu": "relu"}


def imported(estimator: Any) -> Model:
    """The model that computes what the estimator predicts. Raises Error for what has no place in
    one, by its name."""
    network = Network()
    last = _take(network, estimator)
    model = network.model()
    model.loss = getattr(last, "loss_curve_", [])
    if hasattr(last, "classes_"):
        model.props["labels"] = ",".join(_labels_of(type(last).__name__, last.classes_))
    return model


def _labels_of(name: str, classes: Any) -> list[str]:
    labels = [str(label) for label in classes]
    for label in labels:
        if "," in label or "\n" in label:
            raise Error(f"{name}: the class {label!r} has a comma or an end of line, which part labels; "
                        "give it another name")
    return labels


def _take(network: Network, estimator: Any) -> Any:
    """Adds an estimator, or the steps of a pipeline; returns what stands at the end."""
    takers, searches, pipeline = _takers()
    name, kind = type(estimator).__name__, type(estimator)
    if kind in searches:
        if not hasattr(estimator, "best_estimator_"):
            raise Error(f"{name}: is not fitted, or not with refit")
        return _take(network, estimator.best_estimator_)
    if kind is pipeline:
        *before, last = [step for _, step in estimator.steps]
        for step in before:
            _take_transformer(network, step)
        return _take(network, last)
    if kind not in takers:
        raise Error(f"{name} cannot be represented; expected an MLPClassifier or MLPRegressor, a logistic "
                    "or linear model, or a Pipeline or search that ends with one")
    if not hasattr(estimator, "coefs_") and not hasattr(estimator, "coef_"):
        raise Error(f"{name}: is not fitted")
    takers[kind](network, name, estimator)
    return estimator


def _takers() -> tuple[dict[Any, Callable[[Network, str, Any], None]], tuple[Any, ...], Any]:
    from sklearn import linear_model, model_selection, neural_network, pipeline
    takers: dict[Any, Callable[[Network, str, Any], None]] = {
        neural_network.MLPClassifier: _layers, neural_network.MLPRegressor: _layers,
        linear_model.LogisticRegression: _logistic, linear_model.LogisticRegressionCV: _logistic}
    takers.update({getattr(linear_model, name): _linear for name in
                   ("LinearRegression", "Ridge", "RidgeCV", "Lasso", "LassoCV", "ElasticNet",
                    "ElasticNetCV", "SGDRegressor", "HuberRegressor")})
    searches = model_selection.GridSearchCV, model_selection.RandomizedSearchCV
    return takers, searches, pipeline.Pipeline


def _layers(network: Network, name: str, estimator: Any) -> None:
    last = len(estimator.coefs_) - 1
    for i, (weights, bias) in enumerate(zip(estimator.coefs_, estimator.intercepts_)):
        network.linear(f"{name} layer {i + 1}", weights.T, bias)
        act_fn = estimator.activation if i < last else estimator.out_activation_
        if act_fn == "softmax":
            network.softmax(name)
        else:
            network.activation(f"{name} layer {i + 1}", _ACT_FNS[act_fn])


def _linear(network: Network, name: str, estimator: Any) -> None:
    weights = np.atleast_2d(estimator.coef_)
    network.linear(name, weights, np.broadcast_to(estimator.intercept_, len(weights)))


def _logistic(network: Network, name: str, estimator: Any) -> None:
    """A classifier of two classes has one output, as those of layers have."""
    way = estimator.multi_class
    if way == "auto":
        way = "ovr" if len(estimator.classes_) <= 2 or estimator.solver == "liblinear" else "multinomial"
    weights, bias = estimator.coef_, np.broadcast_to(estimator.intercept_, len(estimator.coef_))
    if way == "ovr" and len(weights) > 1:
        raise Error(f"{name}: multi_class='ovr', one classifier for each of {len(weights)} classes, cannot "
                    "be represented; 'multinomial' can")
    network.linear(name, weights, bias)
    if len(weights) > 1:
        network.softmax(name)
        return
    if way != "ovr":  # a softmax over the decision and its negative
        network.scale(name, np.float64(2))
    network.activation(name, "sigmoid")


def _take_transformer(network: Network, step: Any) -> None:
    from sklearn import pipeline, preprocessing
    name = type(step).__name__
    if step is None or (isinstance(step, str) and step == "passthrough"):
        return
    if type(step) is pipeline.Pipeline:
        for _, inner in step.steps:
            _take_transformer(network, inner)
        return
    if type(step) not in (preprocessing.StandardScaler, preprocessing.MinMaxScaler,
                          preprocessing.MaxAbsScaler):
        raise Error(f"{name} cannot be represented; of what prepares features, StandardScaler, "
                    "MinMaxScaler and MaxAbsScaler can")
    if not hasattr(step, "scale_"):
        raise Error(f"{name}: is not fitted")
    if type(step) is preprocessing.MinMaxScaler:
        if step.clip:
            raise Error(f"{name}: clip cannot be represented")
        network.scale(name, step.scale_)
        network.shift(name, step.min_)
        return
    if getattr(step, "with_mean", False):
        network.shift(name, -step.mean_)
    if getattr(step, "with_std", True):
        network.scale(name, 1 / step.scale_)
