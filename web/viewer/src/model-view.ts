// The tab that shows a model, or why it does not load, and compares it with another.
import { checkedOf, diagnosisOf } from './diagnosis';
import { byId, downloadLink, element } from './dom';
import type { GivenFiles } from './files';
import { stem } from './files';
import type { Progress, ToolResult } from './protocol';
import { showReport } from './report';
import type { Status } from './status';
import type { Command, Subject } from './subject';
import { checkOf, emptySubject, reportOn } from './subject';
import type { Tool } from './tool';
import { Stopped } from './tool';

const pageName = '/report.html';  // not in the folder of the files that were given

export class ModelView {
  readonly subject: Subject = emptySubject();
  private readonly place = byId('viewer-report', HTMLElement);
  private readonly actions = byId('viewer-actions', HTMLElement);
  private readonly given = byId('viewer-given', HTMLElement);
  private readonly messages = byId('viewer-messages', HTMLElement);
  private readonly saved = byId('viewer-saved', HTMLElement);

  // `changed` is called when another model is there.
  constructor(private readonly tool: Tool, private readonly status: Status, private readonly changed: () => void) {
    const activation = byId('viewer-activation', HTMLSelectElement);
    activation.addEventListener('change', () => {
      this.subject.activation = activation.value;
      void this.show();
    });
    byId('viewer-alone', HTMLButtonElement).addEventListener('click', () => this.forget({ against: null }));
    byId('viewer-silent', HTMLButtonElement).addEventListener('click', () => this.forget({ recordings: [], labels: null }));
  }

  // Opens what was given: the first model, which a second one is compared with, or what goes with the present one.
  take(given: GivenFiles): void {
    const { subject } = this;
    const [model, against] = given.models;
    if (model !== undefined) {
      Object.assign(subject, { model, against: against ?? null });
      this.changed();
    }
    if (given.recordings.length > 0) subject.recordings = given.recordings;
    if (given.labels[0] !== undefined) subject.labels = given.labels[0];
    if (subject.model === null) this.status.done('Recordings are open. A model to run over them is missing.');
    else void this.show();
  }

  compareWith(other: File): void {
    this.subject.against = other;
    void this.show();
  }

  // Runs the tool. Null when it was stopped, or ended otherwise than by its own will; the status line says so.
  async run(command: Command, outputs: readonly string[]): Promise<ToolResult | null> {
    try {
      return await this.tool.run({ ...command, outputs }, (progress: Progress) => this.status.working(progress));
    } catch (error) {
      const isStopped = error instanceof Stopped;
      this.status.done(isStopped ? 'Stopped.' : `This did not work: ${(error as Error).message}`, !isStopped);
      return null;
    }
  }

  private forget(what: Partial<Subject>): void {
    Object.assign(this.subject, what);
    void this.show();
  }

  private async show(): Promise<void> {
    const { model } = this.subject;
    if (model === null) return;
    this.describeGiven();
    const began = performance.now();
    const result = await this.run(reportOn(this.subject, pageName), [pageName]);
    if (result === null) return;
    const page = result.files[0];
    this.messages.replaceChildren(...this.linesOf(result.messages));
    this.messages.hidden = result.messages === '';
    if (page === undefined) return this.explain(result);
    showReport(new TextDecoder().decode(page.bytes), this.place);
    this.saved.replaceChildren(downloadLink(`${stem(model.name)}.html`,
      new Blob([page.bytes], { type: 'text/html' }), 'Save this report as a page'));
    this.actions.hidden = false;
    this.status.done(`${model.name} is shown, after ${((performance.now() - began) / 1000).toFixed(1)} s.`);
  }

  private linesOf(messages: string): HTMLElement[] {
    return messages.split('\n').map((line) => element('p', {}, line));
  }

  private describeGiven(): void {
    const { against, recordings, labels } = this.subject;
    const parts: string[] = [];
    if (against !== null) parts.push(`compared with ${against.name}`);
    if (recordings.length > 0) parts.push(`run over ${recordings.length} recordings`);
    if (labels !== null) parts.push(`with the labels of ${labels.name}`);
    this.given.textContent = parts.join(', ');
    byId('viewer-alone', HTMLButtonElement).hidden = against === null;
    byId('viewer-silent', HTMLButtonElement).hidden = recordings.length === 0;
  }

  // What was refused: a model, or else something that went with it.
  private async explain(report: ToolResult): Promise<void> {
    const { model, against } = this.subject;
    this.place.replaceChildren();
    this.saved.replaceChildren();
    const result = await this.run(checkOf(this.subject), []);
    if (result === null) return;
    const files = [model, against].filter((file): file is File => file !== null);
    const checked = checkedOf(result.output);
    const parts: Node[] = [];
    for (const [i, file] of files.entries()) {
      const found = checked[i];
      if (found !== undefined && !found.loads) parts.push(...await diagnosisOf(found, file));
    }
    const isOther = parts.length === 0;
    this.place.replaceChildren(...parts);
    this.actions.hidden = !isOther && checked[0]?.loads !== true;
    this.status.done(isOther ? `Refused: ${report.messages.split('\n').pop() ?? ''}` : 'The file does not load.', true);
  }
}
