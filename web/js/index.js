// Kel in a worker: everything here is asked of it by messages and answered by promises.

import {hasVectors, KelError, psnr} from './core.js';
import {Bridge} from './ranges.js';

export {hasVectors, KelError, psnr};

const isNode = typeof process === 'object' && process.versions?.node !== undefined;

async function makeWorker() {
  const url = new URL('./worker.js', import.meta.url);
  if (!isNode) return new Worker(url, {type: 'module'});
  const {Worker: NodeWorker} = await import('node:worker_threads');
  return new NodeWorker(url);
}

/** A worker with the library. */
export class Kel {
  #worker;
  #calls = new Map();
  #nextCall = 1;
  #bridge = isNode ? new Bridge() : null;
  #blobs = new Map(); // in Node, whose workers cannot have them
  #nextBlob = 1;
  #ended = null;

  /** options: memoryLimit in bytes, 1 GiB; vectors: false for the module without vectors. */
  static async start(options = {}) {
    const kel = new Kel();
    kel.#worker = await makeWorker();
    kel.#listen();
    try {
      await kel.call('start', [options, kel.#bridge?.memory]);
    } catch (failure) {
      kel.end();
      throw failure;
    }
    return kel;
  }

  #listen() {
    const broken = (event) => this.#fail(new Error(event.message ?? String(event)));
    if (isNode) {
      this.#worker.on('message', (data) => this.#receive(data));
      this.#worker.on('error', broken);
      this.#worker.unref();
    } else {
      this.#worker.onmessage = ({data}) => this.#receive(data);
      this.#worker.onerror = broken;
    }
  }

  #receive({id, answer, failure, need}) {
    if (need) {
      this.#bridge.serve({...need, blob: this.#blobs.get(need.held)});
      return;
    }
    const call = this.#calls.get(id);
    this.#calls.delete(id);
    if (isNode && this.#calls.size === 0) this.#worker.unref();
    if (!call) return;
    call.release?.();
    if (!failure) call.resolve(answer);
    else if (failure.kind) call.reject(new KelError(failure.kind, failure.message));
    else if (failure.name === 'AbortError')
      call.reject(new DOMException(failure.message, failure.name));
    else call.reject(new Error(failure.message));
  }

  #fail(failure) {
    this.#ended = failure;
    for (const call of this.#calls.values()) call.reject(failure);
    this.#calls.clear();
  }

  call(operation, args, {transfer = [], signal} = {}) {
    if (this.#ended) return Promise.reject(this.#ended);
    if (signal?.aborted) return Promise.reject(signal.reason);
    return new Promise((resolve, reject) => {
      const id = this.#nextCall++;
      const call = {resolve, reject};
      if (signal) {
        const abort = () => this.#worker.postMessage({abort: id});
        signal.addEventListener('abort', abort);
        call.release = () => signal.removeEventListener('abort', abort);
      }
      this.#calls.set(id, call);
      if (isNode) this.#worker.ref();
      this.#worker.postMessage({id, operation, args}, transfer);
    });
  }

  decode(bytes, options = {}) {
    return this.call('decode', [bytes, options]);
  }

  encode(image, options = {}) {
    const {width, height, channels, depth, hasOpacity, data} = image;
    return this.call('encode', [{width, height, channels, depth, hasOpacity, data}, options]);
  }

  async open(source, options = {}) {
    let given = source;
    if (source instanceof URL || typeof source === 'string') {
      const base = isNode ? undefined : globalThis.location?.href;
      const url = new URL(source, base);
      given = url.href;
      if (url.protocol === 'file:') given = await (await import('node:fs')).openAsBlob(url);
    }
    if (isNode && given instanceof Blob) {
      const held = this.#nextBlob++;
      this.#blobs.set(held, given);
      given = {held, size: given.size};
    }
    const {number, info, statistics} = await this.call('open', [given, options]);
    return new Picture(this, number, info, statistics, () => this.#blobs.delete(given.held));
  }

  /** {held, most}: bytes that the library holds, and the most it has held. */
  memory() {
    return this.call('memory', []);
  }

  /** Ends the worker; what it was asked for fails. */
  end() {
    this.#fail(new Error('the worker has been ended'));
    this.#worker.terminate();
  }
}

/** A picture whose bytes are fetched as they are needed. */
export class Picture {
  #kel;
  #number;
  #forget;

  constructor(kel, number, info, statistics, forget) {
    this.#kel = kel;
    this.#number = number;
    this.#forget = forget;
    Object.assign(this, info);
    this.statistics = statistics;
  }

  async decode({signal, ...options} = {}) {
    const answer = await this.#kel.call('region', [this.#number, options], {signal});
    this.statistics = answer.statistics;
    return answer.image;
  }

  close() {
    this.#forget();
    return this.#kel.call('close', [this.#number]);
  }
}

let shared = null;
const sharedKel = () => (shared ??= Kel.start());

export async function decode(bytes, options) {
  return (await sharedKel()).decode(bytes, options);
}

export async function encode(image, options) {
  return (await sharedKel()).encode(image, options);
}

export async function open(source, options) {
  return (await sharedKel()).open(source, options);
}

/** Decodes data as they arrive. */
export class Decoder {
  #kel;
  #number;

  constructor(kel = sharedKel()) {
    this.#kel = Promise.resolve(kel);
    this.#number = this.#kel.then((worker) => worker.call('decoder', []));
    this.#number.catch(() => {});
  }

  async feed(chunk) {
    return (await this.#kel).call('feed', [await this.#number, chunk]);
  }

  /** The picture as it stands. */
  async image(options = {}) {
    return (await this.#kel).call('image', [await this.#number, options]);
  }

  async close() {
    return (await this.#kel).call('close', [await this.#number]);
  }
}
