// The line that says what goes on, with a bar while something does.
import { byId } from './dom';
import type { Progress } from './protocol';

export class Status {
  private readonly text = byId('viewer-status', HTMLElement);
  private readonly bar = byId('viewer-progress', HTMLProgressElement);
  private readonly stopButton = byId('viewer-stop', HTMLButtonElement);

  constructor(stop: () => void) {
    this.stopButton.addEventListener('click', stop);
  }

  working(progress: Progress): void {
    if (this.text.textContent !== progress.stage) this.text.textContent = progress.stage;
    if (progress.share === null) this.bar.removeAttribute('value');
    else this.bar.value = progress.share;
    this.show(true);
  }

  done(text: string, isBad = false): void {
    this.text.textContent = text;
    this.text.classList.toggle('bad', isBad);
    this.show(false);
  }

  private show(isBusy: boolean): void {
    this.bar.hidden = !isBusy;
    this.stopButton.hidden = !isBusy;
    if (isBusy) this.text.classList.remove('bad');
  }
}
