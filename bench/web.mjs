// Time of a frame in WebAssembly, beside onnxruntime-web on the same networks: bench/run web
// The package is the one that scripts/check-all web made in build/web/package; onnxruntime-web is what npm put
// into build/web-peers. One thread each, in processor time, copies included. Writes the networks
// as texts beside that, so that the tool can tell how long they take natively.
import assert from 'node:assert/strict';
import { writeFile } from 'node:fs/promises';

const { load } = await import('../build/web/package/mlnn.js');
const mlnn = await load();
const ort = (await import('../build/web-peers/node_modules/onnxruntime-web/dist/ort.wasm.min.mjs')).default;
ort.env.wasm.numThreads = 1;

const networks = { digits: [600, 64, 64, 10], wide: [600, 512, 512, 40] };
const frameCounts = [1, 32];

// The weights of each layer, row by row, then its bias: repeatable values of some 1 / sqrt(inputs).
function layersOf(widths) {
  let state = 1;
  const next = (scale) => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return Math.fround((state / 2 ** 31 - 1) * scale);
  };
  return widths.slice(1).map((rows, i) => {
    const cols = widths[i];
    const scale = 2 / Math.sqrt(cols);
    return { rows, cols, weights: Float32Array.from({ length: rows * cols }, () => next(scale)),
      bias: Float32Array.from({ length: rows }, () => next(0.5)) };
  });
}

function textOf(layers) {
  const lines = ['MultiLayerNNModel_v2', 'softmax 1', `num_layers ${layers.length}`];
  layers.forEach(({ rows, cols, weights, bias }, i) => {
    lines.push(`layer ${i + 1} size ${rows} ${cols + 1}`, `act_fn ${i + 1 < layers.length ? 'sigmoid' : 'linear'}`);
    for (let r = 0; r < rows; ++r) {
      lines.push([bias[r], ...weights.subarray(r * cols, (r + 1) * cols)].map((w) => w.toPrecision(9)).join('\t'));
    }
  });
  return `${lines.join('\n')}\n`;
}

// --- ONNX, as protocol buffers: fields are [number, value], where a value is a whole number, a text, bytes
// or a list of fields ---

function varint(value) {
  const bytes = [];
  for (; value > 127; value = Math.floor(value / 128)) bytes.push(value % 128 + 128);
  return Buffer.from([...bytes, value]);
}

function message(fields) {
  return Buffer.concat(fields.flatMap(([number, value]) => {
    if (typeof value === 'number') return [varint(number * 8), varint(value)];
    const bytes = Array.isArray(value) ? message(value) : Buffer.from(value);
    return [varint(number * 8 + 2), varint(bytes.length), bytes];
  }));
}

const node = (kind, inputs, output, attributes = []) =>
  [1, [...inputs.map((name) => [1, name]), [2, output], [4, kind], ...attributes]];
const whole = (name, value) => [5, [[1, name], [3, value], [20, 2]]];
const tensor = (name, dims, floats) =>
  [5, [...dims.map((dim) => [1, dim]), [2, 1], [8, name], [9, new Uint8Array(floats.buffer)]]];
const shaped = (field, name, width) =>
  [field, [[1, name], [2, [[1, [[1, 1], [2, [[1, [[2, 'frames']]], [1, [[1, width]]]]]]]]]]];

function onnxOf(layers) {
  const graph = [[2, 'network']];
  let from = 'x';
  layers.forEach(({ rows, cols, weights, bias }, i) => {
    graph.push(tensor(`w${i}`, [rows, cols], weights), tensor(`b${i}`, [rows], bias));
    graph.push(node('Gemm', [from, `w${i}`, `b${i}`], `a${i}`, [whole('transB', 1)]));
    const isLast = i + 1 === layers.length;
    from = isLast ? 'y' : `h${i}`;
    graph.push(node(isLast ? 'Softmax' : 'Sigmoid', [`a${i}`], from, isLast ? [whole('axis', 1)] : []));
  });
  graph.push(shaped(11, 'x', layers[0].cols), shaped(12, 'y', layers.at(-1).rows));
  return message([[1, 8], [7, graph], [8, [[2, 13]]]]);
}

// --- Time ---

// The median of 15 runs of some 50 ms of processor time, in microseconds a frame.
async function timeOf(run, frames) {
  const repeat = async (times) => {
    const start = process.cpuUsage().user;
    for (let i = 0; i < times; ++i) await run();
    return process.cpuUsage().user - start;
  };
  let times = 1;
  while (await repeat(times) < 25000) times *= 2;
  const runs = [];
  for (let i = 0; i < 15; ++i) runs.push(await repeat(2 * times) / (2 * times * frames));
  return runs.sort((a, b) => a - b)[7];
}

for (const [name, widths] of Object.entries(networks)) {
  const layers = layersOf(widths);
  const text = textOf(layers);
  await writeFile(new URL(`../build/web-peers/${name}.txt`, import.meta.url), text);
  const pass = mlnn.open(new TextEncoder().encode(text)).pass();
  const session = await ort.InferenceSession.create(onnxOf(layers), { executionProviders: ['wasm'] });
  for (const frames of frameCounts) {
    const inputs = new Float32Array(frames * widths[0]).map((_, i) => Math.sin(i));
    const outputs = new Float32Array(frames * widths.at(-1));
    const theirs = () => session.run({ x: new ort.Tensor('float32', inputs, [frames, widths[0]]) });
    pass.run(inputs, outputs);
    (await theirs()).y.data.forEach((value, i) => assert.ok(Math.abs(value - outputs[i]) < 1e-5));
    const [mine, other] = [await timeOf(() => pass.run(inputs, outputs), frames), await timeOf(theirs, frames)];
    console.log(`${name} (${widths.join('-')}), ${frames} at once: ${mine.toFixed(1)} us a frame, ` +
      `onnxruntime-web ${other.toFixed(1)}`);
  }
}
