// Known colours in vertical stripes: how they are made, and how they come back.

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';

export const ffmpeg = (...all) => execFileSync('ffmpeg', ['-v', 'error', ...all], { maxBuffer: 1 << 26 });

export const colours = [[255, 255, 255], [255, 255, 0], [0, 255, 255], [0, 255, 0], [255, 0, 255],
  [255, 0, 0], [0, 0, 255], [0, 0, 0], [200, 30, 30], [90, 120, 200], [240, 128, 16], [128, 128, 128]];

// One pixel for each colour, as a PPM file.
export const writeStripes = (file) =>
  fs.writeFileSync(file, `P3 ${colours.length} 1 255 ${colours.flat().join(' ')}`);

export function assertColours(pixels, where, most = 2) {
  const worst = Math.max(...colours.flat().map((value, i) => Math.abs(value - pixels.flat()[i])));
  assert.ok(worst <= most, `${where}: ${JSON.stringify(pixels)}`);
  console.log(`Colours come back within ${worst} through ${where}`);
}

// The first access unit, which is parameter sets and a key frame, for `showColours`.
export function streamOf(file) {
  const unit = ffmpeg('-i', file, '-c', 'copy', '-frames:v', '1', '-f', 'h264', '-');
  const profile = unit.indexOf(Buffer.from([0, 0, 1, 0x67])) + 4;  // in the sequence parameter set
  return { stream: unit.toString('base64'), codec: `avc1.${unit.toString('hex', profile, profile + 3)}` };
}

// The colours in the video element, or in the first picture of `stream`, as WebCodecs decodes it.
export const showColours = (page, { stream, codec } = {}) => page.evaluate(async ({ stream, codec, count }) => {
  const read = (picture, width, height) => {
    const context = new OffscreenCanvas(width, height).getContext('2d');
    context.drawImage(picture, 0, 0);
    return Array.from({ length: count }, (_, i) =>
      [...context.getImageData((i + 0.5) * width / count, height / 2, 1, 1).data].slice(0, 3));
  };
  const video = document.querySelector('video');
  if (!stream) return read(video, video.videoWidth, video.videoHeight);
  let pixels;
  const decoder = new VideoDecoder({
    output: (frame) => { pixels = read(frame, frame.displayWidth, frame.displayHeight); frame.close(); },
    error: console.error,
  });
  decoder.configure({ codec });
  const data = Uint8Array.from(atob(stream), (c) => c.charCodeAt(0));
  decoder.decode(new EncodedVideoChunk({ type: 'key', timestamp: 0, data }));
  await decoder.flush();
  return pixels;
}, { stream, codec, count: colours.length });
