// The page in headless Chromium: coding and comparing, refinement over a slow server, the viewer on a
// picture that is not fetched whole. Screenshots stay in the folder of the test.
// Arguments: the page's folder, the command, a folder with playwright-core, [--large].

import assert from 'node:assert/strict';
import {execFileSync, spawn, spawnSync} from 'node:child_process';
import {once} from 'node:events';
import {copyFileSync, existsSync, mkdirSync, statSync} from 'node:fs';
import {createRequire} from 'node:module';
import {join, resolve} from 'node:path';
import {argv} from 'node:process';
import {serve} from '../serve.mjs';

const [folder, command, work] = argv.slice(2, 5).map((path) => resolve(path));
const isLarge = argv.includes('--large');
const {chromium} = createRequire(join(work, 'package.json'))('playwright-core');
const photo = resolve(
  import.meta.dirname ?? new URL('.', import.meta.url).pathname,
  '../../examples/images/coffee.png',
);
const shots = join(work, 'screenshots');
const files = join(folder, 'files');

/** A picture through a pipe: slanted waves with noise, the same in every square, with a line between. */
async function makeLargePicture(path, side) {
  const period = 1024;
  const square = Buffer.alloc(3 * period * period);
  for (let y = 0; y < period; ++y) {
    for (let x = 0; x < period; ++x) {
      const at = 3 * (y * period + x);
      const noise = ((at * 2654435761) >>> 0) % 13;
      for (let c = 0; c < 3; ++c) {
        const wave = Math.sin(((x + (c + 1) * y) * Math.PI) / 512) + Math.sin((x * y) / 9e4);
        square[at + c] = x < 3 || y < 3 ? 240 - 70 * c : 115 + 50 * wave + noise;
      }
    }
  }
  const encoder = spawn(
    command,
    ['encode', '--quiet', '--tile', '2048x2048', '-q', '40', '-', path],
    {stdio: ['pipe', 'inherit', 'inherit']},
  );
  encoder.stdin.write(`P6\n${side} ${side}\n255\n`);
  for (let y = 0; y < side; ++y) {
    const from = 3 * period * (y % period);
    const row = Buffer.alloc(3 * side, square.subarray(from, from + 3 * period));
    if (!encoder.stdin.write(row)) await once(encoder.stdin, 'drain');
  }
  encoder.stdin.end();
  const [code] = await once(encoder, 'close');
  assert.equal(code, 0);
}

const text = (page, id) => page.locator(`#${id}`).innerText();
const data = (page, id, name) => page.locator(`#${id}`).getAttribute(`data-${name}`);
const shot = (page, name) => page.screenshot({path: join(shots, `${name}.png`)});

async function photosAreCodedAndCompared(page, url) {
  await page.goto(url);
  await shot(page, 'welcome');
  await page.locator('#file').setInputFiles(photo);
  const sizes = [];
  for (const quality of [10, 40, 90]) {
    await page.locator('#quality').fill(String(quality));
    await page.waitForFunction(
      (q) => document.getElementById('facts').dataset.quality === q,
      String(quality),
    );
    const psnr = Number((await text(page, 'fact-psnr')).replace(' dB', ''));
    sizes.push({bytes: Number(await data(page, 'fact-size', 'bytes')), psnr});
    if (quality === 10) {
      await page.locator('#split').fill('35');
      await shot(page, 'compare');
      await page.locator('#show-difference').check();
      await shot(page, 'difference');
      await page.locator('#show-difference').uncheck();
    }
  }
  assert.ok(
    sizes.every(
      ({bytes, psnr}, i) => i === 0 || (bytes > sizes[i - 1].bytes && psnr > sizes[i - 1].psnr),
    ),
    JSON.stringify(sizes),
  );
  const [download] = await Promise.all([
    page.waitForEvent('download'),
    page.locator('#download').click(),
  ]);
  const saved = join(work, 'saved.kel');
  await download.saveAs(saved);
  assert.equal(download.suggestedFilename(), 'coffee.kel');
  // The page's figures are those of the command for the file that it gives.
  execFileSync(command, ['decode', '--quiet', saved, join(work, 'saved.png')]);
  const {stdout: said} = spawnSync(command, ['compare', photo, join(work, 'saved.png')], {
    encoding: 'utf8',
  });
  assert.ok(Math.abs(Number(/^all\s+([\d.]+)/m.exec(said)[1]) - sizes[2].psnr) < 0.011, said);
  assert.equal(statSync(saved).size, sizes[2].bytes);
  await page.locator('#lossless').check();
  await page.waitForFunction(
    () => document.getElementById('fact-psnr').textContent === 'identical',
  );
}

async function picturesRefineAsTheyArrive(page, url) {
  execFileSync(command, ['encode', '--quiet', '-q', '80', photo, join(files, 'photo.kel')]);
  const size = statSync(join(files, 'photo.kel')).size;
  await page.goto(
    `${url}?open=${encodeURIComponent(`files/photo.kel?rate=${Math.round(size / 5)}`)}`,
  );
  await page.waitForFunction(() => Number(document.getElementById('arriving').dataset.looks) >= 2);
  await shot(page, 'arriving-early');
  await page.waitForSelector('#arriving[data-done="complete"]');
  assert.ok(Number(await data(page, 'arriving', 'looks')) >= 4);
  const first = Number(await data(page, 'arriving', 'first'));
  assert.ok(first < size / 4, `first shown after ${first} of ${size} bytes`);
  await shot(page, 'arriving-done');
  const centre = await page.evaluate(() => [
    ...document.getElementById('picture').getContext('2d').getImageData(300, 200, 1, 1).data,
  ]);
  assert.equal(centre[3], 255);
}

async function hugePicturesAreSeenInParts(page, url) {
  const side = isLarge ? 30000 : 10000;
  const name = `huge-${side}.kel`;
  if (!existsSync(join(files, name))) await makeLargePicture(join(files, name), side);
  // Done is what has not changed for a while.
  const done = async () => {
    await page.evaluate(() => Object.assign(window, {seen: '', same: 0}));
    const isStill = () => {
      const {bytes, done: isDone} = document.getElementById('viewer-line').dataset;
      window.same = window.seen === bytes && isDone === 'true' ? window.same + 1 : 0;
      window.seen = bytes;
      return window.same >= 5;
    };
    await page.waitForFunction(isStill, null, {polling: 200});
  };
  const fetched = async () => Number(await data(page, 'viewer-line', 'bytes'));
  const size = statSync(join(files, name)).size;
  await page.goto(`${url}?open=files/${name}`);
  await page.waitForSelector('#viewer:not([hidden])');
  await done();
  const first = await fetched();
  await shot(page, 'viewer-whole');
  assert.ok(first < (isLarge ? 0.3 : 0.35) * size, `${first} of ${size} bytes for all of it`);
  await page.locator('#view').focus();
  await page.keyboard.press('1');
  await done();
  const full = (await fetched()) - first;
  await shot(page, 'viewer-full-size');
  assert.ok(
    full > 0 && full < (isLarge ? 0.15 : 0.5) * size,
    `${full} of ${size} bytes for a window in full size`,
  );
  const box = await page.locator('#view').boundingBox();
  await page.mouse.move(box.x + 300, box.y + 200);
  await page.mouse.down();
  await page.mouse.move(box.x + 250, box.y + 180, {steps: 3});
  await page.mouse.up();
  for (let i = 0; i < 5; ++i) await page.mouse.wheel(0, 200);
  await done();
  const line = await page.locator('#viewer-line').innerText();
  assert.match(line, /fetched \([\d.]+ %\) in \d+ requests · [\d.]+ m?s/);
  const before = await fetched();
  await page.keyboard.press('0');
  await done();
  assert.equal(await fetched(), before, 'what was seen is kept');
  console.log(
    `${side} x ${side}, ${size} bytes: ${first} for all of it, ${full} more for a window in full size; ${line}`,
  );
}

mkdirSync(shots, {recursive: true});
mkdirSync(files, {recursive: true});
copyFileSync(photo, join(files, 'photo.png'));
const server = await serve(folder, 0);
const url = `http://localhost:${server.address().port}/`;
const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium',
  args: [
    '--no-sandbox',
    '--disable-gpu',
    '--disable-quic',
    '--no-first-run',
    '--disable-background-networking',
    '--disable-component-update',
    '--disable-sync',
  ],
});
const problems = [];
const context = await browser.newContext({viewport: {width: 1280, height: 800}});
context.setDefaultTimeout(240000);
context.on('weberror', (event) => problems.push(event.error().message));
context.on('request', (request) => {
  if (!/^(http:\/\/localhost:|blob:|data:)/.test(request.url()))
    problems.push(`asks for ${request.url()}`);
});
try {
  const page = await context.newPage();
  await photosAreCodedAndCompared(page, url);
  await picturesRefineAsTheyArrive(page, url);
  await hugePicturesAreSeenInParts(page, url);
  await page.goto(`${url}?open=package/package.json`);
  await page.waitForSelector('#problem:not([hidden])');
  await page.emulateMedia({colorScheme: 'dark'});
  await page.setViewportSize({width: 390, height: 780});
  await page.goto(`${url}?open=files/photo.png`);
  await page.waitForFunction(() => document.getElementById('fact-psnr').textContent.includes('dB'));
  await shot(page, 'small-dark');
  assert.ok(
    await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth),
    'fits a small screen',
  );
  assert.deepEqual(problems, []);
  console.log('the page works');
} finally {
  await browser.close();
  server.close();
}
