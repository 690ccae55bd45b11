// A picture of any size: what the window shows is fetched and decoded at the resolution it needs.

import {formatBytes, formatTime} from './format.js';
import {isTurned, rectangleBy, uprightBitmap, uprightMatrix} from './orientation.js';

const pieceSide = 512;
const mostPixels = 2 ** 25; // of pieces that are kept
const mostAtATime = 3;

export class Viewer {
  #canvas;
  #context;
  #picture = null;
  #width = 0; // of the picture as it is to be seen
  #height = 0;
  #upright = new DOMMatrix(); // from what is stored to what is to be seen
  #pieces = new Map(); // by name, the last used last
  #loading = new Map();
  #pixels = 0;
  #scale = 1; // screen pixels per picture pixel
  #x = 0; // of the picture, in the middle of the window
  #y = 0;
  #isFitted = true;
  #pointers = new Map();
  #frame = 0;
  #waitedSince = 0;
  #line;
  #fail;

  constructor(canvas, line, fail) {
    this.#canvas = canvas;
    this.#line = line;
    this.#fail = fail;
    this.#context = canvas.getContext('2d', {alpha: false});
    new ResizeObserver(() => this.#resized()).observe(canvas);
    canvas.addEventListener('wheel', (event) => this.#wheel(event), {passive: false});
    canvas.addEventListener('pointerdown', (event) => this.#pointerDown(event));
    canvas.addEventListener('pointermove', (event) => this.#pointerMoved(event));
    for (const type of ['pointerup', 'pointercancel']) {
      canvas.addEventListener(type, (event) => this.#pointers.delete(event.pointerId));
    }
    canvas.addEventListener('dblclick', (event) => this.zoom(2, ...this.#placeOf(event)));
    canvas.addEventListener('keydown', (event) => this.#key(event));
  }

  open(picture) {
    this.close();
    this.#picture = picture;
    const {width, height, orientation} = picture;
    [this.#width, this.#height] = isTurned(orientation) ? [height, width] : [width, height];
    this.#upright = uprightMatrix(orientation, width, height);
    this.#canvas.setAttribute(
      'aria-label',
      `Picture of ${this.#width} by ${this.#height} pixels`,
    );
    this.#resized();
    this.fit();
  }

  close() {
    for (const controller of this.#loading.values()) controller.abort();
    for (const piece of this.#pieces.values()) piece.bitmap.close();
    this.#pieces.clear();
    this.#pixels = 0;
    this.#picture?.close();
    this.#picture = null;
  }

  // ---- Where the window is ----

  #smallest() {
    return Math.min(this.#canvas.width / this.#width, this.#canvas.height / this.#height, 1);
  }

  fit() {
    if (!this.#picture) return;
    this.#scale = this.#smallest();
    this.#x = this.#width / 2;
    this.#y = this.#height / 2;
    this.#isFitted = true;
    this.#moved();
  }

  fullSize() {
    this.zoom(1 / this.#scale);
  }

  /** Around a place of the window; its middle when none is given. */
  zoom(factor, atX = this.#canvas.width / 2, atY = this.#canvas.height / 2) {
    if (!this.#picture) return;
    const next = Math.min(8, Math.max(this.#smallest(), this.#scale * factor));
    const [dx, dy] = [atX - this.#canvas.width / 2, atY - this.#canvas.height / 2];
    this.#x += dx / this.#scale - dx / next;
    this.#y += dy / this.#scale - dy / next;
    this.#scale = next;
    this.#isFitted = next === this.#smallest();
    this.#moved();
  }

  move(dx, dy) {
    this.#x -= dx / this.#scale;
    this.#y -= dy / this.#scale;
    this.#isFitted = false;
    this.#moved();
  }

  #moved() {
    const clamp = (middle, side, window) => {
      const half = window / this.#scale / 2;
      return half * 2 >= side ? side / 2 : Math.min(side - half, Math.max(half, middle));
    };
    this.#x = clamp(this.#x, this.#width, this.#canvas.width);
    this.#y = clamp(this.#y, this.#height, this.#canvas.height);
    this.#draw();
  }

  #resized() {
    const ratio = devicePixelRatio;
    const width = Math.max(1, Math.round(this.#canvas.clientWidth * ratio));
    const height = Math.max(1, Math.round(this.#canvas.clientHeight * ratio));
    if (width === this.#canvas.width && height === this.#canvas.height) return;
    Object.assign(this.#canvas, {width, height});
    if (!this.#picture) return;
    if (this.#isFitted) this.fit();
    else this.#moved();
  }

  // ---- Wheel, pointers and keys ----

  #placeOf(event) {
    const ratio = this.#canvas.width / this.#canvas.clientWidth;
    return [event.offsetX * ratio, event.offsetY * ratio];
  }

  #wheel(event) {
    event.preventDefault();
    const lines = event.deltaMode === 1 ? 30 : 1;
    this.zoom(
      Math.exp(-Math.max(-200, Math.min(200, event.deltaY * lines)) / 300),
      ...this.#placeOf(event),
    );
  }

  #pointerDown(event) {
    this.#canvas.focus();
    this.#canvas.setPointerCapture(event.pointerId);
    this.#pointers.set(event.pointerId, this.#placeOf(event));
  }

  #pointerMoved(event) {
    const before = this.#pointers.get(event.pointerId);
    if (!before || !this.#picture) return;
    const now = this.#placeOf(event);
    const other = [...this.#pointers].find(([id]) => id !== event.pointerId)?.[1];
    this.#pointers.set(event.pointerId, now);
    if (!other) {
      this.move(now[0] - before[0], now[1] - before[1]);
      return;
    }
    const distance = (place) => Math.max(1, Math.hypot(place[0] - other[0], place[1] - other[1]));
    this.move((now[0] - before[0]) / 2, (now[1] - before[1]) / 2);
    this.zoom(distance(now) / distance(before), (now[0] + other[0]) / 2, (now[1] + other[1]) / 2);
  }

  #key(event) {
    const step = 80 * devicePixelRatio;
    const actions = {
      ArrowLeft: () => this.move(step, 0),
      ArrowRight: () => this.move(-step, 0),
      ArrowUp: () => this.move(0, step),
      ArrowDown: () => this.move(0, -step),
      '+': () => this.zoom(1.5),
      '=': () => this.zoom(1.5),
      '-': () => this.zoom(1 / 1.5),
      0: () => this.fit(),
      Home: () => this.fit(),
      1: () => this.fullSize(),
    };
    if (event.ctrlKey || event.metaKey || !actions[event.key] || !this.#picture) return;
    event.preventDefault();
    actions[event.key]();
  }

  // ---- Pieces ----

  /** The sides of a piece in the picture's full size: whole tiles, about pieceSide at this resolution. */
  #pieceSides(reduce) {
    const {tileWidth, tileHeight, width, height} = this.#picture;
    const sides = (tile, whole) => {
      const wanted = pieceSide * 2 ** reduce;
      return tile >= whole ? Math.max(wanted, 1) : tile * Math.max(1, Math.round(wanted / tile));
    };
    return [sides(tileWidth, width), sides(tileHeight, height)];
  }

  /** The pieces that the window shows, from its middle on: where they are stored, and seen. */
  #visible(reduce) {
    const {width, height} = this.#picture;
    const [across, down] = this.#pieceSides(reduce);
    const window = rectangleBy(this.#upright.inverse(), {
      x: this.#x - this.#canvas.width / this.#scale / 2,
      y: this.#y - this.#canvas.height / this.#scale / 2,
      width: this.#canvas.width / this.#scale,
      height: this.#canvas.height / this.#scale,
    });
    const first = (from, side) => Math.max(0, Math.floor(from / side));
    const last = (to, side, whole) => Math.min(Math.ceil(whole / side) - 1, Math.floor(to / side));
    const [left, right] = [first(window.x, across), last(window.x + window.width, across, width)];
    const [top, bottom] = [first(window.y, down), last(window.y + window.height, down, height)];
    const found = [];
    for (let row = top; row <= bottom; ++row) {
      for (let column = left; column <= right; ++column) {
        const [x, y] = [column * across, row * down];
        const region = {
          x,
          y,
          width: Math.min(across, width - x),
          height: Math.min(down, height - y),
        };
        const place = rectangleBy(this.#upright, region);
        const far = Math.hypot(
          place.x + place.width / 2 - this.#x,
          place.y + place.height / 2 - this.#y,
        );
        found.push({name: `${reduce} ${column} ${row}`, reduce, region, place, far});
      }
    }
    return found.sort((a, b) => a.far - b.far);
  }

  #wantedReduce() {
    const halvings = Math.floor(Math.log2(1 / this.#scale) + 0.01);
    return Math.max(0, Math.min(this.#picture.levels, halvings));
  }

  #draw() {
    if (this.#frame) return;
    this.#frame = requestAnimationFrame(() => {
      this.#frame = 0;
      if (this.#picture) this.#paint();
    });
  }

  #paint() {
    const {width, height} = this.#canvas;
    const context = this.#context;
    context.fillStyle = getComputedStyle(this.#canvas.parentElement).backgroundColor;
    context.fillRect(0, 0, width, height);
    const wanted = this.#wantedReduce();
    context.imageSmoothingEnabled = this.#scale < 2;
    context.imageSmoothingQuality = 'high';
    // Coarse pieces first: what is finer covers them.
    const present = [...this.#pieces.values()].filter((piece) => piece.reduce >= wanted);
    for (const piece of present.sort((a, b) => b.reduce - a.reduce)) this.#paintPiece(piece);
    const missing = this.#visible(wanted).filter(({name}) =>
      this.#pieces.has(name) ? this.#touch(name) : true,
    );
    this.#load(
      this.#pieces.size === 0 && wanted < this.#picture.levels
        ? this.#visible(Math.min(this.#picture.levels, wanted + 2)).concat(missing)
        : missing,
    );
  }

  #paintPiece({bitmap, place}) {
    const at = (value, middle, window) => Math.round((value - middle) * this.#scale + window / 2);
    const {width, height} = this.#canvas;
    const [left, right] = [place.x, place.x + place.width].map((x) => at(x, this.#x, width));
    const [top, bottom] = [place.y, place.y + place.height].map((y) => at(y, this.#y, height));
    if (right > 0 && bottom > 0 && left < width && top < height) {
      this.#context.drawImage(bitmap, left, top, right - left, bottom - top);
    }
  }

  #touch(name) {
    const piece = this.#pieces.get(name);
    this.#pieces.delete(name);
    this.#pieces.set(name, piece);
    return false;
  }

  #load(wanted) {
    const names = new Set(wanted.map(({name}) => name));
    for (const [name, controller] of this.#loading) {
      if (!names.has(name)) controller.abort();
    }
    if (wanted.length > 0 && this.#loading.size === 0 && !this.#waitedSince) {
      this.#waitedSince = performance.now();
    }
    for (const piece of wanted) {
      if (this.#loading.size >= mostAtATime) break;
      if (!this.#loading.has(piece.name)) this.#loadPiece(piece);
    }
    this.#tell(wanted.length);
  }

  async #loadPiece(piece) {
    const picture = this.#picture;
    const controller = new AbortController();
    this.#loading.set(piece.name, controller);
    try {
      const {region, reduce} = piece;
      const image = await picture.decode({
        region,
        reduce,
        format: 'rgba',
        acceptIncomplete: true,
        signal: controller.signal,
      });
      const bitmap = await uprightBitmap(image);
      if (picture === this.#picture)
        this.#keep({...piece, bitmap, pixels: image.width * image.height});
    } catch (failure) {
      if (failure.name !== 'AbortError') this.#fail(failure.message);
    } finally {
      this.#loading.delete(piece.name);
      this.#draw();
    }
  }

  #keep(piece) {
    this.#pieces.set(piece.name, piece);
    this.#pixels += piece.pixels;
    for (const [name, old] of this.#pieces) {
      if (this.#pixels <= mostPixels) break;
      if (old.reduce >= this.#picture.levels) continue;
      this.#pieces.delete(name);
      this.#pixels -= old.pixels;
      old.bitmap.close();
    }
  }

  #tell(missing) {
    const {bytes, requests, size} = this.#picture.statistics;
    const isDone = missing === 0 && this.#loading.size === 0;
    if (isDone && this.#waitedSince) {
      this.#line.dataset.time = performance.now() - this.#waitedSince;
      this.#waitedSince = 0;
    }
    const time = this.#waitedSince
      ? performance.now() - this.#waitedSince
      : Number(this.#line.dataset.time ?? 0);
    const zoom =
      this.#scale >= 0.1 ? (100 * this.#scale).toFixed(0) : (100 * this.#scale).toPrecision(2);
    this.#line.value = `${this.#width} × ${this.#height} at ${zoom} % · ${formatBytes(bytes)} of ${formatBytes(size)} fetched (${((100 * bytes) / size).toFixed(2)} %) in ${requests} requests · ${isDone ? formatTime(time) : 'loading …'}`;
    Object.assign(this.#line.dataset, {bytes, size, requests, done: isDone});
  }
}
