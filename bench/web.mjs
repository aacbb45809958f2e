// Time of a frame in WebAssembly: node bench/web.mjs [MODEL]    examples/digits/synth.txt without any
// The package is the one that scripts/check-all web made in build/web/package. Beside it stands what
// `mlnn budget MODEL` prints on the line `time`.
import { readFile } from 'node:fs/promises';

const { load } = await import('../build/web/package/mlnn.js');
const model = (await load()).open(
  await readFile(process.argv[2] ?? new URL('../examples/digits/synth.txt', import.meta.url)));
const pass = model.pass();

// The median of 21 runs of some 50 ms of processor time, in microseconds a frame.
function timeOf(frames) {
  const inputs = new Float32Array(frames * model.inputs).map((_, i) => Math.sin(i));
  const outputs = new Float32Array(frames * model.outputs);
  const run = (times) => {
    const start = process.cpuUsage().user;
    for (let i = 0; i < times; ++i) pass.run(inputs, outputs);
    return (process.cpuUsage().user - start) / 1000;
  };
  let times = 1;
  while (run(times) < 25) times *= 2;
  const runs = Array.from({ length: 21 }, () => run(2 * times) / (2 * times * frames) * 1000);
  return runs.sort((a, b) => a - b)[10];
}

for (const frames of [1, 32]) {
  console.log(`${frames} at once: ${timeOf(frames).toFixed(2)} us a frame, copies included`);
}
