// Records pictures that flash and sound that beeps at the same instants. The sound comes from
// devices whose clocks may be wrong. Prints how far the beeps of the movies are from their flashes.
// For each device whose clock is steady, a recorded minute of a sine shows what the helper adds to
// the sound. Ends with 1 if a movie has too few or too many beeps, if a beep is more than 10 ms
// from its flash, if half of the beeps or fewer have a flash to compare with, or if a spectral line
// other than the sine's is louder than -60 dB. LIBRARY_OF_FAULTS, built from tests/faults, makes
// the helper's clock run SPEED times as fast as the real one. The encoder is too slow for that, so
// pictures are lost. The first, second and third picture of a flash differ in brightness. So each
// of them shows when the flash began.
//
//   node sound_sync.mjs HELPER LIBRARY_OF_FAULTS SPEED MINUTES

import { spawnSync } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import { setTimeout as sleep } from 'node:timers/promises';
import { commandOf, inFolder, recordOf } from '../tests/parent.mjs';
import { startFastHelper } from './fast_helper.mjs';

const [helper, library, speed, minutes] = process.argv.slice(2).map((word, i) =>
  i < 2 ? word : Number(word));
if (!Number.isInteger(speed) || speed < 1) throw new Error('SPEED must be a whole number');
if (!(minutes >= 2)) throw new Error('MINUTES must be 2 or more, since two devices change after 64 s');
const uptime = () => Number(process.hrtime.bigint()) / 1e9 * speed; // seconds of the helper's time
const id = '6F9619FF-8B86-D011-B42D-00CF4FC96400';
const [fps, soundRate, perRecord] = [15, 48000, 960];
const brightness = [235, 185, 135]; // of the pictures of a flash
// The period and the length of flashes and beeps, in seconds. The 1e-6 keeps a frame at the very
// end of a flash dark.
const [period, length] = [10, brightness.length / fps - 1e-6];
const size = [160, 90];
const tolerance = 0.010; // seconds
const fullScale = 32768;
// `mostBeside`: the limit for every spectral line but the sine's, in dB relative to a sine of full
// scale.
const [sineHertz, mostBeside] = [1000, -60];

// Each maps a sample's time on the device's clock to the time at which the sample was captured.
const steadyDevices = {
  'an exact clock': (time) => time,
  '100 ppm fast': (time) => time / (1 + 100e-6),
  '300 ppm slow': (time) => time / (1 - 300e-6),
};
const devices = {
  ...steadyDevices,
  'jumps by 200 ms': (time) => time < 64 ? time : time + 0.2,
  'stops for 3 s': (time) => time < 64 ? time : time + 3,
};

const isOn = (time) => time >= period && time % period < length;

function pictureAt(time) {
  const picture = Buffer.alloc(size[0] * size[1] * 1.5, 128);
  const luma = isOn(time) ? brightness[Math.round(time % period * fps)] : 16;
  return picture.fill(luma, 0, size[0] * size[1]);
}

const sine = (time) => 30000 * Math.sin(2 * Math.PI * sineHertz * time);
const beep = (time) => (isOn(time) ? sine(time) : 0);

// One record of what the device hears of `sound`. `start` is a time on the device's clock.
function samplesAt(start, capture, sound) {
  const samples = new Int16Array(perRecord);
  for (let n = 0; n < perRecord; ++n)
    samples[n] = Math.round(sound(capture(start + n / soundRate)));
  return Buffer.from(samples.buffer);
}

// Feeds pictures and sound as a camera and a microphone do. Never writes two pictures at once,
// because the helper would drop one.
async function film(stdin, seconds, capture, sound) {
  const begin = uptime();
  const microseconds = (time) => Math.round((begin + time) * 1e6);
  let [frame, record] = [0, 0];
  for (let now = 0; now < seconds; now = uptime() - begin) {
    const batch = [];
    if (frame / fps <= now) {
      batch.push(recordOf(pictureAt(frame / fps), size, microseconds(frame / fps)));
      ++frame;
    }
    for (; capture((record + 1) * perRecord / soundRate) <= now; ++record) {
      const start = record * perRecord / soundRate;
      const late = (record * 7919 % 11) * 1e-4; // up to a millisecond, as drivers are
      const samples = samplesAt(start, capture, sound);
      batch.push(recordOf(samples, [0, 0], microseconds(capture(start) + late)));
    }
    if (!stdin.write(Buffer.concat(batch))) await once(stdin, 'drain');
    await sleep(1);
  }
}

async function record(path, seconds, capture, sound) {
  const { program, lines } = await startFastHelper(helper, library, speed,
    { TAVO_SOUND: `${soundRate}x1` });
  program.stdin.write(commandOf({ type: 'record_start', id, path, target_fps: fps,
    resolution: '640x360', cadence: 'steady', bit_rate: 250_000, sound: true }));
  await film(program.stdin, seconds, capture, sound);
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

// Returns when the flashes began. Each picture of a flash gives one entry. A picture is left out if
// neither the picture before it nor the one after it is in the movie, because its time may be
// wrong. The helper may have read it more than 2 s after its capture. Then the movie has the time
// of reading, not of capture.
function flashesOf(path) {
  const shown = ['-show_entries', 'packet=pts_time', '-of', 'csv=p=0'];
  const times = String(run('ffprobe', ['-v', 'error', '-select_streams', 'v', ...shown, path]))
    .trim().split('\n').map(Number);
  const grey = run('ffmpeg', ['-v', 'error', '-i', path, '-map', '0:v', '-fps_mode', 'passthrough',
    '-vf', 'scale=1:1:flags=area,format=gray', '-f', 'rawvideo', '-']);
  const isBeside = (i) => Math.abs(times[i] - times[i - 1] - 1 / fps) < 0.001;
  return times.flatMap((time, i) => {
    const number = brightness.findIndex((luma) => Math.abs((luma - 16) / 219 * 255 - grey[i]) < 20);
    return number >= 0 && (isBeside(i) || isBeside(i + 1)) ? [time - number / fps] : [];
  });
}

function samplesOf(path) {
  const bytes = run('ffmpeg', ['-v', 'error', '-i', path, '-map', '0:a', '-f', 's16le', '-']);
  return new Int16Array(bytes.buffer, bytes.byteOffset, bytes.length / 2);
}

// When each beep began.
function beepsOf(path) {
  const begins = [];
  let [sum, weighted, last] = [0, 0, -Infinity];
  const close = () => { if (sum > 0) begins.push(weighted / sum - length / 2); };
  for (const [n, sample] of samplesOf(path).entries()) {
    const [time, level] = [n / soundRate, (sample / fullScale) ** 2];
    if (level < 0.01) continue;
    if (time - last > 1) {
      close();
      [sum, weighted] = [0, 0];
    }
    [sum, weighted, last] = [sum + level, weighted + level * time, time];
  }
  close();
  return begins;
}

// How far each beep is from its flash. If the pictures of a flash disagree, the largest distance
// counts.
function offsetsOf(beeps, flashes) {
  return beeps.flatMap((time) => {
    const offsets = flashes.map((flash) => time - flash)
      .filter((offset) => Math.abs(offset) < period / 2)
      .sort((a, b) => Math.abs(b) - Math.abs(a));
    return offsets.length > 0 ? [{ time, offset: offsets[0] }] : [];
  });
}

// The discrete Fourier transform of real values, whose number is a power of two. Replaces them by
// the real parts of the result, and returns the imaginary parts.
function transform(real) {
  const count = real.length;
  const imaginary = new Float64Array(count);
  for (let i = 1, mirrored = 0; i < count; ++i) {
    let bit = count >> 1;
    for (; mirrored & bit; bit >>= 1) mirrored ^= bit;
    mirrored ^= bit;
    if (i < mirrored) [real[i], real[mirrored]] = [real[mirrored], real[i]];
  }
  for (let half = 1; half < count; half *= 2) {
    for (let k = 0; k < half; ++k) {
      const [x, y] = [Math.cos(Math.PI * k / half), -Math.sin(Math.PI * k / half)];
      for (let a = k, b = k + half; a < count; a += 2 * half, b += 2 * half) {
        const re = real[b] * x - imaginary[b] * y;
        const im = real[b] * y + imaginary[b] * x;
        real[b] = real[a] - re;
        imaginary[b] = imaginary[a] - im;
        real[a] += re;
        imaginary[a] += im;
      }
    }
  }
  return imaginary;
}

// The level of the loudest spectral line other than the sine's, in dB of a full-scale sine. Short
// windows show a click, which long ones spread. Long windows show lines close to the sine. Windows
// are Blackman and Harris's: side lobes are below -92 dB, and the main lobe is eight lines wide.
function loudestBeside(samples) {
  let most = 0;
  for (const count of [1024, 16384]) {
    const weights = Float64Array.from({ length: count }, (_, n) =>
      [0.35875, -0.48829, 0.14128, -0.01168].reduce((sum, factor, k) =>
        sum + factor * Math.cos(2 * Math.PI * k * n / count), 0));
    const loudest = fullScale * weights.reduce((sum, weight) => sum + weight, 0) / 2;
    const carrier = sineHertz / soundRate * count;
    for (let at = 0; at + count <= samples.length; at += count / 4) {
      const real = weights.map((weight, n) => weight * samples[at + n]);
      const imaginary = transform(real);
      for (let line = 0; line <= count / 2; ++line) {
        if (Math.abs(line - carrier) <= 5) continue;
        most = Math.max(most, Math.hypot(real[line], imaginary[line]) / loudest);
      }
    }
  }
  return 20 * Math.log10(most);
}

// Records a minute of a sine, and returns the level of the loudest other line. Ignores the first
// and the last second.
async function besideSine(capture) {
  const path = inFolder('sine.mp4');
  const { sound_gaps: gaps } = await record(path, 60, capture, sine);
  if (gaps > 0) throw new Error(`the sine has ${gaps} gaps`);
  const samples = samplesOf(path).subarray(soundRate, -soundRate);
  if (samples.length < 57 * soundRate) throw new Error('the sine is too short');
  if (!samples.some((sample) => sample > fullScale / 2)) throw new Error('the sine is not there');
  const level = loudestBeside(samples);
  fs.rmSync(path);
  return level;
}

console.log(`
| Device | Beeps | Compared | First | After 10 minutes | Last | Most | Gaps | Missing | Beside a sine |
|---|---|---|---|---|---|---|---|---|---|`);
for (const [name, capture] of Object.entries(devices)) {
  const path = inFolder(`${name}.mp4`);
  const event = await record(path, minutes * 60, capture, beep);
  const beeps = beepsOf(path);
  const offsets = offsetsOf(beeps, flashesOf(path));
  const shown = (pair) => (pair ? `${(pair.offset * 1000).toFixed(1)} ms` : '');
  const most = Math.max(...offsets.map(({ offset }) => Math.abs(offset)));
  const beside = name in steadyDevices ? await besideSine(capture) : undefined;
  console.log(`| ${[name, beeps.length, offsets.length, shown(offsets[0]),
    shown(offsets.find(({ time }) => time > 600)), shown(offsets.at(-1)), shown({ offset: most }),
    event.sound_gaps, `${event.sound_missing.toFixed(2)} s`,
    beside === undefined ? '' : `${beside.toFixed(1)} dB`].join(' | ')} |`);
  const sent = Math.ceil(minutes * 60 / period) - 1;
  if (beeps.length === sent && offsets.length > sent / 2 && most <= tolerance &&
    (beside ?? mostBeside) <= mostBeside) continue;
  console.error(`${name}: not within the limits. ${sent} beeps were sent.`);
  process.exitCode = 1;
}
