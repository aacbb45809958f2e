// Frames as a file of numpy's, format 1.0: what the tool reads as a recording.

const headLength = 128;

export function npyOf(values: Float32Array, width: number): Blob {
  const shape = `(${values.length / width}, ${width})`;
  const text = `{'descr': '<f4', 'fortran_order': False, 'shape': ${shape}, }`;
  const magic = new Uint8Array([0x93, 0x4e, 0x55, 0x4d, 0x50, 0x59, 1, 0, headLength - 10, 0]);
  const padded = `${text.padEnd(headLength - magic.length - 1)}\n`;
  return new Blob([magic, padded, values]);
}
