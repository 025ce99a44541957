// Pushes the tap's stream to nginx and to an SRT server, and plays it from both. Every picture must
// arrive as it was encoded, and the intervals must be those at which the camera took the pictures.
//
//   node audience_test.mjs HELPER TAP

import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { inFolder, start, startParent } from '../parent.mjs';

const [helper, tap] = process.argv.slice(2);
const modules = '/etc/nginx/modules-enabled/50-mod-rtmp.conf';
if (!fs.existsSync(modules) || !fs.existsSync('/usr/bin/srt-live-transmit')) {
  console.log('skipped: needs nginx with its rtmp module, and srt-tools');
  process.exit(process.env.CI === 'true' ? 1 : 77);
}
const seconds = 10;

// Two runs at the same time hardly ever get the same ports. These are below 32000, and the system
// chooses ports above that.
const [rtmp, udp, srt] = [0, 1, 2].map((i) => 20000 + process.pid % 4000 * 3 + i);

// The decoded pictures of a file: their times in milliseconds since the first, and their digests.
function pictures(name) {
  const text = execFileSync('ffmpeg', ['-v', 'error', '-i', inFolder(name), '-fps_mode',
    'passthrough', '-enc_time_base', '1:1000', '-f', 'framemd5', '-'], { encoding: 'utf8' });
  const rows = [...text.matchAll(/^0, *-?\d+, *(-?\d+), *\d+, *\d+, *(\w+)$/gm)];
  return rows.map(([, time, digest]) => ({ time: time - rows[0][1], digest }));
}

// Fails unless the file's pictures are consecutive pictures of the reference, have the same
// intervals as there, and last at least 9 s.
function assertStretch(name, reference) {
  const got = pictures(name);
  assert.ok(got.length > 0, `${name}: no picture`);
  const digests = (all) => all.map(({ digest }) => digest).join();
  const at = digests(reference).indexOf(digests(got));
  assert.ok(at >= 0, `${name}: its ${got.length} pictures are not consecutive pictures of the reference`);
  const sent = reference.slice(at / (got[0].digest.length + 1));
  for (const [i, { time }] of got.entries()) {
    assert.ok(Math.abs(time - sent[i].time + sent[0].time) <= 2, `${name}: time of picture ${i}`);
  }
  assert.ok(got.at(-1).time >= (seconds - 1) * 1000, `${name}: ${got.at(-1).time} ms`);
}

test('every picture arrives as it was encoded, with its interval, by RTMP, HLS and SRT', async () => {
  fs.writeFileSync(inFolder('nginx.conf'), `
    ${fs.readFileSync(modules, 'utf8')}
    daemon off; master_process off; pid ${inFolder('pid')}; error_log ${inFolder('nginx.log')};
    events {}
    rtmp { server { listen 127.0.0.1:${rtmp}; application live {
      live on; hls on; hls_path ${inFolder('hls')}; hls_fragment 2s; hls_playlist_length 60s;
      hls_cleanup off; } } }`);
  start('nginx', ['-c', inFolder('nginx.conf')]);
  start('srt-live-transmit',
    [`udp://127.0.0.1:${udp}`, `srt://127.0.0.1:${srt}?mode=listener`, '-q']);
  await sleep(1000);
  const parent = await startParent(helper);
  const startTap = (output) => start(tap,
    [String(parent.port), '--format', 'flv', '--patience', '0'], ['ignore', output, 'inherit']);
  // The head of the stream says all that ffmpeg must know. Looking further would cost time.
  const ffmpeg = (args, input = 'ignore') => start('ffmpeg', ['-v', 'fatal', '-nostdin',
    '-analyzeduration', '200000', '-fpsprobesize', '0', ...args], [input, 'ignore', 'inherit']);
  const reference = startTap(fs.openSync(inFolder('reference.flv'), 'w'));
  const push = ffmpeg(['-f', 'flv', '-i', '-',
    '-c', 'copy', '-f', 'flv', `rtmp://127.0.0.1:${rtmp}/live/camera`,
    '-c', 'copy', '-f', 'mpegts', `udp://127.0.0.1:${udp}?pkt_size=1316`], startTap('pipe').stdout);
  const ended = Promise.all([reference, push].map((program) => once(program, 'exit')));
  await sleep(1000);
  const played = [[`rtmp://127.0.0.1:${rtmp}/live/camera`, 'rtmp.flv'],
    [`srt://127.0.0.1:${srt}`, 'srt.ts']].map(([from, to]) =>
    once(ffmpeg(['-i', from, '-t', String(seconds), '-c', 'copy', inFolder(to)]), 'exit'));
  await Promise.all(played);
  parent.program.stdin.end();
  await ended;
  await sleep(1000);

  const sent = pictures('reference.flv');
  const captured = parent.ids.map((id) => id / 1000);
  assert.ok(captured.some((first) => sent.every(({ time }) => captured.some((at) =>
    Math.abs(first + time - at) <= 1.5))), 'times are not those of the camera');
  const parts = fs.readFileSync(inFolder('hls/camera.m3u8'), 'utf8').match(/^.*\.ts$/gm);
  fs.writeFileSync(inFolder('hls.ts'),
    Buffer.concat(parts.map((part) => fs.readFileSync(inFolder(`hls/${part}`)))));
  for (const name of ['rtmp.flv', 'hls.ts', 'srt.ts']) assertStretch(name, sent);
});
