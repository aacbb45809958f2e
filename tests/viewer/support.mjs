// What the tests of the viewer share: where things are, and what the tool says.
import { execFileSync } from 'node:child_process';
import { join } from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';

export const root = fileURLToPath(new URL('../../', import.meta.url));
export const viewer = pathToFileURL(process.env.MLNN_VIEWER).href;
export const inTree = (path) => join(root, path);

// Runs the tool as it is on this machine. Returns what it prints, also where it refuses.
export function tool(args, options = {}) {
  try {
    return execFileSync(process.env.MLNN_TOOL, args,
      { encoding: 'utf8', stdio: ['ignore', 'pipe', 'ignore'], maxBuffer: 2 ** 28, ...options });
  } catch (error) {
    return error.stdout;
  }
}

// The rows of a table with that caption, as arrays of texts.
export function rowsOf(page, caption) {
  return page.evaluate(`[...document.querySelectorAll('table')]
    .filter((table) => table.caption?.textContent === ${JSON.stringify(caption)})
    .flatMap((table) => [...table.rows].map((row) => [...row.cells].map((cell) => cell.textContent)))`);
}

export async function facts(page, caption) {
  return Object.fromEntries(await rowsOf(page, caption));
}

// Waits until the model view has done what it was asked for, and returns what it says.
export async function settled(page) {
  await page.until("document.getElementById('viewer-progress').hidden && " +
    "document.getElementById('viewer-status').textContent !== ''", 'the model view');
  return page.text('viewer-status');
}

// Forgets what the model view said, so that settled() waits for something new.
export const forget = (page) => page.evaluate("document.getElementById('viewer-status').textContent = ''");

export async function show(page, ...files) {
  await forget(page);
  await page.drop(...files);
  return settled(page);
}
