// The formats of frames. The helper ends when it gets a format or a picture length that it does not
// accept, so the checks here throw first. This file uses none of Node's modules, because a page
// uses it, too.

import { invalid } from './errors.js';

/** Pixels; both even. */
export interface FrameSize {
  width: number;
  height: number;
}

// For `mjpeg` this gives the largest length. If that is less than 64 KiB, 64 KiB are allowed.
const bitsPerPixel = {
  rgba: 32,
  bgra: 32,
  rgb24: 24,
  bgr24: 24,
  nv12: 12,
  nv21: 12,
  i420: 12,
  yuyv: 16,
  uyvy: 16,
  mjpeg: 16,
};

/** Planes and rows follow each other without padding. `mjpeg`: a frame is one JPEG picture. */
export type FrameEncoding = keyof typeof bitsPerPixel;

/**
 * An encoding, then at most one word of each pair below, separated by commas: `nv12,bt709,full`.
 * `top` or `bottom` says which row is first; the default is `bottom` for `rgba` and `bgra`, else
 * `top`. `nv12`, `nv21`, `i420`, `yuyv` and `uyvy` also take `bt601` (the default) or `bt709`, and
 * `limited` (the default) or `full`.
 */
export type FrameFormat = FrameEncoding | `${FrameEncoding},${string}`;

// A pair of words. A format has at most one of them. If it has neither, `standard` applies.
type Choice = [standard: string, other: string];
const colours: Choice[] = [
  ['bt601', 'bt709'],
  ['limited', 'full'],
];
const coloured = ['nv12', 'nv21', 'i420', 'yuyv', 'uyvy'];
const fromBottom = ['rgba', 'bgra'];

function choicesOf(encoding: FrameEncoding): Choice[] {
  const rows: Choice = fromBottom.includes(encoding) ? ['bottom', 'top'] : ['top', 'bottom'];
  return coloured.includes(encoding) ? [rows, ...colours] : [rows];
}

function isEncoding(word: string): word is FrameEncoding {
  return Object.hasOwn(bitsPerPixel, word);
}

/** Throws an ArgumentError for a format that the helper does not accept. */
export function encodingOf(format: FrameFormat): FrameEncoding {
  if (typeof format !== 'string') throw invalid('a frame format must be a string');
  const [encoding = '', ...words] = format.split(',');
  if (!isEncoding(encoding)) {
    const known = Object.keys(bitsPerPixel).join(', ');
    throw invalid(`the frame format "${format}" begins with none of ${known}`);
  }
  const pairs = choicesOf(encoding);
  const isKnown = words.every((word) => pairs.flat().includes(word));
  if (!isKnown || pairs.some((pair) => words.filter((word) => pair.includes(word)).length > 1)) {
    const choices = pairs.map((pair) => pair.join(' or ')).join('; ');
    const rule = `${encoding} takes at most one word of each pair: ${choices}`;
    throw invalid(`the frame format "${format}": ${rule}`);
  }
  return encoding;
}

function withEveryWord(format: FrameFormat): string {
  const encoding = encodingOf(format);
  const words = format.split(',');
  const chosen = choicesOf(encoding).map(([standard, other]) =>
    words.includes(other) ? other : standard,
  );
  return [encoding, ...chosen].join();
}

/** Whether both mean the same. Throws an ArgumentError unless the helper accepts both. */
export function isSameFormat(a: FrameFormat, b: FrameFormat): boolean {
  return withEveryWord(a) === withEveryWord(b);
}

/** The least and the most bytes of a picture. */
export function pictureBytes(
  encoding: FrameEncoding,
  { width, height }: FrameSize,
): [least: number, most: number] {
  const bytes = (width * height * bitsPerPixel[encoding]) / 8;
  return encoding === 'mjpeg' ? [2, Math.max(bytes, 65536)] : [bytes, bytes];
}

/** Throws an ArgumentError unless a picture can have so many bytes. */
export function checkLength(bytes: number, size: FrameSize, encoding: FrameEncoding): void {
  const [least, most] = pictureBytes(encoding, size);
  if (Number.isInteger(bytes) && bytes >= least && bytes <= most) return;
  const wanted = least === most ? least : `${least} to ${most}`;
  const picture = `${encoding} picture of ${size.width}x${size.height}`;
  throw invalid(`one ${picture} has ${wanted} bytes, not ${bytes}`);
}
