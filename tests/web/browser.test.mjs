// The npm package in headless Chromium: what node.test.mjs does with the digits, on a page that a server
// on the loopback gives.
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { mkdtemp, readFile, rm } from 'node:fs/promises';
import { createServer } from 'node:http';
import { tmpdir } from 'node:os';
import { extname, join, normalize } from 'node:path';
import { fileURLToPath } from 'node:url';
import { test } from 'node:test';

const root = fileURLToPath(new URL('../../', import.meta.url));
const types = { '.js': 'text/javascript', '.mjs': 'text/javascript', '.wasm': 'application/wasm' };

const page = `<!doctype html><script type="module">
  try {
    const { load } = await import('/package/mlnn.js');
    const { goldenText, hearDigits } = await import('/tree/tests/web/digits.mjs');
    const read = async (path) => new Uint8Array(await (await fetch('/tree/' + path)).arrayBuffer());
    const mlnn = await load();
    const image = mlnn.open(await (await fetch('/digits.mlnn')).arrayBuffer());
    const result = { digits: await hearDigits(image, read), golden: goldenText(mlnn) };
    await fetch('/result', { method: 'POST', body: JSON.stringify(result) });
  } catch (error) {
    await fetch('/result', { method: 'POST', body: JSON.stringify({ error: String(error) }) });
  }
</script>`;

async function fileOf(url) {
  if (url === '/digits.mlnn') return process.env.MLNN_DIGITS;
  const path = normalize(url);
  if (path.startsWith('/package/')) return join(process.env.MLNN_PACKAGE, path.slice(9));
  return path.startsWith('/tree/') ? join(root, path.slice(6)) : null;
}

// Serves the page, and calls `take` with what it sends.
function serve(take) {
  return createServer(async (request, response) => {
    if (request.method === 'POST') {
      let body = '';
      for await (const piece of request) body += piece;
      response.end();
      take(JSON.parse(body));
    } else if (request.url === '/') {
      response.setHeader('Content-Type', 'text/html').end(page);
    } else {
      try {
        const file = await fileOf(request.url);
        response.setHeader('Content-Type', types[extname(file)] ?? 'application/octet-stream');
        response.end(await readFile(file));
      } catch {
        response.writeHead(404).end();
      }
    }
  });
}

test('the browser names 28 of the 30 words, with the golden outputs', { timeout: 120000 }, async () => {
  const profile = await mkdtemp(join(tmpdir(), 'mlnn-web-'));
  let browser;
  let server;
  try {
    const result = await new Promise((resolve, reject) => {
      server = serve(resolve).listen(0, '127.0.0.1', () => {
        browser = spawn('chromium', ['--headless', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage',
          `--user-data-dir=${profile}`, '--remote-debugging-port=0',
          `http://127.0.0.1:${server.address().port}/`], { stdio: 'ignore' });
        browser.on('error', reject);
        browser.on('exit', () => reject(new Error('the browser ended early')));
      });
    });
    assert.equal(result.error, undefined);
    assert.deepEqual(result.digits, { right: 28, words: 30, checksum: process.env.MLNN_CHECKSUM });
    assert.equal(result.golden, await readFile(join(root, 'tests/golden/integers.csv'), 'utf8'));
  } finally {
    browser?.removeAllListeners('exit');
    if (browser?.pid !== undefined) {
      const ended = new Promise((resolve) => browser.once('exit', resolve));
      browser.kill();
      await ended;
    }
    server?.closeAllConnections();
    server?.close();
    await rm(profile, { recursive: true, force: true, maxRetries: 10, retryDelay: 200 });
  }
});
