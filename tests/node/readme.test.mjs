// The README's example records a take: as it stands, but in another folder than /videos, and with a
// camera.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { folder, inFolder } from '../parent.mjs';

async function showGrey(onFrame) {
  for (let number = 1; number <= 60; number += 1) {
    await sleep(16);
    onFrame((pixels) => pixels.fill(number));
  }
}

globalThis.camera = {
  set onFrame(handle) {
    this.stopped = showGrey(handle);
  },
};

test('the example of the README', async () => {
  const readme = fs.readFileSync(new URL('../../README.md', import.meta.url), 'utf8');
  const [, example] = /^```js\n(.*?)^```$/ms.exec(readme);
  fs.writeFileSync(inFolder('example.mjs'), example.replace('/videos/', `${folder}/`));
  fs.mkdirSync(inFolder('node_modules'));
  const client = new URL('../../client/node', import.meta.url);
  fs.symlinkSync(client, inFolder('node_modules/lumora-video-client'));
  await import(inFolder('example.mjs'));
  const decoding = `-v error -xerror -nostdin -i ${inFolder('take.mp4')} -f null -`.split(' ');
  assert.equal(spawnSync('ffmpeg', decoding, { encoding: 'utf8' }).stderr, '');
});
