// The viewer page's rules without a browser: node --test page_modules_test.mjs

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { avcRecord, codecString } from '../../tools/view/avc.js';
import { ClockOffset, latencyOf } from '../../tools/view/clock.js';
import { MovingWindow, percentile } from '../../tools/view/figures.js';
import { parsePacket } from '../../tools/view/packets.js';
import { Chronicle, duration } from '../../tools/view/sentences.js';

const bytes = (hex) => Uint8Array.from(hex.match(/[0-9a-f]{2}/gi) ?? [], (byte) => parseInt(byte, 16));
const hex = (array) => Buffer.from(array).toString('hex');

test('packets, and what the decoder is told', () => {
  const configuration = '0000001a 01 0000000000000000 00 0500 02d0 0005 0003 6742c01fda 68ce3c';
  const { width, height, sequenceParameterSet, pictureParameterSet } = parsePacket(bytes(configuration).buffer);
  assert.deepEqual([width, height], [1280, 720]);
  assert.equal(codecString(sequenceParameterSet), 'avc1.42c01f');
  const record = avcRecord(sequenceParameterSet, pictureParameterSet);
  assert.equal(hex(record), '0142c01fffe10005' + '6742c01fda' + '01000368ce3c');
  const frame = parsePacket(bytes('0000000f 02 fedcba9876543210 01 0000000165').buffer);
  assert.deepEqual([frame.frameID, frame.isKey, hex(frame.payload)], [0xfedcba9876543210n, true, '0000000165']);
  const refused = {
    nothing: '',
    'cut off in the header': '0000000a 02 0000000000',
    'cut off in the payload': '0000000f 02 0000000000000001 01 000000',
    'more than it says': '0000000b 02 0000000000000001 01 000000',
    'unknown type': '0000000b 03 0000000000000001 01 00',
    'frame without bytes': '0000000a 02 0000000000000001 01',
    'parameter sets shorter than said': '00000018 01 0000000000000000 00 0500 02d0 0005 0003 6742c01fda 68',
    'configuration of six bytes': '00000010 01 0000000000000000 00 0500 02d0 0005',
  };
  for (const [name, packet] of Object.entries(refused)) {
    assert.throws(() => parsePacket(bytes(packet).buffer), /packet|configuration|frame/, name);
  }
});

test('the clock offset trusts the shortest round trip, whichever way was slow', () => {
  const clock = new ClockOffset();
  const truth = 5_000_000;
  assert.equal(clock.value, undefined);
  for (const [sent, there, back] of [[0, 9000, 100], [20_000, 200, 100], [40_000, 100, 30_000]]) {
    clock.add(sent, sent + there + back, sent + there + truth);
  }
  assert.equal(clock.value, truth + 50);
  for (let i = 0; i < 40; i += 1) clock.add(i, i + 1000, i + 500 + truth - 7000); // since the machine slept
  assert.equal(clock.value, truth - 7000);
  assert.throws(() => clock.add(2000, 1000, truth), /ping/);
  assert.throws(() => clock.add(1000, 2000, undefined), /ping/);
  assert.equal(latencyOf(5_980_000n, 1_000_000, truth), 20_000);
  for (const foreign of [7n, 1_005_000_001n, 1n << 63n]) assert.equal(latencyOf(foreign, 1e9, truth), undefined);
});

test('figures over a window', () => {
  const frames = new MovingWindow(2000);
  assert.equal(frames.rate(0), undefined);
  for (let i = 0; i < 300; i += 1) frames.add(i * 10);
  assert.equal(frames.rate(2990), 100);
  assert.equal(frames.rate(3990), 50); // one second after the last
  assert.equal(frames.rate(9000), 0);
  const hundred = Array.from({ length: 100 }, (_, i) => 100 - i);
  const cases = [[[], 0.5, undefined], [[7], 0.99, 7], [[9, 10], 0.5, 9], [hundred, 0.99, 99], [hundred, 0, 1]];
  for (const [values, fraction, expected] of cases) assert.equal(percentile(values, fraction), expected);
});

test('only news is told', () => {
  const chronicle = new Chronicle();
  const texts = (event) => chronicle.read(event).map(({ text }) => text);
  const failed = { type: 'recording', id: 'A', state: 'failed', error: 'No space left on device' };
  assert.match(texts(failed)[0], /The disk is full.*“No space left on device”/);
  assert.deepEqual(texts(failed), []);
  assert.equal(texts({ ...failed, id: 'B', error: 'new words' })[0], 'The take failed. (“new words”)');
  assert.deepEqual(texts({ type: 'stats', clients: 1, dropped_peers: 3 }), ['Clients of the stream: 1.']);
  const refused = texts({ type: 'stats', clients: 1, dropped_peers: 5 });
  assert.deepEqual(refused, ['The helper refused or ended 2 connections.']);
  assert.equal(duration(59.96), '1:00.0');
});
