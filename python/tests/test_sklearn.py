"""Estimators of scikit-learn beside the networks of layers: pipelines, searches, linear models."""
import numpy as np
import pytest

import mlnn

sklearn = pytest.importorskip("sklearn")
linear_model = pytest.importorskip("sklearn.linear_model")
model_selection = pytest.importorskip("sklearn.model_selection")
neural_network = pytest.importorskip("sklearn.neural_network")
preprocessing = pytest.importorskip("sklearn.preprocessing")
make_pipeline = pytest.importorskip("sklearn.pipeline").make_pipeline

TOLERANCE = 1e-5
pytestmark = pytest.mark.filterwarnings("ignore")  # trainings are cut short

RNG = np.random.default_rng(6)
INPUTS = RNG.normal(size=(60, 5)) * [1, 10, 0.1, 3, 2] + [0, 5, 1, -7, 20]
THREE = np.arange(60) % 3
TARGETS = INPUTS[:, :2] * [0.1, 0.02] + 0.5


def layers(**more):
    return neural_network.MLPClassifier((6,), max_iter=4, random_state=1, **more)


def difference(estimator, inputs=INPUTS):
    model = mlnn.from_sklearn(estimator)
    single = inputs.astype(np.float32)
    if hasattr(estimator, "classes_"):
        expected = estimator.predict_proba(single.astype(np.float64))[:, -model.num_outputs:]
    else:
        expected = estimator.predict(single.astype(np.float64)).reshape(len(inputs), -1)
    outputs = model(single, stacked=True)
    assert outputs.shape == expected.shape
    return (np.abs(outputs - expected) / (1 + np.abs(expected).max())).max()


def refusal(estimator):
    with pytest.raises(mlnn.Error) as caught:
        mlnn.from_sklearn(estimator)
    return str(caught.value)


@pytest.mark.parametrize("scaler", [
    "StandardScaler()", "StandardScaler(with_mean=False)", "StandardScaler(with_std=False)",
    "StandardScaler(with_mean=False, with_std=False)", "MinMaxScaler()", "MinMaxScaler((-3, 2))",
    "MaxAbsScaler()"])
def test_what_scales_features_is_taken_into_the_first_layer(scaler):
    made = eval(scaler, vars(preprocessing))
    assert difference(make_pipeline(made, layers()).fit(INPUTS, THREE)) < TOLERANCE
    made = make_pipeline(made, "passthrough", preprocessing.MinMaxScaler(), linear_model.Ridge())
    assert difference(made.fit(INPUTS, TARGETS)) < TOLERANCE


def test_pipelines_may_stand_in_pipelines():
    inner = make_pipeline(preprocessing.StandardScaler(), preprocessing.MaxAbsScaler())
    made = make_pipeline(inner, make_pipeline(preprocessing.StandardScaler(), layers()))
    assert difference(made.fit(INPUTS, THREE)) < TOLERANCE


def test_a_search_gives_its_best_estimator():
    pipeline = make_pipeline(preprocessing.StandardScaler(), layers())
    grid = model_selection.GridSearchCV(pipeline, {"mlpclassifier__alpha": [1e-4, 1.0]}, cv=2)
    assert refusal(grid) == "GridSearchCV: is not fitted, or not with refit"
    assert difference(grid.fit(INPUTS, THREE)) < TOLERANCE
    model = mlnn.from_sklearn(grid)
    assert model.props["labels"] == "0,1,2" and len(model.loss) == 4
    some = model_selection.RandomizedSearchCV(linear_model.Ridge(), {"alpha": [1, 2]}, n_iter=1, cv=2)
    assert difference(some.fit(INPUTS, TARGETS)) < TOLERANCE
    some = model_selection.GridSearchCV(linear_model.Ridge(), {"alpha": [1]}, cv=2, refit=False)
    assert refusal(some.fit(INPUTS, TARGETS)) == "GridSearchCV: is not fitted, or not with refit"


@pytest.mark.parametrize("way", ["auto", "ovr", "multinomial"])
@pytest.mark.parametrize("classes", [2, 3])
@pytest.mark.parametrize("intercept", [True, False])
def test_logistic_models_give_the_same_probabilities(way, classes, intercept):
    estimator = linear_model.LogisticRegression(multi_class=way, fit_intercept=intercept)
    estimator.fit(INPUTS, THREE % classes)
    if way == "ovr" and classes == 3:
        assert refusal(estimator) == (
            "LogisticRegression: multi_class='ovr', one classifier for each of 3 classes, cannot be "
            "represented; 'multinomial' can")
        return
    assert difference(estimator) < TOLERANCE
    scaled = make_pipeline(preprocessing.StandardScaler(), estimator).fit(INPUTS, THREE % classes)
    assert difference(scaled) < TOLERANCE
    assert mlnn.from_sklearn(scaled).props["labels"] == ",".join(map(str, range(classes)))


@pytest.mark.parametrize("kind", ["LinearRegression", "Ridge", "RidgeCV", "Lasso", "ElasticNet",
                                  "SGDRegressor", "HuberRegressor"])
def test_linear_models_give_the_same_values(kind):
    estimator = make_pipeline(preprocessing.StandardScaler(), getattr(linear_model, kind)())
    assert difference(estimator.fit(INPUTS, TARGETS[:, 0])) < TOLERANCE
    if kind in ("LinearRegression", "Ridge", "Lasso"):
        several = getattr(linear_model, kind)(fit_intercept=False).fit(INPUTS, TARGETS)
        assert difference(several) < TOLERANCE


def test_other_estimators_are_refused_by_name():
    assert refusal(linear_model.LogisticRegression()) == "LogisticRegression: is not fitted"
    assert refusal(make_pipeline(preprocessing.StandardScaler(), layers())) == (
        "StandardScaler: is not fitted")
    robust = make_pipeline(preprocessing.RobustScaler(), layers()).fit(INPUTS, THREE)
    assert refusal(robust) == (
        "RobustScaler cannot be represented; of what prepares features, StandardScaler, MinMaxScaler "
        "and MaxAbsScaler can")
    clipped = make_pipeline(preprocessing.MinMaxScaler(clip=True), layers()).fit(INPUTS, THREE)
    assert refusal(clipped) == "MinMaxScaler: clip cannot be represented"
    assert refusal(linear_model.RidgeClassifier().fit(INPUTS, THREE)).startswith(
        "RidgeClassifier cannot be represented; expected an MLPClassifier or MLPRegressor, a logistic")
    far = make_pipeline(preprocessing.StandardScaler(), layers()).fit(INPUTS + 1e6, THREE)
    assert refusal(far).endswith("keeps too little of them beyond 1024; shift the frames instead")


@pytest.mark.parametrize("label", ["a,b", "two\nlines"])
def test_labels_that_could_not_be_told_apart_are_refused(label):
    names = np.array([label, "c", "d"])[THREE]
    assert refusal(layers().fit(INPUTS, names)) == (
        f"MLPClassifier: the class {label!r} has a comma or an end of line, which part labels; give it "
        "another name")
