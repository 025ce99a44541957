// The bytes of a camera's VideoFrame, and their format in the helper's words. Uses none of Node's
// modules.

import { formatChanged, invalid } from './errors.js';
import {
  encodingOf,
  isSameFormat,
  pictureBytes,
  type FrameEncoding,
  type FrameFormat,
  type FrameSize,
} from './frame_format.js';

interface Rectangle {
  x: number;
  y: number;
  width: number;
  height: number;
}

interface Plane {
  offset: number;
  stride: number;
}

/** The parts of WebCodecs' VideoFrame that this package uses. */
export interface CameraFrame {
  readonly format: string | null;
  readonly colorSpace: { readonly matrix: string | null; readonly fullRange: boolean | null };
  /** Null when the frame is closed. */
  readonly visibleRect: Readonly<Rectangle> | null;
  copyTo(
    target: Uint8Array,
    options: { rect: Rectangle; layout: Plane[]; format?: 'RGBA' },
  ): Promise<unknown>;
  close(): void;
}

/** A picture without padding. */
export interface Picture {
  size: FrameSize;
  pixels: Uint8Array;
}

/** `Uint8Array<ArrayBuffer>`, a body that `fetch` accepts. TypeScript before 5.7 can't spell it. */
export type Bytes = ReturnType<Uint8Array['slice']>;

export interface FrameCopy extends Picture {
  pixels: Bytes;
}

const rgb = new Map<string | null, FrameFormat>([
  ['RGBA', 'rgba,top'],
  ['RGBX', 'rgba,top'],
  ['BGRA', 'bgra,top'],
  ['BGRX', 'bgra,top'],
]);
const yuv = new Map<string | null, FrameEncoding>([
  ['NV12', 'nv12'],
  ['I420', 'i420'],
]);
const matrices = new Map([
  ['bt709', 'bt709'],
  ['smpte170m', 'bt601'],
  ['bt470bg', 'bt601'],
]);

/**
 * The format for `startHelper`; undefined if the helper does not accept such pictures. For NV12 and
 * I420, the format names BT.601 if the frame has no matrix, and limited range if it has no range.
 * Chromium assumes the same when it draws such a frame.
 */
export function videoFrameFormat({ format, colorSpace }: CameraFrame): FrameFormat | undefined {
  const encoding = yuv.get(format);
  const matrix = matrices.get(colorSpace.matrix ?? 'smpte170m');
  if (!encoding || !matrix) return rgb.get(format);
  return `${encoding},${matrix},${colorSpace.fullRange ? 'full' : 'limited'}`;
}

// The helper's sizes are even, and 4:2:0 can only be copied from even positions.
function evenPart({ x, y, width, height }: Readonly<Rectangle>): Rectangle {
  const [left, top] = [x + (x & 1), y + (y & 1)];
  return { x: left, y: top, width: (x + width - left) & ~1, height: (y + height - top) & ~1 };
}

function planesOf(encoding: FrameEncoding, { width, height }: FrameSize): Plane[] {
  const luma = { offset: 0, stride: width };
  const offset = width * height;
  const half = width / 2;
  if (encoding === 'nv12') return [luma, { offset, stride: width }];
  if (encoding !== 'i420') return [{ offset: 0, stride: width * 4 }];
  return [luma, { offset, stride: half }, { offset: offset * 1.25, stride: half }];
}

function memoryFor(bytes: number, reuse?: Bytes): Bytes {
  return reuse?.length === bytes ? reuse : new Uint8Array(bytes);
}

/** Copies a picture into `reuse` if that has the right length, else into new memory. */
export function copyPicture({ size, pixels }: Picture, reuse?: Bytes): FrameCopy {
  const copy = memoryFor(pixels.length, reuse);
  copy.set(pixels);
  return { size, pixels: copy };
}

/**
 * Copies the visible part of a frame, cut to even sides, into `reuse` if that has the right length,
 * else into new memory. `format` is the helper's. If it is `rgba,top`, the browser converts any
 * frame. If it is another format, the frame must have it; otherwise this rejects with the
 * ArgumentError `FORMAT_CHANGED`. Also rejects if the frame is closed.
 */
export async function copyVideoFrame(
  frame: CameraFrame,
  format: FrameFormat,
  reuse?: Bytes,
): Promise<FrameCopy> {
  if (!frame.visibleRect) throw invalid('the VideoFrame is closed');
  const own = videoFrameFormat(frame);
  const isOwn = own !== undefined && isSameFormat(own, format);
  if (!isOwn && format !== 'rgba,top') {
    const found = own ?? `${frame.format} with the matrix ${frame.colorSpace.matrix}`;
    throw formatChanged(format, found);
  }
  const rect = evenPart(frame.visibleRect);
  const { width, height } = rect;
  const encoding = encodingOf(format);
  const [bytes] = pictureBytes(encoding, rect);
  const pixels = memoryFor(bytes, reuse);
  const conversion = isOwn ? {} : { format: 'RGBA' as const };
  await frame.copyTo(pixels, { rect, layout: planesOf(encoding, rect), ...conversion });
  return { size: { width, height }, pixels };
}
