// Hands on the samples that a microphone gives, with the time of the first of them.

declare const currentTime: number;
declare class AudioWorkletProcessor {
  readonly port: MessagePort;
}
declare function registerProcessor(name: string, processor: new () => AudioWorkletProcessor): void;

class Capture extends AudioWorkletProcessor {
  process(inputs: Float32Array[][]): boolean {
    const samples = inputs[0]?.[0];
    if (samples !== undefined) this.port.postMessage({ time: currentTime, samples: samples.slice() });
    return true;
  }
}

registerProcessor('capture', Capture);
