// The tap's stream is pushed to nginx and through SRT, and played from there. Every picture must arrive
// as it was encoded, at the time at which the camera took it.
//
//   node audience_test.mjs HELPER TAP

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import net from 'node:net';
import { setTimeout as sleep } from 'node:timers/promises';
import { environment, inFolder, startParent } from '../parent.mjs';

const [helper, tap] = process.argv.slice(2);
const modules = '/etc/nginx/modules-enabled/50-mod-rtmp.conf';
if (!fs.existsSync(modules) || !fs.existsSync('/usr/bin/srt-live-transmit')) {
  console.log('skipped: needs nginx with its rtmp module, and srt-tools');
  process.exit(process.env.CI === 'true' ? 1 : 77);
}
const seconds = 10;

async function freePort() {
  const server = net.createServer().listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address();
  server.close();
  return port;
}

// The decoded pictures of a file: their times in milliseconds since the first, and their digests.
function pictures(name) {
  const text = execFileSync('ffmpeg', ['-v', 'error', '-i', inFolder(name), '-fps_mode', 'passthrough',
    '-enc_time_base', '-1', '-f', 'framemd5', '-'], { maxBuffer: 1 << 26 }).toString();
  const [, numerator, denominator] = /#tb 0: (\d+)\/(\d+)/.exec(text);
  const rows = [...text.matchAll(/^0, *-?\d+, *(-?\d+), *\d+, *\d+, *(\w+)$/gm)];
  const time = (row) => Number(row[1]) * 1000 * numerator / denominator;
  return rows.map((row) => ({ time: time(row) - time(rows[0]), digest: row[2] }));
}

// Fails unless the file has a stretch of the reference: the same pictures, as far apart.
function assertStretch(name, reference) {
  const got = pictures(name);
  const start = reference.findIndex((_, i) =>
    got.slice(0, 60).every(({ digest }, k) => digest === reference[i + k]?.digest));
  assert.ok(start >= 0, `${name} begins with none of the pictures that were sent`);
  const sent = reference.slice(start);
  for (const [i, { time, digest }] of got.entries()) {
    assert.equal(digest, sent[i]?.digest, `${name}: picture ${i}`);
    assert.ok(Math.abs(time - sent[i].time + sent[0].time) <= 2, `${name}: time of picture ${i}`);
  }
  const length = got.at(-1).time / 1000;
  assert.ok(length >= seconds - 1, `${name}: ${length} s`);
  console.log(`${name}: ${got.length} of ${reference.length} pictures in ${length.toFixed(1)} s`);
}

const [rtmp, udp, srt] = [await freePort(), await freePort(), await freePort()];
fs.writeFileSync(inFolder('nginx.conf'), `
  ${fs.readFileSync(modules, 'utf8')}
  daemon off; user root; pid ${inFolder('pid')}; error_log ${inFolder('nginx.log')};
  events {}
  rtmp { server { listen 127.0.0.1:${rtmp}; application live {
    live on; hls on; hls_path ${inFolder('hls')}; hls_fragment 2s; hls_playlist_length 60s;
    hls_cleanup off; } } }`);
const programs = [];
const start = (command, args, input = 'ignore', output = 'ignore') => {
  programs.push(spawn(command, args, { stdio: [input, output, 'inherit'], env: environment }));
  return programs.at(-1);
};
const ended = (program) => (program.exitCode ?? program.signalCode) !== null || once(program, 'exit');
try {
  start('nginx', ['-c', inFolder('nginx.conf')]);
  start('srt-live-transmit', [`udp://127.0.0.1:${udp}`, `srt://127.0.0.1:${srt}?mode=listener`, '-q']);
  await sleep(1000);
  const parent = await startParent(helper);
  programs.push(parent.program);
  const startTap = (output) =>
    start(tap, [String(parent.port), '--format', 'flv', '--patience', '0'], 'ignore', output);
  // The head of the stream says all that ffmpeg must know. Looking further would cost time.
  const quickly = ['-v', 'fatal', '-nostdin', '-analyzeduration', '200000', '-fpsprobesize', '0'];
  const reference = startTap(fs.openSync(inFolder('reference.flv'), 'w'));
  const push = start('ffmpeg', [...quickly, '-f', 'flv', '-i', '-',
    '-c', 'copy', '-f', 'flv', `rtmp://127.0.0.1:${rtmp}/live/camera`,
    '-c', 'copy', '-f', 'mpegts', `udp://127.0.0.1:${udp}?pkt_size=1316`], startTap('pipe').stdout);
  await sleep(1000);
  const play = (from, to) => ended(start('ffmpeg',
    [...quickly, '-i', from, '-t', String(seconds), '-c', 'copy', inFolder(to)]));
  await Promise.all([play(`rtmp://127.0.0.1:${rtmp}/live/camera`, 'rtmp.flv'),
    play(`srt://127.0.0.1:${srt}`, 'srt.ts')]);
  parent.program.stdin.end();
  await Promise.all([reference, push].map(ended));
  await sleep(1000);

  const sent = pictures('reference.flv');
  const captured = parent.ids.map((id) => id / 1000);
  assert.ok(captured.some((first) => sent.every(({ time }) =>
    captured.some((at) => Math.abs(first + time - at) <= 1.5))), 'times are not those of the camera');
  const parts = fs.readFileSync(inFolder('hls/camera.m3u8'), 'utf8').match(/^.*\.ts$/gm);
  for (const part of parts) fs.appendFileSync(inFolder('hls.ts'), fs.readFileSync(inFolder(`hls/${part}`)));
  for (const name of ['rtmp.flv', 'hls.ts', 'srt.ts']) assertStretch(name, sent);
} finally {
  for (const program of programs) program.kill('SIGKILL');
  await Promise.all(programs.map(ended));
}
