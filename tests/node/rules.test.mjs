// The rules that need no process.

import assert from 'node:assert/strict';
import { readSync, writeSync } from 'node:fs';
import { Duplex, Readable, Writable } from 'node:stream';
import { test } from 'node:test';
import { setImmediate as turn } from 'node:timers/promises';
import { findProgram } from '../../client/node/dist/cjs/index.js';
import { flipRows, frameId, toWebCodecs, uptime } from '../../client/node/dist/esm/index.js';

const inside = (name) => import(`../../client/node/dist/esm/${name}.js`);
const records = await inside('records');
const { Feeder } = await inside('feeder');
const { FrameMemory } = await inside('frame_memory');
const { PacketParser } = await inside('packets');
const { StreamClient } = await inside('stream');
const hex = (text) => Buffer.from(text.replaceAll(' ', ''), 'hex');

test('records are those of the protocol; what would end the helper is refused', () => {
  const small = { width: 2, height: 2 };
  assert.deepEqual(records.frameHeader(small, 7n), hex('00000010 0002 0002 0000000000000007'));
  assert.deepEqual(records.frameReference(small, 7n, 4096),
    hex('00000008 0002 0002 0000000000000007 0000000000001000'));
  records.checkSize({ width: 1080, height: 1920 });
  for (const [width, height] of [[1900, 1082], [1922, 1078], [3, 2], [0, 2], [2, NaN], ['2', 2]]) {
    assert.throws(() => records.checkSize({ width, height }), RangeError, `${width}x${height}`);
  }
  assert.equal(records.checkedId(2n ** 64n - 1n, 7n), 2n ** 64n - 1n);
  for (const id of [7, 6n, 2n ** 64n]) assert.throws(() => records.checkedId(id, 7n), RangeError);
  for (const id of [7.5, 2 ** 53, '8']) assert.throws(() => records.checkedId(id, 7n), TypeError);
  assert.throws(() => records.pixelBytes(new Uint8Array(15), small), RangeError);
  assert.throws(() => records.commandRecord({ path: 'é'.repeat(2048) }), RangeError);
  const rows = Uint8Array.from({ length: 32 }, (_, i) => i >> 3); // four, of their numbers
  const turned = flipRows(rows, { width: 2, height: 4 }, new Uint8Array(32));
  assert.deepEqual([0, 8, 16, 24].map((i) => turned[i]), [3, 2, 1, 0]);
  assert.deepEqual(flipRows(turned, { width: 2, height: 4 }), rows);
});

// A feeder, and the names of what it has written; `put` takes frames of one letter, longer commands.
function feederInto(memory) {
  const taken = [];
  const nameOf = (record) => {
    if (record.length < 16) return record.toString();
    const pixels = record.subarray(16);
    if (pixels.length === 8) readSync(memory.descriptor, pixels, 0, 8, Number(pixels.readBigUInt64BE()));
    return pixels.toString('latin1', 0, 1);
  };
  const writev = (chunks, done) => {
    taken.push(nameOf(Buffer.concat(chunks.map(({ chunk }) => chunk))));
    setImmediate(done);
  };
  const input = new Writable({ writev });
  const feeder = new Feeder(input, memory);
  const put = (name) => {
    const bytes = Buffer.from(name);
    if (name.length > 1) return { done: feeder.writeCommand(bytes) };
    return feeder.writeFrame({ size: { width: 2, height: 2 }, id: BigInt(bytes[0]), pixels: Buffer.alloc(16, bytes) });
  };
  return { taken, input, feeder, put };
}

const outcomes = async (puts) => (await Promise.all(puts.map(({ done }) => done))).join();

const ways = {
  pipe: () => undefined,
  memory: () => FrameMemory.make(),
  'memory that is used up': () => ({ isFull: () => false, store: async () => undefined, close() {} }),
};
for (const [way, memory] of Object.entries(ways)) {
  test(`one frame is written, the newest waits, commands keep their place (${way})`, async () => {
    const { taken, input, feeder, put } = feederInto(memory());
    const puts = ['a', 'b', 'start', 'c', 'd'].map(put);
    assert.equal(await puts[1].done, 'dropped');
    feeder.end();
    assert.equal(put('e').state, 'dropped');
    assert.equal(await outcomes(puts), 'written,dropped,true,dropped,written');
    assert.deepEqual(taken, ['a', 'start', 'd']);
    await turn();
    assert.ok(input.writableFinished);
  });

  test(`an input that is destroyed takes no more (${way})`, async () => {
    const { input, put } = feederInto(memory());
    const puts = ['a', 'b', 'start'].map(put);
    input.destroy();
    assert.equal(await outcomes(puts), 'dropped,dropped,true');
    assert.equal(put('c').state, 'dropped');
  });
}

test('a slot is used again only when the helper has released its frame', async () => {
  const memory = FrameMemory.make();
  const release = (name) => writeSync(memory.descriptor, BigUint64Array.of(BigInt(name.charCodeAt(0))), 0, 8, 0);
  const { taken, feeder, put } = feederInto(memory);
  for (const name of ['a', 'b', 'c']) assert.equal(await put(name).done, 'written');
  const puts = ['d', 'stop', 'e'].map(put);
  for (const name of ['A', 'd', 'z']) { // no frame's that is there
    release(name);
    assert.ok(memory.isFull(), name);
  }
  release('b');
  assert.equal(await outcomes(puts), 'dropped,true,written');
  assert.equal(await outcomes([put('f')]), 'written'); // the other of two
  assert.ok(memory.isFull());
  assert.deepEqual(taken, ['a', 'b', 'c', 'stop', 'e', 'f']);
  feeder.end();
});

test('a take has the times it was given; one that would cost the take is refused first', async () => {
  const sent = [];
  const takes = new (await inside('take')).Takes((record) => sent.push(JSON.parse(record.subarray(16))));
  const now = uptime();
  const path = '/a.mp4';
  const bad = [NaN, Infinity, -1, String(now), now - 31, now + 1];
  for (const startedAt of bad) assert.throws(() => takes.start({ path, startedAt }), RangeError);
  const starting = takes.start({ path, startedAt: now - 1 });
  takes.handle({ id: sent[0].id, state: 'starting' });
  const take = await starting;
  for (const stoppedAt of [...bad, now - 2]) assert.throws(() => take.stop({ stoppedAt }), RangeError);
  for (const stoppedAt of [now, now + 0.01]) take.stop({ stoppedAt }); // the first counts
  assert.deepEqual(sent, [{ type: 'record_start', id: take.id, path, cadence: 'steady', started_at: now - 1 },
    { type: 'record_stop', id: take.id, stopped_at: now }]);
  assert.deepEqual([take.startedAt, take.stoppedAt], [now - 1, now]);
  takes.start({ path, steady: false });
  assert.ok(!('cadence' in sent[2]) && sent[2].started_at >= now);
  assert.equal(frameId(12.3456789), 12345678);
});

test('lines are cut, bounded and typed; a slow reader of events keeps the newest', async () => {
  const lines = new (await inside('lines')).LineSplitter();
  const cut = ['a', 'b\n{}\nc', 'y'.repeat(5000), 'y\nz\n'].map((text) => lines.feed(Buffer.from(text)));
  assert.deepEqual(cut, [[], ['ab', '{}'], [], ['z']]);
  const { parseEvent } = await inside('events');
  for (const [raw, event] of [
    ['{"encode_ms":1,"type":"stats"}', { type: 'stats', encodeMs: 1 }],
    ['{"message":"a","type":"error"}', { type: 'failure', message: 'a' }],
    ...['', 'null', '{"type":"failure"}'].map((line) => [line, { type: 'unknown' }]),
  ]) assert.deepEqual(parseEvent(raw), { ...event, raw });
  const queue = new (await inside('event_queue')).EventQueue(() => {});
  for (let i = 0; i < 300; ++i) queue.push(i);
  assert.deepEqual([queue.lost, (await queue.next()).value], [44, 44]);
});

const configuration = '00000019 01 0000000000000000 00 0280 0168 0005 0002 6742c01f99 68ce';
const frames = ['0000000b 02 0000000000000007 01 aa', '0000000b 02 0000000000000009 01 bb'];

test('packets survive any cut and become what a VideoDecoder takes', async () => {
  const bytes = [...hex(frames.map((frame) => configuration + frame).join(''))];
  const oneByOne = Readable.from(bytes.map((byte) => Buffer.of(byte)));
  const inputs = [];
  for await (const input of toWebCodecs(new StreamClient(oneByOne, false))) inputs.push(input);
  const description = Uint8Array.from(hex('01 42c01f ff e1 0005 6742c01f99 01 0002 68ce'));
  const config = { codec: 'avc1.42c01f', codedWidth: 640, codedHeight: 360, description, optimizeForLatency: true };
  assert.deepEqual(inputs, [
    { config, chunk: { type: 'key', timestamp: 7, data: Uint8Array.of(0xaa) } },
    { chunk: { type: 'key', timestamp: 9, data: Uint8Array.of(0xbb) } }]);
  const longer = configuration.replace('0005', '0006');
  for (const malformed of ['00000009', '00200001', configuration.replace('01 ', '03 '), longer]) {
    const parser = new PacketParser();
    parser.feed(hex(malformed));
    assert.throws(() => parser.next(), Error, malformed);
  }
});

test('packets are read from the socket only as they are taken', async () => {
  let readings = 0;
  const read = function () { this.push(Buffer.alloc(30_000, hex(frames.join(' ')))); readings += 1; };
  const client = new StreamClient(new Duplex({ read, write() {} }), true);
  const packets = client[Symbol.asyncIterator]();
  for (const frameId of [7n, 9n]) assert.equal((await packets.next()).value.frameId, frameId);
  for (let i = 0; i < 100; ++i) await turn();
  assert.ok(readings < 10);
});

test('the program is found by option, variable, package, path, or the message says what to install', async () => {
  const own = process.execPath;
  assert.equal(await findProgram(own, { LUMORA_VIDEO_PATH: '/none' }), own);
  assert.equal(await findProgram(undefined, { LUMORA_VIDEO_PATH: own, PATH: '/none' }), own);
  await assert.rejects(findProgram(undefined, { PATH: '/none' }), /install the npm package "lumora-video-/);
});
