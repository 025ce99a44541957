// Makes the records that the helper reads from its standard input. Each has a header and a payload:
// a picture, a command or sound. A malformed record would end the helper, so the checks here throw
// first. The header is big-endian. For a command, width, height and frame id are 0. For sound,
// width and height are 0, and the samples are little-endian.
//
//   0        4       6        8          16
//   +--------+-------+--------+----------+---------
//   | length | width | height | frame id | payload
//   +--------+-------+--------+----------+---------

import { invalid } from './errors.js';
import { checkLength, type FrameEncoding, type FrameSize } from './frame_format.js';
import type { SoundFormat } from './sound.js';

const headerBytes = 16;
const maximumSide = 1920;
const maximumShorterSide = 1080;
const maximumId = 2n ** 64n - 1n;
const maximumCommandBytes = 4096;

/** Ids are above 0 and grow from frame to frame. A number must be a safe integer. */
export type FrameId = number | bigint;

export type Pixels = Uint8Array | Uint8ClampedArray;

function isSide(value: number): boolean {
  return Number.isInteger(value) && value % 2 === 0 && value >= 2 && value <= maximumSide;
}

/** Throws an ArgumentError for a size that the helper does not accept. */
export function checkSize({ width, height }: FrameSize): void {
  if (!isSide(width) || !isSide(height) || Math.min(width, height) > maximumShorterSide) {
    throw invalid(`the helper does not accept frames of ${width}x${height}`);
  }
}

/** Returns a Buffer over the memory of `pixels`. Throws unless it has the length of one picture. */
export function pixelBytes(pixels: Pixels, size: FrameSize, encoding: FrameEncoding): Buffer {
  if (!(pixels instanceof Uint8Array || pixels instanceof Uint8ClampedArray)) {
    throw invalid('pixels must be a Uint8Array or a Uint8ClampedArray');
  }
  const { buffer, byteOffset, byteLength } = pixels;
  checkLength(byteLength, size, encoding);
  return Buffer.from(buffer, byteOffset, byteLength);
}

/** Throws unless `id` is above `last`. */
export function checkedId(id: FrameId, last: bigint): bigint {
  if (typeof id !== 'bigint' && !Number.isSafeInteger(id)) {
    throw invalid('a frame id must be a safe integer or a bigint');
  }
  const value = BigInt(id);
  if (value <= last || value > maximumId) {
    throw invalid(`frame id ${value} must be above ${last} and fit 64 bits`);
  }
  return value;
}

export function recordHeader(length: number, { width, height }: FrameSize, id: bigint): Buffer {
  const bytes = Buffer.alloc(headerBytes);
  bytes.writeUInt32BE(length, 0);
  bytes.writeUInt16BE(width, 4);
  bytes.writeUInt16BE(height, 6);
  bytes.writeBigUInt64BE(id, 8);
  return bytes;
}

/**
 * Returns the records of this sound, two buffers each (header, samples), and the id of the last
 * record. A record has at most a quarter of a second. `first` is the capture time of the first
 * sample, in microseconds of uptime. `last` is the id of the last record made before these. A
 * record's id is the capture time of its first sample, but at least one more than the id of the
 * previous record.
 */
export function soundRecords(
  samples: Int16Array,
  { rate, channels }: SoundFormat,
  first: number,
  last: bigint,
): { records: Buffer[]; last: bigint } {
  const most = Math.floor(rate / 4) * channels;
  const records = [];
  for (let at = 0; at < samples.length; at += most) {
    const part = samples.subarray(at, at + most);
    const id = BigInt(first + Math.floor(((at / channels) * 1e6) / rate));
    last = id > last ? id : last + 1n;
    const bytes = Buffer.alloc(part.byteLength);
    part.forEach((sample, i) => bytes.writeInt16LE(sample, i * 2));
    records.push(recordHeader(bytes.length, { width: 0, height: 0 }, last), bytes);
  }
  return { records, last };
}

export function commandRecord(command: object): Buffer {
  const json = Buffer.from(JSON.stringify(command));
  if (json.length > maximumCommandBytes) {
    throw invalid(`a command has at most ${maximumCommandBytes} bytes`);
  }
  return Buffer.concat([recordHeader(json.length, { width: 0, height: 0 }, 0n), json]);
}
