// Frames over time as a picture that moves to the left when it is full.

export interface ChartOptions {
  readonly rows: number;
  readonly lowest: number;   // value of the colour of the paper
  readonly highest: number;  // value of the full colour
  readonly rowHeight: number;
  readonly names: readonly string[];  // of rows, or none
  readonly upwards: boolean;          // the first row at the bottom
}

const framesInView = 300;
const frameWidth = 3;
const marginLeft = 60;
const letterHeight = 12;

export class TimeChart {
  private columns: Float32Array[] = [];
  private readonly brush: CanvasRenderingContext2D;

  constructor(private readonly canvas: HTMLCanvasElement, private options: ChartOptions) {
    const brush = canvas.getContext('2d');
    if (brush === null) throw new Error('this browser does not draw');
    this.brush = brush;
    this.reset(options);
  }

  reset(options: ChartOptions): void {
    this.options = options;
    this.columns = [];
    this.canvas.width = marginLeft + framesInView * frameWidth;
    this.canvas.height = options.rows * options.rowHeight;
    this.draw();
  }

  // Takes the values of a frame, one for each row.
  add(values: Float32Array): void {
    this.columns.push(values);
    if (this.columns.length > framesInView) this.columns.shift();
  }

  draw(): void {
    const { canvas, brush, options } = this;
    const style = getComputedStyle(canvas);
    brush.clearRect(0, 0, canvas.width, canvas.height);
    this.drawNames(style.getPropertyValue('--muted'));
    brush.fillStyle = style.getPropertyValue('--accent');
    this.columns.forEach((values, column) => {
      for (let row = 0; row < options.rows; ++row) this.drawCell(column, row, values[row] ?? 0);
    });
    brush.globalAlpha = 1;
  }

  private drawCell(column: number, row: number, value: number): void {
    const { lowest, highest, rowHeight } = this.options;
    const share = Math.min(Math.max((value - lowest) / (highest - lowest), 0), 1);
    if (share === 0) return;
    this.brush.globalAlpha = share;
    this.brush.fillRect(marginLeft + column * frameWidth, this.top(row), frameWidth, rowHeight);
  }

  private drawNames(colour: string): void {
    const { names, rowHeight } = this.options;
    this.brush.globalAlpha = 1;
    this.brush.fillStyle = colour;
    this.brush.font = `${letterHeight}px sans-serif`;
    this.brush.textAlign = 'right';
    this.brush.textBaseline = 'middle';
    names.forEach((name, row) => {
      const middle = this.top(row) + rowHeight / 2;
      const y = Math.min(Math.max(middle, letterHeight / 2), this.canvas.height - letterHeight / 2);
      if (name !== '') this.brush.fillText(name, marginLeft - 8, y, marginLeft - 8);
    });
  }

  private top(row: number): number {
    const { rows, rowHeight, upwards } = this.options;
    return (upwards ? rows - 1 - row : row) * rowHeight;
  }
}
