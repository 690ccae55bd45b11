// The worker's side of index.js: does what messages ask for, in the order in which it can.

import {KelError, start} from './core.js';
import {
  blobReader,
  heldReader,
  memoryReader,
  RangeStore,
  urlReader,
  waitInBrowser,
  waitOver,
} from './ranges.js';

const isNode = typeof process === 'object' && process.versions?.node !== undefined;
const port = isNode ? (await import('node:worker_threads')).parentPort : globalThis;

let core;
let waitFor = waitInBrowser;
const objects = new Map();
const aborts = new Map();
let nextObject = 1;

function keep(object) {
  objects.set(nextObject, object);
  return nextObject++;
}

function objectOf(number) {
  const object = objects.get(number);
  if (!object) throw new KelError('parameter', 'it has been closed');
  return object;
}

function close(number) {
  objects.get(number)?.close();
  objects.delete(number);
}

/** A picture with its bytes: what it needs is fetched side by side before the library asks. */
class RangedPicture {
  #store;
  #picture;
  #shares = new Map(); // by resolution: the largest part of a tile's bytes that was needed

  constructor(reader, options) {
    this.#store = new RangeStore(reader);
    if (reader.front) this.#store.keepFront(reader.front);
    const source = {size: reader.size, fetch: (from, to) => this.#store.read(from, to)};
    this.#picture = core.openPicture(source, options);
    this.info = this.#picture.info;
  }

  #tilesOf({x, y, width, height}) {
    const {tilesAcross, tilesDown, tileWidth, tileHeight} = this.info;
    // The first tile may be smaller than the others, so one more is looked at on either side.
    const within = (value, most) => Math.max(0, Math.min(most - 1, value));
    const left = within(Math.floor(x / tileWidth), tilesAcross);
    const right = within(Math.floor((x + width - 1) / tileWidth), tilesAcross);
    const top = within(Math.floor(y / tileHeight), tilesDown);
    const bottom = within(Math.floor((y + height - 1) / tileHeight), tilesDown);
    const tiles = [];
    for (let row = top; row <= bottom; ++row) {
      for (let column = left; column <= right; ++column) tiles.push(row * tilesAcross + column);
    }
    return tiles;
  }

  async #fetchFor(region, reduce, signal) {
    const tiles = this.#tilesOf(region);
    const share = this.#shares.get(reduce) ?? Math.min(1, 1.5 / 4 ** reduce);
    const places = tiles.map((tile) => this.#picture.placesOf(tile));
    const guesses = places.flatMap((ranges) =>
      ranges
        .slice(0, 1)
        .map(({from, to}) => ({
          from,
          to: reduce === 0 ? to : Math.min(to, from + 512 + Math.ceil((to - from) * share)),
        })),
    );
    await this.#store.prepare(guesses, signal);
    const needed = [];
    tiles.forEach((tile, i) => {
      const ranges = this.#picture.bytesOf(tile, reduce);
      needed.push(...ranges);
      const [place] = places[i];
      if (ranges.length === 0 || !place) return;
      const used = (ranges.at(-1).to - place.from) / (place.to - place.from);
      this.#shares.set(reduce, Math.min(1, Math.max(used, this.#shares.get(reduce) ?? 0)));
    });
    await this.#store.prepare(needed, signal);
  }

  async decode(options = {}, signal) {
    const {width, height} = this.info;
    await this.#fetchFor(
      options.region ?? {x: 0, y: 0, width, height},
      options.reduce ?? 0,
      signal,
    );
    signal.throwIfAborted();
    return this.#picture.decode(options);
  }

  statistics() {
    return {requests: this.#store.requests, bytes: this.#store.bytes, size: this.#store.size};
  }

  close() {
    this.#picture.close();
  }
}

const operations = {
  async start(options, bridge) {
    if (bridge) waitFor = waitOver(bridge, (need) => port.postMessage({need}));
    core = await start(options);
    return core.memory();
  },
  decode: (data, options) => core.decode(data, options),
  encode: (image, options) => core.encode(image, options),
  memory: () => core.memory(),
  decoder: () => keep(core.newDecoder()),
  feed: (number, chunk) => objectOf(number).feed(chunk),
  image: (number, options) => objectOf(number).image(options),
  async open(source, options) {
    let reader;
    if (typeof source === 'string') reader = await urlReader(source, waitFor);
    else if (source.held) reader = heldReader(source, waitFor);
    else if (source instanceof Blob) reader = blobReader(source, waitFor);
    else reader = memoryReader(source);
    const picture = new RangedPicture(reader, options);
    return {number: keep(picture), info: picture.info, statistics: picture.statistics()};
  },
  async region(number, options, signal) {
    const image = await objectOf(number).decode(options, signal);
    return {image, statistics: objectOf(number).statistics()};
  },
  close,
};

/** What can be handed over instead of being copied. */
function transfers(answer) {
  const image = answer?.image ?? answer;
  if (image?.planes) return image.planes.map((plane) => plane.data.buffer);
  return ArrayBuffer.isView(image?.data) ? [image.data.buffer] : [];
}

async function receive({id, operation, args, abort}) {
  if (abort !== undefined) {
    aborts.get(abort)?.abort();
    return;
  }
  const controller = new AbortController();
  aborts.set(id, controller);
  try {
    const answer = await operations[operation](...args, controller.signal);
    port.postMessage({id, answer}, transfers(answer));
  } catch (failure) {
    const {name, kind, message} = failure;
    port.postMessage({id, failure: {name, kind, message: String(message ?? failure)}});
  } finally {
    aborts.delete(id);
  }
}

if (isNode) port.on('message', receive);
else port.onmessage = ({data}) => receive(data);
