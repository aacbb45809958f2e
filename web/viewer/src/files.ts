// Files that somebody gives: which is what, and how the tool is to call them.
import type { NamedFile } from './protocol';

export interface GivenFiles {
  readonly models: File[];
  readonly recordings: File[];  // frames
  readonly labels: File[];
  readonly sounds: File[];
}

const soundEndings = /\.(wav|wave|flac|mp3|ogg|opus|m4a|webm)$/i;

// By their names alone: whether a file is what its name says, its reader finds out.
export function sorted(files: Iterable<File>): GivenFiles {
  const given: GivenFiles = { models: [], recordings: [], labels: [], sounds: [] };
  for (const file of files) {
    if (soundEndings.test(file.name)) given.sounds.push(file);
    else if (/\.npy$/i.test(file.name)) given.recordings.push(file);
    else if (/\.csv$/i.test(file.name)) given.labels.push(file);
    else given.models.push(file);
  }
  return given;
}

// A name that the tool takes for that of a file in the folder where it works: neither a way elsewhere, nor
// an option, nor the standard input.
export function safeName(name: string, folder = ''): string {
  const plain = name.replace(/[/\0]/g, '_');
  const entry = plain === '' || plain === '.' || plain === '..' ? 'model' : plain;
  if (folder !== '') return `${folder}/${entry}`;
  return entry.startsWith('-') ? `./${entry}` : entry;
}

export function named(file: File, folder = ''): NamedFile {
  return { name: safeName(file.name, folder), data: file };
}

// The name without its ending.
export function stem(name: string): string {
  return name.replace(/^.*\//, '').replace(/\.[^.]*$/, '');
}
