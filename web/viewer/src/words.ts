// Finds words in what a microphone hears: stretches of frames that are louder than what is quiet around them.

const quietAfter = 25;       // frames without speech that end a word
const shortest = 12;         // frames of a word
const louder = 3;            // by how much the mean logarithmic energy of speech is above quiet
const memory = 300;          // frames among which the quietest tells what quiet is
const smallestPosterior = 1e-30;

export interface Word {
  readonly best: number;   // output
  readonly score: number;  // the sum of its log posteriors over the frames of the word
  readonly frames: number;
  readonly isOver: boolean;
}

export class Words {
  private readonly loudness: number[] = [];  // of the last frames, whose posteriors may wait
  private waiting: number[] = [];            // loudness of frames without posteriors
  private sums: number[] = [];
  private frames = 0;
  private quiet = 0;

  constructor(private readonly outputs: number) {}

  addFrame(bands: Float32Array): void {
    const mean = bands.reduce((sum, value) => sum + value, 0) / bands.length;
    this.waiting.push(mean);
    this.loudness.push(mean);
    if (this.loudness.length > memory) this.loudness.shift();
  }

  // Takes the posteriors of the next frame. Returns the word that it belongs to, if any.
  addPosteriors(posteriors: Float32Array): Word | null {
    const isLoud = (this.waiting.shift() ?? -Infinity) > Math.min(...this.loudness) + louder;
    if (!isLoud && this.frames === 0) return null;
    if (this.frames === 0) this.sums = new Array<number>(this.outputs).fill(0);
    this.quiet = isLoud ? 0 : this.quiet + 1;
    ++this.frames;
    if (isLoud) posteriors.forEach((value, i) => {
      this.sums[i] = (this.sums[i] ?? 0) + Math.log(Math.max(value, smallestPosterior));
    });
    return this.quiet < quietAfter ? this.word(false) : this.end();
  }

  // The sound has ended, and with it the word.
  end(): Word | null {
    const word = this.frames === 0 ? null : this.word(true);
    this.frames = 0;
    this.quiet = 0;
    return word;
  }

  private word(isOver: boolean): Word | null {
    const frames = this.frames - this.quiet;
    if (frames < shortest) return null;
    const score = Math.max(...this.sums);
    return { best: this.sums.indexOf(score), score, frames, isOver };
  }
}
