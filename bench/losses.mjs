// Prints the most that a take loses by each fault, without and with "on_failure": "keep". The exit
// status is 1 if a take with "keep" lost more than it may. Each picture shows its number, which is
// read from the movie with ffmpeg. For a full disk the script mounts a small file system, so it
// needs its own mount namespace. The takes of all other faults are written below TMPDIR.
// LIBRARY_OF_FAULTS is built from tests/faults.
//
//   unshare --map-root-user --mount node losses.mjs HELPER LIBRARY_OF_FAULTS [FAULT]

import { execFile, execFileSync, spawn } from 'node:child_process';
import crypto from 'node:crypto';
import { once } from 'node:events';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import readline from 'node:readline';
import { setTimeout as sleep } from 'node:timers/promises';
import { promisify } from 'node:util';
import { commandOf, environment, inFolder, recordOf } from '../tests/parent.mjs';

const [helper, library, only] = process.argv.slice(2);
const run = promisify(execFile);
const uptime = () => Number(process.hrtime.bigint()) / 1e9; // seconds
const id = '6F9619FF-8B86-D011-B42D-00CF4FC96400';
const rate = 60; // frames per second
const [bits, barRows] = [16, 80]; // each picture shows the bits of its number as bars at its top
const noise = crypto.randomBytes(1 << 20); // for the rest of a picture: gives a take its bit rate

// Seconds after the start of a take. A fragment lasts half a second, and each moment is at another
// place in its fragment. All are late enough for the first fragment to be on the disk.
const moments = Array.from({ length: 20 }, (_, i) => 1 + 0.153 * i);
// In each case but the last, one sync takes 7 s or 30 s: the 3rd, 4th, 5th, 6th or 7th sync. A take
// that fails during a sync of 7 s can still be completed. During one of 30 s, it can't. In the last
// case each sync takes 1 s.
const syncs = [...[3, 4, 5, 6, 7].flatMap((nth) => [`${nth}:-7`, `${nth}:-30`]), '0:-1'];
const changeSize = (take) => { take.size = [160, 120]; };

// `states` are moments or syncs. For each, one take is recorded without "keep" and one with it.
// `cause` is called when the moment has come. `failing` returns LUMORA_FAULT (see
// tests/faults/fault_library.cpp), and `bytes` returns the size of the disk. A take with "keep" may
// lose up to `most` seconds of what was appended; without `most` there is no limit. It may lose
// nothing of what was synced, unless `losesAll` is set.
const faults = [
  { name: 'kill', states: moments, most: 1, cause: (take) => take.program.kill('SIGKILL') },
  { name: 'power cut', states: moments.slice(-2), most: 1, isPowerCut: true,
    cause: (take, keeps) => (keeps ? changeSize(take) : take.command('record_stop')) },
  { name: 'full disk', states: moments, bytes: (second) => Math.round(second * 2e6) },
  { name: 'slow disk', states: syncs, keys: { bit_rate: 50_000_000 }, mayBeSaved: true,
    failing: (sync) => `fdatasync:${sync}` },
  { name: 'vanished folder', states: moments, losesAll: true,
    cause: (take) => fs.rmSync(take.folder, { recursive: true }) },
  { name: 'camera changed', states: moments, most: 0, cause: changeSize },
  { name: 'encoder failed', states: moments, most: 0,
    failing: (second) => `avcodec_send_frame:${Math.round(second * rate)}` },
  { name: 'late stop', states: moments, most: 0,
    cause: (take) => take.command('record_stop', { stopped_at: uptime() - 31 }) },
].filter(({ name }) => !only || name === only);
if (faults.length === 0) throw new Error(`there is no fault "${only}"`);

// A helper with a camera and a take. It ends when the take ends.
class Take {
  sent = []; // by number of the frame: when it was sent, and how long the log of the disk was then
  size = [320, 240];

  constructor(name, bytes, failing = '') {
    this.folder = inFolder(name);
    this.log = `${this.folder}.log`;
    fs.mkdirSync(this.folder);
    fs.writeFileSync(this.log, '');
    if (bytes) execFileSync('mount', ['-t', 'tmpfs', '-o', `size=${bytes}`, 'tmpfs', this.folder]);
    this.program = spawn(helper, [], { stdio: ['pipe', 'pipe', 'inherit'], env: { ...environment,
      TAVO_FRAME_FORMAT: 'nv12', TAVO_H264_ENCODER: 'software', LD_PRELOAD: library,
      LUMORA_FAULT: failing, LUMORA_DISK_LOG: this.log, LUMORA_DISK_FOLDER: this.folder } });
    this.program.stdin.on('error', () => {}); // it may have been killed
    this.exited = once(this.program, 'exit', { signal: AbortSignal.timeout(60_000) });
    this.lines = readline.createInterface({ input: this.program.stdout });
    this.lines.on('line', (line) => {
      const event = JSON.parse(line);
      if (event.type === 'recording') this.event = event;
      if (['saved', 'failed'].includes(event.state)) this.program.stdin.end();
      this.lines.emit(event.state ?? event.type, event);
    });
  }

  async start(keys) {
    await once(this.lines, 'ready');
    this.film();
    await sleep(100);
    this.first = this.sent.length;
    this.command('record_start', { path: path.join(this.folder, 'take.mp4'), target_fps: rate,
      resolution: '640x360', cadence: 'steady', ...keys });
    await Promise.race([once(this.lines, 'recording'), this.exited]);
  }

  async film() {
    const { stdin } = this.program;
    for (let due = uptime(); stdin.writable; due = Math.max(due + 1 / rate, uptime())) {
      await sleep((due - uptime()) * 1000);
      if (stdin.writableLength > 0) continue; // skips a frame, as a camera does
      const [time, start, [columns, rows]] = [uptime(), crypto.randomInt(1 << 19), this.size];
      const picture = Buffer.from(noise.subarray(start, start + columns * rows * 1.5));
      for (let bit = 0, bar = columns / bits; bit < bits; ++bit)
        picture.fill(this.sent.length >> bit & 1 ? 235 : 16, bit * bar, (bit + 1) * bar);
      for (let row = 1; row < barRows; ++row) picture.copy(picture, row * columns, 0, columns);
      stdin.write(recordOf(picture, this.size, Math.round(time * 1e6)),
        () => this.sent.push({ time, logged: fs.statSync(this.log).size }));
    }
  }

  command(type, keys) { this.program.stdin.write(commandOf({ type, id, ...keys })); }
}

// The numbers of a file's pictures. A staging file that can't be read has none. Throws if ffmpeg
// reports any other error, or if the numbers don't increase.
async function picturesOf(file) {
  const shown = `crop=480:${barRows}:80:0,scale=${bits}:1:flags=area,format=gray`;
  const { code, stdout, stderr } = await run('ffmpeg', ['-v', 'error', '-nostdin', '-i', file,
    '-fps_mode', 'passthrough', '-vf', `${shown},setpts=N/TB`, '-f', 'rawvideo', '-'],
  { encoding: 'buffer' }).catch((failure) => failure);
  if (code && !file.endsWith('.mp4')) return [];
  const numbers = Array(stdout.length / bits).fill(0);
  stdout.forEach((grey, i) => { numbers[Math.floor(i / bits)] += (grey > 128) << i % bits; });
  if (stderr.length > 0 || numbers.some((number, i) => number <= numbers[i - 1]))
    throw new Error(`${file}: ${stderr} pictures ${numbers}`);
  return numbers;
}

// Recovers the only take in a folder, and returns the numbers of its pictures. Removes its file.
async function takePictures(folder) {
  const find = () => fs.existsSync(folder) && fs.readdirSync(folder)[0];
  if (!find()) return [];
  fs.utimesSync(path.join(folder, find()), 0, 0); // lumora-recover leaves a new file alone
  await run(path.join(path.dirname(helper), 'lumora-recover'), [folder]);
  const file = path.join(folder, find());
  const pictures = await picturesOf(file);
  fs.rmSync(file);
  return pictures;
}

// The file on the disk after each call in the log (see tests/faults/disk_log.h): its `durable`
// bytes, the writes still `pending`, whether its name is durable, and the log's length by then.
function* disksOf(take) {
  const log = fs.readFileSync(take.log);
  let [durable, pending, isNamed] = [Buffer.alloc(0), [], false];
  for (let at = 0; at + 24 <= log.length;) { // a kill may cut off the last entry
    const [kind, offset, size] = [0, 8, 16].map((field) => Number(log.readBigUInt64LE(at + field)));
    at += 24;
    if (kind === 0) pending.push({ offset, bytes: log.subarray(at, at += size) });
    if (kind === 1) [durable, pending] = [withWrites(durable, pending), []];
    isNamed ||= kind === 2;
    yield { durable, pending, isNamed, logged: at };
  }
}

function withWrites(file, writes) {
  const size = Math.max(file.length, ...writes.map(({ offset, bytes }) => offset + bytes.length));
  const changed = Buffer.concat([file], size);
  for (const { offset, bytes } of writes) bytes.copy(changed, offset);
  return changed;
}

// What may be left of pending writes after a power cut. Disks write whole sectors, so a write can
// only be torn between two sectors. `torn` is the first half of the last write.
function survivorsOf(pending) {
  if (pending.length === 0) return [[]];
  const { offset, bytes } = pending.at(-1);
  const tear = Math.floor((offset + bytes.length / 2) / 512) * 512;
  const torn = { offset, bytes: bytes.subarray(0, Math.max(tear - offset, 0)) };
  return [[], pending, pending.slice(-1), [...pending.slice(0, -1), torn]];
}

function syncedPictures(take, durable = '') {
  fs.writeFileSync(`${take.folder}.synced`, durable);
  return picturesOf(`${take.folder}.synced`);
}

// What a take lost of the frames up to number `last`. `kept` and `synced` list numbers of frames.
function lossOf(take, kept, synced, last) {
  const lastKept = kept.at(-1) ?? take.first - 1;
  const time = (number) => take.sent[Math.min(number, take.sent.length - 1)].time;
  const behind = (frames) => ({ frames, seconds: time(lastKept + frames) - time(lastKept) });
  return { isAll: kept.length === 0, appended: behind(Math.max(last - lastKept, 0)),
    synced: behind(synced.filter((number) => !kept.includes(number)).length) };
}

async function lossesOfPowerCuts(take, last) {
  const losses = [];
  let [durable, synced] = [null, []];
  for (const disk of disksOf(take)) {
    if (!disk.isNamed) continue; // the file's name is not on the disk yet
    if (disk.durable !== durable) synced = await syncedPictures(take, disk.durable);
    ({ durable } = disk);
    const sent = take.sent.findIndex((frame) => frame.logged >= disk.logged);
    for (const writes of survivorsOf(disk.pending)) {
      const file = path.join(take.folder, `take.mp4.${id}.partial`);
      fs.writeFileSync(file, withWrites(durable, writes));
      const kept = await takePictures(take.folder);
      losses.push(lossOf(take, kept, synced, sent < 0 ? last : Math.min(sent, last)));
    }
  }
  return losses;
}

async function lossOfFault(fault, take, last, found) {
  const synced = await syncedPictures(take, [...disksOf(take)].at(-1)?.durable);
  const { state, frames, kept_path: name, kept_frames: keptFrames } = take.event;
  if ((state === 'saved' && !fault.mayBeSaved) || synced.length === 0 ||
    (name?.endsWith('.mp4') && keptFrames !== found.length))
    throw new Error(`${synced.length} pictures synced, ${found.length} found, but the event is ` +
      JSON.stringify(take.event));
  const kept = state === 'failed' && !name ? [] : found; // the event names no file
  const appended = (kept.at(-1) ?? take.first - 1) + frames - kept.length;
  return lossOf(take, kept, synced, state === 'recording' ? last : appended);
}

async function lossesOf({ fault, state, keeps }) {
  const name = `${fault.name} ${state} ${keeps}`;
  const take = new Take(name, fault.bytes?.(state), fault.failing?.(state));
  await take.start({ ...fault.keys, ...(keeps && { on_failure: 'keep' }) });
  if (fault.cause) {
    await sleep(state * 1000);
    fault.cause(take, keeps);
  }
  const last = take.sent.length - 1;
  await Promise.race([take.exited, sleep(15_000, null, { ref: false })]);
  // A take on a slow disk usually fails, because too many samples wait for the disk. But if a slow
  // encoder makes too few samples for that, the take still runs.
  take.command('record_stop');
  await take.exited;
  const kept = await takePictures(take.folder);
  if (fault.bytes) execFileSync('umount', [take.folder]);
  if (fault.isPowerCut) return lossesOfPowerCuts(take, last);
  return [await lossOfFault(fault, take, last, kept)];
}

const jobs = faults.flatMap((fault) => [false, true].flatMap((keeps) =>
  fault.states.map((state) => ({ fault, state, keeps }))));
let begun = 0;
await Promise.all(Array.from({ length: 2 * os.availableParallelism() }, async () => {
  while (begun < jobs.length) {
    const job = jobs[begun++];
    process.stderr.write(`\r${begun} of ${jobs.length} takes `);
    job.losses = await lossesOf(job);
  }
}));

console.log(`
| Fault | Cases | Appended, without keep | with keep | Synced, without keep | with keep |
|---|---|---|---|---|---|`);
for (const fault of faults) {
  const [without, kept] = [false, true].map((keeps) => jobs.flatMap((job) =>
    (job.fault === fault && job.keeps === keeps ? job.losses : [])));
  const worst = (what) => [without, kept].map((losses) => {
    const most = (unit) => Math.max(...losses.map((loss) => loss[what][unit]));
    if (most('frames') === 0) return 'nothing';
    const all = losses.every(({ isAll }) => isAll) ? 'all: ' : '';
    return `${all}${most('seconds').toFixed(2)} s, ${most('frames')} frames`;
  });
  const cases = without.length + kept.length;
  console.log(`| ${[fault.name, cases, ...worst('appended'), ...worst('synced')].join(' | ')} |`);
  if (without.length === 0 || kept.length === 0) throw new Error(`${fault.name}: no case was found`);
  if (kept.every(({ appended, synced }) => appended.seconds <= (fault.most ?? Infinity) &&
    (synced.frames === 0 || fault.losesAll))) continue;
  console.error(`${fault.name}: a take with "keep" lost too much`);
  process.exitCode = 1;
}
