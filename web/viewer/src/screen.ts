// What the tool writes to its standard error stream: messages, and between them a bar for those who wait,
// which a carriage return takes away ("\r name [####....] 40 %").

const lineFeed = 10;
const carriageReturn = 13;
const bar = /^(.*) \[#*\.*\] (\d+) %/;
const eraseLine = '\u001b[K';

export class ErrorScreen {
  private bytes: number[] = [];
  private lines: string[] = [];

  constructor(private readonly showBar: (share: number, title: string) => void) {}

  put(byte: number): void {
    if (byte === lineFeed) {
      this.lines.push(this.taken());
    } else if (byte === carriageReturn) {
      this.taken();  // a bar that goes
    } else {
      this.bytes.push(byte);
      if (byte === 0x4b) this.lookForBar();  // the K that ends a drawing
    }
  }

  // All lines that were meant to stay.
  text(): string {
    if (this.bytes.length > 0) this.lines.push(this.taken());
    return this.lines.filter((line) => line !== '').join('\n');
  }

  private lookForBar(): void {
    const found = bar.exec(this.line());
    if (found !== null && this.line().endsWith(eraseLine)) this.showBar(Number(found[2]) / 100, found[1] ?? '');
  }

  private line(): string {
    return new TextDecoder().decode(new Uint8Array(this.bytes));
  }

  private taken(): string {
    const line = this.line().replace(eraseLine, '');
    this.bytes = [];
    return line;
  }
}
