// Puts the page together: node web/viewer/pack.mjs FOLDER, where the modules and the scripts are.
import { createHash } from 'node:crypto';
import { readFile, writeFile } from 'node:fs/promises';
import { join } from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';
import { gzipSync } from 'node:zlib';

const here = fileURLToPath(new URL('.', import.meta.url));
const root = fileURLToPath(new URL('../../', import.meta.url));
const out = process.argv[2];
const network = await readFile(join(root, 'examples/digits/synth.txt'));

// Runs the tool's module as the page does, and returns the rules by which its reports look.
async function reportStyle() {
  const wasm = await readFile(join(out, 'modules/tool.wasm'));
  const { default: create } = await import(pathToFileURL(join(out, 'modules/tool.mjs')));
  const tool = await create({
    instantiateWasm: (imports, done) => {
      WebAssembly.instantiate(wasm, imports).then(({ instance }) => done(instance));
      return {};
    },
    printErr: () => undefined,
  });
  tool.FS.writeFile('/model.txt', network);
  tool.callMain(['report', '/model.txt', '-o', '/page.html']);
  const page = new TextDecoder().decode(tool.FS.readFile('/page.html'));
  return /<style>([^]*?)<\/style>/.exec(page)[1];
}

const hashOf = (text) => `'sha256-${createHash('sha256').update(text).digest('base64')}'`;
const asset = (name, bytes) =>
  `<script type="text/plain" id="asset-${name}">${gzipSync(bytes, { level: 9 }).toString('base64')}</script>`;

const style = `${await reportStyle()}${await readFile(join(here, 'viewer.css'), 'utf8')}`;
const script = (await readFile(join(out, 'main.js'), 'utf8')).replaceAll('</script', '<\\/script');
// The page's own script may load others (those of its workers); markup may load none.
const policy = ["default-src 'none'", `script-src ${hashOf(script)} 'strict-dynamic' 'wasm-unsafe-eval'`, 'worker-src blob:',
  `style-src ${hashOf(style)}`, 'img-src data:', "connect-src 'none'", "base-uri 'none'", "form-action 'none'"].join('; ');
const assets = [asset('tool-wasm', await readFile(join(out, 'modules/tool.wasm'))),
  asset('hearing-wasm', await readFile(join(out, 'modules/hearing.wasm'))), asset('digits-network', network)];

const parts = { POLICY: policy, STYLE: style, ASSETS: assets.join('\n'), SCRIPT: script };
const template = await readFile(join(here, 'page.html'), 'utf8');
const page = template.replace(/@([A-Z]+)@/g, (_, name) => parts[name]);
await writeFile(join(out, 'viewer.html'), page);
console.log(`${join(out, 'viewer.html')}: ${page.length} bytes`);
