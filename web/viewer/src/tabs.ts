// Tabs, of which one shows its panel; arrow keys go from one to the next.

export class Tabs {
  private readonly tabs: HTMLElement[];

  constructor(list: HTMLElement) {
    this.tabs = [...list.querySelectorAll<HTMLElement>('[role=tab]')];
    this.tabs.forEach((tab, i) => {
      tab.addEventListener('click', () => this.show(i));
      tab.addEventListener('keydown', (event) => this.onKey(event, i));
    });
  }

  show(index: number): void {
    this.tabs.forEach((tab, i) => {
      const isShown = i === index;
      tab.setAttribute('aria-selected', String(isShown));
      tab.tabIndex = isShown ? 0 : -1;
      const panel = document.getElementById(tab.getAttribute('aria-controls') ?? '');
      if (panel !== null) panel.hidden = !isShown;
    });
  }

  private onKey(event: KeyboardEvent, index: number): void {
    const steps: Record<string, number> = { ArrowLeft: -1, ArrowRight: 1 };
    const step = steps[event.key];
    if (step === undefined) return;
    const next = (index + step + this.tabs.length) % this.tabs.length;
    this.show(next);
    this.tabs[next]?.focus();
    event.preventDefault();
  }
}
