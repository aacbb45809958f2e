// How the viewer looks, beside pictures in tests/golden/viewer, and to those who do not see it.
//
// A picture may differ in one of a hundred pixels, by which browsers of other versions draw letters
// otherwise. With MLNN_MAKE_PICTURES set the pictures are made instead.
import assert from 'node:assert/strict';
import { mkdir, mkdtemp, readFile, rm, writeFile } from 'node:fs/promises';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { seriousFindings } from '../browser/axe.mjs';
import { Browser } from '../browser/browser.mjs';
import { inTree, show, viewer } from './support.mjs';

const share = 0.01;    // of pixels that may differ
const channel = 48;    // of 255, by which a channel must differ to count
const pictures = inTree('tests/golden/viewer');
let browser, folder;

before(async () => {
  browser = await Browser.start();
  folder = await mkdtemp(join(tmpdir(), 'mlnn-looks-'));
  const text = await readFile(inTree('examples/digits/synth.txt'));
  await writeFile(join(folder, 'cut.txt'), text.subarray(0, 3000));
});
after(async () => {
  await browser.close();
  await rm(folder, { recursive: true });
});

const views = {
  start: async () => undefined,
  model: (page) => show(page, inTree('examples/digits/synth.txt')),
  broken: async (page) => show(page, join(folder, 'cut.txt')),
  sound: async (page) => {
    await page.drop(inTree('examples/digits/wav/3_en-us_f4.wav'));
    await page.until("document.getElementById('viewer-heard').rows.length === 1");
    await page.evaluate('new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve)))');
  },
};

async function expectPicture(page, name) {
  const file = `${pictures}/${name}.png`;
  // Times are never the same.
  await page.evaluate(`{ const line = document.getElementById('viewer-status');
    line.textContent = line.textContent.replace(/after [0-9.]+ s/, 'after 0.0 s'); }`);
  const picture = await page.picture();
  if (process.env.MLNN_MAKE_PICTURES) {
    await mkdir(pictures, { recursive: true });
    return writeFile(file, picture);
  }
  const found = await page.differing(picture, await readFile(file), channel);
  if (found > share) await writeFile(`${process.env.MLNN_BUILD}/${name}.png`, picture);
  assert.ok(found <= share, `${name}: ${(100 * found).toFixed(2)} % of the pixels differ; it is in build/viewer now`);
}

for (const scheme of ['light', 'dark']) {
  for (const [name, prepare] of Object.entries(views)) {
    test(`${name}, ${scheme}`, async () => {
      const page = await browser.open(viewer, { scheme, width: 900, height: 1100 });
      await prepare(page);
      assert.deepEqual(await seriousFindings(page), []);
      await expectPicture(page, `${name}-${scheme}`);
      assert.deepEqual(page.faults, []);
      await page.close();
    });
  }
}

test('everything is reached by keys', async () => {
  const page = await browser.open(viewer);
  const press = async (key, code = key) => {
    const windowsVirtualKeyCode = { Tab: 9, ArrowRight: 39, ArrowLeft: 37 }[key];
    for (const type of ['keyDown', 'keyUp']) {
      await page.send('Input.dispatchKeyEvent', { type, key, code, windowsVirtualKeyCode });
    }
  };
  const reached = new Set();
  for (let i = 0; i < 8; ++i) {
    await press('Tab');
    reached.add(await page.evaluate('document.activeElement.id'));
  }
  for (const id of ['viewer-tab-model', 'viewer-files', 'viewer-digits', 'viewer-activation']) assert.ok(reached.has(id), id);
  await page.evaluate("document.getElementById('viewer-tab-model').focus()");
  await press('ArrowRight');
  assert.equal(await page.evaluate("document.getElementById('viewer-sound').hidden"), false);
  await press('ArrowLeft');
  assert.equal(await page.evaluate("document.getElementById('viewer-model').hidden"), false);
  await page.close();
});
