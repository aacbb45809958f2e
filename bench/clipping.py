"""Measures whether cutting the inputs of layers would make the pass in integers more exact.

The pass (docs/integer-pass.md) rounds the inputs of each layer by one scale for each frame, which
their largest value sets. Here that value is cut at a limit that other recordings gave: so large
that a share of the inputs of the layer, over all their frames, is below it. Limits come from two
voices of examples/digits, and the third one shows what they do.

Usage: clipping.py [MODEL...]       the two networks of examples/digits without MODEL
"""

import csv
import pathlib
import sys

import mlnn
import numpy as np

DIGITS = pathlib.Path(__file__).parent.parent / "examples" / "digits"
SHARES = (1, 0.9999, 0.999, 0.99, 0.95)  # of the inputs that a limit lets pass as they are
BITS = (8, 6)  # of the weights

ACTIVATIONS = {
    "linear": lambda x: x,
    "sigmoid": lambda x: 1 / (1 + np.exp(-x)),
    "tanh": np.tanh,
    "relu": lambda x: np.maximum(x, 0),
}


def rounded(inputs, limit):
    """The inputs, one frame a row, as the pass takes them, none beyond the limit."""
    largest = np.abs(inputs).max(axis=1, keepdims=True)
    scale = np.minimum(largest, limit) / 127
    scale[scale == 0] = 1
    return np.clip(np.rint(inputs / scale), -127, 127) * scale


def affine(layer, inputs):
    sums = inputs @ np.asarray(layer.weights, np.float64).T
    if layer.batch_norm:
        return sums * layer.gamma_inf + layer.beta_inf
    return sums + layer.bias


def softmax(values):
    powers = np.exp(values - values.max(axis=1, keepdims=True))
    return powers / powers.sum(axis=1, keepdims=True)


def run(model, inputs, limits=None):
    """The posteriors, and what went into each layer; in doubles, or with inputs as integers."""
    values = np.asarray(inputs, np.float64)
    seen = []
    for number, layer in enumerate(model.layers):
        seen.append(values)
        if limits is not None:
            values = rounded(values, limits[number])
        values = ACTIVATIONS[layer.act_fn](affine(layer, values))
    return softmax(values), seen


def limits_for(model, recordings, share):
    seen = [run(model, frames)[1] for frames in recordings]
    layers = [np.concatenate([recording[i] for recording in seen]) for i in range(len(seen[0]))]
    return [np.quantile(np.abs(layer), share) for layer in layers]


def decided(posteriors):
    return np.log(np.maximum(posteriors, 1e-30)).sum(axis=0).argmax()


def measure(model, quantised, limits, recordings):
    """The mean difference from the quantised network with exact inputs, and what is decided."""
    differences = []
    same = []
    right = 0
    for frames, label in recordings:
        exact = run(quantised, frames)[0]
        found = run(quantised, frames, limits)[0]
        differences.append(np.abs(found - exact).ravel())
        same.append(found.argmax(axis=1) == run(model, frames)[0].argmax(axis=1))
        right += decided(found) == label
    return np.concatenate(differences).mean(), np.concatenate(same).mean(), right


def stacked(model, names):
    return [model.stack(np.load(DIGITS / "frames" / name)) for name in names]


def main():
    with open(DIGITS / "labels.csv", newline="") as file:
        labels = {row["file"]: int(row["label"]) for row in csv.DictReader(file)}
    shown = [name for name in labels if name.endswith("_f4.npy")]
    others = [name for name in labels if not name.endswith("_f4.npy")]
    print(f"{'network':12} bits  passed as they are  mean difference  same class  right")
    for path in sys.argv[1:] or [DIGITS / "synth.txt", DIGITS / "synth-bn.txt"]:
        model = mlnn.Model.load(path)
        recordings = list(zip(stacked(model, shown), (labels[name] for name in shown)))
        given = stacked(model, others)
        for bits in BITS:
            quantised = model.copy().quantize(bits)
            for share in SHARES:
                limits = limits_for(quantised, given, share)
                if share == 1:
                    limits = [np.inf] * len(limits)
                mean, same, right = measure(model, quantised, limits, recordings)
                print(f"{pathlib.Path(path).stem:12} {bits:4}  {share:18.2%}  {mean:15.3g}  "
                      f"{same:10.2%}  {right:2} of {len(shown)}")


if __name__ == "__main__":
    main()
