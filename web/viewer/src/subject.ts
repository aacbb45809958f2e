// What is looked at: a model, and what goes with it.
import { named } from './files';
import type { NamedFile } from './protocol';

const otherFolder = 'other';

export interface Subject {
  model: File | null;
  against: File | null;
  recordings: File[];
  labels: File | null;
  activation: string;  // of hidden layers whose file records none; "" to go by the file
}

export function emptySubject(): Subject {
  return { model: null, against: null, recordings: [], labels: null, activation: '' };
}

function pathOfModel(subject: Subject): NamedFile {
  if (subject.model === null) throw new Error('no model is open');
  return named(subject.model);
}

export interface Command {
  readonly files: NamedFile[];
  readonly args: string[];
}

function activationArgs(subject: Subject): string[] {
  return subject.activation === '' ? [] : ['--act-fn', subject.activation];
}

// The command that makes the report.
export function reportOn(subject: Subject, page: string): Command {
  const model = pathOfModel(subject);
  const files = [model];
  const args = ['report', model.name, '-o', page, ...activationArgs(subject)];
  if (subject.against !== null) {
    const other = named(subject.against, otherFolder);
    files.push(other);
    args.push('--against', other.name);
  }
  if (subject.recordings.length > 0) {
    const recordings = subject.recordings.map((file) => named(file));
    files.push(...recordings);
    args.push('--frames', ...recordings.map(({ name }) => name));
    if (subject.labels !== null) {
      const labels = named(subject.labels);
      files.push(labels);
      args.push('--labels', labels.name);
    }
  }
  return { files, args };
}

// The command that says of models what is wrong with them.
export function checkOf(subject: Subject): Command {
  const files = [pathOfModel(subject)];
  if (subject.against !== null) files.push(named(subject.against, otherFolder));
  return { files, args: ['check', '--json', ...files.map(({ name }) => name)] };
}

// A command that makes a file of the model: convert, fold, quantize.
export function makingOf(subject: Subject, command: string, out: string, options: readonly string[]): Command {
  const model = pathOfModel(subject);
  return { files: [model], args: [command, model.name, out, ...options, ...activationArgs(subject)] };
}
