// The pictures and lines that show what is heard: spectrogram, posteriors, decision.
import { TimeChart } from './charts';
import { byId } from './dom';
import type { Heard, Hearing } from './protocol';

const quietest = -11.5;  // logarithm of the energy of a band without sound
const loudest = 4;

export class SoundPanel {
  private readonly spectrogram: TimeChart;
  private readonly posteriors: TimeChart;
  private readonly decision = byId('viewer-decision', HTMLElement);
  private readonly score = byId('viewer-score', HTMLElement);
  private isDue = false;  // to be drawn
  private afterDrawing: (() => void)[] = [];

  constructor() {
    const empty = { rows: 1, lowest: 0, highest: 1, rowHeight: 1, names: [], upwards: false };
    this.spectrogram = new TimeChart(byId('viewer-spectrogram', HTMLCanvasElement), empty);
    this.posteriors = new TimeChart(byId('viewer-posteriors', HTMLCanvasElement), empty);
  }

  begin(hearing: Hearing): void {
    const bandNames = new Array<string>(hearing.bands).fill('');
    bandNames[0] = 'low';
    bandNames[hearing.bands - 1] = 'high';
    this.spectrogram.reset({ rows: hearing.bands, lowest: quietest, highest: loudest, rowHeight: 4, names: bandNames,
      upwards: true });
    this.posteriors.reset({ rows: hearing.labels.length, lowest: 0, highest: 1,
      rowHeight: Math.max(2, Math.min(18, Math.floor(360 / hearing.labels.length))),
      names: hearing.labels.length <= 40 ? hearing.labels : [], upwards: false });
    this.decide('', '');
  }

  // Shows frames and posteriors; `drawn` is called when they are to be seen.
  add(hearing: Hearing, heard: Heard, drawn: () => void = () => undefined): void {
    for (const frame of slices(heard.frames, hearing.frameWidth)) this.spectrogram.add(frame.subarray(0, hearing.bands));
    for (const frame of slices(heard.posteriors, hearing.labels.length)) this.posteriors.add(frame);
    this.afterDrawing.push(drawn);
    if (this.isDue) return;
    this.isDue = true;
    requestAnimationFrame(() => this.draw());
  }

  decide(label: string, details: string): void {
    if (this.decision.textContent !== label) this.decision.textContent = label;
    this.score.textContent = details;
  }

  private draw(): void {
    this.isDue = false;
    this.spectrogram.draw();
    this.posteriors.draw();
    for (const drawn of this.afterDrawing.splice(0)) drawn();
  }
}

export function* slices(values: Float32Array, width: number): Generator<Float32Array> {
  for (let i = 0; i + width <= values.length; i += width) yield values.subarray(i, i + width);
}
