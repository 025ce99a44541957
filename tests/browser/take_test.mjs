// A take as a browser and a second parser see it: the demo records one, mp4box.js reads its tables,
// Chromium plays and seeks it, also as the staging file that a killed helper leaves.
//
//   node take_test.mjs HELPER DEMO CHROMIUM

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import mp4box from 'mp4box';
import { chromium } from 'playwright-core';

const [helper, demo, browserPath] = process.argv.slice(2);
const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'lumora-browser-'));

function readTables(file) {
  const parser = mp4box.createFile();
  let info;
  parser.onReady = (ready) => { info = ready; };
  parser.onError = (module, message) => { throw new Error(`${module}: ${message}`); };
  const bytes = fs.readFileSync(file);
  const buffer = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.length);
  buffer.fileStart = 0;
  parser.appendBuffer(buffer);
  parser.flush();
  assert.ok(info, 'mp4box.js found no movie');
  return { info, samples: parser.getTrackSamplesInfo(info.tracks[0].id) };
}

function ffprobe(file) {
  const text = execFileSync('ffprobe', ['-v', 'error', '-of', 'json', '-show_streams', '-show_packets', file],
    { maxBuffer: 1 << 28 });
  const { streams, packets } = JSON.parse(text);
  return { stream: streams[0], packets };
}

// What the demo leaves, and what a helper leaves that was killed in the middle of a take.
function record() {
  execFileSync(demo, [helper, folder, '3'], { stdio: 'ignore' });
  return path.join(folder, 'demo.mp4');
}

async function recordAndKill() {
  const left = path.join(folder, 'killed');
  fs.mkdirSync(left);
  const run = spawn(demo, [helper, left, '20'], { stdio: 'ignore', detached: true });
  await new Promise((resolve) => setTimeout(resolve, 4000));
  process.kill(-run.pid, 'SIGKILL');
  const staging = fs.readdirSync(left).find((name) => name.endsWith('.partial'));
  assert.ok(staging, 'no staging file');
  const kept = path.join(folder, 'killed.mp4');
  fs.renameSync(path.join(left, staging), kept);
  return kept;
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

try {
  const movie = record();
  const { info, samples } = readTables(movie);
  const { stream, packets } = ffprobe(movie);
  assert.equal(info.isFragmented, false);
  assert.equal(info.timescale, 60000);
  assert.equal(info.tracks[0].codec.slice(0, 7), 'avc1.64');
  assert.equal(samples.length, packets.length);
  assert.equal(info.tracks[0].movie_duration, stream.duration_ts);
  samples.forEach((sample, i) => {
    assert.equal(sample.cts, packets[i].pts);
    assert.equal(sample.duration, packets[i].duration);
    assert.equal(sample.offset, Number(packets[i].pos));
    assert.equal(sample.size, Number(packets[i].size));
    assert.equal(sample.is_sync, packets[i].flags.startsWith('K'));
  });
  console.log(`mp4box.js and ffprobe agree on ${samples.length} samples`);

  await recordAndKill();
  const browser = await chromium.launch({
    executablePath: browserPath,
    args: ['--no-sandbox', '--allow-file-access-from-files', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
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
  await browser.close();
} finally {
  fs.rmSync(folder, { recursive: true });
}
