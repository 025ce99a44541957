// VideoFrames of Chromium become frames of the Node client: copies of all kinds, and a whole take of
// Chromium's fake camera. Known colours in 4:2:0 come back from Chromium.
//
//   node frames_test.mjs HELPER CHROMIUM    client/node must be built

import assert from 'node:assert/strict';
import fs from 'node:fs';
import { after, test } from 'node:test';
import { frameId, startHelper, uptime } from '../../client/node/dist/esm/index.js';
import { folder, inFolder } from '../parent.mjs';
import { launch } from './browser.mjs';
import { assertColours, ffmpeg, showColours, streamOf, writeStripes } from './colours.mjs';

const [program, browserPath] = process.argv.slice(2);
const module = new URL('../../client/node/dist/esm/page.js', import.meta.url).href;
const browser = await launch(browserPath);
after(() => browser.close());
const page = await browser.newPage();
fs.writeFileSync(inFolder('page.html'), '<!doctype html><video muted></video>');
await page.goto(`file://${folder}/page.html`);

test('copies are tight and even; a frame of another format is an error with both names', async () => {
  const seen = await page.evaluate(async (module) => {
    const { copyVideoFrame } = await import(module);
    const bytes = Uint8Array.from({ length: 96 }, (_, i) => i);
    // 8x6 with padded rows, of which 5x3 are visible.
    const frame = (format, planes, colorSpace, data = bytes) => new VideoFrame(new VideoFrame(data,
      { format, colorSpace, timestamp: 0, codedWidth: 8, codedHeight: 6,
        layout: planes.map(([offset, stride]) => ({ offset, stride })) }),
    { visibleRect: { x: 2, y: 2, width: 5, height: 3 } });
    const copy = (from, format, memory) => copyVideoFrame(from, format, memory).then(
      ({ size, pixels }) => [size.width, size.height, ...pixels].join(' '), (error) => `${error}`);
    const bt709 = { matrix: 'bt709', primaries: 'bt709', transfer: 'bt709', fullRange: true };
    const bt601 = { ...bt709, matrix: 'smpte170m', fullRange: false };
    const [nv12, told, untold] = [bt709, bt601, {}].map((space) => frame('NV12', [[0, 10], [60, 10]], space));
    const i420 = frame('I420', [[0, 10], [60, 5], [75, 5]], bt601);
    const i422 = frame('I422', [[0, 8], [48, 4], [72, 4]], bt709, new Uint8Array(96).fill(128));
    const memory = new Uint8Array(12);
    return [await copy(nv12, 'nv12,bt709,full', memory), memory.at(-1),
      await copy(i420, 'i420,bt601,limited'),
      await copy(i422, 'rgba,top'),
      await copy(i420, 'nv12,bt709,full'),
      await copy(i422, 'i420,bt601,limited'),
      await copy(untold, 'rgba,top') === await copy(told, 'rgba,top')];
  }, module);
  assert.deepEqual(seen, ['4 2 22 23 24 25 32 33 34 35 72 73 74 75', 75,
    '4 2 22 23 24 25 32 33 34 35 66 67 81 82',
    `4 2${' 128 128 128 255'.repeat(8)}`,
    'TypeError: the helper was started for nv12,bt709,full, and the VideoFrame is i420,bt601,limited',
    'TypeError: the helper was started for i420,bt601,limited, and the VideoFrame is I422 with the matrix bt709',
    true]);
});

async function startTake(context, format, options) {
  const helper = await startHelper({ program, format });
  context.after(() => helper.stop());
  return { helper, take: await helper.startTake({ path: inFolder(`${format}.mp4`), ...options }) };
}

test('a camera track becomes a take with its frames and its picture', async (context) => {
  let starting;
  await page.exposeFunction('feed', async (format, size, base64) => {
    const id = frameId(uptime());
    starting ??= startTake(context, format, { resolution: '640x360', targetFps: 30 });
    const { helper } = await starting;
    return helper.writeFrame(size, id, Buffer.from(base64, 'base64')).done;
  });
  const last = await page.evaluate(async (module) => {
    const { copyVideoFrame, videoFrameFormat } = await import(module);
    const video = { width: { exact: 640 }, height: { exact: 360 } };
    const [track] = (await navigator.mediaDevices.getUserMedia({ video })).getVideoTracks();
    const answers = [];
    let [format, rgba, unanswered] = [undefined, undefined, 0];
    for await (const frame of new MediaStreamTrackProcessor({ track }).readable) {
      if (unanswered < 2) {
        format ??= videoFrameFormat(frame);
        const { size, pixels } = await copyVideoFrame(frame, format);
        rgba = await copyVideoFrame(frame, 'rgba,top');
        unanswered += 1;
        answers.push(globalThis.feed(format, size, pixels.toBase64()).then(() => { unanswered -= 1; }));
      }
      frame.close();
      if (answers.length === 40) break;
    }
    await Promise.all(answers);
    track.stop();
    return rgba.pixels.toBase64();
  }, module);
  const { path, frames } = await (await starting).take.stop();
  const movie = ffmpeg('-xerror', '-i', path, '-fps_mode', 'passthrough', '-pix_fmt', 'rgba', '-f', 'rawvideo', '-');
  const wanted = Buffer.from(last, 'base64');
  assert.ok(frames > 35, `${frames} of 40`);
  assert.equal(movie.length, frames * wanted.length);
  const difference = movie.subarray(-wanted.length).reduce((sum, value, i) => sum + Math.abs(value - wanted[i]), 0);
  assert.ok(difference / wanted.length < 3, `${difference}`);
});

for (const format of ['nv12', 'nv12,bt601,full', 'nv12,bt709,limited', 'nv12,bt709,full']) {
  test(`colours in ${format} come back`, async (context) => {
    const [, matrix = 'bt601', range = 'limited'] = format.split(',');
    writeStripes(inFolder('stripes.ppm'));
    const pixels = ffmpeg('-i', inFolder('stripes.ppm'), '-vf', 'scale=1080:720:flags=neighbor,' +
      `scale=out_color_matrix=${matrix}:out_range=${range}:flags=accurate_rnd+full_chroma_int`,
    '-pix_fmt', 'nv12', '-f', 'rawvideo', '-');
    const { helper, take } = await startTake(context, format);
    for (let id = 1; id <= 60; ++id) await helper.writeFrame({ width: 1080, height: 720 }, id, pixels).done;
    await take.stop();
    await page.evaluate((source) => new Promise((resolve, reject) => {
      const video = document.querySelector('video');
      Object.assign(video, { onseeked: resolve, onerror: reject, src: source, currentTime: 0.5 });
    }), `${format}.mp4`);
    assertColours(await showColours(page), `a video element, ${format}`, 3);
    assertColours(await showColours(page, streamOf(take.path)), `WebCodecs, ${format}`, 3);
  });
}
