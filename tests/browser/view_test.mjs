// The viewer in Chromium. The page shows the right picture and figures, and makes takes. A page
// that hangs delays no other client. Requests with another host or origin are refused.
//
//   node view_test.mjs HELPER VIEW TAP CHROMIUM

import assert from 'node:assert/strict';
import { once } from 'node:events';
import fs from 'node:fs';
import http from 'node:http';
import readline from 'node:readline';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { folder, inFolder, start, startParent } from '../parent.mjs';
import { browser } from './browser.mjs';

const [helper, view, tap] = process.argv.slice(2);

// Starts the viewer and opens its page.
async function startView(...options) {
  const program = start(view, options, ['ignore', 'pipe', 'inherit'], { detached: true });
  const [address] = await once(readline.createInterface({ input: program.stdout }), 'line');
  const page = await browser.newPage();
  page.on('pageerror', (error) => assert.fail(error));
  await page.goto(address);
  await page.locator('#connection[data-state=live]').waitFor();
  return { program, address, page };
}

// Expects that the viewer exits with 0 when its process group gets SIGINT, as by Ctrl-C.
async function assertEnds({ program }) {
  const exited = once(program, 'close');
  process.kill(-program.pid, 'SIGINT');
  assert.equal((await exited)[0], 0);
}

const figure = (page, id) => page.locator(`#${id}`).evaluate((node) => Number(node.dataset.value));

// For each of 64 places along the test card's top: which of the bars has the colour seen there; -1
// if none has.
const barsOf = (page) => page.evaluate(() => {
  const bars = [[255, 255, 255], [255, 255, 0], [0, 255, 255], [0, 255, 0], [255, 0, 255],
    [255, 0, 0], [0, 0, 255], [32, 32, 32]];
  const { data } = document.getElementById('picture').getContext('2d').getImageData(0, 11, 640, 1);
  return Array.from({ length: 64 }, (_, i) => bars.findIndex((bar) =>
    bar.every((value, channel) => Math.abs(value - data[i * 40 + channel]) <= 6)));
});

// Records when each frame was shown and, for every 25th, the time on its test card.
function watchClock() {
  // Each glyph has seven rows of five dots. A row is one digit of base 32. A dot is 4x4 pixels.
  const glyphs = ['ehjlphe', '4c4444e', 'eh1248v', 'v2421he', '26aiv22', 'vgu11he', '68guhhe',
    'v124888', 'ehhehhe', 'ehhf12c', '0440440', '00000cc'];
  const readCard = () => {
    const context = document.getElementById('picture').getContext('2d');
    const { data, width } = context.getImageData(640 >> 4, 360 >> 4, 84 * 4, 9 * 4);
    const lit = (x, y) => Number(data[((y * 4 + 2) * width + x * 4 + 2) * 4] > 128);
    const digit = (x, y) => [0, 1, 2, 3, 4].reduce((sum, dot) => sum * 2 + lit(x + dot, y), 0);
    const text = Array.from({ length: 14 }, (_, cell) => '0123456789:.'[glyphs.indexOf(
      [1, 2, 3, 4, 5, 6, 7].map((y) => digit(cell * 6 + 1, y).toString(32)).join(''))] ?? '?');
    const [, minutes, seconds] = /^(\d+):(\d\d\.\d{3})/.exec(text.join('')) ?? [];
    return minutes && (minutes * 60 + Number(seconds)) * 1000;
  };
  globalThis.shown = [];
  const send = WebSocket.prototype.send;
  WebSocket.prototype.send = function (text) {
    send.call(this, text);
    const [, id] = /"shown","frame_id":(\d+)/.exec(text) ?? [];
    if (!id) return;
    const now = performance.timeOrigin + performance.now();
    const card = globalThis.shown.length % 25 === 0 ? readCard() : undefined; // reading it is slow
    globalThis.shown.push({ now, captured: id / 1000, card });
  };
}

test('a viewer with its own helper shows the test card, recovers a take and records one', async () => {
  const staging = inFolder('old.mp4.6f9619ff-8b86-d011-b42d-00cf4fc96401.partial');
  fs.copyFileSync(new URL('../../fuzz/corpus/staging/torn', import.meta.url), staging);
  fs.utimesSync(staging, 0, 0);
  const viewer = await startView(
    '--demo', '--helper', helper, '--folder', folder, '--size', '640x360');
  const { page } = viewer;

  const bars = await barsOf(page);
  const seen = bars.filter((bar) => bar >= 0); // edges between bars match none
  assert.ok(seen.length > 50 && new Set(seen).size === 8, `${bars}`);

  await page.evaluate(watchClock);
  await page.waitForFunction(() => globalThis.shown.length > 400, null, { timeout: 60000 });
  const wallToUptime = Number(process.hrtime.bigint()) / 1e6 - Date.now();
  const all = await page.evaluate(() => globalThis.shown);
  const claimed = await figure(page, 'latency-median'); // of the last five seconds
  const errors = all.filter(({ card }) => card).map(({ captured, card }) => captured - card);
  assert.ok(errors.length > 12 && errors.every((error) => Math.abs(error) <= 1), `${errors}`);
  const ages = all.filter(({ now }) => now > all.at(-1).now - 5000)
    .map(({ now, captured }) => now + wallToUptime - captured).sort((a, b) => a - b);
  const age = ages[ages.length >> 1];
  assert.ok(Math.abs(age - claimed) <= 10, `the page says ${claimed} ms, the card's clock ${age}`);

  const second = await browser.newPage();
  await second.goto(viewer.address);
  await second.getByText('Another page').first().waitFor();
  await second.close();

  await page.getByText('A take is unfinished or running.').waitFor();
  await page.locator('#interrupted-keep').click();
  await page.getByText(/old\.recovered-.*\.mp4: 1\.0 s/).waitFor();
  assert.equal(await page.locator('#interrupted-keep').isVisible(), false);

  await page.locator('#take-resolution').selectOption('640x360');
  await page.locator('#take-start').click();
  await page.locator('#take-state[data-value=recording]').waitFor();
  await sleep(1500);
  await page.locator('#take-stop').click();
  await page.locator('#take-state[data-value=saved]').waitFor();
  assert.ok(fs.existsSync(await page.locator('#take-path').textContent()));
  const movie = await page.locator('video').evaluate((video) => video.play().then(() => video.src));
  await page.waitForFunction(() => document.getElementById('take-movie').currentTime > 0.3);
  assert.ok(await page.locator('video').evaluate((video) => video.webkitAudioDecodedByteCount) > 0);
  const part = await fetch(movie, { headers: { Range: 'bytes=4-7' } });
  assert.deepEqual([part.status, await part.text()], [206, 'ftyp']);

  // The viewer refuses the next take. Meanwhile the helper repeats the last event of the saved take
  // once a second. The page must show why the take is refused, and must still show the path of the
  // saved movie.
  await page.locator('#take-folder').fill(inFolder('nowhere'));
  await page.locator('#take-start').click();
  await sleep(1500);
  assert.match(await page.locator('#take-problem').textContent(), /There is no folder/);
  assert.equal(await page.locator('#take-path').isVisible(), true);
  await assertEnds(viewer);
});

test('a viewer of another application\'s helper makes no takes and delays no client', async () => {
  const parent = await startParent(helper);
  const viewer = await startView('--port', String(parent.port));
  const { page } = viewer;
  const other = inFolder('other.h264');
  start(tap, [String(parent.port)], ['ignore', fs.openSync(other, 'w'), 'inherit']);
  await page.getByText('Only the application that started the helper').first().waitFor();
  assert.equal(await page.locator('#take-start').isDisabled(), true);
  assert.equal(await page.locator('#take-sound').isVisible(), false);

  const debug = await page.context().newCDPSession(page);
  await debug.send('Debugger.enable');
  await debug.send('Debugger.pause');
  const recorded = fs.statSync(other).size;
  await sleep(2000);
  assert.ok(fs.statSync(other).size > recorded + 10000, 'the other client got no frames');
  await debug.send('Debugger.resume');
  await debug.send('Debugger.disable');
  const more = await figure(page, 'shown') + 30;
  await page.waitForFunction((all) => document.getElementById('shown').dataset.value > all, more);
  assert.ok(await figure(page, 'skipped') > 0);
  const { dropped_peers: dropped, clients } = parent.statistics;
  assert.deepEqual([dropped, clients, await figure(page, 'restarts')], [0, 2, 0]);

  const { hostname, port, pathname } = new URL(viewer.address);
  for (const [path, headers] of [[pathname, { Host: 'evil.example' }],
    [pathname, { Origin: 'http://evil.example' }], [`${pathname}takes/a.mp4`]]) {
    const request = http.get({ hostname, port, path, headers });
    const [{ statusCode }] = await once(request, 'response');
    request.destroy();
    assert.equal(statusCode, 404, JSON.stringify([path, headers]));
  }

  parent.program.stdin.end();
  await page.getByText('The helper has closed the stream').first().waitFor();
  await assertEnds(viewer);
});
