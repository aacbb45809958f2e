// The tab that listens, in headless Chromium: sound files, and one of them as the microphone.
import assert from 'node:assert/strict';
import { mkdtemp, readFile, rm, writeFile } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { test } from 'node:test';
import { Browser } from '../browser/browser.mjs';
import { inTree, viewer } from './support.mjs';

const wavOf = (name) => inTree(`examples/digits/wav/${name}.wav`);
const rows = (page) => page.evaluate(`[...document.getElementById('viewer-heard').rows].map((row) =>
  [...row.cells].map((cell) => cell.textContent))`);

async function labels() {
  const lines = (await readFile(inTree('examples/digits/labels.csv'), 'utf8')).trim().split('\n');
  const names = lines[0].split(',');
  return lines.slice(1).map((line) => Object.fromEntries(line.split(',').map((field, i) => [names[i], field])));
}

async function inBrowser(options, work) {
  const browser = await Browser.start(...options);
  try {
    const page = await browser.open(viewer);
    await work(page);
    assert.deepEqual(page.faults, []);
    assert.deepEqual(page.fetchedElsewhere(), []);
  } finally {
    await browser.close();
  }
}

// The floats of a file of numpy's, behind its head.
function floatsOf(npy) {
  const start = 10 + npy.readUInt16LE(8);
  return Float32Array.from({ length: (npy.length - start) / 4 }, (_, i) => npy.readFloatLE(start + 4 * i));
}

// Drops words and saves their frames. Returns how many are decided rightly and how far the frames are from those
// recorded.
async function hearWords(page, words) {
  await page.drop(...words.map(({ name }) => wavOf(name)));
  await page.until(`document.getElementById('viewer-heard').rows.length === ${words.length}`, 'the decisions');
  const found = new Map((await rows(page)).map(([file, decision]) => [file.replace('.wav', ''), decision]));
  let right = 0;
  let worst = 0;
  for (const { name, label, predicted_synth: predicted } of words) {
    assert.equal(found.get(name), predicted, name);
    if (predicted === label) ++right;
    const frames = floatsOf(await page.download(`#viewer-heard a[download="${name}.npy"]`));
    const recorded = floatsOf(await readFile(inTree(`examples/digits/frames/${name}.npy`)));
    assert.equal(frames.length, recorded.length, name);
    frames.forEach((value, i) => { worst = Math.max(worst, Math.abs(value - recorded[i])); });
  }
  return { right, worst };
}

test('the 30 words are decided as their labels say, from frames that agree with the recorded ones', async () => {
  const words = (await labels()).map((word) => ({ ...word, name: word.file.replace('.npy', '') }));
  assert.equal(words.length, 30);
  const found = [];
  for (let i = 0; i < 30; i += 10) {  // a page may save ten files without asking
    await inBrowser([], async (page) => { found.push(await hearWords(page, words.slice(i, i + 10))); });
  }
  const right = found.reduce((sum, part) => sum + part.right, 0);
  const worst = Math.max(...found.map((part) => part.worst));
  assert.equal(right, 28);
  assert.ok(worst < 1e-4, `frames differ by ${worst}`);
  console.log(`30 words decided as labels.csv says, ${right} rightly; frames differ by at most ${worst.toExponential(1)}`);
});

test('what is no sound is refused', async () => {
  const folder = await mkdtemp(join(tmpdir(), 'mlnn-sounds-'));
  await writeFile(join(folder, 'noise.wav'), 'no sound at all');
  await writeFile(join(folder, 'short.wav'), (await readFile(wavOf('3_en-us_f4'))).subarray(0, 100));
  await inBrowser([], async (page) => {
    for (const [name, reason] of [['noise.wav', /no sound that this browser can read/], ['short.wav', /too short/]]) {
      await page.drop(join(folder, name));
      await page.until(`document.getElementById('viewer-sound-status').classList.contains('bad') &&
        document.getElementById('viewer-sound-status').textContent.startsWith('${name}')`);
      assert.match(await page.text('viewer-sound-status'), reason);
    }
  });
  await rm(folder, { recursive: true });
});

test('the microphone is heard, with the delay stated and measured', async () => {
  const name = '3_en-us_f4';
  await inBrowser(['--use-fake-ui-for-media-stream', '--use-fake-device-for-media-stream',
    `--use-file-for-fake-audio-capture=${wavOf(name)}%noloop`], async (page) => {
    await page.evaluate("document.getElementById('viewer-tab-sound').click()");
    await page.click('viewer-listen');
    await page.until("document.getElementById('viewer-heard').rows.length === 1", 'a word');
    const [[source, decision]] = await rows(page);
    assert.deepEqual([source, decision], ['microphone', '3']);
    assert.equal(await page.text('viewer-stated'), '60 ms after the last sample of a frame (6 frames of deltas and context)');
    const measured = await page.text('viewer-measured');
    assert.match(measured, /^\d+ ms in the middle, \d+ ms at most, of the last \d+ frames/);
    console.log(`measured delay: ${measured}`);
    await page.click('viewer-listen');
    await page.until("document.getElementById('viewer-sound-status').textContent === 'stopped'");
  });
});
