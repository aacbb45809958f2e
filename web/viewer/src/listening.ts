// The tab that listens: to the microphone, or to sound files.
import { asset } from './assets';
import { Delays } from './delays';
import { byId, downloadLink, element } from './dom';
import { Ears } from './ears';
import { stem } from './files';
import type { Piece } from './microphone';
import { Microphone } from './microphone';
import { npyOf } from './npy';
import type { Heard, Hearing } from './protocol';
import type { Sound } from './sound-files';
import { soundOf } from './sound-files';
import { slices, SoundPanel } from './sound-panel';
import type { Word } from './words';
import { Words } from './words';

// One time at the microphone.
interface Session {
  readonly microphone: Microphone;
  readonly words: Words;
  readonly delays: Delays;
  begin: number | null;  // time of the first sample
  frames: number;        // with posteriors
}

export class Listening {
  private readonly panel = new SoundPanel();
  private readonly button = byId('viewer-listen', HTMLButtonElement);
  private readonly network = byId('viewer-network', HTMLSelectElement);
  private readonly status = byId('viewer-sound-status', HTMLElement);
  private readonly stated = byId('viewer-stated', HTMLElement);
  private readonly measured = byId('viewer-measured', HTMLElement);
  private readonly heard = byId('viewer-heard', HTMLElement);
  private ears: Promise<Ears> | null = null;
  private session: Session | null = null;
  private last: Promise<unknown> = Promise.resolve();  // one sound after the other

  // `opened` gives the model of the other tab.
  constructor(private readonly opened: () => File | null) {
    this.button.addEventListener('click', () => void this.inTurn(() => this.toggle()));
  }

  // Hears files one after the other.
  takeFiles(files: readonly File[]): void {
    for (const file of files) void this.inTurn(() => this.hearFile(file));
  }

  private inTurn(work: () => Promise<void>): Promise<void> {
    const done = this.last.then(work).catch((error: unknown) => this.say((error as Error).message, true));
    this.last = done;
    return done;
  }

  private say(text: string, isBad = false): void {
    this.status.textContent = text;
    this.status.classList.toggle('bad', isBad);
  }

  // Begins a sound with the network that is chosen.
  private async begin(ears: Ears): Promise<Hearing> {
    const model = this.network.value === 'opened' ? this.opened() : null;
    if (this.network.value === 'opened' && model === null) throw new Error('no model is open on the other tab');
    const hearing = await ears.open(model ?? new Blob([await asset('digits-network')]));
    const milliseconds = 1000 * hearing.delay * hearing.frameShift / hearing.sampleRate;
    this.stated.textContent = `${milliseconds} ms after the last sample of a frame (${hearing.delay} frames of deltas and context)`;
    this.panel.begin(hearing);
    return hearing;
  }

  private theEars(): Promise<Ears> {
    this.ears ??= Ears.create();
    return this.ears;
  }

  // --- Files ---

  private async hearFile(file: File): Promise<void> {
    this.stop();
    this.say(`hearing ${file.name}`);
    const ears = await this.theEars();
    const hearing = await this.begin(ears);
    const sound = await soundOf(file, hearing.sampleRate).catch(() => {
      throw new Error(`${file.name} is no sound that this browser can read`);
    });
    const seconds = sound.samples.length / hearing.sampleRate;
    const news = [await ears.hear(sound.samples), await ears.finish()];
    for (const heard of news) this.panel.add(hearing, heard);
    this.decideFile(file, hearing, sound, seconds, news);
  }

  private decideFile(file: File, hearing: Hearing, sound: Sound, seconds: number, news: readonly Heard[]): void {
    const end = news[news.length - 1];
    if (end === undefined || end.best < 0) throw new Error(`${file.name} is too short`);
    const label = hearing.labels[end.best] ?? '';
    const score = `sum of log posteriors ${end.score.toFixed(3)}`;
    const frames = Float32Array.from(news.flatMap((heard) => [...heard.frames]));
    const name = `${stem(file.name)}.npy`;
    this.panel.decide(label, `${file.name}: ${score}`);
    this.addRow([file.name, label, score, `${seconds.toFixed(2)} s${sound.isConverted ? ', resampled by the browser' : ''}`],
      downloadLink(name, npyOf(frames, hearing.frameWidth), `Save frames as ${name}`));
    this.say(`${file.name} is heard.`);
  }

  private addRow(cells: readonly string[], link: Node | string): void {
    const [first = '', ...rest] = cells;
    this.heard.append(element('tr', {}, element('th', { scope: 'row' }, first),
      ...rest.map((cell) => element('td', {}, cell)), element('td', {}, link)));
    byId('viewer-heard-table', HTMLElement).hidden = false;
  }

  // --- The microphone ---

  private async toggle(): Promise<void> {
    if (this.session !== null) return this.stop();
    this.say('waiting for the microphone');
    const ears = await this.theEars();
    const hearing = await this.begin(ears);
    const microphone = await Microphone.open(hearing.sampleRate, (piece) => this.takePiece(ears, hearing, piece));
    this.session = { microphone, words: new Words(hearing.labels.length), delays: new Delays(), begin: null, frames: 0 };
    this.button.textContent = 'Stop listening';
    this.say('listening');
  }

  private stop(): void {
    const { session } = this;
    if (session === null) return;
    session.microphone.close();
    this.session = null;
    this.button.textContent = 'Listen to the microphone';
    this.say('stopped');
  }

  private takePiece(ears: Ears, hearing: Hearing, piece: Piece): void {
    const { session } = this;
    if (session === null) return;
    session.begin ??= piece.time;
    ears.hear(piece.samples).then((heard) => {
      if (this.session === session) this.show(hearing, session, heard);
    }, (error: unknown) => {
      this.stop();
      this.say((error as Error).message, true);
    });
  }

  private show(hearing: Hearing, session: Session, heard: Heard): void {
    for (const frame of slices(heard.frames, hearing.frameWidth)) session.words.addFrame(frame.subarray(0, hearing.bands));
    const first = session.frames;
    for (const posteriors of slices(heard.posteriors, hearing.labels.length)) {
      ++session.frames;
      this.showWord(hearing, session.words.addPosteriors(posteriors));
    }
    const next = session.frames;
    this.panel.add(hearing, heard, () => this.measure(hearing, session, first, next));
  }

  private showWord(hearing: Hearing, word: Word | null): void {
    if (word === null) return;
    const label = hearing.labels[word.best] ?? '';
    const details = `sum of log posteriors ${word.score.toFixed(3)} over ${word.frames} frames`;
    this.panel.decide(label, details);
    if (word.isOver) this.addRow(['microphone', label, `sum of log posteriors ${word.score.toFixed(3)}`,
      `${word.frames} frames`], '');
  }

  // Of frames that have just been drawn: how long ago their last samples were.
  private measure(hearing: Hearing, session: Session, first: number, next: number): void {
    const now = session.microphone.now();
    for (let frame = first; frame < next; ++frame) {
      const end = (frame * hearing.frameShift + hearing.frameLength) / hearing.sampleRate;
      session.delays.add(now - (session.begin ?? now) - end);
    }
    const own = session.microphone.ownDelay();
    this.measured.textContent = session.delays.text() +
      (own === null ? '' : `; before that the browser itself takes ${(1000 * own).toFixed(0)} ms`);
  }
}
