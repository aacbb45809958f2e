// The page that the tool makes of a model, as a part of this one.
//
// The tool escapes all that it takes from files, and nothing in this page may run scripts but its own.

// Whatever could act, should the tool ever let something through.
const allowed = new Set(['a', 'p', 'h1', 'h2', 'h3', 'div', 'section', 'header', 'footer', 'nav', 'main', 'ul', 'ol', 'li',
  'table', 'caption', 'thead', 'tbody', 'tr', 'th', 'td', 'figure', 'figcaption', 'span', 'strong', 'code', 'br',
  'svg', 'g', 'rect', 'line', 'path', 'polyline', 'polygon', 'circle', 'text', 'tspan', 'title', 'desc', 'image', 'defs',
  'linearGradient', 'stop', 'marker']);

function refuseStrangers(body: Element): void {
  for (const node of body.querySelectorAll('*')) {
    if (!allowed.has(node.localName)) throw new Error(`the report has an element ${node.localName}`);
    for (const { name } of node.attributes) {
      if (name.startsWith('on')) throw new Error(`the report has an attribute ${name}`);
    }
  }
}

// There is one `main` in a page already.
function withoutMain(body: Element): Node[] {
  return [...body.children].flatMap((child): Node[] => {
    if (child.classList.contains('skip')) return [];
    return child.localName === 'main' ? [...child.children] : [child];
  });
}

// Puts the report into `place`.
export function showReport(text: string, place: HTMLElement): void {
  const plain = text.replace(/<style>[^]*?<\/style>/, '');  // this page has the same rules, and forbids others
  const report = new DOMParser().parseFromString(plain, 'application/xhtml+xml');
  const body = report.querySelector('body');
  if (body === null || report.querySelector('parsererror') !== null) throw new Error('the report is not a page');
  refuseStrangers(body);
  place.replaceChildren(...withoutMain(body).map((node) => document.importNode(node, true)));
}
