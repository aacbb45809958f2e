// The tab that shows models, in headless Chromium, beside what the tool says of the same files.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { statSync } from 'node:fs';
import { mkdtemp, readFile, rm, writeFile } from 'node:fs/promises';
import { createServer } from 'node:http';
import { tmpdir } from 'node:os';
import { basename, dirname, join } from 'node:path';
import { after, afterEach, before, beforeEach, test } from 'node:test';
import { Browser } from '../browser/browser.mjs';
import { facts, forget, inTree, rowsOf, settled, show, tool, viewer } from './support.mjs';

const synth = inTree('examples/digits/synth.txt');
const synthBn = inTree('examples/digits/synth-bn.txt');
let folder, browser, page;

before(async () => {
  folder = await mkdtemp(join(tmpdir(), 'mlnn-models-'));
  browser = await Browser.start();
});
after(async () => {
  await browser.close();
  await rm(folder, { recursive: true });
});
beforeEach(async () => {
  page = await browser.open(viewer);
});
afterEach(async () => {
  assert.deepEqual(page.faults, []);
  assert.deepEqual(page.fetchedElsewhere(), []);
  await page.close();
});

const made = async (name, content) => {
  await writeFile(join(folder, name), content);
  return join(folder, name);
};
const plain = (text) => text.replace(/\u202f/g, '');
// The working memory is that of a pass where the page is made, whose addresses may have another width.
const withoutMemory = (report) => report.toString().replace(/(<th scope="row">Working memory<\/th>\n<td>).*(<\/td>)/, '$1$2');
const infoOf = (file) => JSON.parse(tool(['info', '--json', file]));

async function expectShown(file, ...options) {
  const status = await show(page, file);
  assert.match(status, /^.* is shown, after [0-9.]+ s\.$/, `${file}: ${status}`);
  const info = JSON.parse(tool(['info', '--json', file, ...options]));
  const about = await facts(page, 'What is in the file');
  assert.equal(plain(about.Parameters), String(info.parameters), file);
  assert.equal(plain(about.Inputs), String(info.inputs), file);
  assert.equal(plain(about.Layers), String(info.layers.length), file);
  assert.equal(about.Checksum, String(info.checksum), file);
  assert.match(plain(about.File), new RegExp(`\\b${info.bytes} bytes`), file);
  assert.match(about.Format, info.format === 'ascii' ? /text/ : /image/, file);
}

test('models of the tree are shown with the values of the tool', async () => {
  for (const name of ['coded.mlnn', 'image.mlnn', 'rows.mlnn', 'version1.txt', 'version2.txt']) {
    await expectShown(inTree(`tests/golden/${name}`));
  }
  for (const file of [synth, synthBn]) await expectShown(file);
});

test('the report is that of the tool, to the byte but for the memory', async () => {
  for (const file of [synth, synthBn]) {
    await show(page, file);
    const saved = await page.download('#viewer-saved a');
    assert.equal(withoutMemory(saved), withoutMemory(tool(['report', basename(file)], { cwd: dirname(file) })));
  }
});

test('layers are shown as info has them', async () => {
  await show(page, synthBn);
  const rows = await page.evaluate(`[...document.querySelectorAll('#layers ~ * table')].map((table) =>
    [...table.tBodies[0]?.rows ?? table.rows].map((row) => [...row.cells].map((cell) => cell.textContent)))[0]`);
  const { layers } = infoOf(synthBn);
  assert.ok(rows.length >= layers.length);
  layers.forEach((layer, i) => {
    const line = rows.filter((row) => row[0] === String(i + 1)).flat().map(plain).join(' ');
    for (const value of [layer.inputs, layer.outputs, layer.activation]) assert.ok(line.includes(value), `${line}: ${value}`);
  });
});

test('broken files are told where and why', async () => {
  const text = await readFile(synth, 'utf8');
  const image = await readFile(inTree('tests/golden/image.mlnn'));
  const broken = [await made('cut.txt', text.slice(0, 3000)), await made('cut.mlnn', image.subarray(0, 1100)),
    await made('wrong.txt', text.replace('num_layers', 'num_players')), await made('empty.mlnn', ''),
    await made('noise.mlnn', Buffer.from(Array.from({ length: 5000 }, (_, i) => (i * 7919) % 256)))];
  for (const file of broken) {
    assert.equal(await show(page, file), 'The file does not load.', file);
    const checked = JSON.parse(tool(['check', '--json', file]));
    assert.equal(checked.loads, false);
    const told = await facts(page, 'The first place that does not fit');
    const { misfit } = checked;
    if (!misfit) continue;
    assert.equal(told.What, misfit.field);
    assert.equal(told.Expected, misfit.expected);
    assert.equal(told.Found, misfit.found);
    assert.match(told.Where, new RegExp(`byte ${misfit.offset}\\b`));
    if (misfit.line) assert.match(told.Where, new RegExp(`^line ${misfit.line}, column ${misfit.column} `));
  }
});

test('inputs that once broke a reader are shown or refused', async () => {
  for (const name of ['ImagePass/layer-without-outputs', 'TextReader/batch-norm-without-inputs']) {
    assert.match(await show(page, inTree(`fuzz/regressions/${name}`)), /is shown|does not load/);
  }
});

test('two models are compared as diff compares them', async () => {
  const small = join(folder, 'small.txt');
  tool(['quantize', synth, small, '--bits', '6']);
  await show(page, synth, small);
  const diff = JSON.parse(tool(['diff', '--json', synth, small]));
  const rows = await rowsOf(page, 'Parameters, value by value');
  const shown = Object.fromEntries(rows.slice(1).map((row) => [`${row[0]} ${row[1]}`, plain(row[3])]));
  const expected = {};
  for (const { layer, arrays } of diff.numbers.layers) {
    for (const [name, { differing }] of Object.entries(arrays)) expected[`${layer} ${name}`] = String(differing);
  }
  assert.ok(Object.keys(expected).length > 0);
  for (const [name, differing] of Object.entries(expected)) assert.equal(shown[name], differing, name);
});

test('a model is picked, then another, and both are compared no longer', async () => {
  await page.pick('viewer-files', synth);
  await settled(page);
  await forget(page);
  await page.pick('viewer-other', synthBn);
  await settled(page);
  assert.equal(await page.text('viewer-given'), 'compared with synth-bn.txt');
  assert.ok(await page.evaluate("document.getElementById('differences') !== null"));
  await forget(page);
  await page.click('viewer-alone');
  await settled(page);
  assert.equal(await page.evaluate("document.getElementById('differences')"), null);
});

test('recordings and labels give accuracy and a confusion matrix', async () => {
  const names = ['0_en-us_f4', '3_en-us_f4', '9_en-us_f4'].map((name) => inTree(`examples/digits/frames/${name}.npy`));
  assert.match(await show(page, synth, ...names, inTree('examples/digits/labels.csv')), /is shown/);
  assert.equal(await page.text('viewer-given'), 'run over 3 recordings, with the labels of labels.csv');
  const saved = await page.download('#viewer-saved a');
  const files = [synth, ...names, inTree('examples/digits/labels.csv')];
  execFileSync('cp', [...files, folder]);
  const [model, ...recordings] = files.slice(0, -1).map((name) => basename(name));
  const expected = tool(['report', model, '--frames', ...recordings, '--labels', 'labels.csv'], { cwd: folder });
  assert.equal(withoutMemory(saved), withoutMemory(expected));
});

test('files are made as the tool makes them', async () => {
  await show(page, synthBn);
  const wanted = [
    ['convert', 'image', '8', ['convert'], 'synth-bn.mlnn'],
    ['fold', 'text', '8', ['fold'], 'synth-bn-folded.txt'],
    ['quantize', 'image', '5', ['quantize', '--bits', '5'], 'synth-bn-quantised.mlnn'],
    ['convert', 'source', '8', ['convert', '--symbol', 'model'], 'synth-bn.c'],
  ];
  for (const [what, format, bits, [command, ...options], name] of wanted) {
    await page.choose('viewer-what', what);
    await page.choose('viewer-format', format);
    await page.choose('viewer-bits', bits);
    await forget(page);
    await page.evaluate("document.getElementById('viewer-making').requestSubmit()");
    assert.equal(await settled(page), `${name} is made, and can be saved.`);
    tool([command, synthBn, join(folder, name), ...options]);
    assert.deepEqual(await page.download('#viewer-made a'), await readFile(join(folder, name)), name);
  }
});

test('what a hostile file says is shown as text', async () => {
  const evil = '<img src=x onerror=window.done=1><script>window.done=1</script>';
  const text = (await readFile(synth, 'utf8'));
  const labels = Array.from({ length: 10 }, () => evil.replace(/ /g, '\u00a0')).join(',');
  const file = await made('<img src=x onerror=window.done=1>.txt',
    text.replace(/^(.*\blabels\b).*$/m, `$1 ${labels}`).replace(/^(.*\bname\b).*$/m, `$1 ${evil}`));
  assert.match(await show(page, file), /is shown|does not load/);
  assert.equal(await page.evaluate("document.querySelectorAll('#viewer-model img, #viewer-model script').length"), 0);
  assert.equal(await page.evaluate('window.done'), undefined);
  assert.ok((await page.text('viewer-report')).includes('onerror'));
});

// Says in the output how long that took, and for how long at most the page did nothing else.
async function expectShownAwake(file, ...options) {
  await page.evaluate(`{ window.longest = 0; let last = performance.now();
    const tick = () => { const now = performance.now(); window.longest = Math.max(window.longest, now - last); last = now;
      window.ticking = setTimeout(tick, 10); }; tick(); }`);
  await page.evaluate(`{ window.stages = new Set(); new MutationObserver(() =>
    window.stages.add(document.getElementById('viewer-status').textContent))
    .observe(document.getElementById('viewer-status'), { childList: true }); }`);
  await expectShown(file, ...options);
  const stages = await page.evaluate('[...window.stages]');
  assert.ok(stages.includes(`reading ${basename(file)}`), String(stages));
  console.log(`${basename(file)}: ${statSync(file).size} bytes. ${await page.text('viewer-status')} The page was away for ` +
    `${(await page.evaluate('window.longest')).toFixed(0)} ms at most.`);
}

test('the largest network is shown while the page stays awake, as an image and as a text', async () => {
  const image = join(folder, 'large.mlnn');
  const text = join(folder, 'large.txt');
  tool(['new', '1320,4096,4096,2600', image]);
  tool(['convert', image, text]);
  await expectShownAwake(image);
  await expectShownAwake(text);
});

test('stopped work says so, and the next goes on', async () => {
  const large = join(folder, 'large.mlnn');
  await forget(page);
  await page.drop(large);
  await page.until("!document.getElementById('viewer-stop').hidden");
  await page.click('viewer-stop');
  assert.equal(await settled(page), 'Stopped.');
  await expectShown(synth);
});

test('a static server gives the same page', async () => {
  const content = await readFile(process.env.MLNN_VIEWER);
  const server = createServer((_, response) => response.setHeader('Content-Type', 'text/html').end(content));
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const served = await browser.open(`http://127.0.0.1:${server.address().port}/`);
  try {
    assert.match(await show(served, synth), /is shown/);
    assert.deepEqual(served.faults, []);
  } finally {
    await served.close();
    server.closeAllConnections();
    server.close();
  }
});
