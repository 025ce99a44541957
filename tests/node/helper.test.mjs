// A parent, stream clients and the real helper, in good times and bad. ffmpeg judges the pictures.

import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { once } from 'node:events';
import { existsSync, mkdtempSync, readFileSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, test } from 'node:test';
import { setImmediate as turn } from 'node:timers/promises';
import { inspect } from 'node:util';
import { connectStream, startHelper } from '../../client/node/dist/esm/index.js';

const size = { width: 1080, height: 720 };
const [dark, bright] = [40, 200].map((grey) => Buffer.alloc(size.width * size.height * 4, grey));
const folder = mkdtempSync(join(tmpdir(), 'lumora-node-'));
after(() => rmSync(folder, { recursive: true }));

const sharesMemory = (pid) => spawnSync('ls', ['-l', `/proc/${pid}/fd`]).stdout.includes('lumora-frames');

const testBothWays = (name, run) => ['pipe', 'memory'].forEach((frames) =>
  test(`${name} (${frames})`, (context) => run(context, frames)));

async function helperFor(context, frames) {
  const helper = await startHelper({ stderr: 'ignore', frames });
  context.after(async () => {
    await helper.stop();
    assert.ok(!sharesMemory(process.pid));
  });
  return helper;
}

// The signal alone leaves the helper running for as long as a busy machine likes.
async function suspend({ pid }) {
  process.kill(pid, 'SIGSTOP');
  while (!readFileSync(`/proc/${pid}/stat`, 'latin1').includes(') T ')) await turn();
}

async function collect(events) {
  const all = [];
  for await (const event of events) all.push(event);
  return all;
}

async function feedUntil(helper, isEnough) {
  for (let id = 1; !isEnough(); ++id) await helper.writeFrame(size, id, id % 2 ? dark : bright).done;
}

// How many pictures a movie has. Each must be one of those fed, not the top of one and the bottom
// of another, which is what a slot looks like that is written while the helper reads it.
function countPictures(movie) {
  const bands = 8;
  const greys = execFileSync('ffmpeg', ['-v', 'error', '-xerror', '-i', movie, '-vf',
    `scale=1:${bands}:flags=area,setpts=N/60/TB`, '-r', '60', '-pix_fmt', 'gray', '-f', 'rawvideo', '-']);
  for (let at = 0; at < greys.length; at += bands) {
    const picture = [...greys.subarray(at, at + bands)];
    assert.ok(Math.max(...picture) - Math.min(...picture) < 16, picture.join());
  }
  return greys.length / bands;
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

testBothWays('a take is saved, two clients watch, the token is told to nobody', async (context, way) => {
  const helper = await helperFor(context, way);
  assert.equal(sharesMemory(helper.pid), way === 'memory');
  const events = helper.events();
  const take = await helper.startTake({ path: join(folder, `saved-${way}.mp4`) });
  let isSeen = false;
  const watching = Promise.all([watch(helper, 'automatic'), watch(helper, 'manual'), once(helper, 'stats')])
    .finally(() => { isSeen = true; });
  const [[automatic, manual]] = await Promise.all([watching, feedUntil(helper, () => isSeen)]);
  assert.ok(automatic === 60 && manual > 20 && manual <= 26, `${automatic}, ${manual}`);
  const { frames } = await take.stop();
  assert.ok(frames > 10, `${frames}`);
  const pictures = countPictures(take.path);
  assert.ok(pictures === frames || pictures === frames - 1); // the last may have come behind the stop
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
  const children = () => readFileSync(`/proc/self/task/${process.pid}/children`, 'latin1');
  const before = children();
  const abort = new AbortController();
  const starting = startHelper({ signal: abort.signal });
  while (children() === before) await turn(); // it is looked for, then launched
  abort.abort();
  await assert.rejects(starting, { name: 'AbortError' });
  assert.equal(children(), before);
});

testBothWays('the newest frame waits; a helper that hangs is killed', async (context, way) => {
  const helper = await helperFor(context, way);
  await suspend(helper);
  const outcomes = [1, 2, 3].map((id) => helper.writeFrame(size, id, dark).done);
  assert.equal(await outcomes[1], 'dropped');
  process.kill(helper.pid, 'SIGCONT');
  assert.deepEqual(await Promise.all(outcomes), ['written', 'dropped', 'written']);
  await suspend(helper);
  assert.deepEqual(await helper.stop(), { code: null, signal: 'SIGKILL' });
});

testBothWays('a helper killed in the middle of a frame ends the frame and the take', async (context, way) => {
  const helper = await helperFor(context, way);
  const take = await helper.startTake({ path: join(folder, `killed-${way}.mp4`) });
  await feedUntil(helper, () => existsSync(take.stagingPath));
  await suspend(helper);
  const outcomes = [1, 2].map((n) => helper.writeFrame(size, 1_000_000 + n, dark).done);
  const exit = once(helper, 'exit');
  process.kill(helper.pid, 'SIGKILL');
  const ends = await Promise.all(outcomes);
  if (way === 'pipe') assert.deepEqual(ends, ['dropped', 'dropped']); // memory may have had room
  assert.deepEqual(await exit, [{ type: 'exit', raw: '', code: null, signal: 'SIGKILL' }]);
  assert.deepEqual(await collect(helper.events()), await exit);
  assert.equal(helper.writeFrame(size, 2_000_000, dark).state, 'dropped');
  await assert.rejects(take.saved, { name: 'TakeError', message: /before the take was saved \(SIGKILL\)/ });
  await assert.rejects(helper.startTake({ path: take.path }), { name: 'TakeError' });
  assert.ok(existsSync(take.stagingPath));
});

testBothWays('a parent that throws while a take runs leaves a saved take', (context, way) => {
  const path = join(folder, `thrown-${way}.mp4`);
  const client = new URL('../../client/node/dist/esm/index.js', import.meta.url);
  const script = `import { startHelper } from '${client}';
    const pixels = Buffer.alloc(${dark.length});
    const helper = await startHelper({ frames: '${way}' });
    await helper.startTake({ path: '${path}' });
    helper.on('recording', ({ frames }) => { if (frames > 0) throw new Error('thrown in a take'); });
    for (let id = 1; ; ++id) await helper.writeFrame(${JSON.stringify(size)}, id, pixels).done;`;
  // Returns when both are gone: the helper has the same standard error.
  const { error, stderr } = spawnSync(process.execPath, ['--input-type=module', '-e', script], { timeout: 60_000 });
  assert.equal(error, undefined);
  assert.match(stderr.toString(), /thrown in a take/);
  assert.ok(countPictures(path) > 0);
});

testBothWays('1,000 frames at full speed: each is accounted for, none is kept', async (context, way) => {
  const helper = await helperFor(context, way);
  const outcomes = [];
  for (let id = 1; id <= 1000; ++id) {
    outcomes.push(helper.writeFrame(size, id, Buffer.from(dark)).done);
    await turn();
  }
  await Promise.all(outcomes);
  for (let i = 0; i < 3; ++i) await turn(gc()); // what is free is counted a turn later
  assert.ok(process.memoryUsage().arrayBuffers < 10 * dark.length);
  const { written, dropped } = helper.frames;
  assert.ok(dropped > 0 && written + dropped === 1000, `${written} + ${dropped}`);
  for await (const { droppedRaw, type } of helper.events()) {
    assert.notEqual(type, 'exit');
    if (droppedRaw === written) break; // it has them
  }
});
