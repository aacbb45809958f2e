// What the page and its workers say to one another.

export interface NamedFile {
  readonly name: string;  // relative to the folder that the tool works in
  readonly data: Blob;
}

export interface NamedBytes {
  readonly name: string;
  readonly bytes: Uint8Array;
}

// --- The worker that runs the tool ---

export interface ToolRun {
  readonly files: readonly NamedFile[];
  readonly args: readonly string[];
  readonly outputs: readonly string[];  // files to hand back, where the tool has written them
}

export type ToolRequest = { kind: 'load'; wasm: Uint8Array } | { kind: 'run'; run: ToolRun };

export interface ToolResult {
  readonly status: number;  // as of a process; see mlnn COMMAND --help
  readonly output: string;
  readonly messages: string;
  readonly files: readonly NamedBytes[];
}

export interface Progress {
  readonly stage: string;
  readonly share: number | null;  // 0 to 1; null while it is not known
}

export type ToolReply =
  | { kind: 'progress'; progress: Progress }
  | { kind: 'done'; result: ToolResult }
  | { kind: 'failed'; reason: string };

// --- The worker that hears ---

export type HearingRequest =
  | { kind: 'load'; wasm: Uint8Array }
  | { kind: 'open'; network: Blob }
  | { kind: 'begin' }
  | { kind: 'samples'; samples: Float32Array }
  | { kind: 'finish' };

// Of sounds and frames.
export interface Hearing {
  readonly labels: readonly string[];
  readonly bands: number;
  readonly frameWidth: number;   // values
  readonly frameLength: number;  // samples
  readonly frameShift: number;   // samples
  readonly sampleRate: number;
  readonly delay: number;  // frames that posteriors wait for
}

// What some samples made known.
export interface Heard {
  readonly frames: Float32Array;      // one behind the other
  readonly posteriors: Float32Array;  // of as many frames as were decided
  readonly best: number;              // what all of the sound so far is; -1 before any
  readonly score: number;             // the sum of its log posteriors
}

// Every request has one reply.
export type HearingReply =
  | { kind: 'done' }
  | { kind: 'opened'; hearing: Hearing }
  | { kind: 'heard'; heard: Heard }
  | { kind: 'failed'; reason: string };

// --- What both sides use to speak ---

// The page's end of a worker, or a worker's end of the page.
interface Port<In> {
  postMessage(message: unknown, transfer: Transferable[]): void;
  onmessage: ((event: MessageEvent<In>) => void) | null;
}

// Answers requests in their order, in a worker. What `answer` throws becomes a reply.
export function serve<Request, Reply>(
  answer: (request: Request, reply: (reply: Reply, transfer?: Transferable[]) => void) => Promise<void>,
): void {
  const port = globalThis as unknown as Port<Request>;
  const reply = (message: Reply | { kind: 'failed'; reason: string }, transfer: Transferable[] = []): void =>
    port.postMessage(message, transfer);
  let last = Promise.resolve();
  port.onmessage = ({ data }) => {
    last = last.then(() => answer(data, reply)).catch((error: unknown) =>
      reply({ kind: 'failed', reason: error instanceof Error ? error.message : String(error) }));
  };
}
