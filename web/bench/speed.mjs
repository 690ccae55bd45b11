// How fast the modules code a PPM file in this engine, beside the command: megabytes of samples per
// second of processor time, the best of several rounds; that of commands has their start and their files
// in it. Arguments: the package's folder, the picture, commands as NAME=PATH to be measured in the same
// rounds.

import {execFileSync} from 'node:child_process';
import {mkdtempSync, readFileSync, rmSync} from 'node:fs';
import {tmpdir} from 'node:os';
import {join, resolve} from 'node:path';
import {argv, cpuUsage} from 'node:process';
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

const processorTime = () => {
  const {user, system} = cpuUsage();
  return (user + system) / 1000;
};

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
      const began = processorTime();
      const {data} = core.encode(pixels, options);
      const encoded = processorTime();
      core.decode(data);
      return [encoded - began, processorTime() - encoded];
    },
  });
}
for (const given of commands) {
  const [name, path] = given.split('=');
  const command = resolve(path);
  const took = (args) => {
    const said = execFileSync('bash', ['-c', '"$0" "$@" >/dev/null && times', command, ...args], {
      encoding: 'utf8',
      cwd: work,
    });
    const [user, system] = [...said.split('\n')[1].matchAll(/(\d+)m([\d.]+)s/g)].map(
      ([, minutes, seconds]) => 60 * minutes + Number(seconds),
    );
    return 1000 * (user + system);
  };
  rows.push({
    name,
    run: ({lossless, quality}) => {
      const how = lossless ? ['--lossless'] : ['-q', String(quality)];
      return [
        took(['encode', '--quiet', '--overwrite', '-j', '1', ...how, resolve(picture), 'x.kel']),
        took(['decode', '--quiet', '--overwrite', '-j', '1', 'x.kel', 'x.ppm']),
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
