// The page's own worker: codes the picture in hand at one quality after another, and compares.

import {psnr, start} from './package/core.js';

const core = await start();
let original = null;

function code(options) {
  const began = performance.now();
  const {data} = core.encode(original, options);
  const encoded = performance.now();
  const image = core.decode(data, {format: 'rgba'});
  const decoded = performance.now();
  return {
    file: data,
    image,
    psnr: psnr(original.data, image.data),
    encodeTime: encoded - began,
    decodeTime: decoded - encoded,
  };
}

onmessage = ({data: {take, options, id}}) => {
  try {
    if (take) original = take;
    else {
      const answer = code(options);
      postMessage({id, answer}, [answer.file.buffer, answer.image.data.buffer]);
    }
  } catch (failure) {
    postMessage({id, failure: failure.message});
  }
};
postMessage({ready: true});
