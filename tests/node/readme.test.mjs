// Runs the JavaScript examples of the READMEs with three changes. Another folder replaces /videos, a
// stand-in replaces the camera, and an `await` replaces the comment "some time later".

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { folder, inFolder } from '../parent.mjs';

const root = new URL('../../', import.meta.url);
fs.mkdirSync(inFolder('node_modules'));
fs.symlinkSync(new URL('client/node', root), inFolder('node_modules/lumora-video-client'));

async function showGrey(onFrame) {
  for (let grey = 1; grey <= 60; grey += 1) {
    await sleep(16);
    onFrame((pixels) => pixels.fill(grey));
  }
}

globalThis.camera = {
  set onFrame(handle) { this.stopped = showGrey(handle); },
  on(_, handle) { this.onFrame = handle; },
};

test('each example saves a movie that decodes', async () => {
  const readmes = ['README.md', 'client/node/README.md'].map((name) => new URL(name, root));
  const text = readmes.map((url) => fs.readFileSync(url, 'utf8')).join('\n');
  const examples = [...text.matchAll(/^```js\n(.*?)^```$/gms)].map(([, example]) => example);
  assert.equal(examples.length, 2);
  for (const [i, example] of examples.entries()) {
    const program = inFolder(`example${i}.mjs`);
    fs.writeFileSync(program, example.replace('/videos/', `${folder}/`)
      .replace('// ... some time later', 'await camera.stopped;'));
    await import(program);
    const take = inFolder('take.mp4');
    const decoding = `-v error -xerror -nostdin -i ${take} -vf setpts=N/60/TB -r 60 -f null -`;
    assert.equal(spawnSync('ffmpeg', decoding.split(' '), { encoding: 'utf8' }).stderr, '');
    fs.rmSync(take);
  }
});
