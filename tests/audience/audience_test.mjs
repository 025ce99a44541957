// The ways to a large audience: the tap's stream pushed to nginx and through SRT, played back from there.
// Every picture arrives as it was encoded, at the time at which the camera took it.
//
//   node audience_test.mjs HELPER TAP

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import net from 'node:net';
import { setTimeout as sleep } from 'node:timers/promises';
import { inFolder } from '../browser/folder.mjs';
import { environment, startParent } from '../parent.mjs';

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

// Decoded pictures of a file: the time of each in milliseconds since the first, and its digest.
function pictures(file) {
  const lines = execFileSync('ffmpeg', ['-v', 'error', '-i', file, '-fps_mode', 'passthrough', '-enc_time_base', '-1',
    '-f', 'framemd5', '-'], { maxBuffer: 1 << 26 }).toString().split('\n');
  const [, numerator, denominator] = /#tb 0: (\d+)\/(\d+)/.exec(lines.join('\n'));
  const rows = lines.filter((line) => /^0,/.test(line)).map((line) => line.split(',').map((field) => field.trim()));
  const time = (row) => Number(row[2]) * 1000 * numerator / denominator;
  return rows.map((row) => ({ time: time(row) - time(rows[0]), digest: row[5] }));
}

// The audience's file is a stretch of the reference: the same pictures at the same distances.
function assertStretch(name, reference) {
  const got = pictures(inFolder(name));
  const start = reference.findIndex(({ digest }, i) =>
    digest === got[0].digest && got.slice(0, 60).every((one, k) => one.digest === reference[i + k]?.digest));
  assert.ok(start >= 0, `${name}: begins with none of the pictures that were sent`);
  for (const [i, { time, digest }] of got.entries()) {
    const sent = reference[start + i];
    assert.equal(digest, sent?.digest, `${name}: picture ${i}`);
    assert.ok(Math.abs(time - (sent.time - reference[start].time)) <= 2, `${name}: time of picture ${i}`);
  }
  const length = got.at(-1).time / 1000;
  assert.ok(length >= seconds - 1, `${name}: ${length} s`);
  console.log(`${name}: ${got.length} of ${reference.length} pictures, ${length.toFixed(1)} s, each as it was sent`);
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
  // What the stream is stands at its head: looking for more would only cost time.
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

  const sent = pictures(inFolder('reference.flv'));
  const since = (id) => (id - parent.ids[0]) / 1000;
  const captured = new Set(parent.ids.map((id) => Math.round(since(id))));
  const first = parent.ids.find((id) => sent.every(({ time }) =>
    [-1, 0, 1].some((off) => captured.has(Math.round(since(id) + time) + off))));
  assert.ok(first, 'the times in the stream are those of the camera');
  const parts = fs.readFileSync(inFolder('hls/camera.m3u8'), 'utf8').match(/^.*\.ts$/gm);
  fs.writeFileSync(inFolder('hls.ts'), Buffer.concat(parts.map((part) => fs.readFileSync(inFolder(`hls/${part}`)))));
  for (const name of ['rtmp.flv', 'hls.ts', 'srt.ts']) assertStretch(name, sent);
} finally {
  for (const program of programs) program.kill('SIGKILL');
  await Promise.all(programs.map(ended));
}
