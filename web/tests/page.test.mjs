// The page in headless Chromium: coding and comparing, refinement over a slow server, the viewer on a
// picture that is not fetched whole. Screenshots stay in the folder of the test.
// Arguments: the page's folder, the command, a folder with playwright-core, [--small]: the viewer's
// picture has 100 Mpixel instead of 900.

import assert from 'node:assert/strict';
import {execFileSync, spawn, spawnSync} from 'node:child_process';
import {once} from 'node:events';
import {copyFileSync, mkdirSync, readFileSync, statSync, writeFileSync} from 'node:fs';
import {createRequire} from 'node:module';
import {join, resolve} from 'node:path';
import {argv} from 'node:process';
import {serve} from '../serve.mjs';

const [folder, command, work] = argv.slice(2, 5).map((path) => resolve(path));
const isSmall = argv.includes('--small');
const {chromium} = createRequire(join(work, 'package.json'))('playwright-core');
const photo = resolve(
  import.meta.dirname ?? new URL('.', import.meta.url).pathname,
  '../../examples/images/coffee.png',
);
const shots = join(work, 'screenshots');
const files = join(folder, 'files');

/** A picture through a pipe: slanted waves with noise, the same in every square, with a line between,
 *  and a red square in its first corner. */
async function makeLargePicture(path, width, height, ...more) {
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
    ['encode', '--quiet', '--tile', '2048x2048', '-q', '40', ...more, '-', path],
    {stdio: ['pipe', 'inherit', 'inherit']},
  );
  encoder.stdin.write(`P6\n${width} ${height}\n255\n`);
  const red = Buffer.alloc(3 * period, Buffer.from([230, 20, 20]));
  for (let y = 0; y < height; ++y) {
    const from = 3 * period * (y % period);
    const row = Buffer.alloc(3 * width, square.subarray(from, from + 3 * period));
    if (y < period) red.copy(row);
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

/** Done is what has not changed for a while. */
async function viewerIsDone(page) {
  await page.evaluate(() => Object.assign(window, {seen: '', same: 0}));
  const isStill = () => {
    const {bytes, done: isDone} = document.getElementById('viewer-line').dataset;
    window.same = window.seen === bytes && isDone === 'true' ? window.same + 1 : 0;
    window.seen = bytes;
    return window.same >= 5;
  };
  await page.waitForFunction(isStill, null, {polling: 200});
}

async function hugePicturesAreSeenInParts(page, url) {
  const side = isSmall ? 10000 : 30000;
  const name = `huge-${side}.kel`;
  await makeLargePicture(join(files, name), side, side);
  const done = () => viewerIsDone(page);
  const fetched = async () => Number(await data(page, 'viewer-line', 'bytes'));
  const size = statSync(join(files, name)).size;
  await page.goto(`${url}?open=files/${name}`);
  await page.waitForSelector('#viewer:not([hidden])');
  await done();
  const first = await fetched();
  await shot(page, 'viewer-whole');
  assert.ok(first < (isSmall ? 0.35 : 0.3) * size, `${first} of ${size} bytes for all of it`);
  await page.locator('#view').focus();
  await page.keyboard.press('1');
  await done();
  const full = (await fetched()) - first;
  await shot(page, 'viewer-full-size');
  assert.ok(
    full > 0 && full < (isSmall ? 0.5 : 0.15) * size,
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

const pixelOf = (page, id, x, y) =>
  page.evaluate(
    ([name, atX, atY]) => {
      const canvas = document.getElementById(name);
      const context = canvas.getContext('2d');
      return [...context.getImageData(atX * canvas.width, atY * canvas.height, 1, 1).data];
    },
    [id, x, y],
  );

/** A tag of EXIF alone: the orientation. */
function exifOf(orientation) {
  const bytes = Buffer.from('4d4d002a0000000800010112000300000001000000000000000000', 'hex');
  bytes[19] = orientation;
  return bytes.subarray(0, 26);
}

/** Stored lying, seen upright; by touch. */
async function turnedPicturesAreSeenUpright(browser, url) {
  writeFileSync(join(work, 'turned.exif'), exifOf(6));
  const exif = ['--exif', join(work, 'turned.exif')];
  await makeLargePicture(join(files, 'turned.kel'), 9216, 4096, ...exif);
  execFileSync(command, ['encode', '--quiet', ...exif, photo, join(files, 'small.kel')]);
  const context = await browser.newContext({
    viewport: {width: 390, height: 780},
    hasTouch: true,
    isMobile: true,
    colorScheme: 'dark',
  });
  const page = await context.newPage();
  await page.goto(`${url}?open=files/small.kel`);
  await page.waitForSelector('#arriving[data-done="complete"]');
  assert.equal(await page.locator('#picture').getAttribute('width'), '400');

  await page.goto(`${url}?open=files/turned.kel`);
  await page.waitForSelector('#viewer:not([hidden])');
  await viewerIsDone(page);
  await shot(page, 'turned-phone');
  assert.match(await text(page, 'viewer-line'), /^4096 × 9216 at/);
  const isRed = ([r, g, b]) => r > 180 && g < 70 && b < 70;
  const {width, height} = await page.locator('#view').boundingBox();
  const side = Math.min(width / 4096, height / 9216);
  const at = (x, y) =>
    pixelOf(page, 'view', 0.5 + ((x - 2048) * side) / width, 0.5 + ((y - 4608) * side) / height);
  assert.ok(isRed(await at(3600, 500)), 'the first corner of what is stored is seen at the right');
  for (const [x, y] of [
    [500, 500],
    [500, 8700],
    [3600, 8700],
  ]) {
    assert.ok(!isRed(await at(x, y)), `${x} ${y}`);
  }

  // Two fingers apart, then one that drags.
  const scale = async () => Number(/at ([\d.]+) %/.exec(await text(page, 'viewer-line'))[1]);
  const before = await scale();
  const touch = await context.newCDPSession(page);
  const send = (type, ...points) =>
    touch.send('Input.dispatchTouchEvent', {
      type,
      touchPoints: points.map(([x, y], id) => ({x, y, id})),
    });
  const box = await page.locator('#view').boundingBox();
  const [x, y] = [box.x + box.width / 2, box.y + box.height / 2];
  await send('touchStart', [x - 20, y], [x + 20, y]);
  for (let i = 1; i <= 5; ++i) await send('touchMove', [x - 20 - 12 * i, y], [x + 20 + 12 * i, y]);
  await send('touchEnd');
  await viewerIsDone(page);
  const ratio = (await scale()) / before;
  assert.ok(ratio > 3.6 && ratio < 4.4, `fingers four times as far apart: ${ratio}`);
  const seen = await pixelOf(page, 'view', 0.5, 0.4);
  await send('touchStart', [x, y]);
  for (let i = 1; i <= 4; ++i) await send('touchMove', [x, y + (0.1 * box.height * i) / 4]);
  await send('touchEnd');
  await viewerIsDone(page);
  const now = await pixelOf(page, 'view', 0.5, 0.5);
  assert.ok(
    seen.every((value, c) => Math.abs(value - now[c]) < 25),
    `what was above is in the middle: ${seen} ${now}`,
  );
  await context.close();
}

/** Everything that takes the focus or shows something has a name for those who do not see it. */
async function partsHaveNames(page) {
  const session = await page.context().newCDPSession(page);
  const {nodes} = await session.send('Accessibility.getFullAXTree');
  await session.detach();
  const named =
    /^(button|slider|checkbox|textbox|img|image|application|link|progressbar|Canvas|region)$/i;
  const found = nodes.filter(({ignored, role}) => !ignored && named.test(role?.value));
  const nameless = found.filter(({name}) => !name?.value);
  assert.deepEqual(nameless.map(({role}) => role.value), []);
  return found.map(({role, name}) => `${role.value}: ${name.value}`);
}

async function worksWithoutAMouse(page, url) {
  await page.goto(url);
  await partsHaveNames(page);
  const focused = () => page.evaluate(() => document.activeElement.id);
  const order = [];
  for (let i = 0; i < 4; ++i) {
    await page.keyboard.press('Tab');
    order.push((await focused()) || (await page.evaluate(() => document.activeElement.textContent)));
  }
  assert.deepEqual(order, ['file', 'url', 'Go', 'sample']);
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => document.getElementById('fact-psnr').textContent.includes('dB'));
  assert.ok((await partsHaveNames(page)).length >= 9);
  await page.locator('#split').focus();
  const split = () => page.locator('#pair').evaluate((pair) => pair.style.getPropertyValue('--split'));
  const middle = Number.parseFloat(await split());
  await page.keyboard.press('PageUp');
  assert.ok(Number.parseFloat(await split()) > middle);
  await page.locator('#quality').focus();
  await page.keyboard.press('Home');
  await page.waitForFunction(() => document.getElementById('facts').dataset.quality === '1');

  // A file dropped on the page, of a name that tells nothing.
  const bytes = [...readFileSync(join(files, 'small.kel'))];
  const dropped = await page.evaluateHandle((all) => {
    const transfer = new DataTransfer();
    transfer.items.add(new File([new Uint8Array(all)], 'dropped'));
    return transfer;
  }, bytes);
  await page.dispatchEvent('body', 'dragover', {dataTransfer: dropped});
  assert.ok(await page.evaluate(() => document.body.classList.contains('over')));
  await page.dispatchEvent('body', 'drop', {dataTransfer: dropped});
  await page.waitForSelector('#arriving[data-done="complete"]');
  assert.ok(!(await page.evaluate(() => document.body.classList.contains('over'))));
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
context.setDefaultTimeout(600000);
context.on('weberror', (event) => problems.push(event.error().message));
context.on('request', (request) => {
  if (!/^(http:\/\/localhost:|blob:|data:)/.test(request.url()))
    problems.push(`asks for ${request.url()}`);
});
try {
  const page = await context.newPage();
  await photosAreCodedAndCompared(page, url);
  await picturesRefineAsTheyArrive(page, url);
  await turnedPicturesAreSeenUpright(browser, url);
  await worksWithoutAMouse(page, url);
  await hugePicturesAreSeenInParts(page, url);
  await partsHaveNames(page);
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
  // Texts that do not fit: buttons, and the hint of the empty field.
  const cut = await page.evaluate(() =>
    [...document.querySelectorAll('button, .button, #url, .keys, output')]
      .filter((part) => part.offsetParent && part.scrollWidth > part.clientWidth + 2)
      .map((part) => part.id || part.textContent),
  );
  assert.deepEqual(cut, []);
  assert.deepEqual(problems, []);
  console.log('the page works');
} finally {
  await browser.close();
  server.close();
}
