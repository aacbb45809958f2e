"""Trains a network to tell spoken digits, and prints what folding and fewer bits cost.

espeak-ng speaks the words for training; the thirty words of examples/digits, of voices that are
kept out of the training, are for testing. The network is saved as a text model with everything
that belongs to it.
"""
import argparse
import concurrent.futures
import csv
import io
import itertools
import math
import pathlib
import subprocess
import wave

import numpy as np
import scipy.signal
import torch

import mlnn
from mel_frames import BANDS, FRAME_LENGTH, FRAME_SHIFT, SAMPLE_RATE, mel_frames

DIGITS = pathlib.Path(__file__).resolve().parents[1] / "digits"
WORDS = "zero one two three four five six seven eight nine".split()
ACCENTS = ["en-us", "en-gb", "en-gb-scotland"]
# Of these, f4, m4 and Michael are those that speak in examples/digits.
VARIANTS = ["f1", "m1", "f2", "m2", "Andrea", "m3", "f3", "m5", "f5", "m6", "Annie", "m7", "anika",
            "Andy", "linda", "max", "steph", "paul", "Alicia", "quincy", "belinda", "david"]
SPEEDS = [130, 160]           # words a minute
HIDDEN = [64, 48]             # outputs of the hidden layers
CONTEXT = 2                   # frames on either side of the current one
MARGIN = SAMPLE_RATE // 50    # samples of silence that stay around a word
BITS = [16, 14, 13, 12, 10, 8]
SMALLEST_POSTERIOR = 1e-30


# --- The words ---

def spoken(word: str, voice: str, speed: int) -> np.ndarray:
    """The samples of a word, as espeak-ng speaks it: at 8 kHz, without the silence around it."""
    sound = subprocess.run(["espeak-ng", "--stdout", "-v", voice, "-s", str(speed), word],
                           capture_output=True, check=True).stdout
    with wave.open(io.BytesIO(sound)) as file:
        rate = file.getframerate()
        samples = np.frombuffer(file.readframes(len(sound)), "<i2") / 32768
    common = math.gcd(SAMPLE_RATE, rate)
    samples = scipy.signal.resample_poly(samples, SAMPLE_RATE // common, rate // common)
    loud = np.flatnonzero(np.abs(samples) > 0.01)
    return samples[max(0, loud[0] - MARGIN):loud[-1] + MARGIN]


def training_words(voices: int) -> list[tuple[np.ndarray, int]]:
    """Frames and digit of every word that every voice speaks at every speed."""
    variants = itertools.islice(itertools.product(VARIANTS, ACCENTS), voices)
    jobs = [(word, f"{accent}+{variant}", speed)
            for variant, accent in variants for speed in SPEEDS for word in WORDS]
    with concurrent.futures.ThreadPoolExecutor() as pool:
        sounds = list(pool.map(lambda job: spoken(*job), jobs))
    return [(mel_frames(sound), WORDS.index(job[0])) for sound, job in zip(sounds, jobs)]


def test_words() -> list[tuple[np.ndarray, int]]:
    with open(DIGITS / "labels.csv", newline="") as file:
        rows = list(csv.DictReader(file))
    return [(np.load(DIGITS / "frames" / row["file"]), int(row["label"])) for row in rows]


# --- The network ---

def surroundings(words) -> mlnn.Model:
    """A model that has everything but its trained layers: features and normalisation."""
    frames = np.vstack([frames for frames, _ in words])
    inputs = 3 * BANDS * (2 * CONTEXT + 1)
    model = mlnn.Model.from_arrays([(np.zeros((len(WORDS), inputs)), np.zeros(len(WORDS)))])
    model.features = mlnn.FeatureDescription(num_bands=BANDS, win_size_left=CONTEXT,
                                             win_size_right=CONTEXT, use_deltas=True)
    # Inputs around 0 rather than from 0 to 1: reducing moves every weight downwards by half a step
    # on average, and over inputs of one sign that would add up.
    model.normalisation = frames.mean(axis=0), 1 / frames.std(axis=0)
    model.props = {
        "name": "trained-digits", "labels": ",".join(map(str, range(len(WORDS)))),
        "label_words": " ".join(WORDS), "sample_rate": str(SAMPLE_RATE), "mel_bands": str(BANDS),
        "frame_length_ms": str(1000 * FRAME_LENGTH // SAMPLE_RATE),
        "frame_shift_ms": str(1000 * FRAME_SHIFT // SAMPLE_RATE)}
    return model


def new_network(inputs: int) -> torch.nn.Sequential:
    steps = []
    for outputs in HIDDEN:
        steps += [torch.nn.Linear(inputs, outputs, bias=False), torch.nn.BatchNorm1d(outputs),
                  torch.nn.ReLU()]
        inputs = outputs
    return torch.nn.Sequential(*steps, torch.nn.Linear(inputs, len(WORDS), bias=False),
                               torch.nn.BatchNorm1d(len(WORDS)))


def train(network, inputs, labels, epochs: int, after_epoch) -> list[float]:
    """Returns the mean loss of each epoch. Calls `after_epoch` after each."""
    batch, peak_rate = 256, 0.002
    optimiser = torch.optim.AdamW(network.parameters(), lr=peak_rate)
    schedule = torch.optim.lr_scheduler.OneCycleLR(optimiser, peak_rate, epochs=epochs,
                                                   steps_per_epoch=len(inputs) // batch)
    losses = []
    for _ in range(epochs):
        network.train()
        total = 0.0
        order = torch.randperm(len(inputs))
        for start in range(0, len(inputs) - batch + 1, batch):
            chosen = order[start:start + batch]
            loss = torch.nn.functional.cross_entropy(network(inputs[chosen]), labels[chosen])
            optimiser.zero_grad()
            loss.backward()
            optimiser.step()
            schedule.step()
            total += loss.item() * batch
        losses.append(total / (len(inputs) // batch * batch))
        network.eval()
        after_epoch(losses[-1])
    return losses


# --- What it costs ---

class Score:
    """How many frames and words a network gets right, and its posteriors."""

    def __init__(self, words, posteriors_of):
        self.posteriors = [posteriors_of(frames) for frames, _ in words]
        labels = [label for _, label in words]
        self.frames = sum(int((p.argmax(axis=1) == label).sum())
                          for p, label in zip(self.posteriors, labels))
        self.all_frames = sum(len(p) for p in self.posteriors)
        self.words = sum(int(np.log(np.maximum(p, SMALLEST_POSTERIOR)).sum(axis=0).argmax() == label)
                         for p, label in zip(self.posteriors, labels))

    @property
    def share(self) -> float:
        return self.frames / self.all_frames

    def difference(self, other) -> float:
        return max(float(np.abs(a - b).max()) for a, b in zip(self.posteriors, other.posteriors))


def print_costs(words, network, model: mlnn.Model) -> None:
    def by_torch(frames):
        with torch.no_grad():
            return torch.softmax(network(torch.from_numpy(model.stack(frames))), 1).numpy()

    trained = Score(words, by_torch)
    print(f"\n{'':<22}{'image':>8} {'frames right':>13} {'change':>8} {'words':>6} {'posteriors':>11}")

    def line(name, score, image):
        size = "" if image is None else len(image.to_bytes())
        print(f"{name:<22}{size:>8} {score.share:>13.2%} {score.share - trained.share:>+8.2%} "
              f"{score.words:>6} {score.difference(trained):>11.1e}")

    line("PyTorch", trained, None)
    line("mlnn, batch norm", Score(words, model), model)
    folded = mlnn.Model.from_arrays(
        [(layer.weights, layer.bias, layer.act_fn) for layer in model.copy().fold().layers],
        softmax=model.softmax)
    folded.features, folded.normalisation = model.features, model.normalisation
    line("folded", Score(words, folded), folded)
    for bits in BITS:
        reduced = folded.copy().retain_precision_bits(bits)
        line(f"folded, {bits} bits", Score(words, reduced), reduced)
    print(f"of {len(words)} words with {trained.all_frames} frames; image: bytes; posteriors: the "
          "largest difference from PyTorch's")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("out", nargs="?", default="trained-digits.txt", help="model to write")
    parser.add_argument("--voices", type=int, default=len(VARIANTS) * len(ACCENTS))
    parser.add_argument("--epochs", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()

    torch.manual_seed(options.seed)
    words = training_words(options.voices)
    tests = test_words()
    model = surroundings(words)
    inputs = torch.from_numpy(np.vstack([model.stack(frames) for frames, _ in words]))
    labels = torch.tensor([label for frames, label in words for _ in range(len(frames))])
    print(f"{len(words)} words of {options.voices} voices for training: {len(inputs)} frames")

    network = new_network(inputs.shape[1])
    accuracy = []

    def after_epoch(loss):
        with torch.no_grad():
            right = sum(int((network(torch.from_numpy(model.stack(frames))).argmax(1) == label).sum())
                        for frames, label in tests)
        accuracy.append(right / sum(len(frames) for frames, _ in tests))
        print(f"epoch {len(accuracy):>2}  loss {loss:.4f}  test frames right {accuracy[-1]:.2%}",
              flush=True)

    losses = train(network, inputs, labels, options.epochs, after_epoch)
    trained = mlnn.from_torch(network)
    trained.features, trained.normalisation = model.features, model.normalisation
    trained.props = model.props
    trained.notes = [f"trained by examples/train on {len(words)} words that espeak-ng spoke with "
                     f"{options.voices} voices", f"{options.epochs} epochs, seed {options.seed}"]
    trained.loss, trained.accuracy = losses, accuracy
    trained.softmax = True
    trained.save(options.out, strict=True)
    print(f"saved as {options.out}")
    print_costs(tests, network, mlnn.load(options.out))


if __name__ == "__main__":
    main()
