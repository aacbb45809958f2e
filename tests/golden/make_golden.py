#!/usr/bin/env python3
"""Writes the golden files of both formats into this folder.

Makes them from the description of the formats (docs/text-format.md, docs/binary-format.md)
with nothing of the library, so that they tell when the library's idea of a format changes.
README.md explains what they hold.
"""

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


def layer_record(layer):
    outputs, inputs = len(layer["weights"]), len(layer["weights"][0])
    batch_norm = "bias" not in layer
    # A batch-norm layer that was read from text has a bias of zeros and the default activation.
    bias = [0.0] * outputs if batch_norm else layer["bias"]
    vectors = [bias] + [layer.get(name, []) for name in VECTORS]
    head = struct.pack("<IiiiI5i", 0, outputs, inputs,
                       ACTIVATIONS.index(layer.get("act_fn", "linear")), batch_norm,
                       *(len(vector) for vector in vectors))
    by_columns = [layer["weights"][r][c] for c in range(inputs) for r in range(outputs)]
    return head + floats(by_columns) + b"".join(floats(vector) for vector in vectors)


def image():
    records = [layer_record(layer) for layer in LAYERS]
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
    (FOLDER / "image.mlnn").write_bytes(image())


if __name__ == "__main__":
    main()
