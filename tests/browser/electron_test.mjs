// The Electron example without Electron: its page in Chromium, its recorder in Node. Stand-ins for
// Electron's ports are between them. The whole example is compiled with TypeScript.
//
//   node electron_test.mjs HELPER CHROMIUM    client/node must be built

import assert from 'node:assert/strict';
import { execFileSync, fork, spawnSync } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import { after, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { folder, inFolder } from '../parent.mjs';
import { browser } from './browser.mjs';

const program = process.argv[2];
const pathOf = (name) => fileURLToPath(new URL(name, import.meta.url));
const client = pathOf('../../client/node');

// Copies the example and its packages to the folder `application`, and runs `tsc` there. Electron's
// package is only needed for its type declarations.
function build(application) {
  fs.cpSync(`${client}/example/electron`, application, { recursive: true });
  const modules = `${application}/node_modules`;
  fs.cpSync(pathOf('node_modules/electron'), `${modules}/electron`, { recursive: true });
  fs.cpSync(`${client}/dist`, `${modules}/lumora-video-client/dist`, { recursive: true });
  fs.copyFileSync(`${client}/package.json`, `${modules}/lumora-video-client/package.json`);
  for (const types of ['@types', 'undici-types']) {
    fs.symlinkSync(pathOf(`node_modules/${types}`), `${modules}/${types}`);
  }
  // This compiles only if `fetch` accepts the pixels of a frame sink.
  fs.writeFileSync(`${application}/fetch.mts`, `
    import type { FrameWriter } from 'lumora-video-client/page';
    export const write: FrameWriter = async ({ pixels: body }) =>
      (await fetch('/', { method: 'POST', body })).ok ? 'written' : 'dropped';`);
  const compiler = `${client}/node_modules/typescript/bin/tsc`;
  execFileSync(process.execPath, [compiler, '-p', application], { stdio: 'inherit' });
}

// Runs in the page and gives it the ports, in place of the preload script. Binary data passes
// between the page and this process as base64.
function connect(names) {
  const channels = names.map(() => new MessageChannel());
  const asText = (data) => {
    if (data instanceof Int16Array) return new Uint8Array(data.buffer).toBase64();
    return data.pixels ? { ...data, pixels: data.pixels.toBase64() } : data;
  };
  channels.forEach(({ port1 }, i) => {
    port1.onmessage = ({ data }) => globalThis.toRecorder(names[i], asText(data));
  });
  globalThis.fromRecorder = (name, data) => {
    for (const [object, key] of [[data.chunk, 'data'], [data.config, 'description']]) {
      if (object) object[key] = Uint8Array.fromBase64(object[key]);
    }
    channels[names.indexOf(name)].port1.postMessage(data);
  };
  window.postMessage('ports', '*', channels.map(({ port2 }) => port2));
}

function withText(data) {
  const text = (bytes) => Buffer.from(bytes).toString('base64');
  const { config, chunk } = data;
  if (!chunk) return data;
  return { chunk: { ...chunk, data: text(chunk.data) },
    config: config && { ...config, description: text(config.description) } };
}

test('the example shows its camera, records sound, and saves takes when told to stop and on quit', async () => {
  const application = inFolder('application');
  build(application);
  const recorder = fork(`${application}/recorder.js`, [folder], { serialization: 'advanced',
    execArgv: ['-r', pathOf('parent_port.cjs')],
    env: { ...process.env, LUMORA_VIDEO_PATH: program } });
  after(() => recorder.kill());
  let [drawn, written] = [0, 0];
  const page = await browser.newPage();
  page.on('pageerror', (error) => assert.fail(error));
  await page.exposeFunction('toRecorder', (name, data) => {
    if (data.pixels) data.pixels = new Uint8Array(Buffer.from(data.pixels, 'base64'));
    if (name === 'sound') data = new Int16Array(new Uint8Array(Buffer.from(data, 'base64')).buffer);
    if (name === 'preview') drawn += 1;
    if (recorder.connected) recorder.send({ name, data }, () => undefined); // it may be ending
  });
  await page.addInitScript(() => { // smaller pictures, since they travel as text
    const devices = navigator.mediaDevices;
    const open = devices.getUserMedia.bind(devices);
    const video = { width: 640, height: 360, frameRate: 30 };
    devices.getUserMedia = (wanted) => open(wanted.video ? { video } : wanted);
  });
  await page.goto(`file://${application}/page.html`);
  const passed = [];
  recorder.on('message', ({ name, data }) => {
    if (data.outcome === 'written') written += 1;
    const received = [name, withText(data)];
    passed.push(page.evaluate(([to, message]) => globalThis.fromRecorder(to, message), received));
  });
  await page.evaluate(connect, ['frames', 'sound', 'preview', 'commands']);
  recorder.send({ data: 'ports' });

  const colours = () => page.evaluate(() => {
    const { data } = document.querySelector('canvas').getContext('2d').getImageData(0, 0, 640, 360);
    return new Set(new Uint32Array(data.buffer)).size;
  });
  const record = async () => {
    await page.getByRole('button', { name: 'Record' }).click();
    await page.getByRole('button', { name: 'Stop' }).waitFor();
    // In 30 frames Chromium's fake microphone beeps twice.
    const [frames, pictures] = [written + 30, drawn + 1];
    while (written < frames || drawn < pictures) await once(recorder, 'message');
  };
  while (await colours() < 2); // an empty canvas has one
  await record();
  await page.getByRole('button', { name: 'Stop' }).click();
  const saved = await page.locator('#state', { hasText: 'frames' }).textContent();
  const [, path, frames] = /^(.*): (\d+) frames$/.exec(saved);
  assert.ok(frames > 10 && fs.statSync(path).size > 10_000, saved);
  const listening = `-nostdin -i ${path} -map 0:a -af volumedetect -f null -`;
  const { stderr } = spawnSync('ffmpeg', listening.split(' '), { encoding: 'utf8' });
  const [, loudest] = /max_volume: (\S+) dB/.exec(stderr) ?? [];
  assert.ok(loudest > -60, stderr); // silence has -91 dB
  await record();
  recorder.send({ data: 'quit' });
  assert.equal((await once(recorder, 'exit'))[0], 0);
  await Promise.all(passed);
  const takes = fs.readdirSync(folder).filter((name) => name.startsWith('take-'));
  assert.ok(takes.length === 2 && takes.every((name) => name.endsWith('.mp4')), `${takes}`);
});
