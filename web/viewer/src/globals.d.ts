// What the bundler and browsers have that the compiler's own declarations lack.

// The modules that emscripten makes: core/ beside the bundle.
declare module 'core/tool.mjs' {
  const create: (options: import('./modules').ModuleOptions) => Promise<import('./modules').ToolModule>;
  export default create;
}
declare module 'core/hearing.mjs' {
  const create: (options: import('./modules').ModuleOptions) => Promise<import('./modules').HearingModule>;
  export default create;
}

// Scripts of workers, bundled before the page's own: their source.
declare module 'workers/*' {
  const source: string;
  export default source;
}

declare class DecompressionStream {
  constructor(format: 'gzip');
  readonly readable: ReadableStream<Uint8Array>;
  readonly writable: WritableStream<Uint8Array>;
}
