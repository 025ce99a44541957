// Chromium plays and seeks a take of the demo, and the staging file of a killed helper. Known colours
// come back from <video>, from WebCodecs and from ffmpeg.
//
//   node take_test.mjs HELPER DEMO CHROMIUM

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import fs from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';
import { folder, inFolder } from '../parent.mjs';
import { launch } from './browser.mjs';
import { assertColours, colours, ffmpeg, showColours, streamOf, writeStripes } from './colours.mjs';

const [helper, demo, browserPath] = process.argv.slice(2);
const record = (name, seconds, env) => execFileSync(demo, [helper, inFolder(name), seconds],
  { stdio: 'ignore', env: { ...process.env, ...env } });

async function recordAndKill() {
  const run = spawn(demo, [helper, inFolder('killed'), '20'], { stdio: 'ignore', detached: true });
  await sleep(4000);
  process.kill(-run.pid, 'SIGKILL');
  const staging = fs.readdirSync(inFolder('killed')).find((name) => name.endsWith('.partial'));
  fs.renameSync(inFolder(`killed/${staging}`), inFolder('killed.mp4'));
}

// Plays and seeks the movie. Returns its size, its duration, and the range of red in one picture.
const play = (page, name) => page.evaluate(async (source) => {
  const video = document.querySelector('video');
  const event = (wanted) => new Promise((resolve, reject) => {
    video.addEventListener(wanted, resolve, { once: true });
    video.addEventListener('error', () => reject(new Error(video.error.message)), { once: true });
  });
  const loaded = event('loadeddata');
  video.src = source;
  await loaded;
  await video.play();
  while (video.currentTime < 0.3) await event('timeupdate');
  video.pause();
  const seeked = event('seeked');
  video.currentTime = 1.5;
  await seeked;
  const { videoWidth: width, videoHeight: height, duration } = video;
  const context = new OffscreenCanvas(width, height).getContext('2d');
  context.drawImage(video, 0, 0);
  const { data } = context.getImageData(0, 0, width, height);
  const reds = data.filter((_, i) => i % 4 === 0).sort();
  return { width, height, duration, least: reds[0], most: reds.at(-1) };
}, name);

// Records vertical stripes of these colours.
function recordColours() {
  const [still, input] = [inFolder('stripes.ppm'), inFolder('stripes.mkv')];
  writeStripes(still);
  ffmpeg('-loop', '1', '-t', '2', '-i', still, '-vf', 'scale=1920:1080:flags=neighbor',
    '-c:v', 'ffv1', '-pix_fmt', 'bgr0', input);
  record('colours', '2', { INPUT: input });
}

// The colours in the middle of the stripes.
function decodeColours({ file, width, height }, options) {
  const picture = ffmpeg('-i', inFolder(file), ...options, '-frames:v', '1', '-f', 'rawvideo', '-');
  return colours.map((_, i) => {
    const at = ((height >> 1) * width + Math.floor((i + 0.5) * width / colours.length)) * 3;
    return [...picture.subarray(at, at + 3)];
  });
}
const exactly = 'accurate_rnd+full_chroma_int+full_chroma_inp';
const usingTags = ['-sws_flags', exactly, '-pix_fmt', 'rgb24'];
// As a decoder does that ignores the tags: it assumes BT.709.
const ignoringTags = ['-vf', 'setparams=colorspace=unknown:range=unknown,' +
  `scale=in_color_matrix=bt709:in_range=limited:flags=${exactly},format=rgb24`];

record('', '3');
recordColours();
await recordAndKill();
const browser = await launch(browserPath);
const page = await browser.newPage();
fs.writeFileSync(inFolder('player.html'), '<!doctype html><video muted></video>');
await page.goto(`file://${folder}/player.html`);
for (const name of ['demo.mp4', 'killed.mp4']) {
  const seen = await play(page, name);
  assert.ok(seen.width === 1080 && seen.height === 720 && seen.duration > 2 &&
    seen.least < 20 && seen.most > 230, JSON.stringify(seen));
  console.log(`Chromium plays and seeks ${name}: ${JSON.stringify(seen)}`);
}
const movie = { file: 'colours/demo.mp4', width: 1080, height: 720 };
const preview = { file: 'colours/preview.h264', width: 640, height: 360 };
await play(page, movie.file);
assertColours(await showColours(page), 'a video element');
assertColours(await showColours(page, streamOf(inFolder(preview.file))), 'WebCodecs');
for (const seen of [movie, preview]) {
  assertColours(decodeColours(seen, usingTags), `ffmpeg, ${seen.file}`);
  assertColours(decodeColours(seen, ignoringTags), `ffmpeg without tags, ${seen.file}`);
}
await browser.close();
