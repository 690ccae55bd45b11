// The page: what is dropped, chosen or addressed goes where it can be shown.

import {open} from './package/index.js';
import {showArriving} from './arriving.js';
import {Comparison} from './compare.js';
import {show} from './format.js';
import {Viewer} from './viewer.js';

const $ = (id) => document.getElementById(id);
/** Pictures of more pixels are not decoded whole. */
const mostPixels = 36e6;

function fail(message) {
  $('problem').textContent = message;
  $('problem').hidden = false;
}

const comparison = new Comparison(fail);
const viewer = new Viewer($('view'), $('viewer-line'), fail);
let current = new AbortController();

async function isKel(blob) {
  const first = new DataView(await blob.slice(0, 12).arrayBuffer());
  if (first.byteLength < 12) return false;
  return (
    [0x7765_6162, 0x6a50_2020].includes(first.getUint32(4)) ||
    [0xab4f_ab51, 0xff4f_ff51].includes(first.getUint32(0))
  );
}

async function openKel(source, signal) {
  const picture = await open(source);
  if (picture.width * picture.height > mostPixels) {
    show('viewer');
    viewer.open(picture);
    $('view').focus();
    return;
  }
  await picture.close();
  if (source instanceof Blob) {
    await showArriving(source.stream(), source.size, signal);
    return;
  }
  const answer = await fetch(source, {signal});
  if (!answer.ok)
    throw new Error(`${source} cannot be fetched: the server answers ${answer.status}`);
  await showArriving(answer.body, Number(answer.headers.get('Content-Length') ?? 0), signal);
}

async function openBlob(blob, name, signal) {
  if (await isKel(blob)) {
    await openKel(blob, signal);
    return;
  }
  let bitmap;
  try {
    bitmap = await createImageBitmap(blob, {colorSpaceConversion: 'default'});
  } catch {
    throw new Error(`${name} is no picture that this browser or Kel can read`);
  }
  await comparison.open(bitmap, name, blob.size);
}

/** Runs one opening, and ends what was opened before. */
async function begin(work) {
  current.abort();
  current = new AbortController();
  const {signal} = current;
  viewer.close();
  $('problem').hidden = true;
  try {
    await work(signal);
  } catch (failure) {
    if (!signal.aborted) fail(failure.message);
  }
}

function openFile(file) {
  return begin((signal) => openBlob(file, file.name, signal));
}

function openUrl(given) {
  return begin(async (signal) => {
    const url = new URL(given, location.href);
    if (!/\.(png|jpe?g|webp)$/i.test(url.pathname)) {
      await openKel(url.href, signal);
      return;
    }
    const answer = await fetch(url, {signal});
    if (!answer.ok)
      throw new Error(`${given} cannot be fetched: the server answers ${answer.status}`);
    await openBlob(await answer.blob(), url.pathname.split('/').at(-1), signal);
  });
}

$('file').addEventListener('change', () => {
  if ($('file').files.length > 0) openFile($('file').files[0]);
  $('file').value = '';
});
$('open').addEventListener('submit', (event) => {
  event.preventDefault();
  if ($('url').value.trim() !== '') openUrl($('url').value.trim());
});
$('sample').addEventListener('click', () => openUrl('sample.png'));
addEventListener('dragover', (event) => {
  event.preventDefault();
  document.body.classList.add('over');
});
addEventListener('dragleave', () => document.body.classList.remove('over'));
addEventListener('drop', (event) => {
  event.preventDefault();
  document.body.classList.remove('over');
  if (event.dataTransfer.files.length > 0) openFile(event.dataTransfer.files[0]);
});
$('zoom-in').addEventListener('click', () => viewer.zoom(2));
$('zoom-out').addEventListener('click', () => viewer.zoom(0.5));
$('zoom-fit').addEventListener('click', () => viewer.fit());
$('zoom-full').addEventListener('click', () => viewer.fullSize());

const asked = new URLSearchParams(location.search).get('open');
if (asked) openUrl(asked);
