"""The features of examples/digits, computed from whole recordings by NumPy."""
import numpy as np

SAMPLE_RATE = 8000
FRAME_LENGTH, FRAME_SHIFT = 200, 80  # samples: 25 and 10 ms
SPECTRUM = 512                       # points of the Fourier transform
BANDS = 40


def _mel(hertz):
    return 2595 * np.log10(1 + hertz / 700)


def _filters():
    """The weights of each band: triangles of height 1, bands x bins."""
    edges = 700 * (10 ** (np.linspace(_mel(60), _mel(4000), BANDS + 2) / 2595) - 1)
    left, peak, right = edges[:-2, None], edges[1:-1, None], edges[2:, None]
    hertz = np.arange(SPECTRUM // 2 + 1) * SAMPLE_RATE / SPECTRUM
    return np.maximum(np.minimum((hertz - left) / (peak - left), (right - hertz) / (right - peak)), 0)


def _deltas(frames):
    """The slope over two frames to either side, where the first and last frames repeat."""
    c = np.pad(frames, ((2, 2), (0, 0)), mode="edge")
    return (c[3:-1] - c[1:-3] + 2 * (c[4:] - c[:-4])) / 10


def mel_frames(samples) -> np.ndarray:
    """Samples in -1..1 of one recording to frames x 120, float32; the order is bands, deltas,
    deltas of the deltas."""
    samples = np.asarray(samples, np.float64)
    raised = np.append(samples[:1], samples[1:] - 0.97 * samples[:-1])
    count = max(0, 1 + (len(raised) - FRAME_LENGTH) // FRAME_SHIFT)
    places = np.arange(count)[:, None] * FRAME_SHIFT + np.arange(FRAME_LENGTH)
    spectrum = np.fft.rfft(raised[places] * np.hamming(FRAME_LENGTH), SPECTRUM)
    bands = np.log((spectrum.real ** 2 + spectrum.imag ** 2) @ _filters().T + 1e-5)
    deltas = _deltas(bands)
    return np.hstack([bands, deltas, _deltas(deltas)]).astype(np.float32)
