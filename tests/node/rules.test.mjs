// What can be tested without a helper.

import assert from 'node:assert/strict';
import { Duplex, Readable, Writable } from 'node:stream';
import { test } from 'node:test';
import { setImmediate as turn } from 'node:timers/promises';
import { findProgram } from '../../client/node/dist/cjs/index.js';
import { flipRows, frameId, startHelper, toWebCodecs, uptime } from '../../client/node/dist/esm/index.js';

const inside = (name) => import(`../../client/node/dist/esm/${name}.js`);
const records = await inside('records');
const { Feeder } = await inside('feeder');
const { PacketSplitter } = await inside('packet_splitter');
const { StreamClient } = await inside('stream');
const hex = (text) => Buffer.from(text.replaceAll(' ', ''), 'hex');

test('records have the protocol\'s bytes; records that would end the helper are refused', () => {
  const small = { width: 2, height: 2 };
  assert.deepEqual(records.recordHeader(16, small, 7n), hex('00000010 0002 0002 0000000000000007'));
  records.checkSize({ width: 1080, height: 1920 });
  for (const [width, height] of [[1900, 1082], [1922, 1078], [3, 2], [0, 2], [2, NaN], ['2', 2]]) {
    assert.throws(() => records.checkSize({ width, height }), RangeError, `${width}x${height}`);
  }
  assert.equal(records.checkedId(2n ** 64n - 1n, 7n), 2n ** 64n - 1n);
  for (const id of [7, 6n, 2n ** 64n]) assert.throws(() => records.checkedId(id, 7n), RangeError);
  for (const id of [7.5, 2 ** 53, '8']) assert.throws(() => records.checkedId(id, 7n), TypeError);
  assert.throws(() => records.commandRecord({ path: 'é'.repeat(2048) }), RangeError);
  const four = { width: 2, height: 4 };
  const rows = Uint8Array.from({ length: 32 }, (_, i) => i);
  const turned = flipRows(rows, four, new Uint8Array(32));
  assert.deepEqual(turned, rows.map((i) => i ^ 24));
  assert.deepEqual(flipRows(turned, four), rows);
});

test('a format or a length that would end the helper is refused', async () => {
  for (const format of ['', 'NV12', 'toString', 'top', 'nv12,', 'nv12,,full', 'nv12, full', 'nv12,top,bottom',
    'i420,full,full', 'yuyv,bt601,bt709', 'rgb24,full', 'mjpeg,bt601']) {
    await assert.rejects(startHelper({ program: '/none', format }), RangeError, format);
  }
  await assert.rejects(startHelper({ program: '/none', format: 1 }), TypeError);
  const { encodingOf } = await inside('frame_format');
  const [small, large] = [{ width: 6, height: 4 }, { width: 640, height: 360 }];
  for (const [format, size, least, most = least] of [
    ['rgba,top', small, 96], ['bgra', small, 96], ['rgb24,bottom', small, 72], ['bgr24', small, 72],
    ['nv12,full,bottom,bt709', small, 36], ['nv21', small, 36], ['i420,bt601', small, 36], ['yuyv', small, 48],
    ['uyvy,limited', small, 48], ['mjpeg,top', small, 2, 65536], ['mjpeg', large, 2, 460800],
  ]) {
    const bytes = (length) => records.pixelBytes(new Uint8Array(length), size, encodingOf(format)).length;
    assert.deepEqual([least, most].map(bytes), [least, most]);
    for (const wrong of [least - 1, most + 1]) assert.throws(() => bytes(wrong), RangeError, format);
  }
});

test('a page names the format of a VideoFrame, unless the helper has none', async () => {
  const { videoFrameFormat } = await inside('page');
  for (const [format, matrix, fullRange, expected] of [
    ['NV12', 'bt709', true, 'nv12,bt709,full'], ['NV12', null, null, 'nv12,bt601,limited'],
    ['I420', 'smpte170m', false, 'i420,bt601,limited'], ['I420', 'bt470bg', true, 'i420,bt601,full'],
    ['RGBA', 'rgb', true, 'rgba,top'], ['RGBX', null, null, 'rgba,top'], ['BGRA', 'rgb', true, 'bgra,top'],
    ['BGRX', 'rgb', true, 'bgra,top'], ['NV12', 'bt2020-ncl', false], ['I422', 'bt709', false], [null, null, null],
  ]) assert.equal(videoFrameFormat({ format, colorSpace: { matrix, fullRange } }), expected);
});

test('one frame is written, the newest waits, commands keep their place', async () => {
  const testFeeder = () => {
    const written = []; // one entry for each system call
    const writev = (chunks, done) => {
      written.push(chunks.map(({ chunk }) => chunk).join(' '));
      setImmediate(done);
    };
    const input = new Writable({ writev });
    const feeder = new Feeder(input);
    // Writes a frame if the name has one letter, else a command.
    const put = (name) => (name.length > 1 ? { done: feeder.writeCommand(Buffer.from(name)) }
      : feeder.writeFrame(Buffer.from('frame'), Buffer.from(name)));
    return { written, input, feeder, put };
  };
  const outcomes = async (puts) => (await Promise.all(puts.map(({ done }) => done))).join();
  const { written, input, feeder, put } = testFeeder();
  const puts = ['a', 'b', 'start', 'c', 'd'].map(put);
  assert.equal(await puts[1].done, 'dropped');
  feeder.end();
  assert.equal(put('e').state, 'dropped');
  assert.equal(await outcomes(puts), 'written,dropped,true,dropped,written');
  assert.deepEqual(written, ['frame a', 'start', 'frame d']);
  await turn();
  assert.ok(input.writableFinished);
  const other = testFeeder();
  const lost = ['a', 'b', 'start'].map(other.put);
  other.input.destroy();
  assert.equal(await outcomes(lost), 'dropped,dropped,true');
  assert.equal(other.put('c').state, 'dropped');
});

test('a take has the given times; times with which it would fail are refused', async () => {
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
  assert.deepEqual(sent, [{ type: 'record_start', id: take.id, path, cadence: 'steady', started_at: now - 1,
    on_failure: 'keep' },
    { type: 'record_stop', id: take.id, stopped_at: now }]);
  assert.deepEqual([take.startedAt, take.stoppedAt], [now - 1, now]);
  takes.start({ path, steady: false });
  assert.ok(!('cadence' in sent[2]) && sent[2].started_at >= now);
  assert.equal(frameId(12.3456789), 12345678);
});

test('a take asks for what it is given; a lost take says what it has left', async () => {
  const sent = [];
  const takes = new (await inside('take')).Takes((record) => sent.push(JSON.parse(record.subarray(16))));
  const { parseEvent } = await inside('events');
  const path = '/a.mp4';
  for (const wrong of [{ minimumFree: -1 }, { minimumFree: 2 ** 54 }, { minimumFree: '9' }, { bitRate: 249_999 },
    { bitRate: 50_000_001 }, { bitRate: 1e6 + 0.5 }, { rotation: 45 }, { rotation: '90' }]) {
    assert.throws(() => takes.start({ path, ...wrong }), RangeError, JSON.stringify(wrong));
  }
  takes.start({ path, minimumFree: 2 ** 53, bitRate: 250_000, rotation: 270, keepFailed: false,
    frameLog: true });
  const { minimum_free: free, bit_rate: rate, rotation, on_failure: keep, frame_log: log } = sent[0];
  assert.deepEqual([free, rate, rotation, keep, log], [2 ** 53, 250_000, 270, undefined, true]);
  const tell = (index, keys) =>
    takes.handle(parseEvent(JSON.stringify({ type: 'recording', id: sent[index].id, path, ...keys })));
  for (const kept of [{ kept_path: 'b.mp4', kept_frames: 7, kept_duration: 1.5 }, {}]) {
    const starting = takes.start({ path });
    const index = sent.length - 1;
    tell(index, { state: 'starting' });
    const { saved } = await starting;
    tell(index, { state: 'failed', error: 'why', ...kept });
    await assert.rejects(saved, { name: 'TakeError', message: 'why', keptPath: kept.kept_path,
      keptFrames: kept.kept_frames, keptDuration: kept.kept_duration });
  }
  const starting = takes.start({ path });
  tell(sent.length - 1, { state: 'saved', frames_in_movie: 8, stopped_for: 'minimum_free',
    frame_log_error: 'full' });
  const { framesInMovie, stoppedFor, frameLogError } = await (await starting).saved;
  assert.deepEqual([framesInMovie, stoppedFor, frameLogError], [8, 'minimum_free', 'full']);
});

test('lines are split, bounded and typed; a slow reader of events keeps the newest', async () => {
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

test('packets may arrive in any pieces; they become the input of a VideoDecoder', async () => {
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
  const short = '00000010 01 0000000000000000 00 0280 0168 0005';
  for (const malformed of ['00000009', '00200001', configuration.replace('01 ', '03 '), longer, short]) {
    const splitter = new PacketSplitter();
    splitter.feed(hex(malformed));
    assert.throws(() => splitter.next(), /packet/, malformed);
  }
});

test('the socket is read only as fast as packets are taken', async () => {
  let readings = 0;
  const read = function () { this.push(Buffer.alloc(30_000, hex(frames.join(' ')))); readings += 1; };
  const client = new StreamClient(new Duplex({ read, write() {} }), true);
  const packets = client[Symbol.asyncIterator]();
  for (const frameId of [7n, 9n]) assert.equal((await packets.next()).value.frameId, frameId);
  for (let i = 0; i < 100; ++i) await turn();
  assert.ok(readings < 10);
});

test('the program is found by option or variable, or the message says what to install', async () => {
  const own = process.execPath;
  assert.equal(await findProgram(own, { LUMORA_VIDEO_PATH: '/none' }), own);
  assert.equal(await findProgram(undefined, { LUMORA_VIDEO_PATH: own, PATH: '/none' }), own);
  await assert.rejects(findProgram(undefined, { PATH: '/none' }), /install the npm package "lumora-video-/);
});
