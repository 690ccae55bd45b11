// A Kel picture that refines while its bytes arrive.

import {Decoder} from './package/index.js';
import {formatBytes, formatTime, show} from './format.js';
import {uprightBitmap} from './orientation.js';

const $ = (id) => document.getElementById(id);
/** Bytes before the first look at the data; each later one waits for a quarter more than there was. */
const firstStep = 8192;

/** Draws an image as its orientation says. */
async function drawUpright(canvas, image) {
  const bitmap = await uprightBitmap(image);
  Object.assign(canvas, {width: bitmap.width, height: bitmap.height});
  canvas.getContext('2d').drawImage(bitmap, 0, 0);
  bitmap.close();
}

/** stream: pieces of the data; signal ends the work. */
export async function showArriving(stream, size, signal) {
  const decoder = new Decoder();
  const began = performance.now();
  let [waiting, waitingBytes, arrived, step, looks] = [[], 0, 0, 1024, 0];
  let state = {hasHeader: false, complete: false};
  show('arriving');
  $('picture').width = $('picture').height = 1;

  const look = async () => {
    const fed = arrived;
    const piece = new Uint8Array(waitingBytes);
    let at = 0;
    for (const chunk of waiting) {
      piece.set(chunk, at);
      at += chunk.length;
    }
    [waiting, waitingBytes] = [[], 0];
    state = await decoder.feed(piece);
    step = Math.max(firstStep, arrived / 4);
    if (!state.hasHeader || signal.aborted) return;
    const image = await decoder.image({format: 'rgba'});
    if (signal.aborted) return;
    const canvas = $('picture');
    await drawUpright(canvas, image);
    canvas.setAttribute('aria-label', `Picture of ${canvas.width} by ${canvas.height} pixels`);
    $('arriving').dataset.looks = ++looks;
    if (looks === 1) $('arriving').dataset.first = fed;
  };
  const tell = (text) => {
    $('arrived').value = size ? arrived / size : 0;
    $('arriving-line').value =
      `${formatBytes(arrived)}${size ? ` of ${formatBytes(size)}` : ''} in ${formatTime(performance.now() - began)}${text}`;
  };

  for (const name of ['done', 'looks', 'first']) delete $('arriving').dataset[name];
  try {
    const reader = stream.getReader();
    for (let next = await reader.read(); !next.done; next = await reader.read()) {
      if (signal.aborted) {
        await reader.cancel();
        return;
      }
      waiting.push(next.value);
      waitingBytes += next.value.length;
      arrived += next.value.length;
      if (waitingBytes >= step) await look();
      tell(state.hasHeader ? `, shown ${looks} times` : '');
    }
    if (waitingBytes > 0) await look();
    if (signal.aborted) return;
    tell(state.complete ? `, complete, refined ${looks} times` : ', the data end early');
    $('arrived').value = 1;
    $('arriving').dataset.done = state.complete ? 'complete' : 'incomplete';
    if (!state.hasHeader) throw new Error('the data end before the picture begins');
  } finally {
    await decoder.close();
  }
}
