// Bytes of a picture that are fetched as they are needed, and kept: by requests side by side before
// work begins, and by a waiting one where the work meets bytes that nobody foresaw.

import {KelError} from './core.js';

const blockBytes = 1024;
/** What lies between two missing pieces and is fetched along, to make one request of two: less than
 *  a waiting request brings, as these stand at every tile-part and would be fetched again. */
const joinedGap = 2048;
const mostAtATime = 6;
/** Blocks of a waiting request at least: who meets one byte mostly goes on to the next ones. */
const readAhead = 4;

export class RangeStore {
  #reader;
  #blocks = new Map();
  #coming = new Map();

  /** reader: size, now(from, to) at once, later(from, to) as a promise. */
  constructor(reader, mostBytes = 2 ** 26) {
    this.#reader = reader;
    this.size = reader.size;
    this.mostBlocks = Math.ceil(mostBytes / blockBytes);
    this.requests = 0;
    this.bytes = 0;
  }

  #keep(first, bytes) {
    ++this.requests;
    this.bytes += bytes.byteLength;
    for (let at = 0, block = first; at < bytes.byteLength; at += blockBytes, ++block) {
      this.#blocks.set(block, bytes.subarray(at, at + blockBytes));
    }
    if (this.#blocks.size <= this.mostBlocks) return;
    let surplus = this.#blocks.size - this.mostBlocks;
    for (const block of this.#blocks.keys()) {
      if (surplus-- <= 0) break;
      this.#blocks.delete(block);
    }
  }

  /** Counts bytes that came without being asked for here, from the beginning on. */
  keepFront(bytes) {
    const whole =
      bytes.byteLength < this.size
        ? bytes.byteLength - (bytes.byteLength % blockBytes)
        : bytes.byteLength;
    this.#keep(0, bytes.subarray(0, whole));
    this.bytes += bytes.byteLength - whole;
  }

  #edges(first, last) {
    return [first * blockBytes, Math.min((last + 1) * blockBytes, this.size)];
  }

  /** The bytes from `from` up to `to`, at once. */
  read(from, to) {
    const first = Math.floor(from / blockBytes);
    const last = Math.floor((to - 1) / blockBytes);
    const result = new Uint8Array(to - from);
    for (let block = first; block <= last; ++block) {
      if (!this.#blocks.has(block)) {
        const least = Math.min(block + readAhead, Math.ceil(this.size / blockBytes)) - 1;
        let end = block;
        while (end < Math.max(last, least) && !this.#blocks.has(end + 1)) ++end;
        this.#keep(block, this.#reader.now(...this.#edges(block, end)));
      }
      const bytes = this.#blocks.get(block);
      const start = block * blockBytes;
      const begin = Math.max(from, start);
      result.set(bytes.subarray(begin - start, to - start), begin - from);
    }
    return result;
  }

  /** Fetches what of the ranges is missing. */
  async prepare(ranges, signal) {
    const missing = new Set();
    const waits = new Set();
    for (const {from, to} of ranges) {
      for (
        let block = Math.floor(from / blockBytes);
        block * blockBytes < Math.min(to, this.size);
        ++block
      ) {
        if (this.#coming.has(block)) waits.add(this.#coming.get(block));
        else if (!this.#blocks.has(block)) missing.add(block);
      }
    }
    const runs = [];
    for (const block of [...missing].sort((a, b) => a - b)) {
      const run = runs.at(-1);
      if (run && block - run.last <= 1 + joinedGap / blockBytes) run.last = block;
      else runs.push({first: block, last: block});
    }
    const load = async ({first, last}) => {
      const arrival = this.#reader
        .later(...this.#edges(first, last), signal)
        .then((bytes) => this.#keep(first, bytes));
      for (let block = first; block <= last; ++block) this.#coming.set(block, arrival);
      try {
        await arrival;
      } finally {
        for (let block = first; block <= last; ++block) this.#coming.delete(block);
      }
    };
    const line = async () => {
      for (let run = runs.shift(); run; run = runs.shift()) await load(run);
    };
    await Promise.all([...Array.from({length: mostAtATime}, line), ...waits]);
  }
}

function failed(url, said) {
  return new KelError('input', `${url} cannot be fetched: ${said}`);
}

function rangeHeader(from, to) {
  return `bytes=${from}-${to - 1}`;
}

/** Asks twice where no answer comes: a connection that was kept may have ended meanwhile. */
async function fetchRange(url, from, to, signal) {
  const ask = () => fetch(url, {headers: {Range: rangeHeader(from, to)}, signal});
  try {
    return await ask().catch((failure) => {
      if (signal?.aborted) throw failure;
      return ask();
    });
  } catch (failure) {
    throw signal?.aborted ? failure : failed(url, failure.cause?.message ?? failure.message);
  }
}

async function fetchBytes(url, from, to, signal) {
  const answer = await fetchRange(url, from, to, signal);
  if (answer.status !== 206) throw failed(url, `the server answers ${answer.status}`);
  return new Uint8Array(await answer.arrayBuffer());
}

/** A server that tells sizes and delivers ranges; another one's whole answer. */
export async function urlReader(url, waitFor, frontBytes = 16384) {
  const answer = await fetchRange(url, 0, frontBytes);
  if (!answer.ok) throw failed(url, `the server answers ${answer.status}`);
  const front = new Uint8Array(await answer.arrayBuffer());
  const total = /\/(\d+)$/.exec(answer.headers.get('Content-Range') ?? '');
  if (answer.status !== 206 || !total) return memoryReader(front);
  const later = (from, to, signal) => fetchBytes(url, from, to, signal);
  return {size: Number(total[1]), front, later, now: (from, to) => waitFor({url, from, to})};
}

export function memoryReader(bytes) {
  const now = (from, to) => bytes.subarray(from, to);
  return {size: bytes.byteLength, front: bytes, now, later: async (from, to) => now(from, to)};
}

export function blobReader(blob, waitFor) {
  const later = async (from, to) => new Uint8Array(await blob.slice(from, to).arrayBuffer());
  return {size: blob.size, later, now: (from, to) => waitFor({blob, from, to})};
}

/** A Blob that only the main thread has. */
export function heldReader({held, size}, waitFor) {
  const now = (from, to) => waitFor({held, from, to});
  return {size, now, later: async (from, to) => now(from, to)};
}

/** How a worker of a browser waits for bytes. */
export function waitInBrowser({url, blob, from, to}) {
  if (blob) return new Uint8Array(new FileReaderSync().readAsArrayBuffer(blob.slice(from, to)));
  const request = new XMLHttpRequest();
  request.open('GET', url, false);
  request.responseType = 'arraybuffer';
  request.setRequestHeader('Range', rangeHeader(from, to));
  try {
    request.send();
  } catch (failure) {
    throw failed(url, failure.message);
  }
  if (request.status !== 206) throw failed(url, `the server answers ${request.status}`);
  return new Uint8Array(request.response);
}

const bridgeBytes = 2 ** 20;

/** The part of Node's main thread: fetches what its worker waits for. */
export class Bridge {
  constructor() {
    this.memory = new SharedArrayBuffer(8 + bridgeBytes);
    this.state = new Int32Array(this.memory, 0, 2);
    this.bytes = new Uint8Array(this.memory, 8);
  }

  async serve({url, blob, from, to}) {
    let count = 0;
    try {
      const bytes = blob
        ? new Uint8Array(await blob.slice(from, to).arrayBuffer())
        : await fetchBytes(url, from, to);
      count = bytes.byteLength;
      this.bytes.set(bytes);
    } catch (failure) {
      const text = new TextEncoder().encode(failure.message).subarray(0, bridgeBytes);
      this.bytes.set(text);
      count = -1 - text.byteLength;
    }
    this.state[1] = count;
    Atomics.store(this.state, 0, 1);
    Atomics.notify(this.state, 0);
  }
}

/** How a worker of Node waits for bytes. */
export function waitOver(memory, post) {
  const state = new Int32Array(memory, 0, 2);
  const bytes = new Uint8Array(memory, 8);
  return ({url, held, from, to}) => {
    const whole = new Uint8Array(to - from);
    for (let at = from; at < to; at += bridgeBytes) {
      Atomics.store(state, 0, 0);
      post({url, held, from: at, to: Math.min(to, at + bridgeBytes)});
      Atomics.wait(state, 0, 0);
      const count = state[1];
      if (count < 0)
        throw new KelError('input', new TextDecoder().decode(bytes.slice(0, -1 - count)));
      whole.set(bytes.subarray(0, count), at - from);
    }
    return whole;
  };
}
