// Take and preview as a browser sees them: the demo records one, Chromium plays and seeks it, also as
// the staging file that a killed helper leaves; known colours come back from <video>, from WebCodecs
// and from ffmpeg.
//
//   node take_test.mjs HELPER DEMO CHROMIUM

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';

const [helper, demo, browserPath] = process.argv.slice(2);
const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'lumora-browser-'));

// What a helper leaves that was killed in the middle of a take.
async function recordAndKill() {
  const left = path.join(folder, 'killed');
  fs.mkdirSync(left);
  const run = spawn(demo, [helper, left, '20'], { stdio: 'ignore', detached: true });
  await new Promise((resolve) => setTimeout(resolve, 4000));
  process.kill(-run.pid, 'SIGKILL');
  const staging = fs.readdirSync(left).find((name) => name.endsWith('.partial'));
  assert.ok(staging, 'no staging file');
  fs.renameSync(path.join(left, staging), path.join(folder, 'killed.mp4'));
}

// Plays and seeks the movie; its size and duration and the brightness range of a picture within.
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
    let least = 255;
    let most = 0;
    for (let i = 0; i < data.length; i += 4) {
      least = Math.min(least, data[i]);
      most = Math.max(most, data[i]);
    }
    return { width: video.videoWidth, height: video.videoHeight, duration: video.duration, least, most };
  }, name);
}

const colours = [[255, 255, 255], [255, 255, 0], [0, 255, 255], [0, 255, 0], [255, 0, 255], [255, 0, 0],
  [0, 0, 255], [0, 0, 0], [200, 30, 30], [90, 120, 200], [240, 128, 16], [128, 128, 128]];

// A demo run on stripes of these colours.
function recordColours() {
  const stripes = Buffer.concat(colours.map((colour) => Buffer.from(colour)));
  fs.writeFileSync(path.join(folder, 'stripes.ppm'),
    Buffer.concat([Buffer.from(`P6 ${colours.length} 1 255\n`), stripes]));
  const input = path.join(folder, 'stripes.mkv');
  execFileSync('ffmpeg', ['-v', 'error', '-loop', '1', '-t', '2', '-i', path.join(folder, 'stripes.ppm'),
    '-vf', 'scale=1920:1080:flags=neighbor', '-c:v', 'ffv1', '-pix_fmt', 'bgr0', input]);
  execFileSync(demo, [helper, path.join(folder, 'colours'), '2'],
    { stdio: 'ignore', env: { ...process.env, INPUT: input } });
}

function assertColours(pixels, where) {
  const worst = Math.max(...colours.flatMap((colour, i) => colour.map((value, c) => Math.abs(value - pixels[i][c]))));
  assert.ok(worst <= 2, `${where}: ${JSON.stringify(pixels)}`);
  console.log(`Colours come back within ${worst} through ${where}`);
}

// The middle of every stripe. A reader that ignores the tags assumes BT.709.
function decodeColours(file, ...options) {
  const picture = execFileSync('ffmpeg', ['-v', 'error', '-i', file, ...options, '-frames:v', '1',
    '-f', 'rawvideo', '-'], { maxBuffer: 1 << 24 });
  const size = execFileSync('ffprobe', ['-v', 'error', '-show_entries', 'stream=width,height', '-of', 'csv=p=0', file]);
  const [width, height] = String(size).split(',').map(Number);
  return colours.map((_, i) => {
    const at = ((height >> 1) * width + Math.floor((i + 0.5) * width / colours.length)) * 3;
    return [...picture.subarray(at, at + 3)];
  });
}
const ignoringTags = ['-vf', 'setparams=colorspace=unknown:range=unknown,' +
  'scale=in_color_matrix=bt709:in_range=limited:flags=accurate_rnd+full_chroma_int+full_chroma_inp,format=rgb24'];
const usingTags = ['-sws_flags', 'accurate_rnd+full_chroma_int+full_chroma_inp', '-pix_fmt', 'rgb24'];

// From the first picture of a video element, or of a stream decoded by WebCodecs.
async function showColours(page, { movie, stream }) {
  return page.evaluate(async ({ movie, stream, count }) => {
    const read = (picture, width, height) => {
      const context = new OffscreenCanvas(width, height).getContext('2d');
      context.drawImage(picture, 0, 0);
      return Array.from({ length: count }, (_, i) =>
        [...context.getImageData((i + 0.5) * width / count, height / 2, 1, 1).data].slice(0, 3));
    };
    if (movie) {
      const video = document.querySelector('video');
      video.src = movie;
      const shown = new Promise((resolve) => video.requestVideoFrameCallback(resolve));
      await video.play();
      await shown;
      return read(video, video.videoWidth, video.videoHeight);
    }
    const bytes = Uint8Array.from(atob(stream), (c) => c.charCodeAt(0));
    let pixels;
    const decoder = new VideoDecoder({
      output: (frame) => { pixels = read(frame, frame.displayWidth, frame.displayHeight); frame.close(); },
      error: console.error,
    });
    const hex = [...bytes.subarray(5, 8)].map((byte) => byte.toString(16).padStart(2, '0')).join('');
    decoder.configure({ codec: `avc1.${hex}` });
    decoder.decode(new EncodedVideoChunk({ type: 'key', timestamp: 0, data: bytes }));
    await decoder.flush();
    return pixels;
  }, { movie, stream, count: colours.length });
}

// The stream's first access unit, a key frame behind its parameter sets; Annex B.
function firstAccessUnit(file) {
  const bytes = fs.readFileSync(file);
  const units = [];
  for (let at = 0; units.length < 4; at += 4) units.push(at = bytes.indexOf('00000001', at, 'hex'));
  return bytes.subarray(0, units[3]);
}

try {
  execFileSync(demo, [helper, folder, '3'], { stdio: 'ignore' });
  recordColours();
  await recordAndKill();
  const browser = await chromium.launch({
    executablePath: browserPath,
    args: ['--no-sandbox', '--allow-file-access-from-files', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync',
      // A GPU in software: without any, Chromium converts colours with seven bits, blue off by 12.
      '--use-gl=angle', '--use-angle=swiftshader', '--enable-unsafe-swiftshader', '--ignore-gpu-blocklist'],
  });
  const page = await browser.newPage();
  fs.writeFileSync(path.join(folder, 'player.html'), '<!doctype html><video muted></video>');
  await page.goto(`file://${folder}/player.html`);
  for (const name of ['demo.mp4', 'killed.mp4']) {
    const seen = await play(page, name);
    assert.equal(seen.width, 1080);
    assert.equal(seen.height, 720);
    assert.ok(seen.duration > 2 && seen.least < 20 && seen.most > 230, JSON.stringify(seen));
    console.log(`Chromium plays and seeks ${name}: ${JSON.stringify(seen)}`);
  }
  const [movie, stream] = ['colours/demo.mp4', 'colours/preview.h264'];
  assertColours(await showColours(page, { movie }), 'a video element');
  assertColours(await showColours(page, { stream: firstAccessUnit(path.join(folder, stream)).toString('base64') }),
    'WebCodecs');
  for (const file of [movie, stream]) {
    assertColours(decodeColours(path.join(folder, file), ...usingTags), `ffmpeg, ${file}`);
    assertColours(decodeColours(path.join(folder, file), ...ignoringTags), `ffmpeg without tags, ${file}`);
  }
  await browser.close();
} finally {
  fs.rmSync(folder, { recursive: true });
}
