// Headless Chromium by its DevTools protocol: pages, files, pictures, and what goes wrong in them.
import { spawn } from 'node:child_process';
import { mkdtemp, readFile, rm } from 'node:fs/promises';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { setTimeout as pause } from 'node:timers/promises';

const WebSocket = createRequire(import.meta.url)('ws');  // Debian's, by NODE_PATH

const patience = 120_000;  // ms; nothing here takes so long but on a machine that does much else

// Asks until there is an answer.
async function until(ask, what) {
  for (const end = Date.now() + patience; Date.now() < end; await pause(50)) {
    const answer = await ask();
    if (answer) return answer;
  }
  throw new Error(`waited in vain for ${what}`);
}

export class Browser {
  #process;
  #socket;
  #profile;
  #next = 1;
  #waiting = new Map();
  #listeners = new Map();  // by session

  static async start(...options) {
    const browser = new Browser();
    browser.#profile = await mkdtemp(join(tmpdir(), 'mlnn-browser-'));
    browser.#process = spawn('chromium', ['--headless=new', '--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage',
      '--force-device-scale-factor=1', '--font-render-hinting=none', '--disable-lcd-text', '--hide-scrollbars',
      '--autoplay-policy=no-user-gesture-required', '--remote-debugging-port=0', `--user-data-dir=${browser.#profile}`,
      ...options, 'about:blank'], { stdio: 'ignore' });
    const told = join(browser.#profile, 'DevToolsActivePort');
    const [port, path] = (await until(() => readFile(told, 'utf8').catch(() => ''), 'the browser')).split('\n');
    await browser.#connect(`ws://127.0.0.1:${port}${path}`);
    return browser;
  }

  async #connect(address) {
    this.#socket = new WebSocket(address, { maxPayload: 2 ** 30 });
    await new Promise((resolve, reject) => {
      this.#socket.once('open', resolve);
      this.#socket.once('error', reject);
    });
    this.#socket.on('message', (text) => this.#take(JSON.parse(text)));
  }

  #take(message) {
    if (message.id === undefined) return this.#listeners.get(message.sessionId)?.(message);
    const { resolve, reject } = this.#waiting.get(message.id);
    this.#waiting.delete(message.id);
    if (message.error) reject(new Error(message.error.message));
    else resolve(message.result);
  }

  send(method, params = {}, sessionId = undefined) {
    return new Promise((resolve, reject) => {
      const id = this.#next++;
      this.#waiting.set(id, { resolve, reject });
      this.#socket.send(JSON.stringify({ id, method, params, sessionId }));
    });
  }

  async open(address, { width = 1000, height = 1400, scheme = 'light' } = {}) {
    const { targetId } = await this.send('Target.createTarget', { url: 'about:blank' });
    const { sessionId } = await this.send('Target.attachToTarget', { targetId, flatten: true });
    const page = new Page(this, sessionId, targetId);
    this.#listeners.set(sessionId, (message) => page.take(message));
    for (const domain of ['Page', 'Runtime', 'Log', 'Network', 'DOM']) await page.send(`${domain}.enable`);
    await page.send('Emulation.setDeviceMetricsOverride', { width, height, deviceScaleFactor: 1, mobile: false });
    await page.send('Emulation.setEmulatedMedia', { features: [{ name: 'prefers-color-scheme', value: scheme }] });
    await page.send('Page.navigate', { url: address });
    await page.until("document.readyState === 'complete'", address);
    return page;
  }

  async close() {
    const ended = new Promise((resolve) => this.#process.once('exit', resolve));
    this.#process.kill();
    await ended;
    this.#socket.close();
    await rm(this.#profile, { recursive: true, force: true, maxRetries: 10, retryDelay: 200 });
  }
}

export class Page {
  faults = [];    // errors on the console, and what was forbidden
  requests = [];  // addresses

  constructor(browser, sessionId, targetId) {
    Object.assign(this, { browser, sessionId, targetId });
  }

  take({ method, params }) {
    if (method === 'Runtime.exceptionThrown') {
      this.faults.push(params.exceptionDetails.exception?.description ?? params.exceptionDetails.text);
    }
    if (method === 'Runtime.consoleAPICalled' && ['error', 'warning'].includes(params.type)) {
      this.faults.push(JSON.stringify(params.args));
    }
    if (method === 'Log.entryAdded' && params.entry.level === 'error') this.faults.push(params.entry.text);
    if (method === 'Network.requestWillBeSent') this.requests.push(params.request.url);
  }

  send(method, params = {}) {
    return this.browser.send(method, params, this.sessionId);
  }

  async evaluate(expression) {
    const { result, exceptionDetails } = await this.send('Runtime.evaluate',
      { expression, awaitPromise: true, returnByValue: true, userGesture: true });
    if (exceptionDetails) throw new Error(exceptionDetails.exception?.description ?? exceptionDetails.text);
    return result.value;
  }

  // The addresses of what came neither from the page's folder nor from the page itself.
  fetchedElsewhere() {
    return this.requests.filter((address) => !/^(file|blob|data):/.test(address));
  }

  until(expression, what = expression) {
    return until(() => this.evaluate(expression), what);
  }

  text(id) {
    return this.evaluate(`document.getElementById(${JSON.stringify(id)}).textContent`);
  }

  click(id) {
    return this.evaluate(`document.getElementById(${JSON.stringify(id)}).click()`);
  }

  choose(id, value) {
    return this.evaluate(`{ const box = document.getElementById(${JSON.stringify(id)});
      box.value = ${JSON.stringify(value)}; box.dispatchEvent(new Event('change', { bubbles: true })); }`);
  }

  // Drops files from elsewhere onto the middle of the page.
  async drop(...files) {
    const data = { items: [], files, dragOperationsMask: 1 };
    for (const type of ['dragEnter', 'dragOver', 'drop']) {
      await this.send('Input.dispatchDragEvent', { type, x: 300, y: 200, data });
    }
  }

  async pick(id, ...files) {
    const { root } = await this.send('DOM.getDocument');
    const { nodeId } = await this.send('DOM.querySelector', { nodeId: root.nodeId, selector: `#${id}` });
    await this.send('DOM.setFileInputFiles', { nodeId, files });
  }

  // Presses a link with the mouse, as a person would: browsers save only a few files for scripts. Returns the
  // name of what it saves.
  async press(selector) {
    const { x, y, name } = await this.evaluate(`(() => {
      const link = document.querySelector(${JSON.stringify(selector)});
      link.scrollIntoView({ block: 'center' });
      const { left, top, width, height } = link.getClientRects()[0];
      return { x: left + width / 2, y: top + height / 2, name: link.download };
    })()`);
    for (const type of ['mousePressed', 'mouseReleased']) {
      await this.send('Input.dispatchMouseEvent', { type, x, y, button: 'left', clickCount: 1 });
    }
    return name;
  }

  // Follows a link that saves a file, and returns the file.
  async download(selector) {
    const folder = await mkdtemp(join(tmpdir(), 'mlnn-saved-'));
    try {
      await this.browser.send('Browser.setDownloadBehavior', { behavior: 'allow', downloadPath: folder });
      const name = await this.press(selector);
      return await until(() => readFile(join(folder, name)).catch(() => null), `the file ${name}`);
    } finally {
      await rm(folder, { recursive: true, force: true });
    }
  }

  async picture() {
    const { data } = await this.send('Page.captureScreenshot', { format: 'png' });
    return Buffer.from(data, 'base64');
  }

  // Of two pictures: the share of pixels of which a channel differs by more than that.
  differing(a, b, most) {
    return this.evaluate(`(async () => {
      const pixels = async (data) => {
        const image = new Image();
        image.src = 'data:image/png;base64,' + data;
        await image.decode();
        const canvas = new OffscreenCanvas(image.width, image.height);
        const brush = canvas.getContext('2d');
        brush.drawImage(image, 0, 0);
        return brush.getImageData(0, 0, image.width, image.height);
      };
      const [a, b] = [await pixels('${a.toString('base64')}'), await pixels('${b.toString('base64')}')];
      if (a.width !== b.width || a.height !== b.height) return 1;
      let count = 0;
      for (let i = 0; i < a.data.length; i += 4) {
        if ([0, 1, 2].some((c) => Math.abs(a.data[i + c] - b.data[i + c]) > ${most})) ++count;
      }
      return count / (a.data.length / 4);
    })()`);
  }

  close() {
    return this.browser.send('Target.closeTarget', { targetId: this.targetId });
  }
}
