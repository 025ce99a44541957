// The viewer in Chromium. The page shows the right picture and figures, and makes takes. A page
// that hangs delays no other client. Requests from elsewhere are refused.
//
//   node view_test.mjs HELPER VIEW TAP CHROMIUM    SCREENSHOTS: a folder for pictures of the page

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

// Signals viewer and helper, as Ctrl-C in a terminal does.
async function assertEnds({ program }) {
  const exited = once(program, 'close');
  process.kill(-program.pid, 'SIGINT');
  assert.equal((await exited)[0], 0);
}

const figure = (page, id) => page.locator(`#${id}`).evaluate((node) => Number(node.dataset.value));
const showMore = async (page, count) => page.waitForFunction((wanted) => Number(
  document.getElementById('shown').dataset.value) > wanted, await figure(page, 'shown') + count);

// 64 colours along a row of the picture; `y` is 0 at the top and 1 at the bottom.
const colours = (page, y) => page.evaluate((at) => {
  const canvas = document.getElementById('picture');
  const row = Math.floor(at * canvas.height);
  const { data } = canvas.getContext('2d').getImageData(0, row, canvas.width, 1);
  return Array.from({ length: 64 }, (_, i) => [...data.subarray(i * 40, i * 40 + 3)]);
}, y);

const bars = [[255, 255, 255], [255, 255, 0], [0, 255, 255], [0, 255, 0], [255, 0, 255],
  [255, 0, 0], [0, 0, 255], [32, 32, 32]];
const barsAmong = (row) => row.map((colour) => bars.findIndex((bar) =>
  bar.every((value, i) => Math.abs(value - colour[i]) <= 6))).filter((bar) => bar >= 0);

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
    const card = globalThis.shown.length % 25 === 0 ? readCard() : undefined; // reading takes long
    globalThis.shown.push({ now, captured: id / 1000, card });
  };
}

test('a viewer with its own helper, and with an interrupted take in its folder', async () => {
  const staging = inFolder('old.mp4.6f9619ff-8b86-d011-b42d-00cf4fc96401.partial');
  fs.copyFileSync(new URL('../../fuzz/corpus/staging/torn', import.meta.url), staging);
  fs.utimesSync(staging, 0, 0);
  const viewer = await startView(
    '--demo', '--helper', helper, '--folder', folder, '--size', '640x360');
  const { page } = viewer;

  const top = await colours(page, 0.03);
  const seen = barsAmong(top);
  // The square may hide one bar.
  assert.ok(seen.length > 50 && new Set(seen).size >= 7, JSON.stringify(top));
  assert.ok(barsAmong(await colours(page, 0.97)).length < 20, 'the picture is upside down');
  await showMore(page, 10); // in one frame the bars move by less than the distance of two samples
  assert.notDeepEqual(await colours(page, 0.03), top);

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

  await page.getByText('A take was interrupted.').waitFor();
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
  await page.locator('#take-movie').evaluate((video) => video.play());
  await page.waitForFunction(() => document.getElementById('take-movie').currentTime > 0.3);
  const part = await fetch(await page.locator('#take-movie').evaluate((video) => video.currentSrc),
    { headers: { Range: 'bytes=4-7' } });
  assert.deepEqual([part.status, await part.text()], [206, 'ftyp']);

  for (const [name, colorScheme, width] of [['desktop', 'light', 1280], ['dark', 'dark', 1280],
    ['phone', 'light', 390]]) {
    await page.emulateMedia({ colorScheme });
    await page.setViewportSize({ width, height: 800 });
    await page.screenshot({ path: `${process.env.SCREENSHOTS ?? folder}/${name}.png` });
  }

  // Refusal and movie stay on the page although the helper repeats the last event of the take.
  await page.locator('#take-folder').fill(inFolder('nowhere'));
  await page.locator('#take-start').click();
  await sleep(1500);
  assert.match(await page.locator('#take-problem').textContent(), /There is no folder/);
  assert.equal(await page.locator('#take-path').isVisible(), true);
  await assertEnds(viewer);
  await page.close();
});

test('a viewer of another application\'s helper', async () => {
  const parent = await startParent(helper);
  const viewer = await startView('--port', String(parent.port));
  const { page } = viewer;
  const other = inFolder('other.h264');
  start(tap, [String(parent.port)], ['ignore', fs.openSync(other, 'w'), 'inherit']);
  await page.getByText('Only the application that started the helper').first().waitFor();
  assert.equal(await page.locator('#take-start').isDisabled(), true);

  const debug = await page.context().newCDPSession(page);
  await debug.send('Debugger.enable');
  await debug.send('Debugger.pause');
  const recorded = fs.statSync(other).size;
  await sleep(2000);
  assert.ok(fs.statSync(other).size > recorded + 10000, 'the other client got no frames');
  await debug.send('Debugger.resume');
  await debug.send('Debugger.disable');
  await showMore(page, 30);
  assert.ok(await figure(page, 'skipped') > 0);
  assert.equal(await figure(page, 'restarts'), 0);
  assert.deepEqual([parent.statistics.dropped_peers, parent.statistics.clients], [0, 2]);

  const { hostname, port, origin, pathname } = new URL(viewer.address);
  const socket = { Connection: 'Upgrade', Upgrade: 'websocket', 'Sec-WebSocket-Version': 13,
    'Sec-WebSocket-Key': 'AAAAAAAAAAAAAAAAAAAAAA==' };
  for (const [status, path, headers] of [[101, `${pathname}socket`, { ...socket, Origin: origin }],
    [404, `${pathname}socket`, socket], [404, pathname, { Host: 'evil.example' }],
    [404, pathname, { Origin: 'http://evil.example' }], [404, '/guess/'],
    [404, `${pathname}takes/a.mp4`]]) {
    const request = http.get({ hostname, port, path, headers });
    const events = ['response', 'upgrade'].map((name) => once(request, name));
    const [{ statusCode }] = await Promise.race(events);
    request.destroy();
    assert.equal(statusCode, status, JSON.stringify([path, headers]));
  }

  parent.program.stdin.end();
  await page.getByText('The helper has closed the stream').first().waitFor();
  await assertEnds(viewer);
});
