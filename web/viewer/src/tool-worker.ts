// Runs commands of the tool, each in an instance of its own, whose memory goes with it.
import create from 'core/tool.mjs';
import type { FileSystem, ToolModule } from './modules';
import { instanceOf } from './modules';
import type { NamedFile, Progress, ToolReply, ToolRequest, ToolResult, ToolRun } from './protocol';
import { serve } from './protocol';
import { ErrorScreen } from './screen';

const folder = '/files';
const outOfMemory = 'there is not enough memory for it in this browser';

type Watch = (progress: Progress) => void;

async function bytesOf(file: NamedFile, watch: Watch): Promise<Uint8Array> {
  const bytes = new Uint8Array(file.data.size);
  const reader = file.data.stream().getReader();
  let length = 0;
  for (let piece = await reader.read(); !piece.done; piece = await reader.read()) {
    bytes.set(piece.value, length);
    length += piece.value.length;
    watch({ stage: `reading ${file.name}`, share: length / bytes.length });
  }
  return bytes;
}

async function putFiles(fs: FileSystem, files: readonly NamedFile[], watch: Watch): Promise<void> {
  fs.mkdir(folder);
  fs.chdir(folder);
  for (const file of files) {
    const end = file.name.lastIndexOf('/');
    const parent = file.name.slice(0, Math.max(end, 0));
    if (parent !== '' && !fs.analyzePath(parent).exists) fs.mkdir(parent);
    fs.writeFile(file.name, await bytesOf(file, watch), { canOwn: true });
  }
}

// Collects what is written to a descriptor.
function takeOver(fs: FileSystem, descriptor: number, take: (byte: number) => void): void {
  fs.getStream(descriptor).tty.ops = { put_char: (_, byte) => take(byte), flush: () => undefined };
}

function statusOf(tool: ToolModule, args: readonly string[]): number {
  try {
    return tool.callMain([...args]);
  } catch (error) {
    const status = (error as { status?: unknown }).status;  // how emscripten ends a program
    if (typeof status === 'number') return status;
    throw error instanceof RangeError || error instanceof WebAssembly.RuntimeError
      ? new Error(outOfMemory) : error;
  }
}

async function run(compiled: WebAssembly.Module, wanted: ToolRun, watch: Watch): Promise<ToolResult> {
  const tool = await create({ instantiateWasm: instanceOf(compiled) });
  const { FS } = tool;
  await putFiles(FS, wanted.files, watch);
  const output: number[] = [];
  const screen = new ErrorScreen((share, title) => watch({ stage: title, share }));
  takeOver(FS, 1, (byte) => output.push(byte));
  takeOver(FS, 2, (byte) => screen.put(byte));
  watch({ stage: 'looking at the model', share: null });
  const status = statusOf(tool, wanted.args);
  const files = wanted.outputs.filter((name) => FS.analyzePath(name).exists)
    .map((name) => ({ name, bytes: FS.readFile(name) }));
  return { status, output: new TextDecoder().decode(new Uint8Array(output)), messages: screen.text(), files };
}

let compiled: WebAssembly.Module | null = null;

serve<ToolRequest, ToolReply>(async (request, reply) => {
  if (request.kind === 'load') {
    compiled = await WebAssembly.compile(request.wasm);
    return;
  }
  if (compiled === null) throw new Error('the tool is not loaded');
  const result = await run(compiled, request.run, (progress) => reply({ kind: 'progress', progress }));
  reply({ kind: 'done', result }, result.files.map(({ bytes }) => bytes.buffer));
});
