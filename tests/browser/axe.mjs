// The accessibility of a page as axe-core judges it.
import { readFile } from 'node:fs/promises';

const source = await readFile(process.env.MLNN_AXE, 'utf8');

// What it finds that is serious or critical.
export async function seriousFindings(page) {
  await page.evaluate(`${source}; true`);
  const violations = await page.evaluate(`axe.run(document, { preload: false }).then(({ violations }) =>
    violations.map(({ id, impact, nodes }) => ({ id, impact, where: nodes.map(({ html }) => html.slice(0, 120)) })))`);
  return violations.filter(({ impact }) => impact === 'serious' || impact === 'critical');
}
