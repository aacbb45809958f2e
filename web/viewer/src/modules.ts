// What emscripten's modules look like from here.

export interface ModuleOptions {
  instantiateWasm(imports: WebAssembly.Imports, done: (instance: WebAssembly.Instance) => void): object;
  print?: (line: string) => void;
  printErr?: (line: string) => void;
}

interface Terminal {
  ops: { put_char(terminal: unknown, byte: number): void; flush(): void };
}

export interface FileSystem {
  mkdir(path: string): void;
  chdir(path: string): void;
  writeFile(path: string, data: Uint8Array, options?: { canOwn: boolean }): void;
  readFile(path: string): Uint8Array;
  analyzePath(path: string): { exists: boolean };
  getStream(descriptor: number): { tty: Terminal };
}

export interface ToolModule {
  readonly FS: FileSystem;
  callMain(args: string[]): number;
}

// core/hearing.cpp says what each of them does. Numbers that name objects are addresses.
export interface HearingModule {
  readonly FS: FileSystem;
  readonly HEAPF32: Float32Array;
  UTF8ToString(address: number): string;
  allocateUTF8(text: string): number;
  _free(address: number): void;
  _hearing_create(): number;
  _hearing_open(ears: number, name: number): number;
  _hearing_begin(ears: number): number;
  _hearing_samples(ears: number, count: number): number;
  _hearing_push(ears: number): number;
  _hearing_finish(ears: number): number;
  _hearing_frames(ears: number): number;
  _hearing_frame_count(ears: number): number;
  _hearing_posteriors(ears: number): number;
  _hearing_posterior_count(ears: number): number;
  _hearing_best(ears: number): number;
  _hearing_score(ears: number): number;
  _hearing_outputs(ears: number): number;
  _hearing_label(ears: number, output: number): number;
  _hearing_delay(ears: number): number;
  _hearing_bands(): number;
  _hearing_frame_width(): number;
  _hearing_frame_length(): number;
  _hearing_frame_shift(): number;
  _hearing_sample_rate(): number;
}

// How a module is made of what was compiled once.
export function instanceOf(compiled: WebAssembly.Module): ModuleOptions['instantiateWasm'] {
  return (imports, done) => {
    void WebAssembly.instantiate(compiled, imports).then(done);
    return {};
  };
}
