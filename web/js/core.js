// The module itself: calls into WebAssembly, one after another, on the thread that makes them. Pages
// want index.js, which does the same in a worker; this file is for programs that have a worker of
// their own, and for Node programs that may wait.

/** What went wrong, in a sentence for people. */
export class KelError extends Error {
  constructor(kind, message) {
    super(message);
    this.name = 'KelError';
    /** 'input', 'incomplete', 'output', 'memory' or 'parameter' */
    this.kind = kind;
  }
}

const kinds = ['input', 'incomplete', 'output', 'memory', 'parameter'];
const forms = {samples: 0, rgba: 1, planes: 2};
const roles = ['colour', 'opacity', 'premultipliedOpacity', 'other'];
const spaces = {12: 'cmyk', 14: 'cielab', 16: 'srgb', 17: 'grey', 18: 'sycc', 19: 'ciejab'};
const mostBytes = 2 ** 31 - 1;
/** What is told of a picture when it is opened, in that order. */
const pictureFacts = [
  'width',
  'height',
  'tilesAcross',
  'tilesDown',
  'tileWidth',
  'tileHeight',
  'levels',
  'channels',
  'depth',
];

/** A module of four bytes more than nothing: a function that uses a vector. */
const vectorProbe = new Uint8Array([
  0, 97, 115, 109, 1, 0, 0, 0, 1, 5, 1, 96, 0, 1, 123, 3, 2, 1, 0, 10, 10, 1, 8, 0, 65, 0, 253, 15,
  253, 98, 11,
]);

/** Whether this engine has vectors of 16 bytes. */
export function hasVectors() {
  return WebAssembly.validate(vectorProbe);
}

/** The address of the module for this engine. */
export function moduleUrl(vectors = hasVectors()) {
  return new URL(vectors ? './kel.wasm' : './kel-scalar.wasm', import.meta.url);
}

async function compile(url) {
  if (url.protocol === 'file:') {
    const {readFile} = await import('node:fs/promises');
    return WebAssembly.compile(await readFile(url));
  }
  const answer = await fetch(url);
  if (!answer.ok) throw new KelError('input', `${url} cannot be fetched: ${answer.status}`);
  return WebAssembly.compile(await answer.arrayBuffer());
}

/** Starts the library. options: module, memoryLimit in bytes, vectors: false for the scalar one. */
export async function start(options = {}) {
  const module = options.module ?? (await compile(moduleUrl(options.vectors)));
  const core = new Core(options.memoryLimit ?? 2 ** 30);
  const instance = await WebAssembly.instantiate(module, core.imports());
  core.begin(instance.exports);
  return core;
}

function isNatural(value, most) {
  return Number.isInteger(value) && value >= 0 && value <= most;
}

function natural(value, name, most = 2 ** 32 - 1) {
  if (!isNatural(value, most)) {
    throw new KelError('parameter', `${name} is not a whole number from 0 to ${most}`);
  }
  return value;
}

function formOf(name = 'samples') {
  if (!Object.hasOwn(forms, name)) {
    throw new KelError('parameter', 'a format is one of samples, rgba, planes');
  }
  return forms[name];
}

function asBytes(data) {
  if (data instanceof Uint8Array) return data;
  if (ArrayBuffer.isView(data))
    return new Uint8Array(data.buffer, data.byteOffset, data.byteLength);
  if (data instanceof ArrayBuffer) return new Uint8Array(data);
  throw new KelError('parameter', 'the data are not an array of bytes');
}

/** Bytes as the samples that they are, for their depth. */
function asSamples(bytes, depth) {
  if (depth <= 8) return bytes;
  return depth <= 16 ? new Uint16Array(bytes.buffer) : new Uint32Array(bytes.buffer);
}

export class Core {
  #wasm;
  #sources = new Map();
  #nextSource = 1;
  #fetchFailure = null;

  constructor(memoryLimit) {
    this.memoryLimit = natural(memoryLimit, 'the memory limit', Number.MAX_SAFE_INTEGER);
  }

  imports() {
    const nothing = () => 0;
    const wasi = {fd_write: nothing, fd_read: nothing, fd_close: nothing, fd_seek: nothing};
    wasi.proc_exit = (code) => {
      throw new Error(`the module has ended with ${code}`);
    };
    // The limit on time reads a clock. How the precision arrives depends on the toolchain, as one
    // number of 64 bits or as two; the place for the nanoseconds comes last.
    wasi.clock_time_get = (...given) => {
      const nanoseconds = BigInt(Math.round(performance.now() * 1e6));
      const memory = new DataView(this.#wasm.memory.buffer);
      memory.setBigUint64(given[given.length - 1] >>> 0, nanoseconds, true);
      return 0;
    };
    return {
      env: {
        kel_fetch: (source, from, to, count) => this.#fetch(source, from, to >>> 0, count >>> 0),
        emscripten_notify_memory_growth: nothing,
      },
      wasi_snapshot_preview1: wasi,
    };
  }

  begin(exports) {
    this.#wasm = exports;
    exports._initialize();
    this.#check(exports.kel_start(this.memoryLimit));
  }

  /** Bytes that the library holds now, and the most that it has held. */
  memory() {
    return {held: this.#wasm.kel_held(0), most: this.#wasm.kel_held(1)};
  }

  // ---- Calls ----

  #check(status) {
    if (status === 0) return;
    const failure = this.#fetchFailure;
    this.#fetchFailure = null;
    const bytes = new Uint8Array(this.#wasm.memory.buffer);
    const from = this.#wasm.kel_text() >>> 0;
    const text = new TextDecoder().decode(bytes.slice(from, bytes.indexOf(0, from)));
    this.#wasm.kel_clear();
    throw failure ?? new KelError(kinds[status - 1], text);
  }

  #numbers() {
    const from = this.#wasm.kel_numbers() >>> 0;
    return Array.from(new Float64Array(this.#wasm.memory.buffer, from, this.#wasm.kel_count()));
  }

  #bytes() {
    const from = this.#wasm.kel_bytes() >>> 0;
    return new Uint8Array(this.#wasm.memory.buffer, from, this.#wasm.kel_length() >>> 0).slice();
  }

  /** Calls work with the place of a copy of the bytes. */
  #withCopy(bytes, work) {
    if (bytes.byteLength > mostBytes) throw new KelError('parameter', 'more than 2 GiB of data');
    const place = this.#wasm.kel_take(Math.max(bytes.byteLength, 1)) >>> 0;
    if (place === 0) throw new KelError('memory', 'there is not enough memory for the data');
    try {
      new Uint8Array(this.#wasm.memory.buffer).set(bytes, place);
      return work(place, bytes.byteLength);
    } finally {
      this.#wasm.kel_give(place);
    }
  }

  // ---- Images ----

  #image(form) {
    const [width, height, channels, depth, opacity, complete, ...rest] = this.#numbers();
    const image = {width, height, channels, depth, hasOpacity: opacity !== 0};
    image.complete = complete !== 0;
    Object.assign(image, this.#description(rest));
    const bytes = this.#bytes();
    this.#wasm.kel_clear();
    if (form === forms.rgba) {
      image.data = new Uint8ClampedArray(bytes.buffer);
      image.channels = 4;
    } else if (form === forms.samples) {
      image.data = asSamples(bytes, depth);
    } else {
      image.planes = [];
      for (let at = 0, i = 5; i < rest.length; i += 7) {
        const [columns, rows, bits, role, colour, xStep, yStep] = rest.slice(i, i + 7);
        const length = columns * rows * (bits <= 8 ? 1 : bits <= 16 ? 2 : 4);
        const data = asSamples(bytes.slice(at, at + length), bits);
        at += length;
        image.planes.push({
          width: columns,
          height: rows,
          depth: bits,
          role: roles[role],
          colour,
          xStep,
          yStep,
          data,
        });
      }
    }
    return image;
  }

  #description([space, xResolution, yResolution, orientation, iccBytes]) {
    const description = {colourSpace: spaces[space] ?? 'unspecified', orientation};
    if (xResolution > 0) description.resolution = {x: xResolution, y: yResolution};
    description.hasProfile = iccBytes > 0;
    return description;
  }

  decode(data, {region, reduce = 0, format, acceptIncomplete = false} = {}) {
    const form = formOf(format);
    const r = regionOf(region);
    natural(reduce, 'reduce');
    return this.#withCopy(asBytes(data), (place, length) => {
      this.#check(
        this.#wasm.kel_decode(
          place,
          length,
          r.x,
          r.y,
          r.width,
          r.height,
          reduce,
          form,
          acceptIncomplete ? 1 : 0,
        ),
      );
      return this.#image(form);
    });
  }

  encode(image, options = {}) {
    const {lossless = false, quality = 60, maxBytes = 0, tileWidth = 0, tileHeight = 0} = options;
    const {width, height, channels = 4, depth = 8, data} = image;
    const hasOpacity = image.hasOpacity ?? (channels === 2 || channels === 4);
    for (const [name, value] of Object.entries({width, height, channels, depth})) {
      natural(value, name);
    }
    const bytes = asBytes(data);
    const sampleBytes = depth <= 8 ? 1 : depth <= 16 ? 2 : 4;
    if (bytes.byteLength !== width * height * channels * sampleBytes) {
      throw new KelError('parameter', 'the data are not as long as width and height say');
    }
    let opacity = hasOpacity ? 1 : 0;
    if (hasOpacity && channels === 4 && depth === 8 && isOpaque(bytes)) opacity = 2;
    return this.#withCopy(bytes, (place) => {
      this.#check(
        this.#wasm.kel_encode(
          place,
          width,
          height,
          channels,
          depth,
          opacity,
          lossless ? 1 : 0,
          natural(quality, 'quality'),
          natural(maxBytes, 'maxBytes', Number.MAX_SAFE_INTEGER),
          natural(tileWidth, 'tileWidth'),
          natural(tileHeight, 'tileHeight'),
        ),
      );
      const [qualityUsed, trials] = this.#numbers();
      const file = this.#bytes();
      this.#wasm.kel_clear();
      return {data: file, quality: qualityUsed, trials};
    });
  }

  // ---- Data that arrive bit by bit ----

  newDecoder() {
    this.#check(this.#wasm.kel_decoder());
    const [place] = this.#numbers();
    let complete = false;
    return {
      feed: (chunk) =>
        this.#withCopy(asBytes(chunk), (bytes, length) => {
          this.#check(this.#wasm.kel_feed(place, bytes, length));
          const [header, improved, completed, all] = this.#numbers();
          complete = all !== 0;
          return {
            hasHeader: header !== 0,
            improvedTiles: improved,
            completedTiles: completed,
            complete,
          };
        }),
      image: ({format} = {}) => {
        const form = formOf(format);
        this.#check(this.#wasm.kel_fed_image(place, form, complete ? 1 : 0));
        return this.#image(form);
      },
      close: () => this.#wasm.kel_end_decoder(place),
    };
  }

  // ---- Pictures read by ranges ----

  /** fetch(from, to) delivers a Uint8Array at once. */
  openPicture({size, fetch}, {cacheBytes = 2 ** 26} = {}) {
    const source = this.#nextSource++;
    this.#sources.set(source, fetch);
    try {
      this.#check(this.#wasm.kel_open(source, size, cacheBytes));
    } catch (failure) {
      this.#sources.delete(source);
      throw failure;
    }
    const [place, ...facts] = this.#numbers();
    const info = Object.fromEntries(pictureFacts.map((name) => [name, facts.shift()]));
    Object.assign(info, this.#description(facts));
    const rangesOf = (tile, reduce, all) => {
      this.#check(this.#wasm.kel_ranges(place, tile, reduce, all));
      const numbers = this.#numbers();
      return numbers.flatMap((from, i) => (i % 2 === 0 ? [{from, to: numbers[i + 1]}] : []));
    };
    return {
      info,
      /** Where the tile stands, whatever of it is needed. */
      placesOf: (tile) => rangesOf(natural(tile, 'tile'), 0, 1),
      bytesOf: (tile, reduce = 0) => rangesOf(natural(tile, 'tile'), natural(reduce, 'reduce'), 0),
      decode: ({region, reduce = 0, format, acceptIncomplete = false} = {}) => {
        const form = formOf(format);
        const r = region ? regionOf(region) : {x: 0, y: 0, width: info.width, height: info.height};
        this.#check(
          this.#wasm.kel_region(
            place,
            r.x,
            r.y,
            r.width,
            r.height,
            natural(reduce, 'reduce'),
            form,
            acceptIncomplete ? 1 : 0,
          ),
        );
        return this.#image(form);
      },
      close: () => {
        this.#sources.delete(source);
        this.#wasm.kel_close(place);
      },
    };
  }

  #fetch(source, from, to, count) {
    try {
      const bytes = this.#sources.get(source)(from, from + count);
      if (bytes.byteLength !== count)
        throw new KelError('input', 'fewer bytes came than were asked for');
      new Uint8Array(this.#wasm.memory.buffer).set(bytes, to);
      return 0;
    } catch (failure) {
      this.#fetchFailure =
        failure instanceof KelError
          ? failure
          : new KelError('input', String(failure.message ?? failure));
      return 1;
    }
  }
}

function regionOf(region) {
  if (!region) return {x: 0, y: 0, width: 0, height: 0};
  const {x = 0, y = 0, width, height} = region;
  for (const value of [x, y, width, height]) natural(value, 'an edge of the region');
  if (width === 0 || height === 0) throw new KelError('parameter', 'the region is empty');
  return {x, y, width, height};
}

function isOpaque(rgba) {
  for (let i = 3; i < rgba.length; i += 4) {
    if (rgba[i] !== 255) return false;
  }
  return true;
}

/** The ratio of the largest to the mean error of two RGBA images, in decibels; Infinity when equal. */
export function psnr(a, b) {
  let sum = 0;
  for (let i = 0; i < a.length; i += 4) {
    for (let c = 0; c < 3; ++c) {
      const d = a[i + c] - b[i + c];
      sum += d * d;
    }
  }
  return sum === 0 ? Infinity : 10 * Math.log10((255 * 255 * 0.75 * a.length) / sum);
}
