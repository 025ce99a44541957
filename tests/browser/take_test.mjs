// Takes and preview in a browser. Chromium plays and seeks a take of the demo, and the staging file of a
// killed helper. Known colours come back from <video>, from WebCodecs and from ffmpeg.
//
//   node take_test.mjs HELPER DEMO CHROMIUM

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import fs from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';
import { folder, inFolder, launch } from './browser.mjs';

const [helper, demo, browserPath] = process.argv.slice(2);

async function recordAndKill() {
  const left = inFolder('killed');
  const run = spawn(demo, [helper, left, '20'], { stdio: 'ignore', detached: true });
  await sleep(4000);
  process.kill(-run.pid, 'SIGKILL');
  const staging = fs.readdirSync(left).find((name) => name.endsWith('.partial'));
  assert.ok(staging, 'no staging file');
  fs.renameSync(`${left}/${staging}`, inFolder('killed.mp4'));
}

// Plays and seeks the movie. Returns its size, its duration, and the range of red in one picture.
async function play(page, name) {
  return page.evaluate(async (source) => {
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
    const canvas = new OffscreenCanvas(video.videoWidth, video.videoHeight);
    const context = canvas.getContext('2d');
    context.drawImage(video, 0, 0);
    const { data } = context.getImageData(0, 0, canvas.width, canvas.height);
    const reds = data.filter((_, i) => i % 4 === 0).sort();
    return { width: canvas.width, height: canvas.height, duration: video.duration, least: reds[0], most: reds.at(-1) };
  }, name);
}

const colours = [[255, 255, 255], [255, 255, 0], [0, 255, 255], [0, 255, 0], [255, 0, 255], [255, 0, 0],
  [0, 0, 255], [0, 0, 0], [200, 30, 30], [90, 120, 200], [240, 128, 16], [128, 128, 128]];

function recordColours() {
  const [still, input] = [inFolder('stripes.ppm'), inFolder('stripes.mkv')];
  fs.writeFileSync(still, `P3 ${colours.length} 1 255 ${colours.flat().join(' ')}`);
  execFileSync('ffmpeg', ['-v', 'error', '-loop', '1', '-t', '2', '-i', still,
    '-vf', 'scale=1920:1080:flags=neighbor', '-c:v', 'ffv1', '-pix_fmt', 'bgr0', input]);
  execFileSync(demo, [helper, inFolder('colours'), '2'],
    { stdio: 'ignore', env: { ...process.env, INPUT: input } });
}

function assertColours(pixels, where) {
  const worst = Math.max(...colours.flatMap((colour, i) => colour.map((value, c) => Math.abs(value - pixels[i][c]))));
  assert.ok(worst <= 2, `${where}: ${JSON.stringify(pixels)}`);
  console.log(`Colours come back within ${worst} through ${where}`);
}

// The colours in the middle of the stripes. A decoder that ignores the tags assumes BT.709.
function decodeColours({ file, width, height }, options) {
  const picture = execFileSync('ffmpeg', ['-v', 'error', '-i', inFolder(file), ...options,
    '-frames:v', '1', '-f', 'rawvideo', '-'], { maxBuffer: 1 << 24 });
  return colours.map((_, i) => {
    const at = ((height >> 1) * width + Math.floor((i + 0.5) * width / colours.length)) * 3;
    return [...picture.subarray(at, at + 3)];
  });
}
const ignoringTags = ['-vf', 'setparams=colorspace=unknown:range=unknown,' +
  'scale=in_color_matrix=bt709:in_range=limited:flags=accurate_rnd+full_chroma_int+full_chroma_inp,format=rgb24'];
const usingTags = ['-sws_flags', 'accurate_rnd+full_chroma_int+full_chroma_inp', '-pix_fmt', 'rgb24'];

// The colours of the picture in the video element, or of the first picture of `stream`, by WebCodecs.
async function showColours(page, { stream, codec } = {}) {
  return page.evaluate(async ({ stream, codec, count }) => {
    const read = (picture, width, height) => {
      const context = new OffscreenCanvas(width, height).getContext('2d');
      context.drawImage(picture, 0, 0);
      return Array.from({ length: count }, (_, i) =>
        [...context.getImageData((i + 0.5) * width / count, height / 2, 1, 1).data].slice(0, 3));
    };
    const video = document.querySelector('video');
    if (!stream) return read(video, video.videoWidth, video.videoHeight);
    const bytes = Uint8Array.from(atob(stream), (c) => c.charCodeAt(0));
    let pixels;
    const decoder = new VideoDecoder({
      output: (frame) => { pixels = read(frame, frame.displayWidth, frame.displayHeight); frame.close(); },
      error: console.error,
    });
    decoder.configure({ codec });
    decoder.decode(new EncodedVideoChunk({ type: 'key', timestamp: 0, data: bytes }));
    await decoder.flush();
    return pixels;
  }, { stream, codec, count: colours.length });
}

// The stream's first access unit in Annex B: parameter sets and a key frame.
function firstAccessUnit(file) {
  const unit = execFileSync('ffmpeg', ['-v', 'error', '-i', file, '-c', 'copy', '-frames:v', '1', '-f', 'h264', '-']);
  return { stream: unit.toString('base64'), codec: `avc1.${unit.toString('hex', 5, 8)}` };
}

execFileSync(demo, [helper, folder, '3'], { stdio: 'ignore' });
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
const stream = { file: 'colours/preview.h264', width: 640, height: 360 };
await play(page, movie.file);
assertColours(await showColours(page), 'a video element');
assertColours(await showColours(page, firstAccessUnit(inFolder(stream.file))), 'WebCodecs');
for (const seen of [movie, stream]) {
  assertColours(decodeColours(seen, usingTags), `ffmpeg, ${seen.file}`);
  assertColours(decodeColours(seen, ignoringTags), `ffmpeg without tags, ${seen.file}`);
}
await browser.close();
