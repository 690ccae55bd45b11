// A photo and what coding makes of it, side by side.

import {formatBytes, formatTime, show} from './format.js';

const $ = (id) => document.getElementById(id);
const context = (id) => $(id).getContext('2d', {willReadFrequently: id === 'original'});

export class Comparison {
  #worker = null;
  #ready = null;
  #original = null;
  #coded = null;
  #isBusy = false;
  #isStale = false;
  #name = 'picture';
  #fileBytes = 0;
  #address = null;
  #fail;

  constructor(fail) {
    this.#fail = fail;
    $('quality').addEventListener('input', () => this.#changed());
    $('lossless').addEventListener('change', () => this.#changed());
    $('show-difference').addEventListener('change', () => this.#showDifference());
    $('full-size').addEventListener('change', () => this.#fit());
    $('split').addEventListener('input', () => this.#split());
    addEventListener('resize', () => this.#fit());
  }

  #start() {
    this.#worker = new Worker(new URL('./coder.js', import.meta.url), {type: 'module'});
    return new Promise((resolve) => {
      this.#worker.onmessage = ({data}) => (data.ready ? resolve() : this.#receive(data));
      this.#worker.onerror = (event) => this.#fail(event.message);
    });
  }

  async open(bitmap, name, fileBytes) {
    this.#ready ??= this.#start();
    const {width, height} = bitmap;
    for (const id of ['original', 'coded', 'difference']) Object.assign($(id), {width, height});
    context('original').drawImage(bitmap, 0, 0);
    bitmap.close();
    const pixels = context('original').getImageData(0, 0, width, height);
    this.#original = null; // nothing is coded before the worker has it
    this.#coded = null;
    this.#name = name.replace(/\.\w+$/, '') || 'picture';
    this.#fileBytes = fileBytes;
    show('compare');
    this.#fit();
    this.#split();
    await this.#ready;
    this.#worker.postMessage({take: {width, height, data: pixels.data}});
    this.#original = pixels;
    this.#changed();
  }

  #fit() {
    const {width, height} = $('original');
    const stage = document.querySelector('#compare .stage');
    const scale = $('full-size').checked
      ? 1 / devicePixelRatio
      : Math.min(1, stage.clientWidth / width, stage.clientHeight / height);
    $('pair').style.width = `${Math.max(1, Math.floor(width * scale))}px`;
    $('original').style.width = '100%';
  }

  #split() {
    $('pair').style.setProperty('--split', `${$('split').value}%`);
  }

  #changed() {
    $('quality-value').value = $('lossless').checked ? 'all' : $('quality').value;
    $('quality').disabled = $('lossless').checked;
    this.#isStale = true;
    if (this.#original && !this.#isBusy) this.#code();
  }

  #code() {
    this.#isStale = false;
    this.#isBusy = true;
    $('compare').classList.add('busy');
    const options = {quality: Number($('quality').value), lossless: $('lossless').checked};
    this.#worker.postMessage({options, id: options});
  }

  #receive({answer, failure, id}) {
    this.#isBusy = false;
    $('compare').classList.remove('busy');
    if (failure) this.#fail(failure);
    else if (
      answer.image.width === this.#original.width &&
      answer.image.height === this.#original.height
    ) {
      this.#show(answer, id);
    }
    if (this.#isStale) this.#code();
  }

  #show({file, image, psnr, encodeTime, decodeTime}, options) {
    const {width, height} = image;
    this.#coded = new ImageData(image.data, width, height);
    context('coded').putImageData(this.#coded, 0, 0);
    const share = this.#fileBytes
      ? ` (${((100 * file.length) / this.#fileBytes).toFixed(0)} %)`
      : '';
    $('fact-size').textContent = formatBytes(file.length) + share;
    $('fact-size').dataset.bytes = file.length;
    $('fact-bits').textContent = ((8 * file.length) / (width * height)).toFixed(2);
    $('fact-psnr').textContent = psnr === Infinity ? 'identical' : `${psnr.toFixed(2)} dB`;
    $('fact-time').textContent = `${formatTime(encodeTime)} + ${formatTime(decodeTime)}`;
    $('fact-time').title = 'encoding and decoding';
    $('facts').dataset.quality = options.lossless ? 'lossless' : options.quality;
    if (this.#address) URL.revokeObjectURL(this.#address);
    this.#address = URL.createObjectURL(new Blob([file], {type: 'image/x-kel'}));
    $('download').href = this.#address;
    $('download').download = `${this.#name}.kel`;
    this.#showDifference();
  }

  #showDifference() {
    const isShown = $('show-difference').checked;
    $('difference').hidden = !isShown;
    $('pair').classList.toggle('differs', isShown);
    if (!isShown || !this.#coded) return;
    const {width, height, data} = this.#original;
    const coded = this.#coded.data;
    const shown = new Uint8ClampedArray(data.length);
    for (let i = 0; i < data.length; ++i) {
      shown[i] = i % 4 === 3 ? 255 : 128 + 8 * (coded[i] - data[i]);
    }
    context('difference').putImageData(new ImageData(shown, width, height), 0, 0);
  }
}
