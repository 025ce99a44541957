// The process that owns the helper. The page sends frames, sound and commands, and gets the
// preview.

import type { MessagePortMain } from 'electron';
import { join } from 'node:path';
import {
  acceptFrames,
  connectStream,
  sendPreview,
  startHelper,
  uptime,
  type FrameFormat,
  type Helper,
  type Take,
} from 'lumora-video-client';

const folder = process.argv.at(-1) as string;
const retryAfter = 250; // milliseconds
const sound = { rate: 48000, channels: 2 } as const; // as in page.mts
let running: { format: FrameFormat; helper: Promise<Helper> } | undefined;
let take: Take | undefined;
let hasSound = false; // whether the page has sent sound
let state = 'ready';
let page: MessagePortMain | undefined; // where the state goes

function tell(text: string): void {
  state = text;
  page?.postMessage(text);
}

const report = ({ code, message }: { code?: string; message: string }) =>
  tell(`${code}: ${message}`);

// The helper has one format for its whole run. A frame of another format starts another helper, as
// does a frame that comes after the helper has ended.
function helperFor(format: FrameFormat): Promise<Helper> {
  if (running?.format === format) return running.helper;
  // If the previous helper could not start, only the frames for that helper are rejected.
  const last = running?.helper.then((helper) => helper.stop()).catch(() => undefined);
  const options = { format, sound, stderr: (text: string) => console.error(text) };
  const helper = Promise.resolve(last).then(() => startHelper(options));
  running = { format, helper };
  const forget = () => {
    if (running?.helper === helper) running = undefined;
  };
  helper.then(({ exited }) => exited).then(forget, forget);
  return helper;
}

// Calls `sendPreview` at once, so that it hears if the page goes away while the helper starts.
function showPreview(helper: Promise<Helper>, target: MessagePortMain): Promise<void> {
  const client = helper.then(({ port, token }) =>
    connectStream({ port, token, acknowledgement: 'manual' }),
  );
  return sendPreview(client, target);
}

async function record(): Promise<void> {
  const helper = await running?.helper;
  if (!helper) return tell('no camera yet');
  const path = join(folder, `take-${Date.now()}.mp4`);
  const options = { path, resolution: '1920x1080', targetFps: 30, sound: hasSound } as const;
  take = await helper.startTake(options);
  tell('recording');
  const saved = await take.saved;
  tell(`${saved.path}: ${saved.frames} frames`);
}

// The last sample counts as captured now. No helper runs before the first frame, so earlier sound
// is dropped.
async function writeSound(samples: Int16Array): Promise<void> {
  const capturedAt = uptime() - samples.length / sound.channels / sound.rate;
  hasSound = true;
  const helper = await running?.helper.catch(() => undefined);
  helper?.writeSound(samples, capturedAt);
}

function connect([frames, sounds, preview, commands]: MessagePortMain[]): void {
  let isShown = false;
  acceptFrames(frames, (format) => {
    const helper = helperFor(format);
    if (!isShown) {
      isShown = true;
      // When a preview has ended, the first frame after `retryAfter` starts the next one.
      const retry = () => setTimeout(() => (isShown = false), retryAfter);
      void showPreview(helper, preview).catch(console.error).finally(retry);
    }
    return helper;
  });
  sounds.on('message', ({ data }) => void writeSound(data));
  sounds.start();
  commands.on('message', ({ data }) => {
    if (data === 'stop') void take?.stop();
    else record().catch(report);
  });
  commands.start();
  page = commands;
  tell(state); // a take goes on while the page is loaded again
}

async function quit(): Promise<void> {
  const helper = await running?.helper.catch(() => undefined);
  await helper?.stop();
  process.exit();
}

process.parentPort.on('message', ({ data, ports }) => {
  if (data === 'quit') void quit();
  else connect(ports);
});
