// What can be tested without a helper.

import assert from 'node:assert/strict';
import { EventEmitter, once } from 'node:events';
import { Duplex, Readable, Writable } from 'node:stream';
import { test } from 'node:test';
import { setImmediate as turn } from 'node:timers/promises';
import { MessageChannel } from 'node:worker_threads';
import { acceptFrames, flipRows, frameId, sendPreview, startHelper, toWebCodecs, uptime }
  from '../../client/node/dist/esm/index.js';

const modules = ['event_queue', 'events', 'feeder', 'frame_format', 'helper', 'lines', 'page',
  'records', 'stream', 'take'].map((m) => import(`../../client/node/dist/esm/${m}.js`));
const { checkedId, checkSize, commandRecord, copyAudioData, copyVideoFrame, encodingOf, EventQueue,
  Feeder, FrameSink, Helper, LineSplitter, parseEvent, pixelBytes, recordHeader, soundRecords, StreamClient,
  Takes, throughPort, videoFrameFormat } = Object.assign({}, ...await Promise.all(modules));
const invalid = { name: 'ArgumentError', code: 'INVALID_ARGUMENT' };
const none = { on() {} };
const helperOf = (stdin, format) => new Helper({ stdin, stdout: none, ...none }, 'token', format);
const hex = (text) => Buffer.from(text.replaceAll(' ', ''), 'hex');

test('records have the protocol\'s bytes; records that would end the helper are refused', () => {
  const header = recordHeader(16, { width: 2, height: 2 }, 7n);
  assert.deepEqual(header, hex('00000010 0002 0002 0000000000000007'));
  checkSize({ width: 1080, height: 1920 });
  for (const [width, height] of [[1900, 1082], [1922, 1078], [3, 2], [0, 2], [2, NaN], ['2', 2]]) {
    assert.throws(() => checkSize({ width, height }), invalid, `${width}x${height}`);
  }
  assert.equal(checkedId(2n ** 64n - 1n, 7n), 2n ** 64n - 1n);
  for (const id of [7, 6n, 2n ** 64n, 7.5, 2 ** 53, '8']) {
    assert.throws(() => checkedId(id, 7n), invalid, `${id}`);
  }
  assert.throws(() => commandRecord({ path: 'é'.repeat(2048) }), invalid);
  assert.equal(frameId(12.3456789), 12345679);
  const rows = Uint8Array.from({ length: 32 }, (_, i) => i);
  const turned = flipRows(rows, { width: 2, height: 4 }, new Uint8Array(32));
  assert.deepEqual(turned, rows.map((i) => i ^ 24));
  assert.deepEqual(flipRows(turned, { width: 2, height: 4 }), rows);
});

test('a format or a length that would end the helper is refused', async () => {
  for (const format of ['', 'NV12', 'toString', 'top', 'nv12,', 'nv12,,full', 'nv12, full',
    'nv12,top,bottom', 'i420,full,full', 'yuyv,bt601,bt709', 'rgb24,full', 'mjpeg,bt601']) {
    await assert.rejects(startHelper({ program: '/none', format }), invalid, format);
  }
  await assert.rejects(startHelper({ program: '/none', format: 1 }), invalid);
  const [small, large] = [{ width: 6, height: 4 }, { width: 640, height: 360 }];
  for (const [formats, size, least, most = least] of [
    ['rgba,top bgra', small, 96], ['rgb24,bottom bgr24', small, 72],
    ['yuyv uyvy,limited', small, 48], ['nv12,full,bottom,bt709 nv21 i420,bt601', small, 36],
    ['mjpeg,top', small, 2, 65536], ['mjpeg', large, 2, 460800]]) {
    for (const encoding of formats.split(' ').map(encodingOf)) {
      const bytes = (length) => pixelBytes(new Uint8Array(length), size, encoding).length;
      assert.deepEqual([least, most].map(bytes), [least, most]);
      for (const wrong of [least - 1, most + 1]) assert.throws(() => bytes(wrong), invalid);
    }
  }
});

test('a page names the format of a VideoFrame, copies it with even sides and no padding, or refuses it', async () => {
  const copied = []; // options of `copyTo`
  const frameOf = ([format, matrix = null, fullRange = null]) => ({ format,
    colorSpace: { matrix, fullRange }, visibleRect: { x: 1, y: 2, width: 6, height: 3 },
    copyTo: (_, how) => copied.push(how) });
  const [i420, unknown] = [['I420', 'smpte170m', false], [null]];
  for (const [format, ...frames] of [
    ['nv12,bt709,full', ['NV12', 'bt709', true]], ['nv12,bt601,limited', ['NV12']],
    ['i420,bt601,full', ['I420', 'bt470bg', true]], ['i420,bt601,limited', i420],
    ['rgba,top', ['RGBA', 'rgb', true], ['RGBX']], ['bgra,top', ['BGRA', 'rgb', true], ['BGRX']],
    [undefined, ['I422', 'bt709', false], ['NV12', 'bt2020-ncl', false], unknown]]) {
    for (const frame of frames) assert.equal(videoFrameFormat(frameOf(frame)), format);
  }
  for (const frame of [unknown, i420]) {
    await assert.rejects(copyVideoFrame(frameOf(frame), 'nv12'), { code: 'FORMAT_CHANGED' });
  }
  const memory = new Uint8Array(12);
  const { size, pixels } = await copyVideoFrame(frameOf(['NV12']), 'nv12', memory);
  assert.equal(pixels, memory);
  const layout = [{ offset: 0, stride: 4 }, { offset: 8, stride: 4 }];
  assert.deepEqual(copied, [{ rect: { x: 2, y: 2, width: 4, height: 2 }, layout }]);
  assert.deepEqual(size, { width: 4, height: 2 });
});

test('frames are written in turn; a newer one replaces one that waits behind the last command', async () => {
  const written = []; // one entry for each system call
  const writev = (chunks, done) => {
    written.push(chunks.length > 2 ? 'sound' : chunks.map(({ chunk }) => chunk).join(' '));
    setImmediate(done);
  };
  const input = new Writable({ writev });
  const feeder = new Feeder(input);
  const put = (name, to = feeder) => to.writeFrame(Buffer.from('frame'), Buffer.from(name));
  const outcomes = (frames) => Promise.all(frames.map(({ done }) => done));
  const frames = [put('a'), put('b')];
  assert.ok(feeder.writeCommand(Buffer.from('start')));
  assert.ok(!feeder.skipsFrame()); // b stays in front of the command
  frames.push(put('c'));
  assert.ok(feeder.writeSound(new Int16Array(4800), { rate: 8000, channels: 1 }, 1));
  assert.ok(feeder.skipsFrame()); // sound is no command
  frames.push(put('d'));
  assert.equal(await frames[2].done, 'dropped');
  feeder.endFrames();
  assert.equal(put('e').state, 'dropped');
  assert.ok(feeder.writeCommand(Buffer.from('stop')));
  feeder.end();
  assert.deepEqual(await outcomes(frames), ['written', 'written', 'dropped', 'written']);
  assert.deepEqual(written, ['frame a', 'frame b', 'start', 'sound', 'frame d', 'stop']);
  await turn();
  assert.ok(input.writableFinished);
  const stuck = new Writable({ write() {} });
  const other = new Feeder(stuck);
  const lost = [put('a', other), put('b', other)];
  stuck.destroy();
  assert.deepEqual(await outcomes(lost), ['dropped', 'dropped']);
  assert.equal(other.writeCommand(Buffer.from('start')), false);
});

test('a frame is published once, with a length, to a helper of its format', async () => {
  const written = [];
  const stdin = new Writable({ write: (chunk, _, done) => { written.push(chunk); done(); } });
  const [helper, same, other] = ['mjpeg', 'mjpeg,top', 'mjpeg,bottom']
    .map((format) => helperOf(stdin, format));
  const frame = same.acquireFrame({ width: 2, height: 2 });
  const refuse = (message, to = helper) =>
    assert.throws(() => to.publish(frame), { ...invalid, message });
  refuse('the length of the picture was not set');
  for (const bytes of [1, 65537, NaN, 2.5, '2']) {
    assert.throws(() => frame.setLength(bytes), invalid, `${bytes}`);
  }
  frame.pixels.set([7, 8, 9]);
  frame.setLength(2);
  refuse('the frame has another format than this helper\'s', other);
  await helper.publish(frame).done;
  assert.deepEqual(written[1], Buffer.of(7, 8));
  refuse('this frame was already published or closed');
});

test('sound becomes records of a quarter of a second at most, and two seconds may wait', () => {
  const format = { rate: 8000, channels: 2 };
  const made = (first, last) => soundRecords(new Int16Array(2 * 4500).fill(-2), format, first, last);
  const { records, last } = made(2e6, 0n);
  const ids = records.filter((_, i) => i % 2 === 0).map((header) => header.readBigUInt64BE(8));
  assert.deepEqual(ids, [2_000_000n, 2_250_000n, 2_500_000n]);
  assert.deepEqual(records[4], Buffer.concat([hex('000007d0 0000 0000'), records[4].subarray(8)]));
  assert.deepEqual(records[5], Buffer.alloc(2000, hex('feff')));
  assert.equal(last, 2_500_000n);
  assert.equal(made(2e6 + 100, last).last, 2_500_100n);
  const feeder = new Feeder(new Writable({ write() {} }));
  feeder.writeCommand(Buffer.from('is being written'));
  const second = new Int16Array(2 * 8000);
  const write = (samples) => feeder.writeSound(samples, format, 1);
  assert.equal(feeder.writeSound(second, format, uptime() + 1), false);
  assert.throws(() => feeder.writeSound(second, format, NaN), invalid);
  assert.ok(write(second) && write(second) && !write(second.subarray(0, 2)));
  const planes = [[0.5, -2], [1, 0]];
  const microphone = { numberOfFrames: 2, numberOfChannels: 2, sampleRate: 8000,
    copyTo: (target, { planeIndex }) => target.set(planes[planeIndex]) };
  assert.deepEqual(copyAudioData(microphone, format), Int16Array.of(16384, 32767, -32767, 0));
  const mono = copyAudioData({ ...microphone, numberOfChannels: 1 }, format);
  assert.deepEqual(mono, Int16Array.of(16384, 16384, -32767, -32767));
  assert.throws(() => copyAudioData({ ...microphone, sampleRate: 48000 }, format), invalid);
});

test('a take sends its options, refuses bad ones, and reports how it ended', async () => {
  const sent = [];
  const takes = new Takes((record) => sent.push(JSON.parse(record.subarray(16))));
  const tell = (keys) => takes.handle(parseEvent(JSON.stringify({ type: 'recording', ...keys })));
  const [path, now] = ['/a.mp4', uptime()];
  const bad = [NaN, Infinity, -1, String(now), now - 31, now + 1];
  for (const wrong of [...bad.map((startedAt) => ({ startedAt })), { minimumFree: -1 },
    { minimumFree: 2 ** 54 }, { bitRate: 249_999 }, { bitRate: 50_000_001 }, { bitRate: 1e6 + 0.5 },
    { rotation: 45 }, { path: 'a.mp4' }, { path: '/a.mov' }, { path: '/\ud83d.mp4' },
    { path: `/${'é'.repeat(1498)}.mp4` }]) {
    assert.throws(() => takes.start({ path, ...wrong }), invalid, JSON.stringify(wrong));
  }
  const starting = takes.start({ path, startedAt: now - 1, targetFps: 30 });
  tell({ id: sent[0].id, state: 'starting' });
  const take = await starting;
  for (const at of [...bad, now - 2]) assert.throws(() => take.stop({ stoppedAt: at }), invalid);
  for (const stoppedAt of [now, now + 0.01]) take.stop({ stoppedAt }); // the first counts
  const keys = { kept_path: 'b', kept_frames: 7, kept_duration: 1, target_fps: 60 };
  tell({ id: take.id, state: 'failed', error: 'why', ...keys });
  const kept = { path: '/b', frames: 7, duration: 1 };
  await assert.rejects(take.saved, { name: 'TakeError', code: 'FAILED', message: 'why', kept });
  const others = takes.start({ path, steady: false, keepFailed: false, minimumFree: 2 ** 53,
    bitRate: 3e5, rotation: 90, frameLog: true, resolution: '640x360', sound: true,
    soundBitRate: 64e3 });
  tell({ id: sent[2].id, state: 'saved', frames_in_movie: 8, stopped_for: 'minimum_free',
    frame_log_error: 'full' }); // no `starting` before: a parent that reads slowly may lose it
  const { id, startedAt, saved } = await others;
  const { framesInMovie, stoppedFor, frameLogError } = await saved;
  assert.deepEqual([framesInMovie, stoppedFor, frameLogError], [8, 'minimum_free', 'full']);
  assert.ok(startedAt >= now);
  const [type, started] = ['record_start', now - 1];
  assert.deepEqual(sent, [
    { type, id: take.id, path, resolution: '1080x720', target_fps: 30, cadence: 'steady',
      started_at: started, on_failure: 'keep' },
    { type: 'record_stop', id: take.id, stopped_at: now },
    { type, id, path, resolution: '640x360', target_fps: 60, started_at: startedAt,
      minimum_free: 2 ** 53, bit_rate: 3e5, rotation: 90, frame_log: true, sound: true,
      sound_bit_rate: 64e3 }]);
});

test('lines are split, limited and parsed; a slow reader gets the newest events', async () => {
  const lines = new LineSplitter();
  const cut = ['a', 'b\n{}\nc', 'y'.repeat(5000), 'y\nz\n'].map((text) => lines.feed(Buffer.from(text)));
  assert.deepEqual(cut, [[], ['ab', '{}'], [], ['z']]);
  for (const [raw, event] of [
    ['{"encode_ms":1,"type":"stats"}', { type: 'stats', encodeMs: 1 }],
    ['{"message":"a","type":"error"}', { type: 'failure', message: 'a' }],
    ...['', 'null', '{"type":"failure"}'].map((line) => [line, { type: 'unknown' }]),
  ]) assert.deepEqual(parseEvent(raw), { ...event, raw });
  const queue = new EventQueue(() => {});
  for (let i = 0; i < 300; ++i) queue.push(i);
  assert.deepEqual([queue.lost, (await queue.next()).value], [44, 44]);
});

const configuration = '00000019 01 0000000000000000 00 0280 0168 0005 0002 6742c01f99 68ce';
const frames = ['0000000b 02 0000000000000007 01 aa', '0000000b 02 0000000000000009 00 bb'];

test('packets may arrive in any pieces; they become the input of a VideoDecoder', async () => {
  const bytes = [...hex(frames.map((frame) => configuration + frame).join(''))];
  const oneByOne = Readable.from(bytes.map((byte) => Buffer.of(byte)));
  const [inputs, manual] = [[], { acknowledgement: 'manual' }];
  for await (const input of toWebCodecs(new StreamClient(oneByOne, manual))) inputs.push(input);
  const description = Uint8Array.from(hex('01 42c01f ff e1 0005 6742c01f99 01 0002 68ce'));
  const config = { codec: 'avc1.42c01f', codedWidth: 640, codedHeight: 360, description,
    optimizeForLatency: true };
  assert.deepEqual(inputs, [
    { config, chunk: { type: 'key', timestamp: 7, data: Uint8Array.of(0xaa) } },
    { chunk: { type: 'delta', timestamp: 9, data: Uint8Array.of(0xbb) } }]);
  const longer = configuration.replace('0005', '0006');
  const short = '00000010 01 0000000000000000 00 0280 0168 0005';
  for (const malformed of ['00000009', '00200001', configuration.replace('01 ', '03 '), longer, short]) {
    const client = new StreamClient(Readable.from([hex(malformed)]), manual);
    await assert.rejects(client[Symbol.asyncIterator]().next(), { code: 'MALFORMED' }, malformed);
  }
});

test('the socket is read only as fast as packets are taken', async () => {
  let readings = 0;
  const read = function () { this.push(Buffer.alloc(30_000, hex(frames.join(' ')))); readings += 1; };
  const client = new StreamClient(new Duplex({ read, write() {} }), {});
  const packets = client[Symbol.asyncIterator]();
  for (const frameId of [7n, 9n]) assert.equal((await packets.next()).value.frameId, frameId);
  for (let i = 0; i < 100; ++i) await turn();
  assert.ok(readings < 10);
});

test('a start that is not answered fails, and its take is stopped', async () => {
  const sent = [];
  const takes = new Takes((record) => sent.push(JSON.parse(record.subarray(16)).type), 1);
  await assert.rejects(takes.start({ path: '/a.mp4' }), { name: 'TakeError', code: 'NO_ANSWER' });
  assert.deepEqual(sent, ['record_start', 'record_stop']);
});

test('a sink closes every frame, drops new ones while two wait, fails with a code', async () => {
  const [answers, posted, closed, drops] = [[], [], [], []];
  const write = (frame) => {
    posted.push(frame);
    return new Promise((resolve, reject) => answers.push({ resolve, reject }));
  };
  const sink = new FrameSink(write, { onDrop: ({ dropped }) => drops.push(dropped) });
  const frame = (number, format = 'NV12') => ({ format, copyTo: async (to) => to.fill(number),
    colorSpace: { matrix: null, fullRange: null }, close: () => closed.push(number),
    visibleRect: { x: 0, y: 0, width: 2, height: 2 } });
  const writer = sink.writable.getWriter();
  for (const number of [1, 2, 3]) await writer.write(frame(number)); // waits for no answer
  answers[0].resolve('written');
  await turn();
  await writer.write(frame(4));
  assert.deepEqual(posted.map(({ pixels }) => pixels[0]), [4, 2, 4]); // 4 reuses 1's memory
  assert.equal(posted[0].pixels, posted[2].pixels);
  assert.deepEqual([closed, drops, sink.counts], [[1, 2, 3, 4], [1], { written: 1, dropped: 1 }]);
  answers[1].resolve('dropped');
  await turn();
  assert.deepEqual([drops, sink.counts.dropped], [[1, 2], 2]);
  await assert.rejects(writer.write(frame(5, 'I420')), { code: 'FORMAT_CHANGED' });
  assert.equal(closed.at(-1), 5);
  const pixels = new Uint8Array(16);
  await assert.rejects(new FrameSink(write).writable.getWriter().write({ pixels }), invalid);
  const pictures = new FrameSink(write, { format: 'rgba' }).writable.getWriter();
  await pictures.write({ size: { width: 2, height: 2 }, pixels });
  pixels.fill(7);
  assert.equal(posted.at(-1).pixels[0], 0);
  answers.at(-1).reject(Object.assign(new Error(), { code: 'GONE' }));
  await assert.rejects(pictures.closed, { code: 'GONE' });
});

test('frames of a port are written or refused, and answered', async (context) => {
  const { port1, port2 } = new MessageChannel();
  context.after(() => port1.close()); // an open port keeps the test running
  const written = [];
  const stdin = new Writable({ write: (chunk, _, done) => { written.push(chunk); setImmediate(done); } });
  acceptFrames(port1, async () => helperOf(stdin, 'rgba'));
  const write = throughPort(port2);
  const size = { width: 2, height: 2 };
  const pixels = Uint8Array.from({ length: 16 }, (_, i) => i);
  assert.equal(await write({ format: 'rgba,bottom', size, pixels }), 'written');
  for (const [format, code] of [['rgba,top', 'FORMAT_CHANGED'], ['none', 'INVALID_ARGUMENT']]) {
    await assert.rejects(write({ format, size, pixels }), { code });
  }
  assert.deepEqual(written.slice(1), [Buffer.from(pixels)]); // the first is the header
  // The second frame is refused before the first is written. The answers keep the frames' order.
  const [first, second] = await Promise.allSettled(['rgba', 'nv12'].map((format) =>
    write({ format, size, pixels })));
  assert.deepEqual([first.value, second.reason?.code], ['written', 'FORMAT_CHANGED']);
  const fail = () =>
    assert.rejects(write({ format: 'rgba', size, pixels }), { code: 'PORT_CLOSED' });
  const unanswered = fail();
  port1.close();
  await unanswered;
  port2.postMessage = () => assert.fail('posted to a closed port');
  await fail();
});

test('drawn frames are acknowledged; a page that is behind waits for a key frame', async () => {
  const [acknowledged, posted] = [[], []];
  const port = Object.assign(new EventEmitter(), { start() {},
    postMessage: ({ config, chunk }) => posted.push([chunk.timestamp, config?.codedWidth]) });
  const draw = (id) => port.emit('message', { data: id });
  const overdue = () => new Promise((resolve) => setTimeout(resolve, 20));
  const parameters = { sequenceParameterSet: Uint8Array.of(1, 2, 3, 4) };
  const configuration = (width) => ({ type: 'configuration', width, ...parameters,
    pictureParameterSet: Uint8Array.of(width) });
  const picture = (frameId, keyframe = false) =>
    ({ type: 'frame', frameId: BigInt(frameId), keyframe, data: new Uint8Array(1) });
  async function* packets() {
    yield* [configuration(64), picture(1, true), picture(2)];
    assert.deepEqual(acknowledged, []);
    for (const id of [9, 2, 1]) draw(id); // 9 is of an earlier client; 2 also acknowledges 1
    yield picture(3);
    await overdue();
    assert.ok(!isClosed);
    yield* [picture(4), configuration(32), picture(5, true)]; // the page has not drawn the third
    draw(3);
    yield* [picture(6), picture(7, true), picture(8)];
    draw(8);
    port.emit('close');
  }
  let isClosed = false;
  const client = { [Symbol.asyncIterator]: packets, close: () => { isClosed = true; },
    acknowledge: (id) => acknowledged.push(id) };
  const limits = { drawnWithin: 1, firstDrawnWithin: 1 };
  await sendPreview(client, port, limits);
  assert.deepEqual(posted, [[1, 64], [2, undefined], [3, undefined], [7, 32], [8, undefined]]);
  assert.deepEqual(acknowledged, [2, 3, 4, 5, 3, 6, 8]);
  assert.ok(isClosed);
  isClosed = false;
  const early = sendPreview(Promise.resolve(client), port);
  port.emit('close'); // before the client is connected
  await early;
  assert.ok(isClosed);
  assert.deepEqual(port.eventNames(), []); // no listener is left
  const { port1: gone } = new MessageChannel();
  gone.close();
  await once(gone, 'close');
  const closing = new EventEmitter();
  async function* endless() {
    yield picture(1, true);
    await once(closing, 'close');
  }
  const unseen = { ...client, [Symbol.asyncIterator]: endless, close: () => closing.emit('close') };
  await sendPreview(unseen, gone, limits);
});

test('ids are the uptime by default, and always grow', async () => {
  const ids = [];
  const stdin = new Writable({ writev: ([header], done) => {
    ids.push(header.chunk.readBigUInt64BE(8));
    done();
  } });
  const helper = helperOf(stdin, 'rgba');
  const before = BigInt(frameId());
  for (const id of [undefined, undefined, 2n ** 60n, undefined, 2n ** 64n - 1n]) {
    await helper.writeFrame({ width: 2, height: 2 }, new Uint8Array(16), id).done;
  }
  assert.ok(ids[0] >= before && ids[1] > ids[0] && ids[1] <= BigInt(frameId()), `${ids}`);
  assert.deepEqual(ids.slice(2, 4), [2n ** 60n, 2n ** 60n + 1n]);
  assert.throws(() => helper.writeFrame({ width: 2, height: 2 }, new Uint8Array(16)), invalid);
});
