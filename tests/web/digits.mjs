// What the tests in node and in the browser do alike: the digits, and the outputs that every processor
// must give. Files come by `read(path)`, which gives their bytes.

// The frames of a recording as numpy saved it, behind a head of 128 bytes.
export function framesOf(bytes) {
  const frames = bytes.slice(128);
  return new Float32Array(frames.buffer, frames.byteOffset, frames.length / 4);
}

// Returns what a stream gives for a recording: the outputs of all frames, one behind the other.
export function streamed(stream, frames) {
  const outputs = [];
  const width = stream.frameWidth;
  for (let i = 0; i < frames.length; i += width) {
    const found = stream.push(frames.subarray(i, i + width));
    if (found !== null) outputs.push(...found);
  }
  for (let found = stream.finish(); found !== null; found = stream.finish()) outputs.push(...found);
  return new Float32Array(outputs);
}

// The class with the largest sum of the logs of its posteriors.
export function classOf(posteriors, classes) {
  const sums = new Array(classes).fill(0);
  posteriors.forEach((value, i) => { sums[i % classes] += Math.log(Math.max(value, 1e-30)); });
  return sums.indexOf(Math.max(...sums));
}

// Castagnoli's checksum of floats as they lie in memory.
export function checksum(floats, start = 0) {
  let crc = ~start;
  for (const byte of new Uint8Array(floats.buffer, floats.byteOffset, floats.byteLength)) {
    crc ^= byte;
    for (let bit = 0; bit < 8; ++bit) crc = (crc >>> 1) ^ (crc & 1 ? 0x82F63B78 : 0);
  }
  return ~crc >>> 0;
}

// Hears all words. Returns how many of them are named rightly, of how many, and a checksum of all
// posteriors.
export async function hearDigits(model, read) {
  const lines = new TextDecoder().decode(await read('examples/digits/labels.csv')).trim().split('\n');
  const labels = new Map(lines.slice(1).map((line) => [line.split(',')[0], Number(line.split(',')[1])]));
  const stream = model.stream();
  let right = 0;
  let sum = 0;
  for (const name of [...labels.keys()].sort()) {
    const posteriors = streamed(stream, framesOf(await read(`examples/digits/frames/${name}`)));
    if (classOf(posteriors, model.outputs) === labels.get(name)) ++right;
    sum = checksum(posteriors, sum);
  }
  stream.close();
  return { right, words: labels.size, checksum: sum.toString(16).padStart(8, '0') };
}

// --- The model of tests/golden/integers.csv, as text ---

const kWidths = [70, 37, 35, 21, 19];

function weightOf(layer, index, row) {
  if (layer === 2) return Math.fround((29 * index % 1009 - 504) / 1009);
  const most = layer === 1 ? 7 : 127;
  return ((37 * index + 11) % (2 * most + 1) - most) * ((8 + row % 7) / 2048);
}

const text = (value) => (Object.is(value, -0) ? '-0' : value.toPrecision(9));

function layerText(index, actFn) {
  const [inputs, rows] = [kWidths[index], kWidths[index + 1]];
  const isBatchNorm = index === 1;
  const lines = [`${isBatchNorm ? 'batch_norm_layer' : 'layer'} ${index + 1} size ${rows} ${inputs + (isBatchNorm ? 0 : 1)}`];
  if (!isBatchNorm) lines.push(`act_fn ${index < 3 ? actFn : 'linear'}`);
  for (let r = 0; r < rows; ++r) {
    const row = isBatchNorm ? [] : [(r % 5 - 2) / 4];
    for (let c = 0; c < inputs; ++c) row.push(weightOf(index, r * inputs + c, r));
    lines.push(row.map(text).join('\t'));
  }
  if (isBatchNorm) {
    lines.push('gamma_beta');
    for (let r = 0; r < rows; ++r) lines.push(['1', '0', text((r - 9) / 8), text((r % 5 - 2) / 4)].join('\t'));
  }
  return lines.join('\n');
}

function goldenModel(mlnn, actFn) {
  const layers = [0, 1, 2, 3].map((index) => layerText(index, actFn));
  const file = `MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 4\n${layers.join('\n')}\n`;
  return mlnn.open(new TextEncoder().encode(file), { hiddenActFn: actFn });
}

function goldenInputs() {
  const inputs = new Float32Array(5 * 70);
  for (let f = 0; f < 5; ++f) {
    const scale = f === 1 ? 2 ** -99 : f === 3 ? 2 ** 40 : 1;
    for (let i = 0; i < 70; ++i) inputs[70 * f + i] = ((53 * i + 17 * f) % 201 - 100) / 64 * scale;
  }
  inputs[2 * 70 + 3] = Infinity;
  return inputs;
}

// The file as this build of the library writes it.
export function goldenText(mlnn) {
  const lines = ['act_fn,wide_inputs,frame,outputs'];
  for (const actFn of ['linear', 'sigmoid', 'tanh', 'relu', 'leaky_relu', 'elu', 'softplus', 'silu']) {
    const model = goldenModel(mlnn, actFn);
    for (const wide of ['none', 'first', 'all']) {
      const integers = model.toIntegers(wide);
      const pass = integers.pass();
      const bits = new Uint32Array(pass.run(goldenInputs()).buffer);
      for (let f = 0; f < 5; ++f) {
        const outputs = [...bits.subarray(19 * f, 19 * f + 19)];
        lines.push(`${actFn},${wide},${f},${outputs.map((b) => b.toString(16).padStart(8, '0')).join(' ')}`);
      }
      pass.close();
      integers.close();
    }
    model.close();
  }
  return `${lines.join('\n')}\n`;
}
