// The npm package in Node: samples and files are those of the command, whichever module; failures
// are the kit's sentences; ranges are read sparingly. Arguments: the package's folder, the command.

import assert from 'node:assert/strict';
import {execFileSync} from 'node:child_process';
import {readdirSync, readFileSync, existsSync, mkdtempSync, rmSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join, resolve} from 'node:path';
import {argv} from 'node:process';
import {pathToFileURL} from 'node:url';
import {serve} from '../serve.mjs';

const [folder, command] = argv.slice(2).map((path) => resolve(path));
const root = resolve(import.meta.dirname ?? new URL('.', import.meta.url).pathname, '../..');
const {Kel, Decoder, decode, open} = await import(pathToFileURL(join(folder, 'index.js')));
const work = mkdtempSync(join(tmpdir(), 'kel-web-'));
const kel = (...args) =>
  execFileSync(command, args, {cwd: work, stdio: ['ignore', 'pipe', 'pipe']});
const bytesOf = (data) => Buffer.from(data.buffer, data.byteOffset, data.byteLength);

/** A PPM or PGM file of 8 bits as pixels. */
function pixelsOf(name) {
  const file = readFileSync(join(work, name));
  const [head, form, width, height] = /^P([56])\s+(\d+)\s+(\d+)\s+255\s/.exec(
    file.toString('latin1', 0, 64),
  );
  const channels = form === '6' ? 3 : 1;
  return {
    width: Number(width),
    height: Number(height),
    channels,
    hasOpacity: false,
    data: new Uint8Array(file.subarray(head.length)),
  };
}

async function vectorsDecodeAsNatively(worker) {
  const vectors = join(root, 'tests/vectors');
  let compared = 0;
  for (const name of readdirSync(vectors).filter((name) => name.endsWith('.kel'))) {
    const path = join(vectors, name);
    const decoded = worker.decode(readFileSync(path), {format: 'planes', acceptIncomplete: true});
    try {
      kel('decode', '--quiet', path, '--raw-planes', 'raw');
    } catch (failure) {
      if (!existsSync(join(work, 'raw.c0.raw'))) {
        const sentence = /^kel: [^:]*: (.*?)(?: \(Kel\w+, .*)?$/m.exec(String(failure.stderr))?.[1];
        await assert.rejects(decoded, {name: 'KelError', message: sentence}, name);
        continue;
      }
    }
    for (const [c, plane] of (await decoded).planes.entries()) {
      const raw = join(work, `raw.c${c}.raw`);
      assert.ok(bytesOf(plane.data).equals(readFileSync(raw)), `${name}, plane ${c}`);
      ++compared;
    }
    for (const file of readdirSync(work).filter((file) => file.startsWith('raw.'))) {
      rmSync(join(work, file));
    }
  }
  return compared;
}

async function photosAreCodedAsNatively(worker) {
  const photo = join(root, 'examples/images/coffee.png');
  kel('encode', '--quiet', '--lossless', photo, 'photo.kel');
  kel('decode', '--quiet', 'photo.kel', 'photo.ppm');
  const pixels = pixelsOf('photo.ppm');
  for (const [options, args] of [
    [{lossless: true}, ['--lossless']],
    [{quality: 35}, ['-q', '35']],
    [{quality: 60, tileWidth: 256, tileHeight: 192}, ['--tile', '256x192']],
    [{maxBytes: 50000}, ['--size', '50000']],
  ]) {
    const {data} = await worker.encode(pixels, options);
    kel('encode', '--quiet', ...args, 'photo.ppm', 'native.kel');
    const native = readFileSync(join(work, 'native.kel'));
    assert.ok(bytesOf(data).equals(native), `encoded with ${args}`);
    kel('decode', '--quiet', 'native.kel', 'native.ppm');
    const decoded = await worker.decode(data);
    assert.ok(bytesOf(decoded.data).equals(Buffer.from(pixelsOf('native.ppm').data)), `${args}`);
    const part = {x: 100, y: 33, width: 201, height: 150};
    const {data: samples, width} = await worker.decode(data, {region: part, reduce: 1});
    kel(
      'decode',
      '--quiet',
      '--region',
      '201x150+100+33',
      '--reduce',
      '1',
      'native.kel',
      'part.ppm',
    );
    assert.equal(width, pixelsOf('part.ppm').width);
    assert.ok(bytesOf(samples).equals(Buffer.from(pixelsOf('part.ppm').data)), `a part, ${args}`);
  }
  const rgba = new Uint8ClampedArray(4 * 64 * 64).map((_, i) => (i * 37) ^ (i >> 6));
  const drawn = {width: 64, height: 64, data: rgba};
  const {data} = await worker.encode(drawn, {lossless: true});
  assert.deepEqual((await worker.decode(data, {format: 'rgba'})).data, rgba);
}

async function failuresAreSentences(worker) {
  const file = readFileSync(join(work, 'photo.kel'));
  await assert.rejects(worker.decode(file.subarray(0, 30000)), {kind: 'incomplete'});
  await assert.rejects(worker.decode(new Uint8Array(100)), {kind: 'input', message: /./});
  await assert.rejects(worker.decode(file, {reduce: 40}), {kind: 'parameter'});
  await assert.rejects(worker.decode(file, {region: {x: 9999, width: 1, height: 1}}), {
    kind: 'parameter',
  });
  await assert.rejects(worker.encode({width: 3, height: 3, data: new Uint8Array(4)}), {
    kind: 'parameter',
  });
  const small = await Kel.start({memoryLimit: 200000});
  await assert.rejects(small.decode(file), {kind: 'memory', message: /memory/});
  small.end();
  await assert.rejects(small.decode(file), /ended/);
}

async function arrivingDataRefine(worker) {
  const file = readFileSync(join(work, 'photo.kel'));
  const decoder = new Decoder(worker);
  await assert.rejects(decoder.image(), {kind: 'incomplete'});
  let last = {complete: false};
  for (let at = 0; at < file.length; at += 20000) {
    assert.ok(!last.complete);
    last = await decoder.feed(file.subarray(at, at + 20000));
    if (at === 40000) assert.ok((await decoder.image()).data.some((sample) => sample !== 0));
  }
  assert.ok(last.complete);
  const whole = await decode(file, {format: 'rgba'});
  assert.deepEqual(await decoder.image({format: 'rgba'}), whole);
  await decoder.close();
}

async function rangesAreReadSparingly(worker) {
  kel('encode', '--quiet', '--lossless', '--tile', '128x128', 'photo.ppm', 'tiles.kel');
  const file = readFileSync(join(work, 'tiles.kel'));
  const server = await serve(work, 0);
  const url = `http://localhost:${server.address().port}/`;
  const region = {x: 130, y: 140, width: 100, height: 90};
  const expected = await worker.decode(file, {region});
  for (const source of [`${url}tiles.kel`, new Blob([file])]) {
    const picture = await open(source);
    assert.deepEqual((await picture.decode({region})).data, expected.data);
    const {bytes, size} = picture.statistics;
    assert.equal(size, file.length);
    assert.ok(bytes < 0.6 * size, `${bytes} of ${size} bytes for one tile of twenty`);
    const whole = await picture.decode({format: 'planes'});
    assert.deepEqual(whole.planes, (await worker.decode(file, {format: 'planes'})).planes);
    assert.ok(picture.statistics.bytes < 1.3 * size, 'little is fetched twice');
    await picture.close();
    await assert.rejects(picture.decode(), {kind: 'parameter'});
  }
  await assert.rejects(open(`${url}missing.kel`), {kind: 'input', message: /404/});
  server.close();
}

try {
  for (const vectors of [true, false]) {
    const worker = await Kel.start({vectors});
    const compared = await vectorsDecodeAsNatively(worker);
    assert.ok(compared > 200);
    await photosAreCodedAsNatively(worker);
    await failuresAreSentences(worker);
    await arrivingDataRefine(worker);
    await rangesAreReadSparingly(worker);
    console.log(`module ${vectors ? 'with vectors' : 'scalar'}: ${compared} planes as natively`);
    worker.end();
  }
} finally {
  rmSync(work, {recursive: true});
}
process.exit();
