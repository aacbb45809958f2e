// The page: which part does what.
import { asset } from './assets';
import { byId } from './dom';
import { acceptFiles } from './dropping';
import { sorted } from './files';
import { Listening } from './listening';
import { Making } from './making';
import { ModelView } from './model-view';
import { Status } from './status';
import { Tabs } from './tabs';
import { Tool } from './tool';

const digitsName = 'digits.txt';

const tool = new Tool();
const status = new Status(() => tool.stop());
const tabs = new Tabs(byId('viewer-tabs', HTMLElement));
const view: ModelView = new ModelView(tool, status, () => making.forget());
const making: Making = new Making(view, status);
const listening = new Listening(() => view.subject.model);

function take(files: readonly File[]): void {
  const given = sorted(files);
  if (given.sounds.length > 0) {
    tabs.show(1);
    listening.takeFiles(given.sounds);
  }
  if (given.models.length + given.recordings.length + given.labels.length === 0) return;
  tabs.show(0);
  view.take(given);
}

acceptFiles(byId('viewer-files', HTMLInputElement), byId('viewer-zone', HTMLElement), take);
byId('viewer-other', HTMLInputElement).addEventListener('change', ({ target }) => {
  const [other] = (target as HTMLInputElement).files ?? [];
  if (other !== undefined) view.compareWith(other);
  (target as HTMLInputElement).value = '';
});
byId('viewer-sounds', HTMLInputElement).addEventListener('change', ({ target }) => {
  listening.takeFiles([...((target as HTMLInputElement).files ?? [])]);
  (target as HTMLInputElement).value = '';
});
byId('viewer-digits', HTMLButtonElement).addEventListener('click', () => {
  void asset('digits-network').then((bytes) => take([new File([bytes], digitsName)]));
});
