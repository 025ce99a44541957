// The viewer page's modules that need no browser: node --test page_modules_test.mjs
// The modules that are compiled from the Node client are tested in tests/node.

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { ClockOffset, latencyOf } from '../../tools/viewer/page/clock.js';
import { EventFormatter, duration } from '../../tools/viewer/page/event_formatter.js';
import { MovingWindow, percentile } from '../../tools/viewer/page/figures.js';

test('the clock offset comes from the shortest round trip', () => {
  const clock = new ClockOffset();
  const truth = 5_000_000;
  assert.equal(clock.value, undefined);
  for (const [sent, there, back] of [[0, 9000, 100], [20_000, 200, 100], [40_000, 100, 30_000]]) {
    clock.add(sent, sent + there + back, sent + there + truth);
  }
  assert.equal(clock.value, truth + 50);
  // Old pings are forgotten.
  for (let i = 0; i < 40; i += 1) clock.add(i, i + 1000, i + 500 + truth - 7000);
  assert.equal(clock.value, truth - 7000);
  assert.equal(latencyOf(5_980_000n, 1_000_000, truth), 20_000);
  for (const noTime of [7n, 1_005_000_001n, 1n << 63n]) assert.equal(latencyOf(noTime, 1e9, truth), undefined);
});

test('a rate covers the last two seconds; a percentile is one of the values', () => {
  const frames = new MovingWindow(2000);
  assert.equal(frames.rate(0), undefined);
  for (let i = 0; i < 300; i += 1) frames.add(i * 10);
  assert.equal(frames.rate(2990), 100);
  assert.equal(frames.rate(3990), 50); // one second after the last frame
  assert.equal(frames.rate(9000), 0);
  const hundred = Array.from({ length: 100 }, (_, i) => 100 - i);
  const cases = [[[], 0.5, undefined], [[7], 0.99, 7], [[9, 10], 0.5, 9], [hundred, 0.99, 99], [hundred, 0, 1]];
  for (const [values, fraction, expected] of cases) assert.equal(percentile(values, fraction), expected);
});

test('an event becomes a line in the helper\'s words, a repeated event becomes none', () => {
  const failed = { type: 'recording', id: 'A', state: 'failed', error: 'No space left on device' };
  const error = { type: 'error', message: 'truncated raw frame' };
  const kept = { kept_path: 'a.mp4', kept_frames: 61, kept_duration: 2.04 };
  const formatter = new EventFormatter();
  for (const [event, ...lines] of [
    [failed, 'The take failed: No space left on device'],
    [error, 'The helper failed: truncated raw frame'], [failed], [error],
    [{ ...failed, id: 'B', ...kept },
      'The take failed: No space left on device. Kept 0:02.0 min, 61 frames: a.mp4'],
    [{ type: 'stats', clients: 1, dropped_peers: 3 }, 'Clients of the stream: 1.'],
    [{ type: 'stats', clients: 1, dropped_peers: 5 },
      'The helper refused or closed 2 connections.'],
  ]) assert.deepEqual(formatter.format(event).map(({ text }) => text), lines);
  assert.equal(duration(59.96), '1:00.0');
});
