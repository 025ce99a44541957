// Runs the examples of the READMEs. Takes go into another folder than /videos. Stand-ins replace
// the camera, the page and the pause.

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import * as client from '../../client/node/dist/esm/index.js';
import { folder, inFolder } from '../parent.mjs';

const root = new URL('../../', import.meta.url);
fs.mkdirSync(inFolder('node_modules'));
fs.symlinkSync(new URL('client/node', root), inFolder('node_modules/lumora-video-client'));

const examplesOf = (readme) => [...fs.readFileSync(new URL(readme, root), 'utf8')
  .matchAll(/^```js\n(.*?)^```$/gms)].map(([, example]) => example);

let number = 0;
function run(example) {
  const path = inFolder(`example${number += 1}.mjs`);
  fs.writeFileSync(path, example.replace('/videos/', `${folder}/`)
    .replace('// ... some time later', 'await camera.stopped;'));
  return import(path);
}

function checkTake() {
  const take = inFolder('take.mp4');
  const decoding = `-v error -xerror -nostdin -i ${take} -vf setpts=N/60/TB -r 60 -f null -`;
  assert.equal(spawnSync('ffmpeg', decoding.split(' '), { encoding: 'utf8' }).stderr, '');
  fs.rmSync(take);
}

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

const [record, page, accept, send, show] = examplesOf('client/node/README.md');

test('the examples that record a take save a movie that decodes', async () => {
  for (const example of [...examplesOf('README.md'), record]) {
    await run(example);
    checkTake();
  }
});

test('the examples of a page show its camera as the preview', async () => {
  const [frames, preview] = [new MessageChannel(), new MessageChannel()];
  let [drawn, started] = [0];
  const starting = new Promise((resolve) => { started = resolve; });
  const picture = () => ({ format: 'I420', colorSpace: { matrix: null, fullRange: null },
    visibleRect: { x: 0, y: 0, width: 640, height: 360 },
    async copyTo(to) { to.fill(drawn); },
    close() {} });
  Object.assign(globalThis, client, {
    track: {},
    frames: frames.port2, port: frames.port1,
    preview: preview.port2, page: preview.port1,
    context: { drawImage: () => { drawn += 1; } },
    startHelper(options) {
      started(client.startHelper(options));
      return starting;
    },
    MediaStreamTrackProcessor: class {
      readable = new ReadableStream({ async pull(controller) {
        await sleep(16);
        if (drawn < 5) controller.enqueue(picture());
        else controller.close();
      } });
    },
    EncodedVideoChunk: class {
      constructor({ timestamp }) { this.timestamp = timestamp; }
    },
    VideoDecoder: class {
      constructor({ output }) { this.output = output; }
      configure({ codedWidth }) { this.width = codedWidth; }
      decode({ timestamp }) {
        assert.equal(this.width, 640);
        this.output({ timestamp, close() {} });
      }
    },
  });
  await run(accept);
  await run(show);
  const piping = run(page);
  globalThis.helper = await starting;
  const sending = run(send);
  await piping;
  await globalThis.helper.stop();
  await sending;
  for (const { port1 } of [frames, preview]) port1.close();
});
