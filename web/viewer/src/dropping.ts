// The ways in which files come: dropped anywhere onto the page, or picked.

export function acceptFiles(picker: HTMLInputElement, zone: HTMLElement, take: (files: File[]) => void): void {
  picker.addEventListener('change', () => {
    const files = [...(picker.files ?? [])];
    picker.value = '';  // so that the same file can be picked again
    if (files.length > 0) take(files);
  });
  const mark = (isOver: boolean) => zone.classList.toggle('over', isOver);
  document.addEventListener('dragover', (event) => {
    event.preventDefault();
    mark(true);
  });
  document.addEventListener('dragleave', (event) => {
    if (event.relatedTarget === null) mark(false);
  });
  document.addEventListener('drop', (event) => {
    event.preventDefault();
    mark(false);
    const files = [...(event.dataTransfer?.files ?? [])];
    if (files.length > 0) take(files);
  });
}
