// Pages of `mlnn report` in headless Chromium: nothing of a hostile file runs, readers of all kinds find their way.
//
// MLNN_TOOL is the command, MLNN_AXE the source of axe-core.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { mkdtempSync, readFileSync, rmSync, statSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { fileURLToPath, pathToFileURL } from 'node:url';
import { seriousFindings } from '../browser/axe.mjs';
import { Browser } from '../browser/browser.mjs';

const root = fileURLToPath(new URL('../../', import.meta.url));
const digits = join(root, 'examples/digits');
const folder = mkdtempSync(join(tmpdir(), 'mlnn-report-'));
const names = ['3_en-us_f4', '8_en-gb-x-gbclan_michael', '1_en-gb_m4'];
const frames = names.map((name) => join(digits, 'frames', `${name}.npy`));
const whole = join(folder, 'whole.html');
const hostile = join(folder, 'hostile.html');

// What would tell that it ran, in each place that a page might take it into.
const mark = "document.documentElement.dataset.ran='1'";
const evil = `</td></title></style><script>${mark}</script><img src=x onerror="${mark}"><svg/onload="${mark}">` +
  `<a href="javascript:${mark}" style="position:fixed">x</a><iframe srcdoc="<script>parent.${mark}</script>"></iframe>` +
  `"'--><meta http-equiv="refresh" content="0;url=https://example.org/">`;
let browser;

function report(out, ...words) {
  execFileSync(process.env.MLNN_TOOL, ['report', '-o', out, ...words], { cwd: folder, stdio: 'ignore' });
}

function writeHostileModel(name) {
  const label = evil.replaceAll(',', ';').replaceAll(' ', '\u00a0');
  writeFileSync(join(folder, name), 'MultiLayerNNModel_v2\nsoftmax 1\n' +
    '# nn_tune feat_desc mel_deltas:bands=2,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0\n' +
    `# ${evil}\n# NVP ${label} ${evil}\n# NVP labels ${label},other\n` +
    'loss 3\n3\t2\t1\nnum_layers 1\nlayer 1 size 2 3\nact_fn linear\n0\t1\t-1\n0\t-1\t2\n');
}

before(async () => {
  report(whole, join(digits, 'synth-bn.txt'), '--labels', join(digits, 'labels.csv'), '--against',
    join(digits, 'synth.txt'), '--frames', ...frames);
  const name = '<img src=x onerror=document.documentElement.dataset.ran=1>.txt';
  writeHostileModel(name);
  writeFileSync(join(folder, `f${name}`), '1 2\n3 4\n');
  writeHostileModel('other<b>.txt');
  report(hostile, name, '--frames', `f${name}`, '--against', 'other<b>.txt');
  browser = await Browser.start();
});
after(async () => {
  await browser.close();
  rmSync(folder, { recursive: true });
});

const ran = 'document.documentElement.dataset.ran ?? null';
const address = (file) => pathToFileURL(file).href;
const fetched = (page) => page.requests.filter((request) => !request.startsWith('data:'));

test('nothing of a hostile file runs, and it is shown as text', async () => {
  const page = await browser.open(address(hostile));
  assert.equal(await page.evaluate(ran), null);
  assert.equal(await page.evaluate("document.querySelectorAll('script, iframe, img, a[href^=javascript]').length"), 0);
  assert.deepEqual(fetched(page), [address(hostile)]);
  assert.deepEqual(page.faults, []);
  assert.ok((await page.evaluate('document.body.textContent')).includes('<svg/onload='));
  await page.close();
});

// Even where a page had let something through.
test('the policy of the page forbids scripts, styles, and to fetch', async () => {
  const opened = join(folder, 'opened.html');
  writeFileSync(opened, readFileSync(whole, 'utf8').replace('</main>', `</main>${evil.split('"\'--')[0]}` +
    '<img src="https://example.org/x.png"><link rel="stylesheet" href="other.css">'));
  const page = await browser.open(address(opened));
  assert.equal(await page.evaluate(ran), null);
  assert.equal(await page.evaluate("document.scripts.length > 0"), true);  // it is there, but did not run
  assert.ok(page.faults.some((fault) => fault.includes('Content Security Policy')), page.faults.join('\n'));
  await page.close();
});

for (const [kind, file] of Object.entries({ whole, hostile })) {
  for (const scheme of ['light', 'dark']) {
    test(`the ${kind} page, ${scheme}, is whole on a telephone and has no serious finding`, async () => {
      const page = await browser.open(address(file), { width: 360, height: 740, scheme });
      assert.deepEqual(await seriousFindings(page), []);
      assert.equal(await page.evaluate('document.documentElement.scrollWidth'), 360);
      assert.deepEqual(page.faults, []);
      await page.close();
    });
  }
}

test('paper is white, also of those who read in the dark', async () => {
  const page = await browser.open(address(whole));
  await page.send('Emulation.setEmulatedMedia',
    { media: 'print', features: [{ name: 'prefers-color-scheme', value: 'dark' }] });
  assert.equal(await page.evaluate('getComputedStyle(document.documentElement).backgroundColor'), 'rgb(255, 255, 255)');
  await page.close();
});

test('a page of a network of 131 MB has at most 2 MB', () => {
  const large = join(folder, 'large.mlnn');
  execFileSync(process.env.MLNN_TOOL, ['new', '1320,4096,4096,2600', large], { stdio: 'ignore' });
  report(join(folder, 'large.html'), large);
  assert.ok(statSync(join(folder, 'large.html')).size <= 2_000_000);
});
