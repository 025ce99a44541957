// What the helper reads from its standard input: records of a header and a payload. It ends at the
// first malformed one, so what would be malformed is refused here.
//
//   0        4       6        8          16
//   +--------+-------+--------+----------+---------
//   | length | width | height | frame id | payload       big-endian; a command's width,
//   +--------+-------+--------+----------+---------      height and id are 0
//
// The payload of a frame is its pixels or, where the helper shares memory with us, their offset
// there.

const headerBytes = 16;
const maximumSide = 1920;
const maximumShorterSide = 1080;
const maximumId = 2n ** 64n - 1n;
const maximumCommandBytes = 4096;

/** Pixels; both even. */
export interface FrameSize {
  width: number;
  height: number;
}

/** Above 0 and growing from frame to frame; numbers must be safe integers. */
export type FrameId = number | bigint;

export type Pixels = Uint8Array | Uint8ClampedArray;

/** A picture on its way to the helper. */
export interface Frame {
  size: FrameSize;
  id: bigint;
  pixels: Buffer;
}

function isSide(value: number): boolean {
  return Number.isInteger(value) && value % 2 === 0 && value >= 2 && value <= maximumSide;
}

/** Throws a RangeError when the helper takes no pictures of this size. */
export function checkSize({ width, height }: FrameSize): void {
  if (!isSide(width) || !isSide(height) || Math.min(width, height) > maximumShorterSide) {
    throw new RangeError(`a frame can't be ${width}x${height}`);
  }
}

/** The same memory as a Buffer; throws unless it is exactly one picture of this size. */
export function pixelBytes(rgba: Pixels, { width, height }: FrameSize): Buffer {
  if (!(rgba instanceof Uint8Array || rgba instanceof Uint8ClampedArray)) {
    throw new TypeError('pixels must be a Uint8Array or a Uint8ClampedArray');
  }
  const wanted = width * height * 4;
  if (rgba.byteLength !== wanted) {
    throw new RangeError(`${width}x${height} pixels are ${wanted} bytes, not ${rgba.byteLength}`);
  }
  return Buffer.from(rgba.buffer, rgba.byteOffset, rgba.byteLength);
}

/** Throws when `id` does not follow `last`. */
export function checkedId(id: FrameId, last: bigint): bigint {
  if (typeof id !== 'bigint' && !Number.isSafeInteger(id)) {
    throw new TypeError('a frame id must be a safe integer or a bigint');
  }
  const value = BigInt(id);
  if (value <= last || value > maximumId) {
    throw new RangeError(`frame id ${value} must be above ${last} and fit 64 bits`);
  }
  return value;
}

function header(length: number, { width, height }: FrameSize, id: bigint): Buffer {
  const bytes = Buffer.alloc(headerBytes);
  bytes.writeUInt32BE(length, 0);
  bytes.writeUInt16BE(width, 4);
  bytes.writeUInt16BE(height, 6);
  bytes.writeBigUInt64BE(id, 8);
  return bytes;
}

export function frameHeader(size: FrameSize, id: bigint): Buffer {
  return header(size.width * size.height * 4, size, id);
}

export function frameReference(size: FrameSize, id: bigint, offset: number): Buffer {
  const payload = Buffer.alloc(8);
  payload.writeBigUInt64BE(BigInt(offset));
  return Buffer.concat([header(payload.length, size, id), payload]);
}

export function commandRecord(command: object): Buffer {
  const json = Buffer.from(JSON.stringify(command));
  if (json.length > maximumCommandBytes) {
    throw new RangeError(`a command has at most ${maximumCommandBytes} bytes`);
  }
  return Buffer.concat([header(json.length, { width: 0, height: 0 }, 0n), json]);
}
