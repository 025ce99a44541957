// Records a test card that flashes and beeps at the same instant, with sound devices whose clocks
// are wrong, and prints how far the beeps of the movies are from their flashes. ffmpeg decodes.
// Ends with 1 if a beep is more than 10 ms off. The helper's clock runs SPEED times as fast as the
// real one.
//
//   node sound_sync.mjs HELPER LIBRARY_OF_FAULTS SPEED MINUTES

import { spawn, spawnSync } from 'node:child_process';
import { once } from 'node:events';
import readline from 'node:readline';
import { setTimeout as sleep } from 'node:timers/promises';
import { commandOf, environment, inFolder, recordOf } from '../tests/parent.mjs';

const [helper, library, speed, minutes] = process.argv.slice(2).map((word, i) =>
  i < 2 ? word : Number(word));
const uptime = () => Number(process.hrtime.bigint()) / 1e9 * speed; // seconds of the helper's time
const id = '6F9619FF-8B86-D011-B42D-00CF4FC96400';
const [fps, soundRate, perRecord] = [30, 48000, 960];
// Of flashes and beeps, in seconds. A frame at the very end of a flash is dark.
const [period, length] = [10, 0.1 - 1e-6];
const size = [160, 90];
const tolerance = 0.010;

// `capture` maps a time of the device to the time at which it was captured; null: nothing was.
const devices = {
  'an exact clock': (time) => time,
  '100 ppm fast': (time) => time / (1 + 100e-6),
  '300 ppm slow': (time) => time / (1 - 300e-6),
  'jumps by 200 ms': (time) => time < 64 ? time : time + 0.2,
  'stops for 3 s': (time) => time < 64 ? time : time + 3,
};

const isOn = (time) => time >= period && time % period < length;

function pictureAt(time) {
  const picture = Buffer.alloc(size[0] * size[1] * 1.5, 128);
  return picture.fill(isOn(time) ? 235 : 16, 0, size[0] * size[1]);
}

// What the device hears from this time of its own on.
function soundAt(start, capture) {
  const samples = Buffer.alloc(perRecord * 2);
  for (let n = 0; n < perRecord; ++n) {
    const time = capture(start + n / soundRate);
    if (isOn(time)) samples.writeInt16LE(Math.round(16000 * Math.sin(6283 * time)), n * 2);
  }
  return samples;
}

// Feeds both as a camera and a microphone do, in the order of capture.
async function film(stdin, seconds, capture) {
  const begin = uptime();
  const microseconds = (time) => Math.round((begin + time) * 1e6);
  let [frame, record] = [0, 0];
  for (let now = 0; now < seconds; now = uptime() - begin) {
    const batch = [];
    for (; frame / fps <= now; ++frame)
      batch.push(recordOf(pictureAt(frame / fps), size, microseconds(frame / fps)));
    for (; capture((record + 1) * perRecord / soundRate) <= now; ++record) {
      const start = record * perRecord / soundRate;
      const late = (record * 7919 % 11) * 1e-4; // up to a millisecond, as drivers are
      batch.push(recordOf(soundAt(start, capture), [0, 0], microseconds(capture(start) + late)));
    }
    if (!stdin.write(Buffer.concat(batch))) await once(stdin, 'drain');
    await sleep(1);
  }
}

async function record(path, seconds, capture) {
  const program = spawn(helper, [], { stdio: ['pipe', 'pipe', 'inherit'], env: { ...environment,
    TAVO_FRAME_FORMAT: 'nv12', TAVO_SOUND: `${soundRate}x1`, TAVO_H264_ENCODER: 'software',
    LD_PRELOAD: library, LUMORA_SPEED: speed } });
  const lines = readline.createInterface({ input: program.stdout });
  lines.on('line', (line) => {
    const event = JSON.parse(line);
    if (event.state === 'failed' || event.type === 'error') throw new Error(line);
    lines.emit(event.state ?? event.type, event);
  });
  await once(lines, 'ready');
  program.stdin.write(commandOf({ type: 'record_start', id, path, target_fps: fps,
    resolution: '640x360', cadence: 'steady', bit_rate: 250_000, sound: true }));
  await film(program.stdin, seconds, capture);
  program.stdin.write(commandOf({ type: 'record_stop', id }));
  const [event] = await once(lines, 'saved');
  program.stdin.end();
  return event;
}

function run(command, args) {
  const { stdout, stderr, status } = spawnSync(command, args, { maxBuffer: 2 ** 31 });
  if (status !== 0) throw new Error(String(stderr));
  return stdout;
}

// The centres of what is loud or bright, as [time, level] come.
function centresOf(values) {
  const centres = [];
  let [sum, weighted, last] = [0, 0, -Infinity];
  const close = () => { if (sum > 0) centres.push(weighted / sum); };
  for (const [time, level] of values) {
    if (level < 0.01) continue;
    if (time - last > 1) {
      close();
      [sum, weighted] = [0, 0];
    }
    [sum, weighted, last] = [sum + level, weighted + level * time, time];
  }
  close();
  return centres;
}

function* levelsOfPictures(path) {
  const shown = ['-show_entries', 'packet=pts_time', '-of', 'csv=p=0'];
  const times = String(run('ffprobe', ['-v', 'error', '-select_streams', 'v', ...shown, path]))
    .trim().split('\n').map(Number);
  const grey = run('ffmpeg', ['-v', 'error', '-i', path, '-map', '0:v', '-fps_mode', 'passthrough',
    '-vf', 'scale=1:1:flags=area,format=gray', '-f', 'rawvideo', '-']);
  // A picture is seen until the next one.
  for (const [i, time] of times.entries()) yield [time + 0.5 / fps, grey[i] > 128 ? 1 : 0];
}

function* levelsOfSound(path) {
  const bytes = run('ffmpeg', ['-v', 'error', '-i', path, '-map', '0:a', '-f', 's16le', '-']);
  for (let n = 0; n * 2 < bytes.length; ++n)
    yield [n / soundRate, (bytes.readInt16LE(n * 2) / 32768) ** 2];
}

console.log(`
| Device | Beeps | First | After 10 minutes | Last | Most | Gaps | Missing |
|---|---|---|---|---|---|---|---|`);
for (const [name, capture] of Object.entries(devices)) {
  const path = inFolder(`${name}.mp4`);
  const event = await record(path, minutes * 60, capture);
  const [flashes, beeps] = [levelsOfPictures(path), levelsOfSound(path)].map(centresOf);
  const offsets = beeps.map((time, i) => time - flashes[i]);
  const shown = (offset) => `${(offset * 1000).toFixed(1)} ms`;
  const most = Math.max(...offsets.map(Math.abs));
  console.log(`| ${[name, beeps.length, shown(offsets[0]), shown(offsets[60] ?? NaN),
    shown(offsets.at(-1)), shown(most), event.sound_gaps,
    `${event.sound_missing.toFixed(2)} s`].join(' | ')} |`);
  if (beeps.length > 0 && beeps.length === flashes.length && most <= tolerance) continue;
  console.error(`${path}: ${beeps.length} beeps, ${flashes.length} flashes`);
  process.exitCode = 1;
}
