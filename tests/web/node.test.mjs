// The npm package in node: node --test tests/web, with the package's folder in MLNN_PACKAGE and that
// of a quantised digits.mlnn in MLNN_DIGITS.
import assert from 'node:assert/strict';
import { readFile } from 'node:fs/promises';
import { pathToFileURL } from 'node:url';
import { test } from 'node:test';
import { framesOf, goldenText, hearDigits, streamed } from './digits.mjs';

const { load, MlnnError } = await import(`${pathToFileURL(process.env.MLNN_PACKAGE)}/mlnn.js`);
const mlnn = await load();
const root = new URL('../../', import.meta.url);
const read = async (path) => new Uint8Array(await readFile(new URL(path, root)));
const synth = await read('examples/digits/synth.txt');
const recording = framesOf(await read('examples/digits/frames/0_en-us_f4.npy'));

const refusal = (call) => {
  try {
    call();
  } catch (error) {
    assert.ok(error instanceof MlnnError);
    return `${error.status}: ${error.message}`;
  }
  return 'done';
};

test('a model tells what it is', () => {
  const model = mlnn.open(synth);
  assert.deepEqual(model.shape, [600, 64, 64, 10]);
  assert.equal(model.softmax, true);
  assert.deepEqual(model.labels, ['0', '1', '2', '3', '4', '5', '6', '7', '8', '9']);
  assert.equal(model.properties.sample_rate, '8000');
  assert.equal(Object.keys(model.properties).length, 8);
  assert.equal(model.features.frameWidth, 120);
  assert.equal(model.features.deltas, true);
  assert.equal(model.features.text,
    'mel_deltas:bands=40,left=2,right=2,deltas=1,line_kernels=0,line_kernel_width=0');
  model.close();
});

test('it names 28 of the 30 words', async () => {
  assert.deepEqual(await hearDigits(mlnn.open(synth), read).then(({ right, words }) => [right, words]), [28, 30]);
});

test('an image gives the bits of every processor that does not fuse', async () => {
  const image = mlnn.open(new Uint8Array(await readFile(process.env.MLNN_DIGITS)));
  const expected = process.env.MLNN_CHECKSUM;
  assert.match(expected, /^[0-9a-f]{8}$/);
  assert.deepEqual(await hearDigits(image, read), { right: 28, words: 30, checksum: expected });
});

test('the integer pass gives the golden outputs', async () => {
  assert.equal(goldenText(mlnn), new TextDecoder().decode(await read('tests/golden/integers.csv')));
});

test('a pass reads and writes where it is told, and a frame does not depend on others', () => {
  const model = mlnn.open(synth);
  const pass = model.pass();
  model.close();
  const frames = 37;
  const inputs = pass.inputMemory(frames);
  inputs.forEach((_, i) => { inputs[i] = Math.sin(i); });
  const third = inputs.slice(1200, 1800);
  const together = pass.run(inputs);
  assert.equal(together.length, 10 * frames);
  const room = new Float32Array(10);
  assert.equal(pass.run(third, room), room);
  assert.deepEqual(room, together.slice(20, 30));
  pass.close();
  pass.close();
});

test('a stream takes one recording after another', () => {
  const stream = mlnn.open(synth).stream();
  const outputs = streamed(stream, recording);
  assert.equal(stream.delay, 2);
  assert.equal(outputs.length, 10 * recording.length / 120);
  assert.deepEqual(streamed(stream, recording), outputs);
  stream.close();
});

test('errors are exceptions with the text of the library', () => {
  assert.equal(refusal(() => mlnn.open(new TextEncoder().encode('nonsense\n'))),
    'MLNN_ERROR_MODEL: ERROR: MultiLayerNNModel::deserializeAscii: Invalid neural network model file. ' +
    "Didn't find expected header on first line.");
  const model = mlnn.open(synth);
  const pass = model.pass();
  assert.match(refusal(() => pass.run(new Float32Array(599))), /^MLNN_ERROR_SIZE: expected frames of 600/);
  assert.match(refusal(() => model.stream(7)), /^MLNN_ERROR_/);
  pass.close();
  assert.match(refusal(() => pass.run(new Float32Array(600))), /^MLNN_ERROR_HANDLE: /);
  const stream = model.stream();
  assert.match(refusal(() => stream.push(new Float32Array(3))), /^MLNN_ERROR_SIZE: /);
  assert.throws(() => mlnn.open('a path'), TypeError);
  assert.throws(() => stream.push([1, 2]), TypeError);
});

test('what the library says can be heard', async () => {
  const lines = [];
  const other = await load({ onMessage: (line) => lines.push(line) });
  assert.equal(refusal(() => other.open(new Uint8Array(3))).startsWith('MLNN_ERROR_MODEL: '), true);
  assert.ok(lines.length > 0);
});
