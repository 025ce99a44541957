import type { FrameSize } from './frame_format.js';
import { checkSize, pixelBytes, type Pixels } from './records.js';

/**
 * Flips an RGBA picture vertically. Writes into `target`, by default over the picture itself, and
 * returns `target`. Frames of the format `rgba` have the bottom row first. A picture with the top
 * row first needs no flip if the helper was started with `rgba,top`.
 */
export function flipRows<Memory extends Pixels>(
  rgba: Memory,
  size: FrameSize,
  target: Memory = rgba,
): Memory {
  checkSize(size);
  const from = pixelBytes(rgba, size, 'rgba');
  const to = pixelBytes(target, size, 'rgba');
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
