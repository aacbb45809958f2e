// The microphone, as pieces of samples with the time of their first.
import source from 'workers/capture-worklet.txt';

export interface Piece {
  readonly time: number;  // in seconds, on the clock of now()
  readonly samples: Float32Array;
}

export class Microphone {
  private constructor(private readonly context: AudioContext, private readonly stream: MediaStream) {}

  // Asks for the microphone. The browser resamples what it gives to that rate.
  static async open(rate: number, take: (piece: Piece) => void): Promise<Microphone> {
    const stream = await navigator.mediaDevices.getUserMedia({
      audio: { channelCount: 1, echoCancellation: false, noiseSuppression: false, autoGainControl: false },
    });
    const context = new AudioContext({ sampleRate: rate });
    const microphone = new Microphone(context, stream);
    try {
      // A page from a folder may not take it from an address of its own (blob:), as workers may be.
      await context.audioWorklet.addModule(`data:text/javascript,${encodeURIComponent(source)}`);
      const capture = new AudioWorkletNode(context, 'capture', { numberOfOutputs: 0 });
      capture.port.onmessage = ({ data }: MessageEvent<Piece>) => take(data);
      context.createMediaStreamSource(stream).connect(capture);
      await context.resume();
    } catch (error) {
      microphone.close();
      throw error;
    }
    return microphone;
  }

  now(): number {
    return this.context.currentTime;
  }

  // What the browser says that it takes before a sample arrives here, in seconds; null where it does not.
  ownDelay(): number | null {
    const settings = this.stream.getAudioTracks()[0]?.getSettings() as { latency?: number } | undefined;
    return settings?.latency ?? null;
  }

  close(): void {
    for (const track of this.stream.getTracks()) track.stop();
    void this.context.close();
  }
}
