// Feeds a moving picture for two seconds and records a take of it.
//
//   node record.mjs [FOLDER]

import { mkdtempSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { startHelper } from 'lumora-video-client';

const size = { width: 1280, height: 720 };
const framesPerSecond = 60;
const seconds = 2;

function paint(pixels, time) {
  const bytes = Buffer.from(pixels.buffer, pixels.byteOffset, pixels.length);
  for (let y = 0; y < size.height; ++y) {
    const colour = [y & 255, (y + time) & 255, (time * 4) & 255, 255];
    bytes.fill(Buffer.from(colour), y * size.width * 4, (y + 1) * size.width * 4);
  }
}

async function feed(helper) {
  const start = performance.now();
  for (let number = 1; number <= framesPerSecond * seconds; ++number) {
    const frame = helper.acquireFrame(size);
    if (frame) {
      paint(frame.pixels, number);
      helper.publish(frame);
    } // else the helper is behind: this picture is dropped
    await sleep(Math.max(0, start + (number * 1000) / framesPerSecond - performance.now()));
  }
}

const folder = resolve(process.argv[2] ?? mkdtempSync(join(tmpdir(), 'lumora-')));
const helper = await startHelper();
try {
  const path = join(folder, 'take.mp4');
  const profile = { resolution: '1080x720', targetFps: framesPerSecond };
  const take = await helper.startTake({ path, ...profile });
  await feed(helper);
  const saved = await take.stop();
  console.log(`${saved.path}: ${saved.frames} frames, ${saved.duration.toFixed(3)} s`);
} finally {
  await helper.stop();
}
