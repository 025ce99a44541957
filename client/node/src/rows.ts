import { checkSize, pixelBytes, type FrameSize, type Pixels } from './records.js';

/**
 * Flips a picture vertically, for cameras that deliver the top row first. Writes into `target`, which
 * may be `rgba`, and returns it.
 */
export function flipRows<Memory extends Pixels>(
  rgba: Memory,
  size: FrameSize,
  target: Memory = rgba,
): Memory {
  checkSize(size);
  const from = pixelBytes(rgba, size);
  const to = pixelBytes(target, size);
  const rowBytes = size.width * 4;
  const upper = Buffer.alloc(rowBytes);
  for (let top = 0; top < from.length / 2; top += rowBytes) {
    const bottom = from.length - rowBytes - top;
    from.copy(upper, 0, top, top + rowBytes);
    from.copy(to, top, bottom, bottom + rowBytes);
    upper.copy(to, bottom);
  }
  return target;
}
