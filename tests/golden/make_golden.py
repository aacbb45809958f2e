#!/usr/bin/env python3
"""Writes the golden files of both formats into this folder.

Makes them from the description of the formats (docs/text-format.md, docs/binary-format.md)
with nothing of the library, so that they tell when the library's idea of a format changes.
README.md explains what they hold.
"""

import collections
import fractions
import math
import pathlib
import struct

FOLDER = pathlib.Path(__file__).parent
ACTIVATIONS = ["linear", "sigmoid", "tanh", "relu", "leaky_relu", "elu", "softplus", "silu"]

FEATURES = {"bands": 1, "left": 1, "right": 1, "deltas": 0, "line_kernels": 0,
            "line_kernel_width": 0}
MINVALS = [i / 4 for i in range(120)]
NORMVALS = [1 + i / 8 for i in range(120)]
NOTES = [
    "trained on nothing, to show every line of the format",
    "TRAIN rbm_train in out -deltas_norm_minvals " + ",".join("%.9g" % v for v in MINVALS),
    "TRAIN rbm_train in out -deltas_norm_normvals " + ",".join("%.9g" % v for v in NORMVALS),
    "nn_tune feat_desc mel_deltas:" + ",".join("%s=%d" % item for item in FEATURES.items()),
]
PROPERTIES = {"hidden_act_fn": "sigmoid", "labels": "no yes"}
LOSS = [2.5, 1.25, 0.1]
ACCURACY = [0.5, 0.75]
LAYERS = [
    {"act_fn": "sigmoid", "bias": [0.5, -0.25],
     "weights": [[1, -2, 0.1], [1e-45, -0.0, 3.4028234663852886e38]]},
    {"weights": [[1, 2], [3, 4]],
     "gamma": [1, 2], "beta": [0.5, -0.5], "gamma_inf": [4, 8], "beta_inf": [-1, -3]},
    {"act_fn": "linear", "bias": [0, 1], "weights": [[0.75, -0.75], [1e-7, 123456792]]},
]
# Few values each, so that an image holds codes: 17 values, one of them rare, in half bytes; 18 in
# bytes; 257, one of them rare, in bytes.
CODED_LAYERS = [
    {"act_fn": "relu", "bias": [i / 2 for i in range(8)],
     "weights": [[-0.0 if k == 8 else (k - 8) / 4 for k in (5 * (3 * r + c) % 17 for c in range(3))]
                 for r in range(8)]},
    {"weights": [[(k - 9) / 16 for k in (7 * (8 * r + c) % 18 for c in range(8))]
                 for r in range(4)],
     "gamma": [1, 2, 3, 4], "beta": [0.5, -0.5, 0.25, -0.25],
     "gamma_inf": [0.5, 1, 2, 4], "beta_inf": [-1, 0, 1, 2]},
    {"act_fn": "linear", "bias": [i / 8 for i in range(88)],
     "weights": [[(k - 128) / 128 for k in (3 * (4 * r + c) % 257 for c in range(4))]
                 for r in range(88)]},
]
# Whole numbers times a scale for each row: bytes; half bytes, in more rows than a panel; bytes again,
# with a row of zeros and one whose scale has all 24 bits of a float.
ROW_LAYERS = [
    {"act_fn": "relu", "bias": [i / 2 for i in range(16)],
     "weights": [[(5 * (3 * r + c) % 255 - 127) * (r + 1) / 64 for c in range(3)]
                 for r in range(16)]},
    {"weights": [[(3 * (16 * r + c) % 15 - 7) * (2 * r + 1) / 32 for c in range(16)]
                 for r in range(20)],
     "gamma": [1 + i / 4 for i in range(20)], "beta": [i / 8 for i in range(20)],
     "gamma_inf": [0.5 + i / 16 for i in range(20)], "beta_inf": [i / 2 - 4 for i in range(20)]},
    {"act_fn": "linear", "bias": [-i / 8 for i in range(18)],
     "weights": [[0.0 if r == 4 else (c % 3 - 1) * (1 + 2**-23) if r == 5 else
                  (7 * (20 * r + c) % 201 - 100) * (2 * r + 1) * 2.0**-20 for c in range(20)]
                 for r in range(18)]},
]
VECTORS = ["gamma", "beta", "gamma_inf", "beta_inf"]


def as_float(value):
    """The value as a 32-bit float holds it."""
    return struct.unpack("<f", struct.pack("<f", value))[0]


def row(values):
    return "\t".join("%.9g" % as_float(value) for value in values) + "\n"


def curve(keyword, values):
    return "%s %d\n%s" % (keyword, len(values), row(values))


def layer_text(number, layer, version):
    outputs, inputs = len(layer["weights"]), len(layer["weights"][0])
    if "bias" in layer:
        text = "layer %d size %d %d\n" % (number, outputs, inputs + 1)
        if version == 2:
            text += "act_fn %s\n" % layer["act_fn"]
        return text + "".join(row([b] + w) for b, w in zip(layer["bias"], layer["weights"]))
    text = "batch_norm_layer %d size %d %d\n" % (number, outputs, inputs)
    text += "".join(row(w) for w in layer["weights"]) + "gamma_beta\n"
    return text + "".join(row(values) for values in zip(*(layer[v] for v in VECTORS)))


def model_text(version):
    text = "MultiLayerNNModel\n" if version == 1 else "MultiLayerNNModel_v2\nsoftmax 1\n"
    text += "".join("# %s\n" % note for note in NOTES)
    text += "".join("# NVP %s %s\n" % item for item in sorted(PROPERTIES.items()))
    text += curve("loss", LOSS) + curve("accuracy", ACCURACY)
    text += "num_layers %d\n" % len(LAYERS)
    return text + "".join(layer_text(i + 1, layer, version) for i, layer in enumerate(LAYERS))


def crc32c(data):
    """CRC-32C: reflected polynomial 0x82F63B78, start and final inversion."""
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x82F63B78 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF


def floats(values):
    return struct.pack("<%df" % len(values), *values)


def coded(weights, code_bits):
    """The weights as a table and codes; nothing where they have too many values for that."""
    patterns = struct.unpack("<%dI" % len(weights), floats(weights))
    counts = collections.Counter(patterns)
    table, rare = sorted(counts), []
    if len(table) == 2**code_bits + 1:  # the rarest value, of several the largest, has no code
        rare = [min(table, key=lambda value: (counts[value], -value))]
        table.remove(rare[0])
    if len(table) > 2**code_bits:
        return None
    positions = [i for i, pattern in enumerate(patterns) if pattern in rare]
    words = [len(table), len(positions), *table, *rare, *positions]
    codes = [0 if pattern in rare else table.index(pattern) for pattern in patterns]
    if code_bits == 4:
        codes += [0] * (len(codes) % 2)
        codes = [low | high << 4 for low, high in zip(codes[::2], codes[1::2])]
    return struct.pack("<%dI" % len(words), *words) + bytes(codes) + bytes(-len(codes) % 4)


def row_scale(row):
    """The largest number of which all weights of the row are whole multiples; 0 for zeros."""
    values = [fractions.Fraction(weight) for weight in row]
    unit = math.lcm(*(value.denominator for value in values))
    return fractions.Fraction(math.gcd(*(int(value * unit) for value in values)), unit)


def row_coded(rows, code_bits):
    """The weights as a scale and whole numbers for each row; nothing where they are no such."""
    if any(math.copysign(1, weight) < 0 and weight == 0 for row in rows for weight in row):
        return None
    scales = [row_scale(row) for row in rows]
    codes = [[int(fractions.Fraction(weight) / scale) if scale else 0 for weight in row]
             for row, scale in zip(rows, scales)]
    if max(abs(code) for row in codes for code in row) >= 2**(code_bits - 1):
        return None
    places = []  # in blocks of 16 rows and 4 columns, the four codes of a row side by side
    for panel in range(0, len(rows), 16):
        for group in range(0, len(rows[0]), 4):
            places += [codes[r][c] if r < len(rows) and c < len(rows[0]) else 0
                       for r in range(panel, panel + 16) for c in range(group, group + 4)]
    places = [code + 2**(code_bits - 1) for code in places]
    if code_bits == 4:
        blocks = [places[i:i + 64] for i in range(0, len(places), 64)]
        places = [block[i] | block[i + 32] << 4 for block in blocks for i in range(32)]
    return floats([float(scale) for scale in scales]) + bytes(places)


def stored(rows):
    """The form that takes the fewest bytes, of several the first, and these bytes."""
    weights = [row[c] for c in range(len(rows[0])) for row in rows]
    forms = enumerate([floats(weights), coded(weights, 8), coded(weights, 4),
                       row_coded(rows, 8), row_coded(rows, 4)])
    return min((form for form in forms if form[1] is not None), key=lambda form: len(form[1]))


def layer_record(layer):
    outputs, inputs = len(layer["weights"]), len(layer["weights"][0])
    batch_norm = "bias" not in layer
    # A batch-norm layer that was read from text has a bias of zeros and the default activation.
    bias = [0.0] * outputs if batch_norm else layer["bias"]
    vectors = [bias] + [layer.get(name, []) for name in VECTORS]
    form, weights = stored([[as_float(weight) for weight in row] for row in layer["weights"]])
    head = struct.pack("<IiiiI5i", form, outputs, inputs,
                       ACTIVATIONS.index(layer.get("act_fn", "linear")), batch_norm,
                       *(len(vector) for vector in vectors))
    return head + weights + b"".join(floats(vector) for vector in vectors)


def image(layers):
    records = [layer_record(layer) for layer in layers]
    checksum = (len(records) + sum(crc32c(record) for record in records)) % 2**32
    features = struct.pack("<iiiBB??i", FEATURES["left"], FEATURES["right"],
                           FEATURES["line_kernel_width"], 0, 0, FEATURES["deltas"],
                           FEATURES["line_kernels"], FEATURES["bands"])
    norm = b"".join(struct.pack("<i", 120) + floats(values) for values in (MINVALS, NORMVALS))
    return (b"MLNN" + struct.pack("<Ii", checksum, len(features)) + features + norm +
            struct.pack("<i", len(records)) + b"".join(records))


def main():
    assert crc32c(b"123456789") == 0xE3069283  # the check value of CRC-32C
    (FOLDER / "version2.txt").write_text(model_text(2))
    (FOLDER / "version1.txt").write_text(model_text(1))
    (FOLDER / "image.mlnn").write_bytes(image(LAYERS))
    (FOLDER / "coded.mlnn").write_bytes(image(CODED_LAYERS))
    (FOLDER / "rows.mlnn").write_bytes(image(ROW_LAYERS))


if __name__ == "__main__":
    main()
