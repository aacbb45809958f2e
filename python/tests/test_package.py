"""The package as a whole: its stubs, its documentation."""
import ast
import inspect
import pathlib
import re

import pytest

import mlnn

ROOT = pathlib.Path(__file__).parents[2]
STUB = pathlib.Path(mlnn.__file__).with_suffix(".pyi")


def public(names):
    return {name for name in names if not name.startswith("_")}


def declared(body):
    """The public names that statements of a stub declare, properties' setters once."""
    names = set()
    for statement in body:
        if isinstance(statement, (ast.FunctionDef, ast.ClassDef)):
            names.add(statement.name)
        elif isinstance(statement, ast.AnnAssign):
            names.add(statement.target.id)
        elif isinstance(statement, ast.ImportFrom):  # those that it hands on
            names.update(alias.asname for alias in statement.names if alias.asname)
    return public(names)


def stub_classes():
    return {node.name: node for node in ast.parse(STUB.read_text()).body
            if isinstance(node, ast.ClassDef)}


def test_the_stubs_declare_what_the_package_gives():
    assert declared(ast.parse(STUB.read_text()).body) == set(mlnn.__all__) | {"NORM_LENGTH"}


@pytest.mark.parametrize("name", ["Model", "Layer", "FeatureDescription"])
def test_the_stubs_declare_every_member(name):
    assert declared(stub_classes()[name].body) == public(vars(getattr(mlnn, name)))


@pytest.mark.parametrize("name", ["Model", "Layer", "FeatureDescription"])
def test_the_stubs_declare_the_parameters(name):
    for function in stub_classes()[name].body:
        actual = vars(getattr(mlnn, name)).get(getattr(function, "name", None))
        if not isinstance(function, ast.FunctionDef) or isinstance(actual, property):
            continue
        parameters = inspect.signature(getattr(actual, "__func__", actual)).parameters
        keywords = {p.name for p in parameters.values() if p.kind is p.KEYWORD_ONLY}
        declared_keywords = [a.arg for a in function.args.kwonlyargs]
        assert set(declared_keywords) == keywords, function.name
        assert ([a.arg for a in function.args.args] + declared_keywords
                == list(parameters)), function.name


def test_everything_public_is_described():
    assert mlnn.__doc__
    for name in mlnn.__all__:
        thing = getattr(mlnn, name)
        if inspect.isclass(thing) or inspect.isfunction(thing):
            assert thing.__doc__, name
    for kind in mlnn.Model, mlnn.Layer, mlnn.FeatureDescription:
        for name in public(vars(kind)):
            member = vars(kind)[name]
            if callable(member) or isinstance(member, (property, classmethod)):
                assert inspect.getdoc(getattr(kind, name)), f"{kind.__name__}.{name}"


@pytest.mark.filterwarnings("error")
@pytest.mark.parametrize("page", ["README.md", "docs/python.md", "examples/cluster/README.md"])
def test_what_the_pages_show_runs(page, tmp_path, monkeypatch):
    (tmp_path / "examples").symlink_to(ROOT / "examples")
    monkeypatch.chdir(tmp_path)
    blocks = re.findall(r"^```python\n(.*?)^```", (ROOT / page).read_text(), re.M | re.S)
    assert blocks
    for block in blocks:
        exec(compile(block, page, "exec"), {})
