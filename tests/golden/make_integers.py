#!/usr/bin/env python3
"""Writes integers.csv: what the integer pass must give on every processor. With --models FOLDER, it
writes the models there instead, as texts.

Computes it from docs/integer-pass.md, one value at a time and with nothing of the library. A Python
float is a double, so each operation on floats is done in doubles and then rounded once to a float;
for +, -, * and / that gives the float which the operation itself gives.
"""

import math
import pathlib
import struct
import sys

FOLDER = pathlib.Path(__file__).parent
ACTIVATIONS = ["linear", "sigmoid", "tanh", "relu", "leaky_relu", "elu", "softplus", "silu"]
WIDTHS = [70, 37, 35, 21, 19]
WIDE_INPUTS = ["none", "first", "all"]
FRAMES = 5


def f32(value):
    """The nearest float."""
    try:
        return struct.unpack("<f", struct.pack("<f", value))[0]
    except OverflowError:
        return math.copysign(math.inf, value)


def add(a, b):
    return f32(a + b)


def mul(a, b):
    return f32(a * b)


def div(a, b):
    return f32(a / b) if b != 0 else math.nan if a == 0 or a != a else math.copysign(math.inf, a)


def muladd(a, b, c):
    return add(mul(a, b), c)


def scaled(a, n):
    """a * 2^n, rounded once."""
    return f32(math.ldexp(a, int(n))) if math.isfinite(a) else a


# --- Activations ---

LOG2E = f32(1.44269504088896341)
LN2_HIGH = f32(0.693145751953125)
LN2_LOW = f32(1.428606765330187045e-06)
SHIFT = 12582912.0


def reduced(x):
    """x as n ln 2 + rest."""
    n = add(muladd(x, LOG2E, SHIFT), -SHIFT)
    high = muladd(n, -LN2_HIGH, x)
    return n, muladd(n, -LN2_LOW, high)


def expm1_core(r):
    p = f32(1.394599392e-03)
    for c in (8.366340984e-03, 4.166629051e-02, 1.66665455e-01, 0.5000000058):
        p = muladd(p, r, f32(c))
    return muladd(mul(r, r), p, r)


def exp_parts(x):
    if x != x:
        return x, 0
    n, rest = reduced(x)
    return add(expm1_core(rest), 1.0), n


def exp_of_negative(x):
    mantissa, n = exp_parts(-104.0 if x < -104.0 else x)
    return scaled(mantissa, n)


def expm1_of_negative(x):
    if x != x:
        return x
    n, rest = reduced(-20.0 if x < -20.0 else x)
    scale = math.ldexp(1.0, int(n))
    return muladd(scale, expm1_core(rest), add(scale, -1.0))


def log1p(e):
    s = div(add(e, e), add(e, 2.0))
    z = mul(s, s)
    p = f32(5.455538423e-04)
    for c in (2.189074071e-03, 1.250631539e-02, 8.333305617e-02):
        p = muladd(p, z, f32(c))
    return muladd(mul(s, z), p, s)


def relu(x):
    return 0.0 if x < 0 else x


def sigmoid(x):
    if x != x:
        return x
    t = min(max(mul(x, -LOG2E), -125.0), 125.0)
    n = add(add(t, SHIFT), -SHIFT)
    r = add(t, -n)
    p = f32(1.326472033e-03)
    for c in (9.671512991e-03, 5.550733581e-02, 2.402224243e-01, 6.931470037e-01, 1.0):
        p = muladd(p, r, f32(c))
    return div(1.0, add(scaled(p, n), 1.0))


def tanh(x):
    t = expm1_of_negative(mul(abs(x), -2.0))
    return math.copysign(div(0.0 - t, add(t, 2.0)), x)


def elu(x):
    return expm1_of_negative(x) if x < 0 else x


def softplus(x):
    return add(relu(x), log1p(exp_of_negative(-abs(x))))


def silu(x):
    mantissa, n = exp_parts(max(-abs(x), -125.0) if x == x else x)
    denominator = add(scaled(mantissa, n), 1.0)
    if not x < 0:
        return div(x, denominator)
    half = add(muladd(n, 0.5, SHIFT), -SHIFT)
    numerator = mul(max(x, -125.0), scaled(mantissa, half))
    return scaled(div(numerator, denominator), n - half)


FUNCTIONS = {"linear": lambda x: x, "sigmoid": sigmoid, "tanh": tanh, "relu": relu,
             "leaky_relu": lambda x: mul(x, f32(0.01)) if x < 0 else x, "elu": elu,
             "softplus": softplus, "silu": silu}


def softmax(values):
    largest = values[0]
    for value in values:
        largest = value if value > largest else largest
    values = [exp_of_negative(add(value, -largest)) for value in values]
    chains = [0.0] * 16
    for i, value in enumerate(values):
        chains[i % 16] = add(chains[i % 16], value)
    half = 8
    while half > 0:
        chains = [add(chains[i], chains[i + half]) for i in range(half)]
        half //= 2
    return [div(value, chains[0]) for value in values]


# --- Layers ---

def to_integers(x, most):
    """The integers of a frame's inputs, and what one of them stands for."""
    if not all(math.isfinite(value) for value in x):
        return [0] * len(x), math.nan
    largest = max(abs(value) for value in x)
    if largest < 2.0**-100:
        return [0] * len(x), 0.0
    factor = div(most, largest)
    return [round(mul(value, factor)) for value in x], div(largest, most)  # halves to even


def coded_row(codes, scale, x, is_wide):
    integers, input_scale = to_integers(x, 32639 if is_wide else 127)
    if is_wide:
        high = [(value + 128) // 256 for value in integers]
        low = [value - 256 * upper for value, upper in zip(integers, high)]
        sums = [f32(sum(c * v for c, v in zip(codes, part))) for part in (high, low)]
        total = add(mul(sums[0], 256.0), sums[1])
    else:
        total = f32(sum(c * v for c, v in zip(codes, integers)))
    return mul(mul(total, input_scale), scale)


def float_row(weights, x):
    total = 0.0
    for weight, value in zip(weights, x):
        total = muladd(weight, value, total)
    return total


def row_of(index, r):
    """A layer's row: codes and their scale; of the third layer, which has weights that are no
    multiples of anything, these and None."""
    places = range(r * WIDTHS[index], (r + 1) * WIDTHS[index])
    if index == 2:
        return [div((29 * i) % 1009 - 504, 1009) for i in places], None
    most = 7 if index == 1 else 127
    return [(37 * i + 11) % (2 * most + 1) - most for i in places], (8 + r % 7) / 2048


def factor_of(index, r):
    """That of a batch-norm layer, which is the second one."""
    return (r - 9) / 8 if index == 1 else None


def shift_of(r):
    return (r % 5 - 2) / 4


def layer(index, x, act_fn, is_wide):
    results = []
    for r in range(WIDTHS[index + 1]):
        row, scale = row_of(index, r)
        value = float_row(row, x) if scale is None else coded_row(row, scale, x, is_wide)
        if factor_of(index, r) is not None:
            value = mul(value, factor_of(index, r))
        results.append(FUNCTIONS[act_fn](add(value, shift_of(r))))
    return results


def frame(number):
    x = [((53 * i + 17 * number) % 201 - 100) / 64 for i in range(WIDTHS[0])]
    if number == 1:
        x = [math.ldexp(value, -99) for value in x]
    if number == 2:
        x[3] = math.inf
    if number == 3:
        x = [math.ldexp(value, 40) for value in x]
    return x


def evaluate(x, act_fn, wide_inputs):
    for index in range(len(WIDTHS) - 1):
        is_wide = wide_inputs == "all" or (wide_inputs == "first" and index == 0)
        x = layer(index, x, act_fn if index < 3 else "linear", is_wide)
    return softmax(x)


def hexadecimal(value):
    return "7fc00000" if value != value else struct.pack(">f", value).hex()


def line_of(values):
    return "\t".join("%.9g" % value for value in values)


def layer_lines(index, act_fn):
    inputs, outputs = WIDTHS[index], WIDTHS[index + 1]
    rows = [row_of(index, r) for r in range(outputs)]
    weights = [[c * scale for c in row] if scale else row for row, scale in rows]
    if index == 1:
        return [f"batch_norm_layer {index + 1} size {outputs} {inputs}", *map(line_of, weights),
                "gamma_beta",
                *(line_of([1, 0, factor_of(index, r), shift_of(r)]) for r in range(outputs))]
    return [f"layer {index + 1} size {outputs} {inputs + 1}",
            "act_fn " + (act_fn if index < 3 else "linear"),
            *(line_of([shift_of(r), *weights[r]]) for r in range(outputs))]


def model_text(act_fn):
    """A batch-norm layer has no activation in a text; who reads it has to name that."""
    lines = ["MultiLayerNNModel_v2", "softmax 1",
             f"# nn_tune feat_desc mel_deltas:bands={WIDTHS[0]},left=0,right=0,deltas=0,"
             "line_kernels=0,line_kernel_width=0", f"num_layers {len(WIDTHS) - 1}"]
    for index in range(len(WIDTHS) - 1):
        lines += layer_lines(index, act_fn)
    return "\n".join(lines) + "\n"


def write_models(folder):
    for act_fn in ACTIVATIONS:
        (folder / f"{act_fn}.txt").write_text(model_text(act_fn))


def main():
    if sys.argv[1:2] == ["--models"]:
        return write_models(pathlib.Path(sys.argv[2]))
    lines = ["act_fn,wide_inputs,frame,outputs"]
    for act_fn in ACTIVATIONS:
        for wide_inputs in WIDE_INPUTS:
            for number in range(FRAMES):
                outputs = evaluate(frame(number), act_fn, wide_inputs)
                lines.append("%s,%s,%d,%s" % (act_fn, wide_inputs, number,
                                              " ".join(hexadecimal(v) for v in outputs)))
    (FOLDER / "integers.csv").write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
