// The tool, which runs one command after another in a worker of its own.
import source from 'workers/tool-worker.txt';
import { asset, workerOf } from './assets';
import type { Progress, ToolReply, ToolRequest, ToolResult, ToolRun } from './protocol';

export class Stopped extends Error {
  constructor() {
    super('stopped');
  }
}

export class Tool {
  private worker: Worker | null = null;
  private giveUp: ((reason: Error) => void) | null = null;  // on what runs now
  private last: Promise<unknown> = Promise.resolve();

  // Runs a command when those before it are done. `watch` is told how far it is.
  run(wanted: ToolRun, watch: (progress: Progress) => void): Promise<ToolResult> {
    const result = this.last.then(() => this.runNow(wanted, watch));
    this.last = result.catch(() => undefined);
    return result;
  }

  // Ends what runs now, which fails with Stopped.
  stop(): void {
    this.giveUp?.(new Stopped());
  }

  private async runNow(wanted: ToolRun, watch: (progress: Progress) => void): Promise<ToolResult> {
    const worker = await this.ready();
    return new Promise((resolve, reject) => {
      this.giveUp = (reason) => {
        worker.terminate();
        this.worker = null;
        this.giveUp = null;
        reject(reason);
      };
      worker.onerror = (event) => this.giveUp?.(new Error(event.message));
      worker.onmessage = ({ data }: MessageEvent<ToolReply>) => {
        if (data.kind === 'progress') return watch(data.progress);
        this.giveUp = null;
        if (data.kind === 'done') resolve(data.result);
        else reject(new Error(data.reason));
      };
      this.send(worker, { kind: 'run', run: wanted });
    });
  }

  private async ready(): Promise<Worker> {
    if (this.worker !== null) return this.worker;
    const wasm = await asset('tool-wasm');
    this.worker = workerOf(source);
    this.send(this.worker, { kind: 'load', wasm }, [wasm.buffer]);
    return this.worker;
  }

  private send(worker: Worker, request: ToolRequest, transfer: Transferable[] = []): void {
    worker.postMessage(request, transfer);
  }
}
