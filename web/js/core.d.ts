/** The library without a worker: calls wait for their end. For programs with a worker of their own. */

import type {
  DecodeOptions,
  Description,
  Encoded,
  EncodeOptions,
  Format,
  Image,
  Pixels,
  Progress,
  StartOptions,
} from './index.js';

export {hasVectors, KelError, psnr} from './index.js';

/** Bytes [from, to). */
export interface ByteRange {
  from: number;
  to: number;
}

export interface PictureInfo extends Description {
  width: number;
  height: number;
  tilesAcross: number;
  tilesDown: number;
  tileWidth: number;
  tileHeight: number;
  levels: number;
  channels: number;
  depth: number;
}

export interface OpenPicture {
  readonly info: PictureInfo;
  /** Where a tile stands, whatever of it is needed. */
  placesOf(tile: number): ByteRange[];
  /** What of it a resolution needs. */
  bytesOf(tile: number, reduce?: number): ByteRange[];
  decode(options?: DecodeOptions): Image;
  close(): void;
}

export interface OpenDecoder {
  feed(chunk: Uint8Array | ArrayBuffer): Progress;
  image(options?: {format?: Format}): Image;
  close(): void;
}

/** Made by start. */
export class Core {
  private constructor();
  readonly memoryLimit: number;
  memory(): {held: number; most: number};
  decode(data: Uint8Array | ArrayBuffer, options?: DecodeOptions): Image;
  encode(image: Pixels | ImageData | Image, options?: EncodeOptions): Encoded;
  newDecoder(): OpenDecoder;
  /** fetch delivers the bytes from `from` up to `to` at once. */
  openPicture(
    source: {size: number; fetch: (from: number, to: number) => Uint8Array},
    options?: {cacheBytes?: number},
  ): OpenPicture;
}

/** module: compiled already, for other workers too. */
export function start(options?: StartOptions & {module?: WebAssembly.Module}): Promise<Core>;
/** The address of the module for this engine. */
export function moduleUrl(vectors?: boolean): URL;
