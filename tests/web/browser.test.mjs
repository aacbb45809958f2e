// The npm package in headless Chromium: what node.test.mjs does with the digits, on a page that a server
// on the loopback gives.
import assert from 'node:assert/strict';
import { readFile } from 'node:fs/promises';
import { createServer } from 'node:http';
import { extname, join, normalize } from 'node:path';
import { fileURLToPath } from 'node:url';
import { test } from 'node:test';
import { Browser } from '../browser/browser.mjs';

const root = fileURLToPath(new URL('../../', import.meta.url));
const types = { '.js': 'text/javascript', '.mjs': 'text/javascript', '.wasm': 'application/wasm' };

const page = `<!doctype html><script type="module">
  try {
    const { load } = await import('/package/mlnn.js');
    const { goldenText, hearDigits } = await import('/tree/tests/web/digits.mjs');
    const read = async (path) => new Uint8Array(await (await fetch('/tree/' + path)).arrayBuffer());
    const mlnn = await load();
    const image = mlnn.open(await (await fetch('/digits.mlnn')).arrayBuffer());
    window.result = { digits: await hearDigits(image, read), golden: goldenText(mlnn) };
  } catch (error) {
    window.result = { error: String(error) };
  }
</script>`;

async function fileOf(url) {
  if (url === '/digits.mlnn') return process.env.MLNN_DIGITS;
  const path = normalize(url);
  if (path.startsWith('/package/')) return join(process.env.MLNN_PACKAGE, path.slice(9));
  return path.startsWith('/tree/') ? join(root, path.slice(6)) : null;
}

async function answer({ url }, response) {
  if (url === '/') return response.setHeader('Content-Type', 'text/html').end(page);
  try {
    const file = await fileOf(url);
    response.setHeader('Content-Type', types[extname(file)] ?? 'application/octet-stream').end(await readFile(file));
  } catch {
    response.writeHead(404).end();
  }
}

test('the browser names 28 of the 30 words, with the golden outputs', async () => {
  const server = createServer(answer);
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  const browser = await Browser.start();
  try {
    const opened = await browser.open(`http://127.0.0.1:${server.address().port}/`);
    await opened.until('window.result !== undefined', 'the result');
    const result = await opened.evaluate('window.result');
    assert.equal(result.error, undefined);
    assert.deepEqual(result.digits, { right: 28, words: 30, checksum: process.env.MLNN_CHECKSUM });
    assert.equal(result.golden, await readFile(join(root, 'tests/golden/integers.csv'), 'utf8'));
  } finally {
    await browser.close();
    server.closeAllConnections();
    server.close();
  }
});
