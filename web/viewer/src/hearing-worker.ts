// Hears samples as they come: frames, posteriors and what they say.
import create from 'core/hearing.mjs';
import type { HearingModule } from './modules';
import { instanceOf } from './modules';
import type { Heard, Hearing, HearingReply, HearingRequest } from './protocol';
import { serve } from './protocol';

class Ears {
  private readonly ears: number;

  constructor(private readonly core: HearingModule) {
    this.ears = core._hearing_create();
    if (this.ears === 0) throw new Error('there is not enough memory for it in this browser');
  }

  open(network: Uint8Array): Hearing {
    const { core, ears } = this;
    const path = '/the network';
    core.FS.writeFile(path, network);
    const name = core.allocateUTF8(path);
    const reason = core._hearing_open(ears, name);
    core._free(name);
    this.check(reason);
    const labels = Array.from({ length: core._hearing_outputs(ears) }, (_, i) =>
      core.UTF8ToString(core._hearing_label(ears, i)));
    return {
      labels,
      bands: core._hearing_bands(),
      frameWidth: core._hearing_frame_width(),
      frameLength: core._hearing_frame_length(),
      frameShift: core._hearing_frame_shift(),
      sampleRate: core._hearing_sample_rate(),
      delay: core._hearing_delay(ears),
    };
  }

  begin(): void {
    this.check(this.core._hearing_begin(this.ears));
  }

  push(samples: Float32Array): Heard {
    const address = this.core._hearing_samples(this.ears, samples.length);
    if (address === 0) throw new Error('there is not enough memory for so much sound');
    this.core.HEAPF32.set(samples, address / 4);
    this.check(this.core._hearing_push(this.ears));
    return this.news();
  }

  finish(): Heard {
    this.check(this.core._hearing_finish(this.ears));
    return this.news();
  }

  private news(): Heard {
    const { core, ears } = this;
    return {
      frames: this.floats(core._hearing_frames(ears), core._hearing_frame_count(ears) * core._hearing_frame_width()),
      posteriors: this.floats(core._hearing_posteriors(ears),
        core._hearing_posterior_count(ears) * core._hearing_outputs(ears)),
      best: core._hearing_best(ears),
      score: core._hearing_score(ears),
    };
  }

  private floats(address: number, count: number): Float32Array {
    return this.core.HEAPF32.slice(address / 4, address / 4 + count);
  }

  private check(reason: number): void {
    const text = this.core.UTF8ToString(reason);
    if (text !== '') throw new Error(text.replace('/the network', 'the network'));
  }
}

let ears: Ears | null = null;
let said: string[] = [];  // by the library, since the last request

function theEars(): Ears {
  if (ears === null) throw new Error('the module is not loaded');
  return ears;
}

async function answer(request: HearingRequest): Promise<HearingReply> {
  switch (request.kind) {
    case 'load': {
      const instantiateWasm = instanceOf(await WebAssembly.compile(request.wasm));
      ears = new Ears(await create({ instantiateWasm, printErr: (line) => said.push(line) }));
      return { kind: 'done' };
    }
    case 'open':
      return { kind: 'opened', hearing: theEars().open(new Uint8Array(await request.network.arrayBuffer())) };
    case 'begin':
      theEars().begin();
      return { kind: 'done' };
    case 'samples':
      return { kind: 'heard', heard: theEars().push(request.samples) };
    case 'finish':
      return { kind: 'heard', heard: theEars().finish() };
  }
}

serve<HearingRequest, HearingReply>(async (request, reply) => {
  said = [];
  try {
    reply(await answer(request));
  } catch (error) {
    const reason = error instanceof Error ? error.message : String(error);
    reply({ kind: 'failed', reason: [...said, reason].join('\n') });
  }
});
