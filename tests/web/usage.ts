// A program over the package, which is compiled and not run: whether the types say what they should.
import { load, MlnnError } from 'mlnn';
import type { Features, Library, Model, Pass, Stream } from 'mlnn';

export async function open(url: string): Promise<Model> {
  const mlnn: Library = await load({ onMessage: (line) => console.log(line.length) });
  const model = mlnn.open(await (await fetch(url)).arrayBuffer(), { hiddenActFn: 'sigmoid' });
  const names: string[] = model.labels;
  const rate: string | undefined = model.properties['sample_rate'];
  const features: Features = model.features;
  console.log(mlnn.version, model.shape.length, names, rate, features.bands + features.frameWidth, model.softmax);
  return model;
}

export function listen(model: Model, frames: Iterable<Float32Array>): Float32Array[] {
  const stream: Stream = model.stream();
  const outputs: Float32Array[] = [];
  for (const frame of frames) {
    const due = stream.push(frame);
    if (due !== null) outputs.push(due);
  }
  for (let due = stream.finish(); due !== null; due = stream.finish()) outputs.push(due);
  stream.close();
  return outputs;
}

export function run(model: Model, frames: number): Float32Array {
  const pass: Pass = model.toIntegers('first').pass();
  try {
    return pass.run(pass.inputMemory(frames), new Float32Array(frames * pass.outputs));
  } catch (error) {
    if (error instanceof MlnnError) throw new Error(`${error.status}: ${error.message}`);
    throw error;
  } finally {
    pass.close();
  }
}

export function misuse(mlnn: Library, model: Model) {
  // @ts-expect-error: bytes, and no path
  mlnn.open('digits.mlnn');
  // @ts-expect-error: no array of numbers
  model.pass().run([1, 2, 3]);
  // @ts-expect-error: an output may not be due yet
  model.stream().push(new Float32Array(120)).length;
  // @ts-expect-error: none, first or all
  model.toIntegers('some');
  // @ts-expect-error: what a model is cannot be changed
  model.inputs = 3;
}
