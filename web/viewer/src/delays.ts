// How late posteriors are shown: measured, of the last ones.

const most = 200;

export class Delays {
  private seconds: number[] = [];

  add(seconds: number): void {
    this.seconds.push(seconds);
    if (this.seconds.length > most) this.seconds.shift();
  }

  text(): string {
    if (this.seconds.length === 0) return 'not measured yet';
    const sorted = [...this.seconds].sort((a, b) => a - b);
    const milliseconds = (seconds: number | undefined) => `${((seconds ?? 0) * 1000).toFixed(0)} ms`;
    return `${milliseconds(sorted[sorted.length >> 1])} in the middle, ${milliseconds(sorted[sorted.length - 1])} ` +
      `at most, of the last ${sorted.length} frames`;
  }
}
