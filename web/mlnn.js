// mlnn for browsers and node: the C interface (c/mlnn.h), compiled to WebAssembly, as classes. mlnn.d.ts
// says what each of them does.
import core from './core.js';

const isNode = typeof process === 'object' && process.versions?.node !== undefined;

async function bytesOfCore() {
  const url = new URL('./core.wasm', import.meta.url);
  if (url.protocol === 'file:' && isNode) return (await import('node:fs/promises')).readFile(url);
  const response = await fetch(url);
  if (!response.ok) throw new Error(`mlnn: ${url} could not be loaded (${response.status})`);
  return new Uint8Array(await response.arrayBuffer());
}

export class MlnnError extends Error {
  constructor(status, message) {
    super(message);
    this.name = 'MlnnError';
    this.status = status;
  }
}

// The address of some memory of the library's, freed by free().
class Block {
  constructor(module, bytes) {
    this.module = module;
    this.address = module._malloc(Math.max(bytes, 1));
    if (this.address === 0) throw new MlnnError('MLNN_ERROR_MEMORY', 'not enough memory');
  }
  free() {
    if (this.address !== 0) this.module._free(this.address);
    this.address = 0;
  }
}

// The memory may grow at any call, so that views on it are made anew.
const floatsAt = (module, address, count) => new Float32Array(module.HEAPU8.buffer, address, count);
const wordAt = (module, address) => new DataView(module.HEAPU8.buffer).getInt32(address, true);

function check(module, status) {
  if (status === 0) return;
  const name = module.UTF8ToString(module._mlnn_status_name(status));
  throw new MlnnError(name, module.UTF8ToString(module._mlnn_last_error()) || name);
}

// Calls `call` with the address of 8 bytes, and returns what `read` makes of them.
function result(module, call, read, bytes = 8) {
  const block = new Block(module, bytes);
  try {
    check(module, call(block.address));
    return read(block.address);
  } finally {
    block.free();
  }
}

const handleAt = (module, address) => new DataView(module.HEAPU8.buffer).getBigUint64(address, true);

function size(module, call) {
  return result(module, call, (address) => wordAt(module, address));
}

function expectFloats(values, name) {
  if (!(values instanceof Float32Array)) throw new TypeError(`mlnn: ${name} is no Float32Array`);
}

// What is over a model and has memory of the library's for inputs and outputs.
class Runner {
  constructor(model, outputs) {
    this.module = model.module;
    this.outputs = outputs;
    this.blocks = [];
    this.id = 0n;
  }

  // Memory for so many floats, which the object frees in the end.
  memory(index, count) {
    const present = this.blocks[index];
    if (present !== undefined && present.count >= count) return present.address;
    const block = new Block(this.module, 4 * count);
    block.count = count;
    present?.free();
    this.blocks[index] = block;
    return block.address;
  }

  release(close) {
    if (this.id === 0n) return;
    check(this.module, close(this.id));
    this.id = 0n;
    for (const block of this.blocks) block?.free();
    this.blocks = [];
  }
}

export class Pass extends Runner {
  constructor(model) {
    super(model, model.outputs);
    this.inputs = model.inputs;
    const { module } = this;
    this.id = result(module, (to) => module._mlnn_pass_create(model.id, to), (at) => handleAt(module, at));
  }

  inputMemory(frames) {
    const count = frames * this.inputs;
    return floatsAt(this.module, this.memory(0, count), count);
  }

  run(inputs, outputs) {
    expectFloats(inputs, 'inputs');
    const { module } = this;
    const frames = this.inputs === 0 ? 0 : inputs.length / this.inputs;
    if (!Number.isInteger(frames)) {
      throw new MlnnError('MLNN_ERROR_SIZE',
        `expected frames of ${this.inputs} inputs but got ${inputs.length} values`);
    }
    const count = frames * this.outputs;
    if (outputs !== undefined) {
      expectFloats(outputs, 'outputs');
      if (outputs.length !== count) {
        throw new MlnnError('MLNN_ERROR_SIZE',
          `expected room for ${count} outputs but got room for ${outputs.length}`);
      }
    }
    const from = this.memory(0, inputs.length);
    const to = this.memory(1, count);
    if (inputs.buffer !== module.HEAPU8.buffer || inputs.byteOffset !== from) {
      floatsAt(module, from, inputs.length).set(inputs);
    }
    check(module, module._mlnn_pass_run(this.id, frames, from, this.inputs, this.inputs, to, this.outputs,
      this.outputs));
    const found = floatsAt(module, to, count);
    if (outputs === undefined) return found.slice();
    outputs.set(found);
    return outputs;
  }

  close() {
    this.release((id) => this.module._mlnn_pass_close(id));
  }
}

export class Stream extends Runner {
  constructor(model, frameWidth = 0) {
    super(model, model.outputs);
    const { module } = this;
    this.id = result(module, (to) => module._mlnn_stream_create(model.id, frameWidth, to),
      (at) => handleAt(module, at));
    this.frameWidth = size(module, (to) => module._mlnn_stream_frame_width(this.id, to));
    this.delay = size(module, (to) => module._mlnn_stream_delay(this.id, to));
    this.memory(0, this.frameWidth);
    this.memory(1, this.outputs + 1);  // the last place says whether there are outputs
  }

  push(frame, outputs) {
    expectFloats(frame, 'frame');
    const from = this.memory(0, frame.length);
    floatsAt(this.module, from, frame.length).set(frame);
    return this.take(outputs, (to, has) =>
      this.module._mlnn_stream_push(this.id, from, frame.length, to, this.outputs, has));
  }

  finish(outputs) {
    return this.take(outputs, (to, has) =>
      this.module._mlnn_stream_finish(this.id, to, this.outputs, has));
  }

  take(outputs, call) {
    if (outputs !== undefined) {
      expectFloats(outputs, 'outputs');
      if (outputs.length !== this.outputs) {
        throw new MlnnError('MLNN_ERROR_SIZE',
          `expected room for ${this.outputs} outputs but got room for ${outputs.length}`);
      }
    }
    const to = this.memory(1, this.outputs + 1);
    const has = to + 4 * this.outputs;
    check(this.module, call(to, has));
    if (wordAt(this.module, has) === 0) return null;
    const found = floatsAt(this.module, to, this.outputs);
    if (outputs === undefined) return found.slice();
    outputs.set(found);
    return outputs;
  }

  close() {
    this.release((id) => this.module._mlnn_stream_close(id));
  }
}

export class Model {
  constructor(module, id) {
    this.module = module;
    this.id = id;
    this.inputs = size(module, (to) => module._mlnn_model_inputs(id, to));
    this.outputs = size(module, (to) => module._mlnn_model_outputs(id, to));
  }

  text(call) {
    const { module } = this;
    return result(module, call, (at) => module.UTF8ToString(wordAt(module, at)));
  }

  get shape() {
    const { module, id } = this;
    const layers = size(module, (to) => module._mlnn_model_layers(id, to));
    const shape = layers > 0 ? [this.inputs] : [];
    for (let i = 0; i < layers; ++i) {
      shape.push(size(module, (to) => module._mlnn_model_layer_outputs(id, i, to)));
    }
    return shape;
  }

  get softmax() {
    return size(this.module, (to) => this.module._mlnn_model_softmax(this.id, to)) !== 0;
  }

  get labels() {
    return Array.from({ length: this.outputs }, (_, i) =>
      this.text((to) => this.module._mlnn_model_label(this.id, i, to)));
  }

  get properties() {
    const { module, id } = this;
    const count = size(module, (to) => module._mlnn_model_properties(id, to));
    const properties = {};
    for (let i = 0; i < count; ++i) {
      const [name, value] = result(module, (to) => module._mlnn_model_property_at(id, i, to, to + 4),
        (at) => [at, at + 4].map((text) => module.UTF8ToString(wordAt(module, text))));
      Object.defineProperty(properties, name, { value, enumerable: true });
    }
    return properties;
  }

  get features() {
    const { module, id } = this;
    const words = ['windowLeft', 'windowRight', 'bands', 'deltas', 'lineKernels', 'lineKernelWidth',
      'frameWidth'];
    const features = result(module, (to) => module._mlnn_model_features(id, to), (at) =>
      Object.fromEntries(words.map((word, i) => [word, wordAt(module, at + 4 * i)])), 4 * words.length);
    features.deltas = features.deltas !== 0;
    features.lineKernels = features.lineKernels !== 0;
    features.text = this.text((to) => module._mlnn_model_feature_text(id, to));
    return features;
  }

  toIntegers(wideInputs = 'none') {
    const code = ['none', 'first', 'all'].indexOf(wideInputs);
    const { module, id } = this;
    return new Model(module, result(module, (to) => module._mlnn_model_to_integers(id, code, to),
      (at) => handleAt(module, at)));
  }

  pass() {
    return new Pass(this);
  }

  stream(frameWidth = 0) {
    return new Stream(this, frameWidth);
  }

  close() {
    if (this.id === 0n) return;
    check(this.module, this.module._mlnn_model_close(this.id));
    this.id = 0n;
  }
}

class Library {
  constructor(module) {
    this.module = module;
  }

  get version() {
    return this.module.UTF8ToString(this.module._mlnn_version());
  }

  open(bytes, { hiddenActFn } = {}) {
    const { module } = this;
    const file = bytes instanceof ArrayBuffer ? new Uint8Array(bytes)
      : ArrayBuffer.isView(bytes) ? new Uint8Array(bytes.buffer, bytes.byteOffset, bytes.byteLength) : null;
    if (file === null) throw new TypeError('mlnn: a model is opened from an ArrayBuffer or a typed array');
    const name = new TextEncoder().encode(hiddenActFn ?? '');
    const block = new Block(module, file.length + name.length + 1);
    try {
      const end = block.address + file.length;
      module.HEAPU8.set(file, block.address);
      module.HEAPU8.set(name, end);
      module.HEAPU8[end + name.length] = 0;
      return new Model(module, result(module,
        (to) => module._mlnn_model_open_memory(block.address, file.length, hiddenActFn === undefined ? 0 : end, to),
        (at) => handleAt(module, at)));
    } finally {
      block.free();
    }
  }
}

export async function load({ wasm, onMessage = () => {} } = {}) {
  const wasmBinary = wasm ?? await bytesOfCore();
  return new Library(await core({ wasmBinary, print: onMessage, printErr: onMessage }));
}
