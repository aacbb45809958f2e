/** Runs small feed-forward audio networks. */

/** What the library refused. `message` is the library's own text. */
export class MlnnError extends Error {
  /** As in c/mlnn.h: "MLNN_ERROR_MODEL", "MLNN_ERROR_SIZE", ... */
  readonly status: string;
}

export interface Features {
  windowLeft: number;
  windowRight: number;
  /** Mel bands of a frame; 0 when not stated. */
  bands: number;
  deltas: boolean;
  lineKernels: boolean;
  lineKernelWidth: number;
  /** Values in a frame of a stream; 0 when the model does not tell. */
  frameWidth: number;
  text: string;
}

/** Input vectors in, output vectors out. */
export class Pass {
  readonly inputs: number;
  readonly outputs: number;
  /** Where the inputs of so many frames lie in the library: fill it and give it to run, and nothing is
   * copied. It holds until the next call of anything that may take memory. */
  inputMemory(frames: number): Float32Array;
  /** Computes the outputs of input vectors that lie one behind the other; into `outputs`, which then is
   * returned, or a new array. */
  run(inputs: Float32Array, outputs?: Float32Array): Float32Array;
  close(): void;
}

/** Frames in as they arrive, outputs when there are some. */
export class Stream {
  readonly frameWidth: number;
  readonly outputs: number;
  /** The frames by which outputs are late. */
  readonly delay: number;
  /** Takes a frame. Returns the outputs that are due, or null. */
  push(frame: Float32Array, outputs?: Float32Array): Float32Array | null;
  /** After the last frame: returns the next outputs that are due; null when there are no more, and the
   * stream then takes another recording. */
  finish(outputs?: Float32Array): Float32Array | null;
  close(): void;
}

/** A model that is open. Passes and streams over it go on when it is closed. */
export class Model {
  readonly inputs: number;
  readonly outputs: number;
  /** The inputs, and the outputs of each layer. */
  readonly shape: number[];
  readonly softmax: boolean;
  /** The names of the outputs. */
  readonly labels: string[];
  readonly properties: Record<string, string>;
  readonly features: Features;
  /** Another model, which computes in integers what `mlnn quantize` quantised. */
  toIntegers(wideInputs?: 'none' | 'first' | 'all'): Model;
  pass(): Pass;
  /** `frameWidth` 0 takes what the model tells. */
  stream(frameWidth?: number): Stream;
  close(): void;
}

export interface Library {
  readonly version: string;
  /** Opens a model of either format from the bytes of its file. Throws MlnnError. */
  open(bytes: ArrayBuffer | ArrayBufferView, options?: { hiddenActFn?: string }): Model;
}

/** Makes the library ready. `wasm` are the bytes of core.wasm, for where they cannot be fetched from
 * beside the module; `onMessage` hears what the library says, line by line. */
export function load(options?: {
  wasm?: ArrayBuffer | Uint8Array;
  onMessage?: (line: string) => void;
}): Promise<Library>;
