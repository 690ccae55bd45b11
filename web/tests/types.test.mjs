// The package's types: its examples pass the compiler, what is wrong does not, and what they tell of
// is there. Arguments: the package's folder, a folder with TypeScript, README.md.

import assert from 'node:assert/strict';
import {mkdtempSync, readFileSync, rmSync, symlinkSync, mkdirSync, writeFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {join, resolve} from 'node:path';
import {argv} from 'node:process';
import {pathToFileURL} from 'node:url';

const [folder, work, readme] = argv.slice(2).map((path) => resolve(path));
const ts = createRequire(join(work, 'package.json'))('typescript');
const place = mkdtempSync(join(work, 'types-'));

function complaintsOf(name, text) {
  const file = join(place, name);
  writeFileSync(file, text);
  const program = ts.createProgram([file], {
    strict: true,
    noEmit: true,
    target: ts.ScriptTarget.ES2022,
    module: ts.ModuleKind.NodeNext,
    moduleResolution: ts.ModuleResolutionKind.NodeNext,
    lib: ['lib.es2022.d.ts', 'lib.dom.d.ts', 'lib.dom.asynciterable.d.ts'],
    types: [],
  });
  return ts
    .getPreEmitDiagnostics(program)
    .map(({messageText}) => ts.flattenDiagnosticMessageText(messageText, '\n'));
}

/** Names of classes with their members, and of functions, that a declaration file exports. */
function declared(path) {
  const found = new Map();
  const source = ts.createSourceFile(path, readFileSync(path, 'utf8'), ts.ScriptTarget.ES2022);
  ts.forEachChild(source, (node) => {
    if (ts.isFunctionDeclaration(node)) found.set(node.name.text, []);
    if (!ts.isClassDeclaration(node)) return;
    const methods = node.members.filter((member) => ts.isMethodDeclaration(member));
    found.set(
      node.name.text,
      methods.map((member) => ({
        name: member.name.text,
        isStatic: member.modifiers?.some(({kind}) => kind === ts.SyntaxKind.StaticKeyword) ?? false,
      })),
    );
  });
  return found;
}

try {
  mkdirSync(join(place, 'node_modules'));
  symlinkSync(folder, join(place, 'node_modules/kel-codec'));
  writeFileSync(join(place, 'package.json'), '{"type": "module"}');
  const example = /```js\n([\s\S]*?)```/.exec(readFileSync(readme, 'utf8'))[1];
  const given = `import type {Image} from 'kel-codec';
declare const canvas: HTMLCanvasElement, width: number, height: number;
declare function show(image: Image): void;\n`;
  // What may be null is the example's own business.
  const strict = example.replace(').body', ').body!').replace("getContext('2d')", "getContext('2d')!");
  assert.deepEqual(complaintsOf('example.mts', given + strict), []);
  assert.deepEqual(
    complaintsOf(
      'use.mts',
      `import {Kel, KelError, psnr, hasVectors} from 'kel-codec';
import {start} from 'kel-codec/core';
const kel: Kel = await Kel.start({memoryLimit: 1e8, vectors: hasVectors()});
const {data, quality} = await kel.encode({width: 1, height: 1, channels: 3, data: new Uint8Array(3)},
  {maxBytes: 1000});
const rgba: Uint8ClampedArray = (await kel.decode(data, {format: 'rgba'})).data;
const planes = (await kel.decode(data, {format: 'planes'})).planes!.map(({role, depth}) => [role, depth]);
const picture = await kel.open(new Blob([new Uint8Array(9)]), {cacheBytes: 1});
const part = await picture.decode({region: {width: 1, height: 1}, signal: new AbortController().signal});
const core = await start();
const again = core.decode(core.encode(part).data, {reduce: 1});
const fed: boolean = core.newDecoder().feed(data).complete;
const opened = core.openPicture({size: 9, fetch: (from: number, to: number) => data.subarray(from, to)});
const tiles: number = opened.info.tilesAcross + opened.bytesOf(0, 1)[0].from;
try { kel.end(); } catch (failure) { if (failure instanceof KelError) console.log(failure.kind); }
console.log(psnr(rgba, rgba), planes, quality, picture.statistics.bytes, again.width, fed, tiles);`,
    ),
    [],
  );
  for (const wrong of ["decode('name')", "decode(new Uint8Array(1), {format: 'bgr'})", 'encode({})']) {
    const name = /\w+/.exec(wrong)[0];
    const text = `import {${name}} from 'kel-codec';\nawait ${wrong};`;
    assert.equal(complaintsOf('wrong.mts', text).length, 1, wrong);
  }
  for (const part of ['index', 'core']) {
    const module = await import(pathToFileURL(join(folder, `${part}.js`)));
    const told = declared(join(folder, `${part}.d.ts`));
    assert.ok(told.size >= 3);
    for (const [name, members] of told) {
      assert.equal(typeof module[name], 'function', name);
      for (const {name: member, isStatic} of members) {
        const owner = isStatic ? module[name] : module[name].prototype;
        assert.equal(typeof owner[member], 'function', `${name}.${member}`);
      }
    }
    for (const name of Object.keys(module)) assert.ok(told.has(name) || part === 'core', name);
  }
  console.log('the types are right');
} finally {
  rmSync(place, {recursive: true});
}
