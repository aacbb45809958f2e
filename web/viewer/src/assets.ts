// What is embedded in the page: compressed, in base64, in elements that run nothing.

export type AssetName = 'tool-wasm' | 'hearing-wasm' | 'digits-network';

function bytesOfBase64(text: string): Uint8Array {
  const characters = atob(text);
  const bytes = new Uint8Array(characters.length);
  for (let i = 0; i < characters.length; ++i) bytes[i] = characters.charCodeAt(i);
  return bytes;
}

export async function asset(name: AssetName): Promise<Uint8Array> {
  const text = document.getElementById(`asset-${name}`)?.textContent ?? '';
  const unpacked = new Blob([bytesOfBase64(text.trim())]).stream().pipeThrough(new DecompressionStream('gzip'));
  return new Uint8Array(await new Response(unpacked).arrayBuffer());
}

// A worker whose script is part of the page: there is no file to load it from.
export function workerOf(source: string): Worker {
  const address = URL.createObjectURL(new Blob([source], { type: 'text/javascript' }));
  const worker = new Worker(address);
  URL.revokeObjectURL(address);
  return worker;
}
