// VideoFrames of Chromium's fake camera become a take. Takes play and seek in Chromium with their
// sound and colours, even failed takes and those of a killed helper.
//
//   node take_test.mjs HELPER DEMO CHROMIUM    client/node must be built

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { startHelper, uptime } from '../../client/node/dist/esm/index.js';
import { folder, inFolder } from '../parent.mjs';
import { browser } from './browser.mjs';

const [program, demo] = process.argv.slice(2);
const module = new URL('../../client/node/dist/esm/page.js', import.meta.url).href;
const page = await browser.newPage();
fs.writeFileSync(inFolder('page.html'), '<!doctype html><video muted></video>');
await page.goto(`file://${folder}/page.html`);

async function startTake(context, name, formats, options) {
  const helper = await startHelper({ program, ...formats });
  context.after(() => helper.stop());
  return { helper, take: await helper.startTake({ path: inFolder(name), ...options }) };
}

// Plays the movie and seeks to `time`. Returns the movie's duration, how many bytes of sound were
// decoded, and the picture at `time`, in RGBA.
async function show(path, time) {
  const { base64, ...seen } = await page.evaluate(async ([path, time]) => {
    const video = document.querySelector('video');
    const event = (wanted) => new Promise((resolve, reject) => {
      video[`on${wanted}`] = resolve;
      video.onerror = () => reject(new Error(video.error.message));
    });
    const loaded = event('loadeddata');
    video.src = path;
    await loaded;
    await video.play();
    while (video.currentTime < 0.3) await event('timeupdate');
    video.pause();
    const seeked = event('seeked');
    video.currentTime = time;
    await seeked;
    const { videoWidth: width, videoHeight: height } = video;
    const context = new OffscreenCanvas(width, height).getContext('2d');
    context.drawImage(video, 0, 0);
    const { data } = context.getImageData(0, 0, width, height);
    return { duration: video.duration, soundBytes: video.webkitAudioDecodedByteCount,
      base64: new Uint8Array(data.buffer).toBase64() };
  }, [path, time]);
  return { ...seen, pixels: Buffer.from(base64, 'base64') };
}

test('a camera track becomes a take that shows what the camera showed', async (context) => {
  let starting;
  await page.exposeFunction('feed', async (format, size, base64) => {
    const profile = { resolution: '640x360', targetFps: 30 };
    starting ??= startTake(context, 'camera.mp4', { format }, profile);
    return (await starting).helper.writeFrame(size, Buffer.from(base64, 'base64')).done;
  });
  const last = await page.evaluate(async (module) => {
    const { copyVideoFrame, videoFrameFormat } = await import(module);
    const video = { width: { exact: 640 }, height: { exact: 360 } };
    const [track] = (await navigator.mediaDevices.getUserMedia({ video })).getVideoTracks();
    let count = 0;
    for await (const frame of new MediaStreamTrackProcessor({ track }).readable) {
      const format = videoFrameFormat(frame);
      const { size, pixels } = await copyVideoFrame(frame, format);
      const rgba = await copyVideoFrame(frame, 'rgba,top');
      frame.close();
      await globalThis.feed(format, size, pixels.toBase64());
      if (++count === 40) return rgba.pixels.toBase64();
    }
  }, module);
  const { path, frames } = await (await starting).take.stop();
  assert.ok(frames > 35, `${frames} of 40`);
  const wanted = Buffer.from(last, 'base64');
  const { pixels, soundBytes } = await show(path, 99);
  assert.equal(soundBytes, 0);
  const difference = pixels.reduce((sum, value, i) => sum + Math.abs(value - wanted[i]), 0);
  assert.ok(pixels.length === wanted.length && difference / wanted.length < 3, `${difference}`);
});

const colours = [[255, 255, 255], [0, 255, 0], [0, 0, 255], [0, 0, 0], [90, 9, 9], [240, 128, 16]];
const stripe = (colour) => Buffer.alloc(180 * 4, Buffer.of(...colour, 255));
const stripes = Buffer.alloc(1080 * 720 * 4, Buffer.concat(colours.map(stripe)));
const endings = {
  'after it was stopped': async (helper, take) => assert.ok((await take.stop()).soundMissing < 0.2),
  'after its helper was killed': (helper) => process.kill(helper.pid, 'SIGKILL'),
  'after it failed and was kept': (helper) =>
    helper.writeFrame({ width: 540, height: 360 }, stripes.subarray(0, 540 * 360 * 4)),
};
for (const [name, end] of Object.entries(endings)) {
  test(`a take plays and seeks, with its sound and colours, ${name}`, async (context) => {
    const sound = { rate: 16000, channels: 1 };
    const formats = { format: 'rgba,top', sound };
    const { helper, take } = await startTake(context, `${name}.mp4`, formats, { sound: true });
    let heard = uptime();
    const saved = take.saved.then(({ path }) => path, ({ kept }) => kept?.path);
    for (let number = 1; number <= 200; number += 1) {
      await helper.writeFrame({ width: 1080, height: 720 }, stripes).done;
      await sleep(15);
      const noise = Int16Array.from({ length: (uptime() - heard) * sound.rate },
        (_, i) => i * 7919 % 2000);
      helper.writeSound(noise, heard);
      heard += noise.length / sound.rate;
    }
    await end(helper, take);
    // A killed helper leaves the file at `stagingPath`. Browsers play no file named "*.partial".
    const movie = (await saved) ?? take.path;
    if (fs.existsSync(take.stagingPath)) fs.renameSync(take.stagingPath, movie);
    const { pixels, duration, soundBytes } = await show(movie, 1.5);
    assert.ok(duration > 2 && soundBytes > 0, `${duration} s, ${soundBytes} bytes of sound`);
    assert.equal(pixels.length, stripes.length);
    for (let at = (360 * 1080 + 90) * 4; at < 361 * 1080 * 4; at += 180 * 4) { // inside each stripe
      const [seen, sent] = [pixels, stripes].map((all) => [...all.subarray(at, at + 3)]);
      assert.ok(seen.every((value, i) => Math.abs(value - sent[i]) <= 2), `${seen}, not ${sent}`);
    }
  });
}

test('the demo makes a take that plays and seeks', async () => {
  const { take, received, latency_median_ms: latency } =
    JSON.parse(execFileSync(demo, ['--json', program, inFolder('demo'), '3']));
  assert.equal(`${take.state} ${take.path} ${take.error}`, `saved ${inFolder('demo/demo.mp4')} `);
  assert.ok(take.frames > 0 && received > 0 && latency > 0, `${take.frames}, ${received}, ${latency}`);
  assert.ok(take.sound_missing < 0.1, `${take.sound_missing} s without sound`);
  const { duration, pixels } = await show(inFolder('demo/demo.mp4'), 1.5);
  assert.ok(duration > 2 && pixels.length === stripes.length, `${duration} s`);
});
