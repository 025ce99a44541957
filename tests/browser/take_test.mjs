// A take as a browser sees it: the demo records one, Chromium plays and seeks it, also as the staging
// file that a killed helper leaves.
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

try {
  execFileSync(demo, [helper, folder, '3'], { stdio: 'ignore' });
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
