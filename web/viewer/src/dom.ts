// Elements of the page. Text goes in as text, never as markup.

type Properties = Record<string, string>;

export function element(name: string, attributes: Properties = {}, ...content: (Node | string)[]): HTMLElement {
  const made = document.createElement(name);
  for (const [attribute, value] of Object.entries(attributes)) made.setAttribute(attribute, value);
  made.append(...content);
  return made;
}

// The element of the page's own markup that has the id.
export function byId<T extends HTMLElement>(id: string, kind: new () => T): T {
  const found = document.getElementById(id);
  if (!(found instanceof kind)) throw new Error(`the page lacks ${id}`);
  return found;
}

// A table with a heading for every column and, in the first cell, for every row.
export function table(caption: string, columns: readonly string[], rows: readonly (readonly string[])[]): HTMLElement {
  const head = element('tr', {}, ...columns.map((name) => element('th', { scope: 'col' }, name)));
  const body = rows.map((cells) => element('tr', {}, ...cells.map((cell, i) =>
    (i === 0 ? element('th', { scope: 'row' }, cell) : element('td', {}, cell)))));
  return element('table', { class: 'facts' }, element('caption', {}, caption), element('thead', {}, head),
    element('tbody', {}, ...body));
}

// Lets the browser save bytes under a name.
export function downloadLink(name: string, data: Blob, text: string): HTMLElement {
  return element('a', { download: name, href: URL.createObjectURL(data), class: 'download' }, text);
}
