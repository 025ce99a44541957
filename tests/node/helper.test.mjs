// A parent, stream clients and the real helper, in good times and bad. ffprobe judges the pictures.

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { setImmediate as turn } from 'node:timers/promises';
import { inspect } from 'node:util';
import { connectStream, startHelper } from '../../client/node/dist/esm/index.js';

const size = { width: 1280, height: 720 };
const rgba = Buffer.alloc(size.width * size.height * 4, 120);
const folder = mkdtempSync(join(tmpdir(), 'lumora-node-'));
after(() => rmSync(folder, { recursive: true }));

async function helperFor(context) {
  const helper = await startHelper({ stderr: 'ignore' });
  context.after(() => helper.stop());
  return helper;
}

async function collect(events) {
  const all = [];
  for await (const event of events) all.push(event);
  return all;
}

async function feedUntil(helper, isEnough) {
  for (let id = 1; !isEnough(); ++id) await helper.writeFrame(size, id, rgba).done;
}

function countPictures(movie) {
  const counting = ['-v', 'error', '-count_frames', '-show_entries', 'stream=nb_read_frames'];
  return Number(execFileSync('ffprobe', [...counting, '-of', 'csv=p=0', movie]));
}

// How many of 60 frames a client gets that acknowledges all by itself or 20 by hand.
async function watch({ token, port }, acknowledgement) {
  const client = await connectStream({ port, token, acknowledgement });
  let frames = 0;
  for await (const { type, frameId, keyframe } of client) {
    if (type === 'configuration') continue;
    assert.ok(frames > 0 || keyframe);
    if (++frames === 60) break;
    if (frames <= 20 && acknowledgement === 'manual') client.acknowledge(frameId);
  }
  return frames;
}

test('a take is saved, two clients watch, the token is told to nobody', async (context) => {
  const helper = await helperFor(context);
  const events = helper.events();
  const take = await helper.startTake({ path: join(folder, 'saved.mp4') });
  let waiting = 3;
  const seen = () => { waiting -= 1; };
  const watching = ['automatic', 'manual'].map((kind) => watch(helper, kind).finally(seen));
  helper.once('stats', seen);
  const [, automatic, manual] = await Promise.all([feedUntil(helper, () => waiting === 0), ...watching]);
  assert.ok(automatic === 60 && manual > 20 && manual <= 26, `${automatic}, ${manual}`);
  const { frames } = await take.stop();
  assert.equal(countPictures(take.path), frames);
  await assert.rejects(helper.startTake({ path: take.path, resolution: '640x360' }),
    { name: 'TakeError', message: 'recording resolution or target frame rate is invalid' });
  const stranger = await connectStream({ port: helper.port, token: 'x'.repeat(16) });
  await assert.rejects(stranger[Symbol.asyncIterator]().next(), /token is wrong/);
  const told = [inspect(helper, { depth: 9, showHidden: true }), JSON.stringify(helper),
    readFileSync(`/proc/${helper.pid}/cmdline`, 'latin1')];
  assert.deepEqual(await helper.stop(), { code: 0, signal: null });
  const said = await collect(events);
  assert.equal(said.at(-1).type, 'exit');
  told.push(...said.map(({ raw }) => raw));
  assert.ok(told.some((text) => text.includes('"saved"')));
  assert.ok(told.every((text) => !text.includes(helper.token)));
});

test('a helper that cannot start says why', async (context) => {
  const { port } = await helperFor(context);
  const refused = (options, message) =>
    assert.rejects(startHelper({ stderr: 'ignore', ...options }), { name: 'StartError', message });
  await refused({ program: '/none' }, /"program".*\/none/);
  await refused({ program: '/bin/true' }, /ended at once \(status 0\)/);
  await refused({ port }, /status 1: video listener failed/);
  await assert.rejects(startHelper({ token: 'secret\0' }), (error) => !inspect(error).includes('secret'));
  const abort = new AbortController();
  const starting = startHelper({ signal: abort.signal });
  abort.abort();
  await assert.rejects(starting, { name: 'AbortError' });
});

test('a full pipe drops the frame that waits; a helper that hangs is killed', async (context) => {
  const helper = await helperFor(context);
  process.kill(helper.pid, 'SIGSTOP');
  const outcomes = [1, 2, 3].map((id) => helper.writeFrame(size, id, rgba).done);
  assert.equal(await outcomes[1], 'dropped');
  process.kill(helper.pid, 'SIGCONT');
  assert.deepEqual(await Promise.all(outcomes), ['written', 'dropped', 'written']);
  process.kill(helper.pid, 'SIGSTOP');
  assert.deepEqual(await helper.stop(), { code: null, signal: 'SIGKILL' });
});

test('a helper killed in the middle of a frame ends the frame and the take, no more', async (context) => {
  const helper = await helperFor(context);
  const take = await helper.startTake({ path: join(folder, 'killed.mp4') });
  await feedUntil(helper, () => existsSync(take.stagingPath));
  process.kill(helper.pid, 'SIGSTOP');
  const outcomes = [1, 2].map((n) => helper.writeFrame(size, 1_000_000 + n, rgba).done);
  const exit = once(helper, 'exit');
  process.kill(helper.pid, 'SIGKILL');
  assert.deepEqual(await Promise.all(outcomes), ['dropped', 'dropped']);
  assert.deepEqual(await exit, [{ type: 'exit', raw: '', code: null, signal: 'SIGKILL' }]);
  assert.deepEqual(await collect(helper.events()), await exit);
  assert.equal(helper.writeFrame(size, 2_000_000, rgba).state, 'dropped');
  await assert.rejects(take.saved, { name: 'TakeError', message: /before the take was saved \(SIGKILL\)/ });
  await assert.rejects(helper.startTake({ path: take.path }), { name: 'TakeError' });
  assert.ok(existsSync(take.stagingPath));
});

test('a parent that throws while a take runs leaves a saved take', async () => {
  const path = join(folder, 'thrown.mp4');
  const client = new URL('../../client/node/dist/esm/index.js', import.meta.url);
  const { width, height } = size;
  const script = `import { startHelper } from '${client}';
    const pixels = Buffer.alloc(${rgba.length});
    const helper = await startHelper();
    await helper.startTake({ path: '${path}' });
    helper.on('recording', ({ frames }) => { if (frames > 0) throw new Error('thrown in a take'); });
    for (let id = 1; ; ++id) await helper.writeFrame({ width: ${width}, height: ${height} }, id, pixels).done;`;
  const parent = spawn(process.execPath, ['--input-type=module', '--eval', script]);
  let words = '';
  parent.stderr.on('data', (bytes) => { words += bytes; });
  await once(parent, 'close'); // both are gone: the helper has the same standard error
  assert.match(words, /thrown in a take/);
  assert.ok(countPictures(path) > 0);
});

test('1,000 frames at full speed: each is accounted for, none is kept', async (context) => {
  const helper = await helperFor(context);
  const outcomes = [];
  const before = process.memoryUsage().rss;
  for (let id = 1; id <= 1000; ++id) {
    outcomes.push(helper.writeFrame(size, id, Buffer.from(rgba)).done);
    await turn();
  }
  await Promise.all(outcomes);
  assert.ok(process.memoryUsage().rss - before < 500e6); // all of them: 3.7 GB
  const { written, dropped } = helper.frames;
  assert.ok(dropped > 0 && written + dropped === 1000, `${written} + ${dropped}`);
  for await (const event of helper.events()) if (event.droppedRaw === written) break; // it has them
});
