// A parent and stream clients with the real helper. ffmpeg decodes the movies.

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import { existsSync, readFileSync, statSync, utimesSync, writeFileSync } from 'node:fs';
import { test } from 'node:test';
import { setImmediate as turn, setTimeout as sleep } from 'node:timers/promises';
import { inspect } from 'node:util';
import { findProgram } from '../../client/node/dist/cjs/index.js';
import { connectStream, recoverTakes, startHelper, uptime }
  from '../../client/node/dist/esm/index.js';
import { folder, inFolder } from '../parent.mjs';

const size = { width: 1080, height: 720 };
const [dark, bright] = [40, 200].map((grey) => Buffer.alloc(size.width * size.height * 4, grey));
// `startHelper` must not pass on these values: a helper that gets one of them does not start.
Object.assign(process.env, { TAVO_FRAME_MEMORY: '99', TAVO_FRAME_FORMAT: 'none', TAVO_SOUND: 'x' });

async function helperFor(context, options) {
  const helper = await startHelper({ stderr: 'ignore', ...options });
  context.after(() => helper.stop());
  return helper;
}

// Waits until SIGSTOP takes effect, for 20 s at most. On a busy machine this takes a while.
async function stopped({ pid }) {
  const limit = { signal: AbortSignal.timeout(20_000) };
  while (!readFileSync(`/proc/${pid}/stat`, 'latin1').includes(') T ')) await sleep(1, null, limit);
}

async function suspend({ pid }) {
  process.kill(pid, 'SIGSTOP');
  await stopped({ pid });
}

async function feedUntil(helper, isEnough) {
  for (let number = 1; !isEnough(); ++number) {
    await helper.writeFrame(size, number % 2 === 0 ? bright : dark).done;
  }
}

// How many pictures the movie has. ffmpeg writes one byte for each.
const countPictures = (movie) => execFileSync('ffmpeg', ['-v', 'error', '-xerror', '-i', movie,
  '-vf', 'scale=1:1,setpts=N/60/TB', '-r', '60', '-pix_fmt', 'gray', '-f', 'rawvideo', '-']).length;

// How many frames a client gets, 60 at most. With 'manual' it acknowledges only the first 20.
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

test('a take is saved while two clients watch, and the token leaks nowhere', async (context) => {
  const helper = await helperFor(context);
  const events = helper.events();
  const take = await helper.startTake({ path: inFolder('saved.mp4') });
  let isSeen = false;
  const watching = Promise.all(['automatic', 'manual'].map((way) => watch(helper, way)))
    .finally(() => { isSeen = true; });
  const [[automatic, manual]] = await Promise.all([watching, feedUntil(helper, () => isSeen)]);
  assert.ok(automatic === 60 && manual > 20 && manual <= 26, `${automatic}, ${manual}`);
  const { framesInMovie } = await take.stop();
  assert.ok(framesInMovie > 10 && framesInMovie === countPictures(take.path), `${framesInMovie}`);
  await assert.rejects(helper.startTake({ path: take.path, resolution: '1x1' }),
    { name: 'TakeError', code: 'REFUSED' });
  const told = [inspect(helper, { depth: 9, showHidden: true }), JSON.stringify(helper),
    readFileSync(`/proc/${helper.pid}/cmdline`, 'latin1')];
  assert.deepEqual(await helper.stop(), { code: 0, signal: null });
  for await (const { raw } of events) told.push(raw); // `exit` is last, and its `raw` is empty
  assert.ok(told.some((text) => text.includes('"saved"')) && told.at(-1) === '');
  assert.ok(told.every((text) => !text.includes(helper.token)));
});

test('a helper that cannot start says why; an aborted start leaves no process', async (context) => {
  const { port } = await helperFor(context);
  const broken = inFolder('broken'); // the system can't execute it
  writeFileSync(broken, '#!/none', { mode: 0o755 });
  const talking = inFolder('talking');
  writeFileSync(talking, '#!/bin/sh\necho words >&2', { mode: 0o755 });
  let text = '';
  const stderr = (more) => { text += more; };
  for (const [options, code, exit] of [[{ program: '/none' }, 'PROGRAM_NOT_FOUND'],
    [{ program: broken }, 'NOT_STARTED'],
    [{ program: talking, stderr }, 'ENDED', { code: 0, signal: null }],
    [{ port }, 'ENDED', { code: 1, signal: null, error: 'video listener failed' }]]) {
    await assert.rejects(startHelper({ stderr: 'ignore', ...options }),
      { name: 'StartError', code, exit });
  }
  assert.equal(text, 'words\n');
  await assert.rejects(findProgram(undefined, { PATH: '/none' }), { code: 'PROGRAM_NOT_FOUND' });
  await assert.rejects(startHelper({ token: 'hidden\0' }), (why) => !/hidden/.test(inspect(why)));
  const children = () => readFileSync(`/proc/self/task/${process.pid}/children`, 'latin1');
  const before = children();
  const abort = new AbortController();
  const starting = startHelper({ signal: abort.signal });
  while (children() === before) await turn(); // until it is launched
  abort.abort();
  await assert.rejects(starting, { name: 'AbortError' });
  assert.equal(children(), before);
});

test('if the helper is killed, frames are dropped and the take fails but is recovered', async (context) => {
  const helper = await helperFor(context);
  const { path, stagingPath, saved } = await helper.startTake({ path: inFolder('killed.mp4') });
  await feedUntil(helper, () => existsSync(stagingPath) && statSync(stagingPath).size > 5000);
  await suspend(helper);
  const outcomes = [1, 2].map(() => helper.writeFrame(size, dark).done);
  const exit = once(helper, 'exit');
  process.kill(helper.pid, 'SIGKILL');
  assert.deepEqual(await Promise.all(outcomes), ['dropped', 'dropped']);
  assert.deepEqual(await exit, [{ type: 'exit', raw: '', code: null, signal: 'SIGKILL' }]);
  assert.deepEqual([(await helper.events().next()).value], await exit);
  assert.equal(helper.writeFrame(size, dark).state, 'dropped');
  assert.equal(helper.acquireFrame(size), undefined);
  await assert.rejects(saved, { name: 'TakeError', code: 'HELPER_ENDED' });
  await assert.rejects(helper.startTake({ path }), { name: 'TakeError', code: 'HELPER_ENDED' });
  utimesSync(stagingPath, 0, 0);
  const [take] = await recoverTakes(folder);
  const pictures = countPictures(take.path);
  assert.deepEqual([take.staging, take.left, take.frames], [stagingPath, '', pictures]);
  await assert.rejects(recoverTakes(inFolder('nowhere')), { code: 'RECOVERY_FAILED' });
});

test('1,000 frames are counted, and their memory is freed', async (context) => {
  const helper = await helperFor(context);
  const outcomes = [];
  for (let number = 1; number <= 1000; ++number) {
    outcomes.push(helper.writeFrame(size, Buffer.from(dark)).done);
    await turn();
  }
  await Promise.all(outcomes);
  for (let i = 0; i < 3; ++i) await turn(gc()); // memory is counted as free one turn later
  assert.ok(process.memoryUsage().arrayBuffers < 10 * dark.length);
  const { written, dropped } = helper.frameCounts;
  assert.ok(dropped > 0 && written + dropped === 1000, `${written} + ${dropped}`);
});

test('a client learns if its token is wrong or the helper is full or gone', async (context) => {
  const helper = await helperFor(context);
  const { port, token } = helper;
  const code = async (secret) => {
    const client = await connectStream({ port, token: secret });
    return client[Symbol.asyncIterator]().next().then(() => 'admitted', (error) => error.code);
  };
  assert.equal(await code('x'.repeat(16)), 'REFUSED');
  const [abort, reason] = [new AbortController(), new Error('enough')];
  const clients = await Promise.all([undefined, abort.signal]
    .map((signal) => connectStream({ port, token, signal })));
  const admitted = new Set();
  const reading = clients.map(async (client) => {
    for await (const { type } of client) if (type === 'frame') admitted.add(client);
  });
  await feedUntil(helper, () => admitted.size === 2);
  assert.equal(await code(token), 'NO_ROOM');
  clients[0].close();
  abort.abort(reason);
  assert.deepEqual(await Promise.allSettled(reading),
    [{ status: 'fulfilled', value: undefined }, { status: 'rejected', reason }]);
  await helper.stop();
  await assert.rejects(connectStream({ port, token }), { code: 'UNREACHABLE' });
});

test('connecting has a time limit, and ends when the client is closed or aborted', async (context) => {
  // The server closes three connections, then accepts no more. Two others may wait in its queue.
  const listen = `let left = 3;
    require('net').createServer((socket) => {
      socket.destroy();
      if (--left === 0) process.kill(process.pid, 'SIGSTOP');
    }).listen(0, '127.0.0.1', 1, function () { console.log(this.address().port); })`;
  const server = spawn(process.execPath, ['-e', listen], { stdio: ['ignore', 'pipe', 'inherit'] });
  context.after(() => server.kill('SIGKILL'));
  const port = Number((await once(server.stdout, 'data'))[0]);
  const abort = new AbortController();
  const [token, { signal }] = ['x'.repeat(16), abort];
  const to = { port, token, connectTimeout: 100, signal: AbortSignal.timeout(20_000) };
  const closed = [];
  for (const options of [to, { port, token, signal }, { port, token }]) {
    closed.push(await connectStream(options));
  }
  await stopped(server);
  await assert.rejects(Promise.all([1, 2, 3].map(() => connectStream(to))), { code: 'UNREACHABLE' });
  // Each closed client connects once more, to find out why it was closed.
  const [late, aborted, ended] = closed.map((client) => client[Symbol.asyncIterator]().next());
  await assert.rejects(late, { code: 'CLOSED' });
  closed[2].close();
  assert.deepEqual(await ended, { value: undefined, done: true });
  const reason = new Error('enough');
  abort.abort(reason);
  await Promise.all([aborted, connectStream({ port, token, signal })]
    .map((failing) => assert.rejects(failing, (error) => error === reason)));
});

test('frames reuse one buffer; none is acquired while the helper is behind', async (context) => {
  const helper = await helperFor(context);
  const memory = new Set();
  for (let number = 1; number <= 20; ++number) {
    const frame = helper.acquireFrame(size);
    memory.add(frame.pixels.buffer);
    if (number % 2 === 0) frame.close();
    else await helper.publish(frame).done;
    assert.equal(frame.pixels.length, 0);
    assert.throws(() => helper.publish(frame), { code: 'INVALID_ARGUMENT' });
  }
  assert.equal(memory.size, 1);
  await suspend(helper);
  const [first, second] = [1, 2].map(() => helper.publish(helper.acquireFrame(size)));
  assert.equal(helper.acquireFrame(size), undefined);
  process.kill(helper.pid, 'SIGCONT');
  assert.deepEqual(await Promise.all([first.done, second.done]), ['written', 'written']);
  assert.deepEqual(helper.frameCounts, { written: 12, dropped: 1 });
});

test('a take ends at its stop time even if the helper is stopped right afterwards', async (context) => {
  const helper = await helperFor(context);
  const profile = { resolution: '1920x1080', targetFps: 60 };
  const take = await helper.startTake({ path: inFolder('stopped.mp4'), ...profile });
  const until = uptime() + 1;
  await feedUntil(helper, () => uptime() > until);
  await suspend(helper); // so that the stop arrives before the last frame is encoded
  const [, last] = [1, 2].map(() => helper.writeFrame(size, dark).done);
  const saved = take.stop({ stoppedAt: uptime() - 0.3 });
  helper.writeFrame(size, dark); // does not replace `last`: the take's stop was queued after it
  setTimeout(() => process.kill(helper.pid, 'SIGCONT'), 300);
  await helper.stop();
  const { duration } = await saved;
  assert.equal(await last, 'written');
  assert.ok(Math.abs(duration - (take.stoppedAt - take.startedAt)) < 1e-3, `${duration}`);
});

test('a helper\'s end is noticed while another process keeps its output open', async (context) => {
  const program = inFolder('holding');
  writeFileSync(program, `#!/bin/sh
    sleep 1000 & echo $! > "$0.pid"; echo '{"type":"ready"}'; exit 3`, { mode: 0o755 });
  const helper = await startHelper({ program, stderr: 'ignore' });
  context.after(() => process.kill(Number(readFileSync(`${program}.pid`)), 'SIGKILL'));
  const failed = assert.rejects(helper.startTake({ path: '/a.mp4' }), { code: 'HELPER_ENDED' });
  assert.deepEqual(await helper.exited, { code: 3, signal: null });
  await failed;
});

test('stop kills a helper that hangs, and returns though another process keeps its pipes open', async (context) => {
  const program = inFolder('hanging');
  writeFileSync(program, `#!/bin/sh
    exec 3<&0; trap '' TERM; sleep 1000 & echo $! > "$0.pid"; echo '{"type":"ready"}'; wait`,
  { mode: 0o755 });
  const helper = await startHelper({ program, stderr: 'ignore' });
  context.after(() => process.kill(Number(readFileSync(`${program}.pid`)), 'SIGKILL'));
  const { done } = helper.writeFrame(size, dark);
  const failed = assert.rejects(helper.startTake({ path: '/a.mp4' }), { code: 'HELPER_ENDED' });
  assert.deepEqual(await helper.stop(), { code: null, signal: 'SIGKILL' });
  const limit = { signal: AbortSignal.timeout(20_000) };
  while (existsSync(`/proc/${helper.pid}`)) await sleep(1, null, limit); // it is really killed
  assert.equal(await done, 'dropped');
  await failed;
});
