// The form that makes another file of the model: converted, folded, quantised.
import { byId, downloadLink, element } from './dom';
import { stem } from './files';
import type { ModelView } from './model-view';
import type { Status } from './status';
import { makingOf } from './subject';

const endings: Record<string, string> = { text: '.txt', image: '.mlnn', source: '.c' };
const suffixes: Record<string, string> = { convert: '', fold: '-folded', quantize: '-quantised' };

export class Making {
  private readonly form = byId('viewer-making', HTMLFormElement);
  private readonly what = byId('viewer-what', HTMLSelectElement);
  private readonly format = byId('viewer-format', HTMLSelectElement);
  private readonly bits = byId('viewer-bits', HTMLSelectElement);
  private readonly made = byId('viewer-made', HTMLElement);

  constructor(private readonly view: ModelView, private readonly status: Status) {
    this.form.addEventListener('submit', (event) => {
      event.preventDefault();
      void this.make();
    });
    this.what.addEventListener('change', () => this.showBits());
    this.showBits();
  }

  forget(): void {
    this.made.replaceChildren();
  }

  private showBits(): void {
    this.bits.disabled = this.what.value !== 'quantize';
  }

  private nameOf(model: File): string {
    const ending = endings[this.format.value] ?? '';
    const name = `${stem(model.name)}${suffixes[this.what.value] ?? ''}${ending}`;
    return name === model.name ? `${stem(model.name)}-new${ending}` : name;
  }

  private async make(): Promise<void> {
    const { subject } = this.view;
    if (subject.model === null) return;
    const out = `/made${endings[this.format.value] ?? ''}`;  // the other name is for the user alone
    const options = this.what.value === 'quantize' ? ['--bits', this.bits.value] : [];
    if (this.format.value === 'source') options.push('--symbol', 'model');
    const result = await this.view.run(makingOf(subject, this.what.value, out, options), [out]);
    if (result === null) return;
    const lines = result.messages.split('\n').filter((line) => line !== '').map((line) => element('li', {}, line));
    const file = result.files[0];
    this.made.replaceChildren(element('ul', {}, ...lines));
    if (file === undefined) return this.status.done('Nothing was made; the reason stands beside the button.', true);
    const name = this.nameOf(subject.model);
    this.made.prepend(element('p', {}, downloadLink(name, new Blob([file.bytes]), `Save ${name}`),
      ` (${file.bytes.length} bytes)`));
    this.status.done(`${name} is made, and can be saved.`);
  }
}
