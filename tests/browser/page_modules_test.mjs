// The viewer page's list of events: node --test page_modules_test.mjs

import assert from 'node:assert/strict';
import { test } from 'node:test';
import { EventFormatter, duration } from '../../tools/viewer/page/event_formatter.js';

test('an event gives one line, with the helper\'s words for an error; a repeated event gives none', () => {
  const failed = { type: 'recording', id: 'A', state: 'failed', error: 'No space left on device' };
  const error = { type: 'error', message: 'truncated raw frame' };
  const kept = { kept_path: 'a.mp4', kept_frames: 61, kept_duration: 2.04 };
  const formatter = new EventFormatter();
  for (const [event, ...lines] of [
    [failed, 'The take failed: No space left on device'],
    [error, 'The helper failed: truncated raw frame'], [failed], [error],
    [{ ...failed, id: 'B', ...kept },
      'The take failed: No space left on device. Kept 0:02.0 min, 61 frames: a.mp4'],
    [failed], // the helper may repeat this event after it has refused another take
    [{ type: 'stats', clients: 1, dropped_peers: 3 }, 'Clients of the stream: 1.'],
    [{ type: 'stats', clients: 1, dropped_peers: 5 },
      'The helper has refused or closed 2 more connections.'],
  ]) assert.deepEqual(formatter.format(event).map(({ text }) => text), lines);
  assert.equal(duration(59.96), '1:00.0');
});
