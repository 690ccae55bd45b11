// A server of files for this machine alone, which delivers byte ranges. Arguments: folder, port.
// For trials an address may ask for ?rate=BYTES, the most per second.

import {createReadStream} from 'node:fs';
import {stat} from 'node:fs/promises';
import {createServer} from 'node:http';
import {extname, join, normalize} from 'node:path';
import {argv} from 'node:process';
import {pipeline} from 'node:stream/promises';
import {setTimeout as sleep} from 'node:timers/promises';
import {pathToFileURL} from 'node:url';

const types = {
  '.css': 'text/css; charset=utf-8',
  '.html': 'text/html; charset=utf-8',
  '.jpg': 'image/jpeg',
  '.js': 'text/javascript; charset=utf-8',
  '.json': 'application/json',
  '.kel': 'image/x-kel',
  '.mjs': 'text/javascript; charset=utf-8',
  '.png': 'image/png',
  '.svg': 'image/svg+xml',
  '.wasm': 'application/wasm',
};

/** The first range of a header, within the size; null without one, undefined for one outside. */
function rangeOf(header, size) {
  const found = /^bytes=(\d*)-(\d*)/.exec(header ?? '');
  if (!found || (found[1] === '' && found[2] === '')) return null;
  const from = found[1] === '' ? Math.max(0, size - Number(found[2])) : Number(found[1]);
  const to = found[1] === '' || found[2] === '' ? size : Math.min(size, Number(found[2]) + 1);
  return from < to ? {from, to} : undefined;
}

async function sendSlowly(response, path, from, to, rate) {
  const stream = createReadStream(path, {
    start: from,
    end: to - 1,
    highWaterMark: Math.max(512, Math.floor(rate / 20)),
  });
  for await (const chunk of stream) {
    await sleep((1000 * chunk.length) / rate);
    if (response.destroyed) return;
    response.write(chunk);
  }
  response.end();
}

async function answer(root, request, response) {
  const url = new URL(request.url, 'http://localhost');
  let path = join(root, normalize(decodeURIComponent(url.pathname)));
  if (path.endsWith('/')) path += 'index.html';
  const found = await stat(path);
  if (!found.isFile()) throw new Error('not a file');
  const headers = {
    'Accept-Ranges': 'bytes',
    'Cache-Control': 'no-cache',
    'Content-Type': types[extname(path)] ?? 'application/octet-stream',
  };
  const range = rangeOf(request.headers.range, found.size);
  if (range === undefined) {
    response.writeHead(416, {'Content-Range': `bytes */${found.size}`}).end();
    return;
  }
  const {from, to} = range ?? {from: 0, to: found.size};
  headers['Content-Length'] = to - from;
  if (range) headers['Content-Range'] = `bytes ${from}-${to - 1}/${found.size}`;
  response.writeHead(range ? 206 : 200, headers);
  if (request.method === 'HEAD' || from === to) response.end();
  else if (url.searchParams.has('rate'))
    await sendSlowly(response, path, from, to, Number(url.searchParams.get('rate')));
  else await pipeline(createReadStream(path, {start: from, end: to - 1}), response);
}

/** Serves the folder; port 0 is any. Tells the server, which is closed by the caller. */
export function serve(root, port) {
  const server = createServer((request, response) => {
    answer(root, request, response).catch(() => {
      if (!response.headersSent) response.writeHead(404);
      response.end();
    });
  });
  return new Promise((resolve) => server.listen(port, 'localhost', () => resolve(server)));
}

if (argv[1] && import.meta.url === pathToFileURL(argv[1]).href) {
  const server = await serve(argv[2], Number(argv[3] ?? 8000));
  console.log(`http://localhost:${server.address().port}/`);
}
