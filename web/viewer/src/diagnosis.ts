// Why a file is refused, and where: what `mlnn check --json` says of it.
import { element, table } from './dom';

interface Misfit {
  readonly offset: number;
  readonly line?: number;
  readonly column?: number;
  readonly field: string;
  readonly expected: string;
  readonly found: string;
  readonly hint?: string;
}

export interface Checked {
  readonly file: string;
  readonly bytes: number;
  readonly loads: boolean;
  readonly misfit?: Misfit | null;
  readonly messages?: readonly string[];
}

// One object for one file, an array for more.
export function checkedOf(json: string): Checked[] {
  const found = JSON.parse(json) as Checked | Checked[];
  return Array.isArray(found) ? found : [found];
}

function placeOf(misfit: Misfit): string {
  if (misfit.line === undefined) return `byte ${misfit.offset}`;
  return `line ${misfit.line}, column ${misfit.column ?? 1} (byte ${misfit.offset})`;
}

function rowsOf(checked: Checked): string[][] {
  const { misfit } = checked;
  const rows = [['Size', `${checked.bytes} bytes`]];
  if (misfit === undefined || misfit === null) return rows;
  rows.push(['Where', placeOf(misfit)], ['What', misfit.field], ['Expected', misfit.expected], ['Found', misfit.found]);
  if (misfit.hint) rows.push(['Hint', misfit.hint]);
  return rows;
}

// The bytes around the place, for those who know the format.
async function surroundings(file: File, misfit: Misfit): Promise<string> {
  const reach = misfit.line === undefined ? 32 : 120;
  const begin = Math.max(misfit.offset - reach, 0);
  const bytes = new Uint8Array(await file.slice(begin, misfit.offset + reach).arrayBuffer());
  if (misfit.line !== undefined) return new TextDecoder().decode(bytes);
  const lines: string[] = [];
  for (let i = 0; i < bytes.length; i += 16) {
    const row = [...bytes.subarray(i, i + 16)].map((byte) => byte.toString(16).padStart(2, '0')).join(' ');
    lines.push(`${String(begin + i).padStart(10)}  ${row}`);
  }
  return lines.join('\n');
}

export async function diagnosisOf(checked: Checked, file: File): Promise<Node[]> {
  const parts: Node[] = [
    element('h2', { id: 'viewer-diagnosis' }, `${file.name} does not load`),
    table('The first place that does not fit', ['What', 'There'], rowsOf(checked)),
  ];
  if (checked.misfit) {
    parts.push(element('h3', {}, 'Around it'),
      element('pre', { tabindex: '0', class: 'excerpt' }, await surroundings(file, checked.misfit)));
  }
  const messages = checked.messages ?? [];
  if (messages.length > 0) {
    parts.push(element('h3', {}, 'What the reader says'),
      element('ul', { class: 'found' }, ...messages.map((line) => element('li', {}, line))));
  }
  return parts;
}
