// Every page of the site in headless Chromium, as a telephone and as a screen show it, in light and in dark.
//
// MLNN_SITE is the folder with the pages, MLNN_AXE the source of axe-core. They are opened as files, without a server: what they need of others
// would not come.
import assert from 'node:assert/strict';
import { readdirSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { pathToFileURL } from 'node:url';
import { seriousFindings } from '../browser/axe.mjs';
import { Browser } from '../browser/browser.mjs';

const folder = process.env.MLNN_SITE;
const pages = readdirSync(folder, { recursive: true }).filter((name) => name.endsWith('.html')).sort();
const telephone = { width: 360, height: 740, scheme: 'dark' };
const screen = { width: 1280, height: 900, scheme: 'light' };
let browser;

before(async () => { browser = await Browser.start(); });
after(() => browser.close());

// What the reader would miss. Pictures below the edge are loaded first.
const findings = `(async () => {
  const found = [];
  for (const image of document.images) image.loading = 'eager';
  await Promise.all([...document.images].map((image) => image.decode().catch(() => found.push('no picture ' + image.src))));
  for (const image of document.images) if (!image.alt) found.push('no text for ' + image.src);
  if (document.title.trim() === '') found.push('no title');
  const headings = document.querySelectorAll('h1');
  if (headings.length !== 1 || headings[0].textContent.trim() === '') found.push(headings.length + ' headings h1');
  const width = document.documentElement.scrollWidth;
  if (width > innerWidth) {
    const wide = [...document.querySelectorAll('article *')].filter((e) => e.getBoundingClientRect().right > innerWidth + 1);
    found.push(width + ' pixels wide: ' + (wide[0]?.outerHTML ?? '').slice(0, 200));
  }
  for (const link of document.querySelectorAll('a[href]')) {
    const to = link.getAttribute('href');
    if (!URL.canParse(to, location) || !/^(file|https|mailto):$/.test(new URL(to, location).protocol)) found.push('link ' + to);
  }
  return found;
})()`;

test('every page is whole', async (t) => {
  assert.ok(pages.length > 60, `${pages.length} pages`);
  const faults = {};
  for (const name of pages) {
    for (const look of [telephone, screen]) {
      const page = await browser.open(pathToFileURL(join(folder, name)).href, look);
      const found = [...await page.evaluate(findings), ...page.faults, ...page.fetchedElsewhere(),
        ...await seriousFindings(page)];
      if (found.length > 0) faults[`${name}, ${look.width} pixels`] = found;
      await page.close();
    }
  }
  assert.deepEqual(faults, {});
  t.diagnostic(`${pages.length} pages are whole`);
});

test('the search finds a word of a guide and a name of the interface', async () => {
  const page = await browser.open(pathToFileURL(join(folder, 'search.html')).href + '?q=ContextWindow', screen);
  await page.until("document.querySelectorAll('#search-results li').length > 1", 'results');
  const titles = await page.evaluate("[...document.querySelectorAll('#search-results li a')].map((link) => link.textContent)");
  assert.ok(titles.includes('features/ContextWindow.h'), titles.join('; '));
  await page.close();
});

test('a reader chooses light or dark', async () => {
  const page = await browser.open(pathToFileURL(join(folder, 'index.html')).href, screen);
  const colour = () => page.evaluate('getComputedStyle(document.body).backgroundColor');
  const seen = [];
  for (let press = 0; press < 3; ++press) {
    seen.push(await colour());
    await page.evaluate("document.querySelector('.theme-toggle').click()");
  }
  assert.equal(new Set(seen).size, 2, seen.join('; '));
  await page.close();
});
