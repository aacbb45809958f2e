// Sound files as samples of one channel. Those that are as they should be are read without the browser, which
// would round and resample them.

export interface Sound {
  readonly samples: Float32Array;
  readonly isConverted: boolean;  // other samples than those of the file
}

const pcm = 1;

function wordAt(view: DataView, offset: number): string {
  return String.fromCharCode(...[0, 1, 2, 3].map((i) => view.getUint8(offset + i)));
}

// The pieces of a RIFF file: their names, where they begin and how long they are.
function* piecesOf(view: DataView): Generator<{ name: string; begin: number; length: number }> {
  for (let at = 12; at + 8 <= view.byteLength;) {
    const begin = at + 8;
    const length = Math.min(view.getUint32(at + 4, true), view.byteLength - begin);
    yield { name: wordAt(view, at), begin, length };
    at = begin + length + length % 2;
  }
}

// The samples of a WAV file of 16 bits, one channel and that rate; null where it is another.
function plainSamples(bytes: ArrayBuffer, rate: number): Float32Array | null {
  const view = new DataView(bytes);
  if (bytes.byteLength < 12 || wordAt(view, 0) !== 'RIFF' || wordAt(view, 8) !== 'WAVE') return null;
  let isPlain = false;
  for (const { name, begin, length } of piecesOf(view)) {
    if (name === 'fmt ' && length >= 16) {
      isPlain = view.getUint16(begin, true) === pcm && view.getUint16(begin + 2, true) === 1 &&
        view.getUint32(begin + 4, true) === rate && view.getUint16(begin + 14, true) === 16;
    }
    if (name === 'data' && isPlain) {
      return Float32Array.from({ length: Math.floor(length / 2) }, (_, i) => view.getInt16(begin + 2 * i, true) / 32768);
    }
  }
  return null;
}

function mixed(sound: AudioBuffer): Float32Array {
  const samples = new Float32Array(sound.length);
  for (let channel = 0; channel < sound.numberOfChannels; ++channel) {
    sound.getChannelData(channel).forEach((sample, i) => {
      samples[i] = (samples[i] ?? 0) + sample / sound.numberOfChannels;
    });
  }
  return samples;
}

export async function soundOf(file: Blob, rate: number): Promise<Sound> {
  const bytes = await file.arrayBuffer();
  const samples = plainSamples(bytes, rate);
  if (samples !== null) return { samples, isConverted: false };
  const context = new OfflineAudioContext(1, 1, rate);
  return { samples: mixed(await context.decodeAudioData(bytes)), isConverted: true };
}
