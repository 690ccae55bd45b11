/** Kel pictures in browsers and Node: decoded and encoded in a worker. */

/** How samples are delivered: one pixel after another as they were coded (colours, opacity last, one
 *  depth); as 8-bit RGBA for a canvas; or every plane by itself, with its own size and depth. */
export type Format = 'samples' | 'rgba' | 'planes';

/** A rectangle of the picture in its full size. */
export interface Region {
  x?: number;
  y?: number;
  width: number;
  height: number;
}

export interface DecodeOptions {
  region?: Region;
  /** Halvings of width and height. */
  reduce?: number;
  format?: Format;
  /** What is there instead of an error of kind 'incomplete'. */
  acceptIncomplete?: boolean;
}

export interface Plane {
  width: number;
  height: number;
  depth: number;
  role: 'colour' | 'opacity' | 'premultipliedOpacity' | 'other';
  /** Which colour it holds or applies to, from 1 on; 0: the whole image. */
  colour: number;
  xStep: number;
  yStep: number;
  data: Uint8Array | Uint16Array | Uint32Array;
}

export interface Description {
  colourSpace: 'unspecified' | 'srgb' | 'grey' | 'sycc' | 'cmyk' | 'cielab' | 'ciejab';
  /** As in EXIF, 1 to 8; 1 is upright. The samples are not turned. */
  orientation: number;
  /** Whether a colour profile comes with the picture. The samples are not converted. */
  hasProfile: boolean;
  /** Samples per inch. */
  resolution?: {x: number; y: number};
}

export interface Image<
  Data = Uint8Array | Uint16Array | Uint32Array | Uint8ClampedArray,
> extends Description {
  width: number;
  height: number;
  channels: number;
  depth: number;
  hasOpacity: boolean;
  /** Whether nothing was missing in the data. */
  complete: boolean;
  /** Of the formats samples and rgba. */
  data: Data;
  /** Of the format planes. */
  planes?: Plane[];
}

/** What can be encoded: an ImageData, or samples of 1 to 28 bits with their form. */
export interface Pixels {
  width: number;
  height: number;
  /** 4 when absent: red, green, blue, opacity. */
  channels?: 1 | 2 | 3 | 4;
  /** 8 when absent. */
  depth?: number;
  /** Whether the last of 2 or 4 channels is opacity, which is assumed when absent. */
  hasOpacity?: boolean;
  data: Uint8Array | Uint8ClampedArray | Uint16Array | Uint32Array;
}

export interface EncodeOptions {
  lossless?: boolean;
  /** 1 to 100; 60. */
  quality?: number;
  /** The best file of at most so many bytes. */
  maxBytes?: number;
  tileWidth?: number;
  tileHeight?: number;
}

export interface Encoded {
  data: Uint8Array;
  /** The quality used; 0 when lossless. */
  quality: number;
  trials: number;
}

export class KelError extends Error {
  kind: 'input' | 'incomplete' | 'output' | 'memory' | 'parameter';
}

export interface StartOptions {
  /** Bytes that the library may hold; 1 GiB. */
  memoryLimit?: number;
  /** Whether to use the module with vectors; as the engine allows when absent. */
  vectors?: boolean;
}

/** A worker with the library, for programs that want several, or a limit of their own. */
export class Kel {
  static start(options?: StartOptions): Promise<Kel>;
  decode(
    bytes: Uint8Array | ArrayBuffer,
    options: DecodeOptions & {format: 'rgba'},
  ): Promise<Image<Uint8ClampedArray>>;
  decode(bytes: Uint8Array | ArrayBuffer, options?: DecodeOptions): Promise<Image>;
  encode(image: Pixels | ImageData, options?: EncodeOptions): Promise<Encoded>;
  open(source: string | URL | Blob | Uint8Array, options?: {cacheBytes?: number}): Promise<Picture>;
  memory(): Promise<{held: number; most: number}>;
  end(): void;
}

/** A picture of which only the bytes are fetched that a region needs. */
export class Picture implements Description {
  readonly width: number;
  readonly height: number;
  readonly tilesAcross: number;
  readonly tilesDown: number;
  readonly tileWidth: number;
  readonly tileHeight: number;
  /** Halvings that can be asked for. */
  readonly levels: number;
  readonly channels: number;
  readonly depth: number;
  readonly colourSpace: Description['colourSpace'];
  readonly orientation: number;
  readonly hasProfile: boolean;
  readonly resolution?: {x: number; y: number};
  /** What was fetched, up to the last answer. */
  readonly statistics: {requests: number; bytes: number; size: number};
  decode(options?: DecodeOptions & {signal?: AbortSignal}): Promise<Image>;
  close(): Promise<void>;
}

export interface Progress {
  /** Whether image() has something to show. */
  hasHeader: boolean;
  /** Tiles that became better, and of which nothing more can come. */
  improvedTiles: number;
  completedTiles: number;
  complete: boolean;
}

/** Decodes data as they arrive. */
export class Decoder {
  constructor(kel?: Kel | Promise<Kel>);
  feed(chunk: Uint8Array | ArrayBuffer): Promise<Progress>;
  image(options?: {format?: Format}): Promise<Image>;
  close(): Promise<void>;
}

export function decode(bytes: Uint8Array | ArrayBuffer, options?: DecodeOptions): Promise<Image>;
export function encode(image: Pixels | ImageData, options?: EncodeOptions): Promise<Encoded>;
/** A URL whose server delivers ranges, or a Blob such as a file. */
export function open(
  source: string | URL | Blob | Uint8Array,
  options?: {cacheBytes?: number},
): Promise<Picture>;
/** Of two RGBA images, in decibels; Infinity when they are equal. */
export function psnr(a: ArrayLike<number>, b: ArrayLike<number>): number;
/** Whether this engine takes the module with vectors of 16 bytes. */
export function hasVectors(): boolean;
