"""The numbers in a file, not only its length: every call of a model, on layers of every odd shape
with sizes up to 2^31 - 1, within bounds of time and memory; and so of what else the package has. The
calls are those that the classes and the package have: a new one is tried, or this test says that it
does not know what to give it. Where the environment sets
MLNN_EXHAUSTIVE, all powers of two are tried."""
import subprocess
import sys

import pytest

CHILD = r"""
import dataclasses, os, pickle, resource, tempfile
import numpy as np
import mlnn

LARGEST = 2**31 - 1
MEMORY = 96 << 20        # beside what the interpreter has at the start
FEATURES = ("# nn_tune feat_desc mel_deltas:bands=1,left=%d,right=0,deltas=0,line_kernels=0,"
            "line_kernel_width=0\n")


def rows(count, values):
    return (" ".join(["1"] * values) + "\n") * count if values and count else ""


def text(kind, outputs, inputs, layers, window=0):
    lines = ["MultiLayerNNModel_v2\nsoftmax 1\n", FEATURES % (window - 1) if window else "",
             f"num_layers {layers}\n"]
    for number in range(1, layers + 1):
        if kind == "plain":
            lines.append(f"layer {number} size {outputs} {inputs + 1}\nact_fn relu\n"
                         + rows(outputs, inputs + 1))
        else:
            lines.append(f"batch_norm_layer {number} size {outputs} {inputs}\n"
                         + rows(outputs, inputs) + "gamma_beta\n" + rows(outputs, 4))
    return "".join(lines).encode()


def shapes():
    exponents = range(31) if "MLNN_EXHAUSTIVE" in os.environ else (0, 1, 4, 12, 16, 24, 30)
    sizes = sorted({size for k in exponents for size in (2**k - 1, 2**k, 2**k + 1)}
                   | {LARGEST - 2, LARGEST - 1, LARGEST})
    for size in sizes:
        for kind in "plain", "batch_norm":
            for layers in 1, 50:
                yield kind, 0, size, layers
            if 0 < size <= 4097:
                for outputs, inputs in (1, size), (size, 1), (size, 0):
                    if kind == "plain" or inputs:
                        yield kind, outputs, inputs, 1


def frames_for(model):
    return np.zeros((300, model.num_inputs if model.num_inputs < 10000 else 1), np.float32)


# What is given to each call, in the order of the class; a call may refuse it.
CALLS = {
    "__call__": lambda m: m(frames_for(m)),
    "stack": lambda m: m.stack(np.zeros((300, 1), np.float32)),
    "to_bytes": lambda m: mlnn.Model.from_bytes(m.to_bytes()),
    "to_text": lambda m: mlnn.Model.from_bytes(m.to_text()),
    "to_c_array": lambda m: m.to_c_array(),
    "save": lambda m: m.save(os.devnull, "image"),
    "copy": lambda m: m.copy(), "to_arrays": lambda m: mlnn.Model.from_arrays(m.to_arrays()),
    "state_dict": lambda m: m.state_dict(), "load_state_dict": lambda m: m.load_state_dict(m.state_dict()),
    "fold": lambda m: m.fold(),
    "retain_precision_bits": lambda m: m.retain_precision_bits(4),
    "quantize": lambda m: m.quantize(8, least_squares=True, correct=frames_for(m)),
    "zeros": lambda m: m.zeros(),
    "set_act_fn": lambda m: m.set_act_fn("tanh"),
    "create_first_layer": lambda m: m.create_first_layer(1, 1),
    "add_layer": lambda m: m.add_layer(2),
    "delete_layers": lambda m: m.delete_layers(1),
    "__iadd__": lambda m: m.__iadd__(m.copy()),
    "__imul__": lambda m: m.__imul__(2),
    "__getstate__": lambda m: pickle.loads(pickle.dumps(m)),
    "__repr__": repr, "_repr_html_": lambda m: m._repr_html_(),
    "plot": lambda m: None,  # by matplotlib, which takes more memory than it may here: test_shown.py
    "check": lambda m: m.check(),
    "digest": lambda m: m.digest(),
    "budget": lambda m: m.budget(),
    "trace": lambda m: m.trace(frames_for(m)),
    "sweep": lambda m: m.sweep([frames_for(m)], [4]),
    "prove_quantization": lambda m: m.prove_quantization([frames_for(m)], 4),
    "sweep_quantization": lambda m: m.sweep_quantization([frames_for(m)], [4, 8]),
    # These make models; from_bytes is what all are made by here.
    "from_bytes": lambda m: None, "load": lambda m: None, "from_arrays": lambda m: None,
}


# Of a layer and of a description of features; what has no entry is looked at.
OF_OTHERS = {
    "__repr__": repr, "_repr_html_": lambda x: x._repr_html_(), "__str__": str, "__hash__": hash, "__eq__": lambda x: x == x,
}


def look_at(thing):
    for name in vars(type(thing)):
        if name in OF_OTHERS:
            OF_OTHERS[name](thing)
        elif not name.startswith("_"):
            getattr(thing, name)


def describe(number):
    for field in dataclasses.fields(mlnn.FeatureDescription):
        try:
            description = mlnn.FeatureDescription(**{field.name: number})
            look_at(description)
            mlnn.Model().features = description
        except ValueError:
            pass


# What the package has, with a model of one of the shapes, the file that has it, and a size.
PACKAGE = {
    "load": lambda m, path, size: mlnn.load(path),
    "Model": lambda m, path, size: None,  # all that it has is tried above
    "Layer": lambda m, path, size: [look_at(layer.copy()) for layer in m.layers],
    "FeatureDescription": lambda m, path, size: (look_at(m.features), describe(size)),
    "seed_random": lambda m, path, size: mlnn.seed_random(size),
    "ACT_FNS": lambda m, path, size: list(mlnn.ACT_FNS),
    "Error": lambda m, path, size: mlnn.Error(), "Warning": lambda m, path, size: mlnn.Warning(),
    "average": lambda m, path, size: mlnn.average([m, m.copy()]),
    "diff": lambda m, path, size: mlnn.diff(m, m.copy()),
    "compare": lambda m, path, size: mlnn.compare(m.trace(frames_for(m)), m.trace(frames_for(m))),
    "diagnose": lambda m, path, size: mlnn.diagnose(path),
    "score_recordings": lambda m, path, size: mlnn.score_recordings(m, [("zeros", frames_for(m))]),
    # Other packages make what these take; test_convert.py and test_shown.py try them.
    "plot_posteriors": None,
    "from_onnx": None, "to_onnx": None, "from_torch": None, "from_sklearn": None,
    "to_torch": None,
}


def is_public(name):
    return not name.startswith("_") or (name in CALLS and name in vars(mlnn.Model))


def calls():
    for name in filter(is_public, vars(mlnn.Model)):
        if isinstance(vars(mlnn.Model)[name], property):
            yield name, lambda m, name=name: getattr(m, name)
        else:
            yield name, CALLS[name]  # KeyError: say above what to give it


def package_calls(path, size):
    for name in mlnn.__all__:
        call = PACKAGE[name]  # KeyError: say above what to give it
        if call is not None:
            yield name, lambda m, call=call: call(m, path, size)


def used():
    pages = int(open("/proc/self/statm").read().split()[5])  # data and stack
    return pages * resource.getpagesize()


def run():
    import warnings
    warnings.simplefilter("ignore")
    resource.setrlimit(resource.RLIMIT_CPU, (60, 60))
    resource.setrlimit(resource.RLIMIT_DATA, (used() + MEMORY,) * 2)
    tried = 0
    path = os.path.join(tempfile.mkdtemp(), "model")
    for kind, outputs, inputs, layers in shapes():
        if kind == "plain" and inputs == LARGEST:
            continue  # its size line counts the bias as well
        for window in {0, inputs if inputs > 1 and layers == 1 else 0}:
            data = text(kind, outputs, inputs, layers, window)
            with open(path, "wb") as file:
                file.write(data)
            for name, call in (*calls(), *package_calls(path, max(outputs, inputs))):
                where = f"{name} of {layers} {kind} {outputs} x {inputs}, window {window}"
                try:
                    call(mlnn.Model.from_bytes(data))
                except (ValueError, mlnn.Error):
                    pass
                except MemoryError:
                    raise SystemExit("out of memory: " + where)
                tried += 1
    os.remove(path)
    os.rmdir(os.path.dirname(path))
    print("tried" if tried > 2000 else tried)


run()
"""


def test_every_call_costs_no_more_than_the_file_does():
    result = subprocess.run([sys.executable, "-c", CHILD], capture_output=True, text=True)
    assert (result.returncode, result.stdout, result.stderr) == (0, "tried\n", "")
