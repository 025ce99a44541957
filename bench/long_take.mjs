// Records takes of ten seconds and of two hours, and prints what may grow with their length: the
// drift of the movie's times against the capture times, the size of its "moov" box, the time from
// the stop to "saved", and the helper's peak memory. The exit status is 1 if the drift exceeds
// 1 ppm, or if the movie's frames or their times differ from the take's log of frames. ffprobe
// reads the movie. LIBRARY_OF_FAULTS is built from tests/faults. In the take of two hours it makes
// the helper's clock run SPEED times as fast as the real one.
//
//   node long_take.mjs HELPER LIBRARY_OF_FAULTS SPEED

import { execFileSync } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import { setImmediate as turn } from 'node:timers/promises';
import { commandOf, inFolder, recordOf } from '../tests/parent.mjs';
import { startFastHelper } from './fast_helper.mjs';

const [helper, library, longTakeSpeed] = process.argv.slice(2);
if (!/^[1-9][0-9]*$/.test(longTakeSpeed)) throw new Error('SPEED must be a whole number');
const uptime = () => Number(process.hrtime.bigint()) / 1e9; // seconds
const id = '6F9619FF-8B86-D011-B42D-00CF4FC96400';
const rate = 60; // frames per second of the helper's time
const size = [160, 90];
const picture = Buffer.alloc(size[0] * size[1] * 1.5, 128);
const neverWoken = new Int32Array(new SharedArrayBuffer(4));

// Feeds the helper for `seconds` of the helper's time. Skips a frame if the
// one before it is not yet wholly in the pipe.
async function film(stdin, seconds, speed) {
  const helperTime = () => uptime() * speed;
  const end = helperTime() + seconds;
  for (let [due, number] = [helperTime(), 0]; due < end; ++number) {
    const wait = Math.max(due - helperTime(), 0);
    Atomics.wait(neverWoken, 0, 0, wait / speed * 1000); // Node's timers are too coarse
    await turn();
    due = Math.max(due + 1 / rate, helperTime() - 1 / rate);
    if (stdin.writableLength > 0) continue;
    picture.fill(16 + number % 220, 0, size[0] * size[1]);
    stdin.write(recordOf(picture, size, Math.round(helperTime() * 1e6)));
  }
}

// Records a take. Returns its last event, how long its end took in real seconds, and the helper's
// peak memory in MiB.
async function record(path, seconds, speed) {
  const { program, lines } = await startFastHelper(helper, library, speed);
  program.stdin.write(commandOf({ type: 'record_start', id, path, target_fps: rate,
    resolution: '640x360', cadence: 'steady', bit_rate: 250_000, frame_log: true }));
  await film(program.stdin, seconds, speed);
  const stopped = uptime();
  program.stdin.write(commandOf({ type: 'record_stop', id }));
  const [event] = await once(lines, 'saved');
  const ending = uptime() - stopped;
  const status = fs.readFileSync(`/proc/${program.pid}/status`, 'utf8');
  program.stdin.end();
  return { event, ending, peak: Number(status.match(/VmHWM:\s*(\d+)/)[1]) / 1024 };
}

// The size of the "moov" box, in bytes.
function tableBytes(path) {
  const [file, header] = [fs.openSync(path), Buffer.alloc(16)];
  for (let at = 0; fs.readSync(file, header, 0, 16, at) === 16;) {
    const bytes = header.readUInt32BE();
    if (header.toString('latin1', 4, 8) === 'moov') return bytes;
    at += bytes === 1 ? Number(header.readBigUInt64BE(8)) : bytes;
  }
  throw new Error(`${path} has no "moov" box`);
}

// The times of the samples in a movie, in seconds.
function timesIn(path) {
  const shown = ['-show_entries', 'packet=pts_time', '-of', 'csv=p=0'];
  const options = { maxBuffer: 1 << 30, encoding: 'utf8' };
  return execFileSync('ffprobe', ['-v', 'error', ...shown, path], options)
    .trim().split('\n').map(Number);
}

console.log(`
| Take | Frames | Not written | Drift | moov | moov per frame | Stop to "saved" | Peak memory |
|---|---|---|---|---|---|---|---|`);
for (const [seconds, speed] of [[10, 1], [7200, Number(longTakeSpeed)]]) {
  const path = inFolder(`${seconds}.mp4`);
  const { event, ending, peak } = await record(path, seconds, speed);
  const log = fs.readFileSync(`${path}.frames.csv`, 'utf8').trim().split('\n').slice(1)
    .map((line) => line.split(','));
  const written = log.filter(([,,, outcome]) => outcome === 'written');
  const [captured, logged] = [1, 2].map((field) => written.map((line) => Number(line[field])));
  const times = timesIn(path);
  const lengthOf = (moments) => moments.at(-1) - moments[0];
  const drift = (lengthOf(times) / lengthOf(captured) - 1) * 1e6;
  const bytes = tableBytes(path);
  console.log(`| ${[`${seconds} s`, written.length, log.length - written.length,
    `${drift.toFixed(3)} ppm`, `${bytes} bytes`, (bytes / written.length).toFixed(1),
    `${(ending * 1000).toFixed(0)} ms`, `${peak.toFixed(0)} MiB`].join(' | ')} |`);
  const isWhole = logged.length === event.frames && logged.length === times.length &&
    logged.every((time, i) => Math.abs(time - times[i]) < 2e-6);
  if (isWhole && Math.abs(drift) <= 1) continue;
  const problem = isWhole ? 'the drift is too large' : 'frames or times differ from the log';
  console.error(`${path}: ${problem}`);
  process.exitCode = 1;
}
