// A network that hears, in a worker of its own: each request has one answer, in order.
import source from 'workers/hearing-worker.txt';
import { asset, workerOf } from './assets';
import type { Heard, Hearing, HearingReply, HearingRequest } from './protocol';

interface Waiting {
  resolve(reply: HearingReply): void;
  reject(reason: Error): void;
}

export class Ears {
  private readonly worker = workerOf(source);
  private readonly waiting: Waiting[] = [];

  private constructor() {
    this.worker.onmessage = ({ data }: MessageEvent<HearingReply>) => {
      const waiting = this.waiting.shift();
      if (data.kind === 'failed') waiting?.reject(new Error(data.reason));
      else waiting?.resolve(data);
    };
    this.worker.onerror = (event) => {
      for (const { reject } of this.waiting.splice(0)) reject(new Error(event.message));
    };
  }

  static async create(): Promise<Ears> {
    const wasm = await asset('hearing-wasm');
    const ears = new Ears();
    await ears.ask({ kind: 'load', wasm }, [wasm.buffer]);
    return ears;
  }

  // Takes a network, text or image, and begins a sound.
  async open(network: Blob): Promise<Hearing> {
    const reply = await this.ask({ kind: 'open', network });
    if (reply.kind !== 'opened') throw new Error('an unexpected answer');
    return reply.hearing;
  }

  async begin(): Promise<void> {
    await this.ask({ kind: 'begin' });
  }

  // Hears samples, which are no longer the caller's.
  hear(samples: Float32Array): Promise<Heard> {
    return this.news({ kind: 'samples', samples }, [samples.buffer]);
  }

  finish(): Promise<Heard> {
    return this.news({ kind: 'finish' });
  }

  private async news(request: HearingRequest, transfer: Transferable[] = []): Promise<Heard> {
    const reply = await this.ask(request, transfer);
    if (reply.kind !== 'heard') throw new Error('an unexpected answer');
    return reply.heard;
  }

  private ask(request: HearingRequest, transfer: Transferable[] = []): Promise<HearingReply> {
    return new Promise((resolve, reject) => {
      this.waiting.push({ resolve, reject });
      this.worker.postMessage(request, transfer);
    });
  }
}
