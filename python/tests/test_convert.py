import io
import os
import resource
import subprocess
import sys

import numpy as np
import pytest

from conftest import naive

import mlnn

TOLERANCE = 1e-5
ONNX = pytest.importorskip("onnx")
pytest.importorskip("onnx.numpy_helper")  # becomes a part of ONNX


def state(model):
    return model.__getstate__()


def inputs_for(model, frames=20):
    rng = np.random.default_rng(5)
    return rng.normal(size=(frames, model.num_inputs)).astype(np.float32)


# --- PyTorch ---

@pytest.fixture
def torch():
    return pytest.importorskip("torch")


def torch_network(torch, *activations):
    nn = torch.nn
    torch.manual_seed(1)
    steps = [nn.Linear(7, 5), nn.BatchNorm1d(5), activations[0], nn.Dropout(0.5),
             nn.Sequential(nn.Linear(5, 6, bias=False), activations[-1]),
             nn.Linear(6, 4), nn.BatchNorm1d(4, affine=False), nn.Softmax(dim=1)]
    module = nn.Sequential(*steps)
    for _ in range(5):  # gives the running statistics values of their own
        module(3 * torch.randn(50, 7) + 1)
    return module.eval()


@pytest.mark.parametrize("name", ["Sigmoid", "Tanh", "ReLU", "SiLU", "LeakyReLU", "ELU", "Softplus",
                                  "Identity"])
def test_torch_networks_compute_the_same(torch, name):
    module = torch_network(torch, getattr(torch.nn, name)())
    model = mlnn.from_torch(module)
    assert [layer.batch_norm for layer in model.layers] == [True, False, True]
    assert np.allclose(model.layers[0].gamma, module[1].weight.detach().numpy())
    inputs = inputs_for(model)
    with torch.no_grad():
        expected = module.double()(torch.from_numpy(inputs).double()).numpy()
    difference = np.abs(model(inputs) - expected).max()
    print(f"{name}: {difference:.1e}")
    assert difference < TOLERANCE


def test_torch_steps_without_a_place_are_refused_by_name(torch):
    nn = torch.nn
    for steps, message in [
        ([nn.Conv1d(1, 1, 1)], r"0 \(Conv1d\) cannot be represented"),
        ([nn.Linear(2, 2), nn.LeakyReLU(0.2)], r"1 \(LeakyReLU\): negative_slope is 0.2"),
        ([nn.Linear(2, 2), nn.ReLU(), nn.BatchNorm1d(2)], r"2 \(BatchNorm1d\): must follow"),
        ([nn.Linear(2, 2), nn.Softmax(1), nn.ReLU()], r"2 \(ReLU\): nothing can follow"),
        ([nn.Linear(2, 2), nn.Softmax(0)], r"1 \(Softmax\): dim is 0"),
        ([nn.Sequential(nn.GELU())], r"0\.0 \(GELU\) cannot be represented"),
        ([nn.Linear(2, 2), nn.BatchNorm1d(2, track_running_stats=False)], "no running statistics"),
        ([nn.Linear(2, 2), nn.ReLU(), nn.Tanh()], r"2 \(Tanh\): an activation must follow"),
    ]:
        with pytest.raises(mlnn.Error, match=message):
            mlnn.from_torch(nn.Sequential(*steps))


def changed(step, **values):
    """The step with the first value of these parameters changed."""
    for name, value in values.items():
        getattr(step, name).data.flatten()[0] = value
    return step


def hooked(step, register, hook):
    getattr(step, register)(hook)
    return step


def with_forward_of_its_own(step):
    step.forward = lambda inputs: inputs
    return step


@pytest.mark.filterwarnings("ignore:Complex modules are a new feature")
@pytest.mark.parametrize("make, message", [
    (lambda nn: [hooked(nn.Linear(2, 2), "register_forward_hook", lambda *_: None)],
     "0 (Linear): has forward hooks, which cannot be represented"),
    (lambda nn: [nn.Linear(2, 2), hooked(nn.Identity(), "register_forward_pre_hook", lambda *_: None)],
     "1 (Identity): has forward hooks, which cannot be represented"),
    (lambda nn: [hooked(nn.utils.weight_norm(nn.Linear(2, 2)), "register_forward_pre_hook",
                        lambda *_: None)],
     "0 (Linear): has forward hooks, which cannot be represented"),
    (lambda nn: [hooked(nn.Sequential(nn.Linear(2, 2)), "register_forward_hook", lambda *_: None)],
     "0 (Sequential): has forward hooks, which cannot be represented"),
    (lambda nn: [nn.Linear(2, 2), with_forward_of_its_own(nn.ReLU())],
     "1 (ReLU): has a forward function of its own, which cannot be represented"),
    (lambda nn: [changed(nn.Linear(2, 2).double(), weight=1e39)],
     "0 (Linear): weights: 1e+39 is beyond single precision"),
    (lambda nn: [nn.Linear(2, 2), changed(nn.Linear(2, 2).double(), bias=-1e300)],
     "1 (Linear): bias: -1e+300 is beyond single precision"),
    (lambda nn: [nn.Linear(2, 2), changed(nn.BatchNorm1d(2), running_var=-1)],
     "1 (BatchNorm1d): variance -1 plus eps 1e-05 is not positive"),
    (lambda nn: [nn.Linear(2, 2), changed(nn.BatchNorm1d(2, eps=0), running_var=0)],
     "1 (BatchNorm1d): variance 0 plus eps 0 is not positive"),
    (lambda nn: [nn.Linear(2, 2), changed(nn.BatchNorm1d(2, eps=0), running_var=1e-30, weight=1e30)],
     "1 (BatchNorm1d): scale: 1e+45 is beyond single precision"),
    (lambda nn: [nn.Linear(2, 2), changed(nn.BatchNorm1d(2), running_mean=3e38, weight=10)],
     "1 (BatchNorm1d): shift: -2.99999e+39 is beyond single precision"),
    (lambda nn: [nn.Linear(2, 3), nn.Linear(4, 2)], "1 (Linear): takes 4 inputs after 3 outputs"),
    (lambda nn: [nn.Linear(2, 3), nn.BatchNorm1d(1)],
     "1 (BatchNorm1d): gamma of shape (1,) after 3 outputs"),
    (lambda nn: [nn.Linear(2, 3), nn.BatchNorm1d(4, affine=False)],
     "1 (BatchNorm1d): gamma of shape (4,) after 3 outputs"),
    (lambda nn: [nn.Linear(2, 2, device="meta")],
     "0 (Linear): weight: Cannot copy out of meta tensor; no data!"),
    (lambda nn: [nn.Linear(2, 2).to(dtype=pytest.importorskip("torch").complex64)],
     "0 (Linear): weights: expected real numbers, found complex64"),
    (lambda nn: [nn.Linear(2, 2), nn.ELU(float("nan"))],
     "1 (ELU): alpha is nan; only 1 can be represented"),
    (lambda nn: [], "the network has no linear map"),
    (lambda nn: [nn.Sequential(), nn.Dropout()], "the network has no linear map"),
])
def test_torch_steps_that_would_compute_something_else_are_refused(torch, make, message):
    with pytest.raises(mlnn.Error) as caught:
        mlnn.from_torch(torch.nn.Sequential(*make(torch.nn)))
    assert str(caught.value) == message


@pytest.mark.parametrize("register", ["register_module_forward_hook",
                                      "register_module_forward_pre_hook"])
def test_hooks_of_the_whole_process_are_refused(torch, register):
    module = torch.nn.Sequential(torch.nn.Linear(2, 2))
    handle = getattr(torch.nn.modules.module, register)(lambda *arguments: None)
    try:
        with pytest.raises(mlnn.Error, match="^modules of this process have forward hooks"):
            mlnn.from_torch(module)
    finally:
        handle.remove()
    assert mlnn.from_torch(module).num_outputs == 2


def test_a_torch_step_that_stands_twice_counts_twice(torch):
    nn = torch.nn
    relu, linear = nn.ReLU(), nn.Linear(4, 4)
    module = nn.Sequential(linear, relu, nn.Sequential(linear, relu), linear)
    model = mlnn.from_torch(module)
    assert [layer.act_fn for layer in model.layers] == ["relu", "relu", "linear"]
    inputs = inputs_for(model)
    with torch.no_grad():
        expected = module(torch.from_numpy(inputs)).numpy()
    assert np.abs(model(inputs) - expected).max() < TOLERANCE


def test_torch_parameters_of_other_precisions_come_as_they_are(torch):
    for kind in torch.float16, torch.bfloat16, torch.float64:
        module = torch.nn.Sequential(torch.nn.Linear(3, 2)).to(kind)
        model = mlnn.from_torch(module)
        assert (model.layers[0].weights == module[0].weight.detach().float().numpy()).all()
        assert (model.layers[0].bias == module[0].bias.detach().float().numpy()).all()


def test_tensors_with_gradients_are_frames(torch):
    model = mlnn.Model.from_arrays([(np.eye(3), np.zeros(3))], softmax=False)
    frames = torch.ones(2, 3, requires_grad=True)
    assert (model(frames) == 1).all()
    model.layers[0].bias = torch.full((3,), 2.0, requires_grad=True)
    assert model.layers[0].bias.tolist() == [2, 2, 2]


# --- scikit-learn ---

@pytest.mark.filterwarnings("ignore::UserWarning")  # the training is cut short
@pytest.mark.parametrize("classes", [2, 3])
@pytest.mark.parametrize("activation", ["identity", "logistic", "tanh", "relu"])
def test_classifiers_give_the_same_probabilities(classes, activation):
    network = pytest.importorskip("sklearn.neural_network")
    rng = np.random.default_rng(6)
    inputs = rng.normal(size=(60, 5))
    labels = np.arange(60) % classes
    fitted = network.MLPClassifier((8, 6), activation=activation, max_iter=5).fit(inputs, labels)
    model = mlnn.from_sklearn(fitted)
    expected = fitted.predict_proba(inputs)[:, -model.num_outputs:]
    assert np.abs(model(inputs) - expected).max() < TOLERANCE
    assert model.props["labels"] == ",".join(map(str, range(classes)))
    assert len(model.loss) == 5


@pytest.mark.filterwarnings("ignore::UserWarning")
def test_regressors_give_the_same_values_and_others_are_refused():
    network = pytest.importorskip("sklearn.neural_network")
    inputs = np.random.default_rng(7).normal(size=(40, 3))
    fitted = network.MLPRegressor((4,), max_iter=5).fit(inputs, inputs[:, :2])
    assert np.abs(mlnn.from_sklearn(fitted)(inputs) - fitted.predict(inputs)).max() < TOLERANCE
    with pytest.raises(mlnn.Error, match="MLPRegressor: is not fitted"):
        mlnn.from_sklearn(network.MLPRegressor())
    with pytest.raises(mlnn.Error, match="dict cannot be represented"):
        mlnn.from_sklearn({})
    fitted.coefs_[1][0, 0] = 1e39
    with pytest.raises(mlnn.Error, match="^MLPRegressor layer 2: weights: 1e\\+39 is beyond single"):
        mlnn.from_sklearn(fitted)


# --- ONNX ---

def test_export_and_import_give_the_model_back(model, tmp_path):
    model.layers[1].gamma = [3, 4]
    model.layers[0].bias = [1, 2, 3]
    assert model.layers[1].beta.size == 0
    mlnn.to_onnx(model, tmp_path / "m.onnx")
    assert state(mlnn.from_onnx(tmp_path / "m.onnx")) == state(model)


def signalling(values):
    """The values with a NaN whose bits no arithmetic leaves as they are."""
    values.view(np.uint32).flat[0] = 0x7FA00001
    return values


@pytest.mark.filterwarnings("error")
def test_export_and_import_keep_the_bits_of_what_is_no_number(model):
    model.layers[1].gamma = [3, 4]
    model.layers[0].bias = [1, 2, -0.0]
    model.layers[0].beta_inf = [-0.0, np.inf, 1e-42]
    for layer in model.layers:
        for name in "weights", "bias", "gamma", "beta", "gamma_inf", "beta_inf":
            if getattr(layer, name).size:
                signalling(getattr(layer, name)[:1])
    model.normalisation = signalling(np.zeros(120, np.float32)), np.full(120, -0.0, np.float32)
    model._core.set_curve("loss", signalling(np.zeros(3, np.float32)))
    assert b"\1\0\xa0\x7f" in state(model)["layers"][0]
    assert state(mlnn.from_onnx(mlnn.to_onnx(model))) == state(model)


def gemm(weights, *rest, **attributes):
    """A graph of one Gemm."""
    names = ["x", "w", "c"][:2 + len(rest)]
    values = [np.asarray(v, np.float32) for v in (weights, *rest)]
    helper, kind = ONNX.helper, ONNX.TensorProto.FLOAT
    graph = helper.make_graph(
        [helper.make_node("Gemm", names, ["y"], "map", **attributes)], "g",
        [helper.make_tensor_value_info("x", kind, ["n", len(weights)])],
        [helper.make_tensor_value_info("y", kind, ["n", None])],
        [ONNX.numpy_helper.from_array(v, n) for n, v in zip(names[1:], values)])
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])


@pytest.mark.parametrize("added, bias", [
    (5, [5, 5, 5]), ([5], [5, 5, 5]), ([[5]], [5, 5, 5]), ([1, 2, 3], [1, 2, 3]),
    ([[1, 2, 3]], [1, 2, 3])])
def test_what_a_gemm_adds_to_every_frame_alike_is_a_bias(added, bias):
    for proto in gemm(np.ones((2, 3)), added), gemm(np.ones((2, 3)), added).SerializeToString():
        assert mlnn.from_onnx(proto).layers[0].bias.tolist() == bias


@pytest.mark.parametrize("weights, added, message", [
    (np.ones((2, 3)), [[1], [2], [3]], r"only a vector can be added, found shape \(3, 1\)"),
    (np.ones((2, 1)), [[1], [2]], r"only a vector can be added, found shape \(2, 1\)"),
    (np.ones((2, 3)), np.ones((2, 3)), r"only a vector can be added, found shape \(2, 3\)"),
    (np.ones((2, 3)), [[[1]]], r"only a vector can be added, found shape \(1, 1, 1\)"),
    (np.ones((2, 3)), [1, 2], r"bias of shape \(2,\) after 3 outputs"),
    (np.ones((2, 1)), [1, 2], r"bias of shape \(2,\) after 1 outputs")])
def test_what_a_gemm_adds_frame_by_frame_is_refused(weights, added, message):
    with pytest.raises(mlnn.Error, match=rf"^map \(Gemm\): {message}$"):
        mlnn.from_onnx(gemm(weights, added))


def test_a_gemm_without_a_bias_needs_no_beta_and_none_is_transposed():
    model = mlnn.from_onnx(gemm([[1, 2], [3, 4]], beta=0.0))
    assert (model([[1, 10]], stacked=True) != 0).all() and not model.layers[0].bias.any()
    assert model.layers[0].weights.tolist() == [[1, 3], [2, 4]]
    layer, = mlnn.from_onnx(gemm([[1, 2]], [1, 3], alpha=2.0, beta=0.5)).layers
    assert (layer.weights.tolist(), layer.bias.tolist()) == ([[2], [4]], [0.5, 1.5])
    with pytest.raises(mlnn.Error, match=r"^map \(Gemm\): transA cannot be"):
        mlnn.from_onnx(gemm([[1, 2]], transA=1))


def test_inputs_that_are_left_out_are_not_there():
    left_out = gemm([[1, 2]])
    left_out.graph.node[0].input.append("")
    assert mlnn.from_onnx(left_out).num_outputs == 2
    for inputs, message in [(["w", "x"], "only the first input"), (["x"], "expected 1 to 2 constants"),
                            (["x", "w", "w", "w"], "expected 1 to 2 constants, found 3"),
                            (["x", "w", "other"], "takes more than the chain's value and constants"),
                            (["x", "", "w"], "only a product with a matrix")]:
        broken = gemm([[1, 2]])
        del broken.graph.node[0].input[:]
        broken.graph.node[0].input.extend(inputs)
        with pytest.raises(mlnn.Error, match=rf"^map \(Gemm\): {message}"):
            mlnn.from_onnx(broken)


def test_a_batch_norm_takes_no_shift_behind_it(model):
    exported = mlnn.to_onnx(model)
    node = exported.graph.node[1]
    assert node.op_type == "BatchNormalization"
    node.output[0] = "before"
    exported.graph.node.insert(2, ONNX.helper.make_node("Add", ["before", "layer1.beta_inf"],
                                                        ["layer1.norm"], "add"))
    with pytest.raises(mlnn.Error, match=r"^add \(Add\): cannot be represented after the batch norm"):
        mlnn.from_onnx(exported)
    node.output[0] = "layer1.norm"
    del exported.graph.node[2]
    exported.graph.initializer.append(ONNX.numpy_helper.from_array(np.float32([1, -1, 1]), "v"))
    node.input[4] = "v"
    with pytest.raises(mlnn.Error, match=r"^layer1.norm \(BatchNormalization\): variance -1 plus"):
        mlnn.from_onnx(exported)


@pytest.mark.parametrize("value", ["[" * 100000, "{}", "null", '{"features": {"num_bands": "x"}}'])
def test_broken_metadata_is_refused(model, value):
    exported = mlnn.to_onnx(model)
    exported.metadata_props[0].value = value
    with pytest.raises(mlnn.Error, match="^broken metadata 'mlnn': "):
        mlnn.from_onnx(exported)


@pytest.fixture(params=["package", "tool"])
def command(request):
    """Runs a command by the package, and by the tool, which hands it over."""
    start = [sys.executable, "-m", "mlnn"]
    if request.param == "tool":
        if "MLNN_TOOL" not in os.environ:
            pytest.skip("MLNN_TOOL does not name the tool")
        start = [os.environ["MLNN_TOOL"]]

    def run(*arguments, file_size=resource.RLIM_INFINITY):
        def limit():
            resource.setrlimit(resource.RLIMIT_FSIZE, (file_size, resource.RLIM_INFINITY))

        done = subprocess.run([*start, *map(str, arguments)], capture_output=True, text=True,
                              preexec_fn=limit,
                              env={**os.environ, "MLNN_PYTHON": sys.executable})
        return done.returncode, done.stdout, done.stderr
    return run


@pytest.mark.parametrize("name", ["synth", "synth-bn"])
def test_the_digits_survive_the_commands(digits, tmp_path, name, command):
    out, back = tmp_path / "m.onnx", tmp_path / "back.txt"
    assert command("export-onnx", digits / f"{name}.txt", out) == (0, "", "")
    assert command("import-onnx", out, back) == (0, "", "")
    assert back.read_bytes() == (digits / f"{name}.txt").read_bytes()


def test_graphs_are_written_into_file_objects_and_read_from_them(model, tmp_path):
    expected = mlnn.to_onnx(model).SerializeToString()
    memory = io.BytesIO(b"before ")
    memory.seek(0, io.SEEK_END)
    mlnn.to_onnx(model, memory)
    assert memory.getvalue() == b"before " + expected
    memory.seek(len(b"before "))
    assert state(mlnn.from_onnx(memory)) == state(model) and memory.read() == b""
    with open(tmp_path / "m.onnx", "wb") as file:
        mlnn.to_onnx(model, file)
    with open(tmp_path / "m.onnx", "rb", buffering=0) as file:
        assert state(mlnn.from_onnx(file)) == state(model)
    with open(tmp_path / "m.onnx", encoding="latin-1") as file, \
            pytest.raises(TypeError, match="^expected a file of bytes, opened with \"rb\"; it gave str$"):
        mlnn.from_onnx(file)
    for nothing in 3, None, []:
        with pytest.raises(TypeError):
            mlnn.from_onnx(nothing)


def test_the_commands_refuse_in_one_line(digits, tmp_path, command):
    assert command("export-onnx", "none.txt", tmp_path / "m.onnx") == (
        1, "", "ERROR: MultiLayerNNModel: could not read file: none.txt\n")
    status, out, err = command("import-onnx", digits / "synth.txt", tmp_path / "m.txt")
    assert (status, out, err.count("\n")) == (1, "", 1) and err.startswith("ERROR: not an ONNX")
    assert list(tmp_path.iterdir()) == []


def test_the_commands_show_no_control_characters(tmp_path, command):
    names = {"\x1b[31m\x07.txt": r"\x1b[31m\x07.txt", "\x9b\u202e.txt": r"\x9b\u202e.txt",
             os.fsdecode(b"\xff.txt"): r"\xff.txt"}
    for name, shown in names.items():
        (tmp_path / name).write_text("no model")
        status, out, err = command("import-onnx", tmp_path / name / "below", tmp_path / "m.txt")
        assert (status, out, err) == (1, "", f"ERROR: {tmp_path}/{shown}/below: Not a directory\n")
    graph = gemm([[1, 2]], alpha=1.0)
    graph.graph.node[0].op_type, graph.graph.node[0].name = "Tan", "\x1b[31m"
    (tmp_path / "graph").write_bytes(graph.SerializeToString())
    status, out, err = command("import-onnx", tmp_path / "graph", tmp_path / "m.txt")
    assert (status, out) == (1, "") and err.startswith("ERROR: ") and r"\x1b[31m" in err
    assert err[:-1].isprintable()


def test_the_commands_write_into_an_open_file(digits, tmp_path, command):
    mlnn.to_onnx(mlnn.load(digits / "synth-bn.txt"), tmp_path / "graph")
    (tmp_path / "out.txt").symlink_to("/dev/stdout")
    status, out, err = command("import-onnx", tmp_path / "graph", tmp_path / "out.txt")
    assert (status, out, err) == (0, (digits / "synth-bn.txt").read_text(), "")
    log = tmp_path / "log"
    with open(log, "w") as file:
        file.write("before\n")
        file.flush()
        name = f"/proc/self/fd/{file.fileno()}"
        mlnn.load(digits / "synth-bn.txt").save(name, format="text")
        file.write("after\n")
    assert log.read_text() == f"before\n{(digits / 'synth-bn.txt').read_text()}after\n"


def test_the_commands_say_that_memory_runs_out(digits, tmp_path):
    code = ("import mlnn, sys; from mlnn.__main__ import main\n"
            "def load(*arguments): raise MemoryError\n"
            "mlnn.load = load; sys.exit(main(['export-onnx', 'model', 'out']))")
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (1, "", "ERROR: out of memory\n")


@pytest.mark.parametrize("shape", [(0, 2**31 - 1), (2**31 - 1, 0), (0, 0)])
def test_weights_without_values_take_no_memory(shape):
    before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    with pytest.raises(mlnn.Error, match=r"^map \(Gemm\): weights of shape \(\d+, \d+\) compute nothing$"):
        mlnn.from_onnx(gemm(np.zeros(shape), 5))
    assert resource.getrusage(resource.RUSAGE_SELF).ru_maxrss < before + 100_000  # KiB


@pytest.mark.parametrize("dims", [(0, 1 << 40), (-1, 2), (1 << 31, 0)])
def test_impossible_shapes_are_refused(dims):
    proto = gemm([[1, 2]])
    tensor = proto.graph.initializer[0]
    tensor.ClearField("dims")
    tensor.ClearField("raw_data")
    tensor.dims.extend(dims)
    with pytest.raises(mlnn.Error, match="no array has the shape|not an ONNX model"):
        mlnn.from_onnx(proto)


UNREADABLE = "/proc/self/mem"  # opens, but has nothing at its beginning


def test_a_failing_read_is_told_with_the_name_of_the_file(digits, tmp_path, command):
    for line in (("export-onnx", UNREADABLE, tmp_path / "out.onnx"),
                 ("import-onnx", UNREADABLE, tmp_path / "out.txt"),
                 ("import-onnx", tmp_path, tmp_path / "out.txt")):
        reason = "Is a directory" if line[1] == tmp_path else "Input/output error"
        assert command(*line) == (1, "", f"ERROR: {line[1]}: {reason}\n")
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("line, suffix", [("export-onnx {model}", ".onnx"),
                                          ("import-onnx {graph}", ".txt"),
                                          ("import-onnx {graph}", ".mlnn")])
def test_a_failing_write_leaves_the_old_file(digits, tmp_path, command, line, suffix):
    model, graph = digits / "synth-bn.txt", tmp_path / "graph"
    mlnn.to_onnx(mlnn.load(model), graph)
    names = ("out", "full", "folder")
    out, full, folder = (tmp_path / f"{name}{suffix}" for name in names)
    out.write_text("old")
    full.symlink_to("/dev/full")
    folder.mkdir()
    before = sorted(tmp_path.iterdir())
    words = line.format(model=model, graph=graph).split()
    assert command(*words, full) == (1, "", f"ERROR: {full}: No space left on device\n")
    assert command(*words, folder) == (1, "", f"ERROR: {folder}: Is a directory\n")
    limit = 4096  # bytes; all of the files are longer
    assert command(*words, out, file_size=limit) == (1, "", f"ERROR: {out}: File too large\n")
    assert out.read_text() == "old"
    assert sorted(tmp_path.iterdir()) == before and list(folder.iterdir()) == []


def recordings(digits, model):
    paths = sorted((digits / "frames").glob("*.npy"))
    assert len(paths) == 30
    return [model.stack(np.load(path)) for path in paths]


def test_the_commands_export_what_makes_input_vectors(digits, tmp_path, command):
    model, out, back = mlnn.load(digits / "synth.txt"), tmp_path / "m.onnx", tmp_path / "back.txt"
    for words in [], ["--normalisation"], ["--context"], ["--normalisation", "--context"]:
        assert command("export-onnx", *words, digits / "synth.txt", out) == (0, "", "")
        expected = mlnn.to_onnx(model, normalisation="--normalisation" in words, context="--context" in words)
        assert out.read_bytes() == expected.SerializeToString()
        assert command("import-onnx", out, back) == (0, "", "")
        assert back.read_bytes() == (digits / "synth.txt").read_bytes()
    model.features = mlnn.FeatureDescription()
    model.normalisation = None
    model.save(tmp_path / "bare.txt")
    out.unlink()
    assert command("export-onnx", "--context", tmp_path / "bare.txt", out) == (
        1, "", "ERROR: the model does not tell what frames its inputs are made of\n")
    assert not out.exists()


@pytest.mark.parametrize("name", ["synth", "synth-bn"])
def test_another_engine_computes_the_models_outputs_from_the_export(digits, tmp_path, name):
    """Both engines compute in single precision, each with its own order of additions, so each is
    compared with double precision; against each other both errors add up."""
    cv2 = pytest.importorskip("cv2")
    model = mlnn.load(digits / f"{name}.txt")
    mlnn.to_onnx(model, tmp_path / "m.onnx")
    network = cv2.dnn.readNetFromONNX(str(tmp_path / "m.onnx"))
    worst = apart = 0
    for inputs in recordings(digits, model):
        network.setInput(inputs)
        outputs = network.forward()
        worst = max(worst, np.abs(outputs - naive(model, inputs)).max())
        apart = max(apart, np.abs(outputs - model(inputs)).max())
    print(f"{name}: OpenCV differs from double precision by {worst:.1e}, from mlnn by {apart:.1e}")
    assert worst < TOLERANCE
    assert apart < 2 * TOLERANCE


def recompute(torch, graph, inputs):
    """What an ONNX graph of the operators that the export uses gives, by PyTorch."""
    return recomputed(torch, graph, inputs)["outputs"].numpy()


def recomputed(torch, graph, inputs):
    """All of its values by their names."""
    functional = torch.nn.functional
    values = {tensor.name: torch.from_numpy(ONNX.numpy_helper.to_array(tensor).copy()).double()
              for tensor in graph.initializer}
    values["inputs"] = torch.from_numpy(inputs).double()
    kinds = {tensor.name: torch.quint8 if tensor.data_type == ONNX.TensorProto.UINT8 else torch.qint8
             for tensor in graph.initializer}
    operators = {
        "Gemm": lambda a, x, w, b=None: functional.linear(x, w, b),
        "BatchNormalization": lambda a, x, scale, shift, mean, var:
            functional.batch_norm(x, mean, var, scale, shift, eps=a["epsilon"]),
        "Sigmoid": lambda a, x: torch.sigmoid(x), "Tanh": lambda a, x: torch.tanh(x),
        "Relu": lambda a, x: torch.relu(x), "Softplus": lambda a, x: functional.softplus(x),
        "LeakyRelu": lambda a, x: functional.leaky_relu(x, a["alpha"]),
        "Elu": lambda a, x: functional.elu(x, a["alpha"]), "Mul": lambda a, x, y: x * y,
        "QuantizeLinear": lambda a, x, scale, zero: torch.quantize_per_tensor(
            x.float(), float(scale), int(zero), a["zero"]).int_repr().double(),
        "DequantizeLinear": lambda a, codes, scales, zeros:
            (codes - zeros.reshape(-1, 1)) * scales.reshape(-1, 1),
        "Softmax": lambda a, x: torch.softmax(x, a["axis"])}
    for node in graph.node:
        attributes = {a.name: ONNX.helper.get_attribute_value(a) for a in node.attribute}
        if node.op_type == "QuantizeLinear":
            attributes["zero"] = kinds[node.input[2]]
        values[node.output[0]] = operators[node.op_type](attributes, *(values[i] for i in node.input))
    return values


@pytest.mark.parametrize("name", ["synth", "synth-bn"])
def test_pytorch_recomputes_the_digits_from_the_export(torch, digits, name):
    model = mlnn.load(digits / f"{name}.txt")
    graph = mlnn.to_onnx(model).graph
    worst = exact = 0
    for inputs in recordings(digits, model):
        outputs = recompute(torch, graph, inputs)
        exact = max(exact, np.abs(outputs - naive(model, inputs)).max())
        worst = max(worst, np.abs(outputs - model(inputs)).max())
    print(f"{name}: PyTorch differs from double precision by {exact:.1e}, from mlnn by {worst:.1e}")
    assert exact < 1e-6  # leaves what 0.01 as a single-precision slope does
    assert worst < 2 * TOLERANCE


@pytest.mark.parametrize("bits", [8, 4])
@pytest.mark.parametrize("name", ["synth", "synth-bn"])
def test_a_quantised_model_is_exported_in_whole_numbers(torch, digits, tmp_path, name, bits):
    model = mlnn.load(digits / f"{name}.txt").quantize(bits)
    exported = mlnn.to_onnx(model, tmp_path / "q.onnx", quantized=True)
    codes = [ONNX.numpy_helper.to_array(t) for t in exported.graph.initializer
             if t.name.endswith(".codes")]
    assert len(codes) == len(model.layers) and all(c.dtype == np.int8 for c in codes)
    assert max(np.abs(c).max() for c in codes) == (127 if bits == 8 else 7)
    worst = 0
    for inputs in recordings(digits, model):
        worst = max(worst, np.abs(recompute(torch, exported.graph, inputs) - naive(model, inputs)).max())
    print(f"{name}, {bits} bits: PyTorch differs from double precision by {worst:.1e}")
    assert worst < 1e-6
    assert state(mlnn.from_onnx(tmp_path / "q.onnx")) == state(model)
    plain = mlnn.to_onnx(model)
    assert {node.op_type for node in plain.graph.node} == (
        {node.op_type for node in exported.graph.node} - {"DequantizeLinear"})
    assert exported.ByteSize() < 0.35 * plain.ByteSize()


@pytest.mark.parametrize("bits", [8, 4])
@pytest.mark.parametrize("name", ["synth", "synth-bn"])
def test_an_export_of_rounded_inputs_stays_within_its_bound(torch, digits, tmp_path, name, bits):
    """PyTorch rounds the inputs; each layer's sums stay within half a scale for each weight."""
    model = mlnn.load(digits / f"{name}.txt").quantize(bits)
    inputs = np.concatenate(recordings(digits, model)[:3])
    exported = mlnn.to_onnx(model, tmp_path / "q.onnx", quantized=True, frames=inputs)
    kinds = [node.op_type for node in exported.graph.node]
    assert kinds.count("QuantizeLinear") == len(model.layers)
    assert kinds.count("DequantizeLinear") == 2 * len(model.layers)
    exact = recomputed(torch, mlnn.to_onnx(model).graph, inputs)
    found = recomputed(torch, exported.graph, inputs)
    before = "inputs"
    for number, layer in enumerate(model.layers, 1):
        scale = float(found[f"layer{number}.input_scale"])
        moved = np.abs((found[before] - exact[before]).numpy()).max()
        allowed = (scale / 2 * 1.001 + moved) * np.abs(layer.weights).sum(axis=1).astype(float)
        apart = np.abs((found[f"layer{number}.affine"] - exact[f"layer{number}.affine"]).numpy())
        assert (apart <= allowed).all() and apart.max() > 0
        before = f"layer{number}.activated"
    same = (found["outputs"].numpy().argmax(axis=1) == exact["outputs"].numpy().argmax(axis=1)).mean()
    print(f"{name}, {bits} bits: {same:.1%} of the best classes are the same with rounded inputs")
    assert same > 0.95
    assert state(mlnn.from_onnx(tmp_path / "q.onnx")) == state(model)


def test_the_command_rounds_inputs_by_what_recordings_need(digits, tmp_path, command):
    quantised, out = tmp_path / "q.txt", tmp_path / "q.onnx"
    model = mlnn.load(digits / "synth.txt").quantize()
    model.save(quantised)
    paths = sorted((digits / "frames").glob("*.npy"))[:3]
    inputs = np.concatenate([model.stack(np.load(path)) for path in paths])
    expected = mlnn.to_onnx(model, quantized=True, frames=inputs).SerializeToString()
    np.save(tmp_path / "stacked.npy", inputs)
    for names in paths, [tmp_path / "stacked.npy"]:
        out.write_bytes(b"old")
        assert command("export-onnx", "--quantized", quantised, out, "--frames", *names) == (0, "", "")
        assert out.read_bytes() == expected


@pytest.mark.parametrize("data, message", [
    (b"", "expected an array in NumPy's format"),
    (b"text", "expected an array in NumPy's format"),
    (None, "frames of 3 values in a window of 5 make 15 inputs, but the model has 600")])
def test_the_command_refuses_what_are_no_recordings(digits, tmp_path, command, data, message):
    quantised, out, frames = tmp_path / "q.txt", tmp_path / "q.onnx", tmp_path / "f.npy"
    mlnn.load(digits / "synth.txt").quantize().save(quantised)
    out.write_text("old")
    if data is None:
        np.save(frames, np.ones((2, 3), np.float32))
    else:
        frames.write_bytes(data)
    status, stdout, stderr = command("export-onnx", "--quantized", quantised, out, "--frames", frames)
    assert (status, stdout) == (1, "")
    assert stderr == f"ERROR: {frames}: {message}\n"
    assert out.read_text() == "old"


def test_inputs_are_rounded_by_what_a_recording_needs(model):
    model.layers[0].weights[:] = 1
    model.layers[0].act_fn = "relu"
    model.layers[1].weights[:] = 0
    exported = mlnn.to_onnx(model, quantized=True, frames=[[-2, 0, 1, 0]])
    constants = {t.name: ONNX.numpy_helper.to_array(t) for t in exported.graph.initializer}
    assert constants["layer1.input_scale"] == np.float32(2) / 127
    assert constants["layer1.input_zero"].dtype == np.int8
    assert constants["layer2.input_zero"].dtype == np.uint8  # behind a ReLU nothing is negative
    plain = mlnn.to_onnx(model, quantized=True, frames=np.zeros((1, 4)))
    assert ONNX.numpy_helper.to_array(next(
        t for t in plain.graph.initializer if t.name == "layer1.input_scale")) == 1
    with pytest.raises(mlnn.Error, match="^frames: given without quantized$"):
        mlnn.to_onnx(model, frames=[[1, 2, 3, 4]])
    with pytest.raises(mlnn.Error, match="^frames: there are none$"):
        mlnn.to_onnx(model, quantized=True, frames=np.zeros((0, 4)))
    with pytest.raises(mlnn.Error, match="^frames: the inputs of layer1 are not finite$"):
        mlnn.to_onnx(model, quantized=True, frames=[[1, np.nan, 3, 4]])


@pytest.mark.parametrize("change, message", [
    (lambda nodes: nodes.pop(1), "rounding (QuantizeLinear): only with a DequantizeLinear behind it "
                                 "can be represented"),
    (lambda nodes: nodes[1].input.__setitem__(1, "other"),
     "back (DequantizeLinear): another scale or zero point than rounding (QuantizeLinear) has")])
def test_inputs_that_stay_whole_numbers_are_refused(change, message):
    helper = ONNX.helper
    nodes = [helper.make_node("QuantizeLinear", ["x", "scale", "zero"], ["whole"], "rounding"),
             helper.make_node("DequantizeLinear", ["whole", "scale", "zero"], ["real"], "back"),
             helper.make_node("Gemm", ["real", "w"], ["y"], "product")]
    change(nodes)
    if len(nodes) == 2:
        nodes[1].input[0] = "whole"
    constants = [ONNX.numpy_helper.from_array(np.asarray(value), name) for name, value in {
        "scale": np.float32(0.5), "other": np.float32(0.25), "zero": np.int8(0),
        "w": np.ones((2, 3), np.float32)}.items()]
    real = ONNX.TensorProto.FLOAT
    graph = helper.make_graph(
        nodes, "g", [helper.make_tensor_value_info("x", real, ["n", 2])],
        [helper.make_tensor_value_info("y", real, ["n", 3])], constants)
    proto = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    with pytest.raises(mlnn.Error) as caught:
        mlnn.from_onnx(proto)
    assert str(caught.value) == message


def test_layers_that_are_no_whole_numbers_stay_floats_in_a_quantised_export(model, tmp_path):
    with pytest.raises(mlnn.Error, match="^no layer has weights that were quantised by rows$"):
        mlnn.to_onnx(model, tmp_path / "q.onnx", quantized=True)
    assert list(tmp_path.iterdir()) == []
    model.layers[0].weights = [[1, -2, 0, 127], [0, 0, 0, 0], [0.5, 0.25, 0, 0]]
    codes, scales = model.layers[0].row_codes
    assert codes.tolist() == [[1, -2, 0, 127], [0, 0, 0, 0], [2, 1, 0, 0]]
    assert scales.tolist() == [1, 0, 0.25] and codes.dtype == np.int8
    assert model.layers[1].row_codes is None
    exported = mlnn.to_onnx(model, quantized=True)
    assert [node.op_type for node in exported.graph.node].count("DequantizeLinear") == 1
    assert state(mlnn.from_onnx(exported)) == state(model)


def test_the_commands_export_whole_numbers(digits, tmp_path, command):
    mlnn.load(digits / "synth.txt").quantize().save(tmp_path / "q.txt")
    out, back = tmp_path / "q.onnx", tmp_path / "back.txt"
    assert command("export-onnx", "--quantized", tmp_path / "q.txt", out) == (0, "", "")
    assert any(node.op_type == "DequantizeLinear" for node in ONNX.load(str(out)).graph.node)
    assert command("import-onnx", out, back) == (0, "", "")
    assert back.read_bytes() == (tmp_path / "q.txt").read_bytes()
    assert command("export-onnx", "--quantized", digits / "synth.txt", out) == (
        1, "", "ERROR: no layer has weights that were quantised by rows\n")


@pytest.mark.parametrize("act_fn", mlnn.ACT_FNS)
def test_other_engines_know_every_activation_of_the_export(torch, model, tmp_path, act_fn):
    cv2 = pytest.importorskip("cv2")
    for layer in model.layers:
        layer.act_fn = act_fn
    exported = mlnn.to_onnx(model, tmp_path / "m.onnx")
    network = cv2.dnn.readNetFromONNX(str(tmp_path / "m.onnx"))
    inputs = inputs_for(model)
    network.setInput(inputs)
    outputs = model(inputs, stacked=True)
    assert np.abs(network.forward() - outputs).max() < TOLERANCE
    assert np.abs(recompute(torch, exported.graph, inputs) - outputs).max() < TOLERANCE
    assert state(mlnn.from_onnx(exported)) == state(model)


@pytest.mark.parametrize("opset", [9, 13, 16])
@pytest.mark.parametrize("name", ["Sigmoid", "Tanh", "ReLU", "SiLU", "LeakyReLU", "ELU", "Softplus"])
def test_what_pytorch_exports_can_be_imported(torch, tmp_path, name, opset):
    module = torch_network(torch, getattr(torch.nn, name)())
    torch.onnx.export(module, torch.zeros(3, 7), tmp_path / "t.onnx", opset_version=opset,
                      do_constant_folding=False, input_names=["x"], dynamic_axes={"x": {0: "n"}})
    model = mlnn.from_onnx(tmp_path / "t.onnx")
    inputs = inputs_for(model)
    with torch.no_grad():
        expected = module(torch.from_numpy(inputs)).numpy()
    assert np.abs(model(inputs) - expected).max() < TOLERANCE


def test_operators_without_a_place_are_refused_by_name(model):
    for operator, message in [("Gelu", r"\(Gelu\) cannot be represented"),
                              ("LogSoftmax", r"\(LogSoftmax\) cannot be represented")]:
        exported = mlnn.to_onnx(model)
        exported.graph.node[-1].op_type = operator
        with pytest.raises(mlnn.Error, match=message):
            mlnn.from_onnx(exported)
    with pytest.raises(mlnn.Error, match="not an ONNX model"):
        mlnn.from_onnx(b"nonsense")


def test_broken_files_are_refused_without_another_error(model):
    """Every byte of an export changed, one at a time: an error of the module, or a model."""
    exported = bytearray(mlnn.to_onnx(model).SerializeToString())
    refused = 0
    for place in range(len(exported)):
        broken = exported.copy()
        broken[place] ^= 0x5A
        try:
            mlnn.from_onnx(bytes(broken))
        except mlnn.Error:
            refused += 1
    print(f"{refused} of {len(exported)} refused")
    assert refused > len(exported) / 4


@pytest.mark.parametrize("name, values", [
    ("layer1.weights", np.zeros((3, 5), np.float32)), ("layer1.gamma_inf", np.zeros(2, np.float32)),
    ("layer1.mean", np.zeros(2, np.float32)), ("layer2.bias", np.zeros(3, np.float32)),
    ("layer2.weights", np.zeros((2, 3, 1), np.float32)), ("layer2.weights", np.zeros(6, np.float32)),
    ("layer2.weights", np.array([["a"] * 3] * 2, object))])
def test_constants_that_do_not_fit_are_refused(model, name, values):
    exported = mlnn.to_onnx(model)
    tensor, = [t for t in exported.graph.initializer if t.name == name]
    tensor.CopyFrom(ONNX.numpy_helper.from_array(values, name))
    with pytest.raises(mlnn.Error):
        mlnn.from_onnx(exported)
    if name == "layer1.weights":  # fits another graph, if not the model's metadata
        exported.graph.input[0].type.tensor_type.shape.dim[1].dim_value = 5
        assert mlnn.from_onnx(exported).num_inputs == 5


def test_graphs_that_are_no_chain_are_refused(model):
    exported = mlnn.to_onnx(model)
    add = ONNX.helper.make_node("Add", ["softmax", "softmax"], ["outputs"], "twice")
    exported.graph.node[-1].output[0] = "softmax"
    exported.graph.node.append(add)
    with pytest.raises(mlnn.Error, match=r"twice \(Add\) cannot be represented"):
        mlnn.from_onnx(exported)
    exported = mlnn.to_onnx(model)
    exported.graph.output[0].name = "layer1.weights"
    with pytest.raises(mlnn.Error, match="layer1.weights is not where the chain ends"):
        mlnn.from_onnx(exported)


def test_a_graph_ends_where_its_output_is(model):
    exported = mlnn.to_onnx(model)
    exported.graph.output[0].name = "layer1.affine"
    with pytest.raises(mlnn.Error, match="^broken metadata 'mlnn': "):  # of more layers
        mlnn.from_onnx(exported)
    del exported.metadata_props[:]
    layer, = mlnn.from_onnx(exported).layers
    assert not layer.batch_norm and layer.act_fn == "linear"
    assert (layer.weights == model.layers[0].weights).all()
