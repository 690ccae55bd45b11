// How fast the modules code a PPM file in this engine, beside the command: megabytes of samples per
// second, the best of several rounds. Arguments: the package's folder, the picture, commands as
// NAME=PATH to be measured in the same rounds.

import {execFileSync} from 'node:child_process';
import {mkdtempSync, readFileSync, rmSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join, resolve} from 'node:path';
import {argv} from 'node:process';
import {pathToFileURL} from 'node:url';

const [folder, picture, ...commands] = argv.slice(2);
const rounds = 5;
const {moduleUrl, start} = await import(pathToFileURL(resolve(folder, 'core.js')));
const file = readFileSync(picture);
const [head, width, height] = /^P6\s+(\d+)\s+(\d+)\s+255\s/.exec(file.toString('latin1', 0, 64));
const pixels = {
  width: Number(width),
  height: Number(height),
  channels: 3,
  hasOpacity: false,
  data: new Uint8Array(file.subarray(head.length)),
};
const megabytes = pixels.data.length / 1e6;
const work = mkdtempSync(join(tmpdir(), 'kel-speed-'));

const rows = [];
for (const [name, vectors] of [
  ['module, vectors', true],
  ['module, scalar', false],
]) {
  const module = await WebAssembly.compile(readFileSync(moduleUrl(vectors)));
  const core = await start({module});
  rows.push({
    name,
    run: (options) => {
      const began = performance.now();
      const {data} = core.encode(pixels, options);
      const encoded = performance.now();
      core.decode(data);
      return [encoded - began, performance.now() - encoded];
    },
  });
}
for (const given of commands) {
  const [name, command] = given.split('=');
  const said = (args) => {
    const child = execFileSync('sh', ['-c', '"$0" "$@" 2>&1', command, ...args], {
      encoding: 'utf8',
      cwd: work,
    });
    return (1000 * megabytes) / Number(/([\d.]+) MB\/s/.exec(child)[1]);
  };
  rows.push({
    name,
    run: ({lossless, quality}) => {
      const how = lossless ? ['--lossless'] : ['-q', String(quality)];
      return [
        said(['encode', '--verbose', '--quiet', '-j', '1', ...how, resolve(picture), 'x.kel']),
        said(['decode', '--verbose', '--quiet', '-j', '1', 'x.kel', 'x.ppm']),
      ];
    },
  });
}
for (const options of [{lossless: true}, {quality: 60}]) {
  const best = rows.map(() => [Infinity, Infinity]);
  for (let round = 0; round < rounds; ++round) {
    rows.forEach(({run}, i) => {
      run(options).forEach((time, k) => {
        best[i][k] = Math.min(best[i][k], time);
      });
    });
  }
  rows.forEach(({name}, i) => {
    const [encode, decode] = best[i].map((time) => ((1000 * megabytes) / time).toFixed(0));
    console.log(
      `| ${options.lossless ? 'lossless' : 'quality 60'} | ${name} | ${encode} | ${decode} |`,
    );
  });
}
rmSync(work, {recursive: true});
