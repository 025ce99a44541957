// The viewer in Chromium. The page shows the right picture and figures, and makes takes. A page that
// hangs delays no other client. Requests from elsewhere are refused.
//
//   node view_test.mjs HELPER VIEW TAP CHROMIUM    SCREENSHOTS: a folder for pictures of the page

import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import { once } from 'node:events';
import fs from 'node:fs';
import http from 'node:http';
import readline from 'node:readline';
import { after, test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { environment, folder, inFolder, startParent } from '../parent.mjs';
import { launch } from './browser.mjs';

const [helper, view, tap, browserPath] = process.argv.slice(2);
const programs = [];
const browser = await launch(browserPath);
after(async () => {
  await browser.close();
  programs.forEach((program) => program.kill('SIGKILL'));
});

async function startView(options, env = process.env) {
  const stdio = ['ignore', 'pipe', 'inherit'];
  const program = spawn(view, options, { stdio, env, detached: true });
  programs.push(program);
  const [address] = await once(readline.createInterface({ input: program.stdout }), 'line');
  return { program, address };
}

// Signals viewer and helper, as Ctrl-C in a terminal does.
async function end({ program }) {
  const exited = once(program, 'close');
  process.kill(-program.pid, 'SIGINT');
  return (await exited)[0];
}

const figure = (page, id) => page.locator(`#${id}`).evaluate((node) => Number(node.dataset.value));
const showMore = async (page, count) => page.waitForFunction((wanted) =>
  Number(document.getElementById('shown').dataset.value) > wanted, await figure(page, 'shown') + count);

async function openPage(address, options) {
  const page = await browser.newPage(options);
  page.on('pageerror', (error) => assert.fail(error));
  await page.goto(address);
  await page.locator('#connection[data-state=live]').waitFor();
  return page;
}

// 64 colours along a row of the picture; `y` is 0 at the top and 1 at the bottom.
const colours = (page, y) => page.evaluate((at) => {
  const canvas = document.getElementById('picture');
  const row = Math.floor(at * canvas.height);
  const { data } = canvas.getContext('2d').getImageData(0, row, canvas.width, 1);
  return Array.from({ length: 64 }, (_, i) => [...data.subarray(i * 40, i * 40 + 3)]);
}, y);

const bars = [[255, 255, 255], [255, 255, 0], [0, 255, 255], [0, 255, 0], [255, 0, 255], [255, 0, 0],
  [0, 0, 255], [32, 32, 32]];
const barsAmong = (row) => row.map((colour) => bars.findIndex((bar) =>
  bar.every((value, i) => Math.abs(value - colour[i]) <= 6))).filter((bar) => bar >= 0);

// Records when each frame was shown and, for every 25th, the time on its test card.
function watchClock() {
  // Each glyph has seven rows of five dots. A row is one digit of base 32.
  const glyphs = ['ehjlphe', '4c4444e', 'eh1248v', 'v2421he', '26aiv22', 'vgu11he', '68guhhe',
    'v124888', 'ehhehhe', 'ehhf12c', '0440440', '00000cc'];
  const readCard = () => {
    const canvas = document.getElementById('picture');
    const dot = Math.max(Math.floor(canvas.height / 90), 1);
    const { data, width } = canvas.getContext('2d')
      .getImageData(canvas.width >> 4, canvas.height >> 4, 84 * dot, 9 * dot);
    const lit = (x, y) => data[(((y + 0.5) * dot | 0) * width + ((x + 0.5) * dot | 0)) * 4] > 128;
    const glyph = (cell) => Array.from({ length: 7 }, (_, row) => [16, 8, 4, 2, 1].reduce((sum, bit, i) =>
      sum + (lit(cell * 6 + 1 + i, row + 1) ? bit : 0), 0).toString(32)).join('');
    const text = Array.from({ length: 14 }, (_, cell) => '0123456789:.'[glyphs.indexOf(glyph(cell))] ?? '?');
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

test('a viewer with its own helper', async () => {
  const viewer = await startView(['--demo', '--helper', helper, '--folder', folder, '--size', '640x360']);
  const page = await openPage(viewer.address, { viewport: { width: 1280, height: 800 } });

  const top = await colours(page, 0.03);
  const seen = barsAmong(top);
  assert.ok(seen.length > 50 && new Set(seen).size >= 7, JSON.stringify(top)); // the square may hide one bar
  assert.ok(barsAmong(await colours(page, 0.97)).length < 20, 'the picture is upside down');
  await showMore(page, 10); // in one frame the bars move by less than the distance of two samples
  assert.notDeepEqual(await colours(page, 0.03), top);

  await page.evaluate(watchClock);
  await page.waitForFunction(() => globalThis.shown.filter(({ card }) => card).length > 12
    && globalThis.shown.at(-1).now > globalThis.shown[0].now + 6000, null, { timeout: 60000 });
  const wall = performance.timeOrigin + performance.now();
  const wallToUptime = Number(process.hrtime.bigint()) / 1e6 - wall;
  const all = await page.evaluate(() => globalThis.shown);
  const claimed = await figure(page, 'latency-median'); // of the last five seconds
  for (const { captured, card = captured } of all) {
    assert.ok(Math.abs(captured - card) <= 1, `${captured}, ${card}`);
  }
  const ages = all.filter(({ now }) => now > all.at(-1).now - 5000)
    .map(({ now, captured }) => now + wallToUptime - captured).sort((a, b) => a - b);
  const age = ages[ages.length >> 1];
  assert.ok(Math.abs(age - claimed) <= 10, `the page says ${claimed} ms, the card's clock ${age}`);

  const second = await browser.newPage();
  await second.goto(viewer.address);
  await second.getByText('Another page').first().waitFor();
  await second.close();

  await page.locator('#take-resolution').selectOption('640x360');
  await page.locator('#take-start').click();
  await page.locator('#take-state[data-value=recording]').waitFor();
  await sleep(1500);
  await page.locator('#take-stop').click();
  await page.locator('#take-state[data-value=saved]').waitFor();
  const movie = await page.locator('#take-path').textContent();
  execFileSync('ffmpeg', ['-v', 'error', '-xerror', '-i', movie, '-f', 'null', '-']);
  await page.locator('#take-movie').evaluate((video) => video.play());
  await page.waitForFunction(() => document.getElementById('take-movie').currentTime > 0.3);
  const part = await fetch(await page.locator('#take-movie').evaluate((video) => video.currentSrc),
    { headers: { Range: 'bytes=4-7' } });
  assert.deepEqual([part.status, await part.text()], [206, 'ftyp']);

  // Refusal and movie stay on the page although the helper repeats the last event of the take.
  await page.locator('#take-folder').fill(inFolder('nowhere'));
  await page.locator('#take-start').click();
  await page.getByText('There is no folder').first().waitFor();
  await sleep(1500);
  assert.match(await page.locator('#take-problem').textContent(), /There is no folder/);
  assert.equal(await page.locator('#take-path').isVisible(), true);
  await page.locator('#take-folder').fill(folder);

  const looks = [['desktop', 'light', 1280], ['dark', 'dark', 1280], ['phone', 'light', 390]];
  for (const [name, colorScheme, width] of looks) {
    await page.emulateMedia({ colorScheme });
    await page.setViewportSize({ width, height: 800 });
    await page.screenshot({ path: `${process.env.SCREENSHOTS ?? folder}/${name}.png` });
  }
  assert.equal(await end(viewer), 0);
  await page.close();
});

test('a viewer whose folder holds an interrupted take', async () => {
  const staging = inFolder('old.mp4.6f9619ff-8b86-d011-b42d-00cf4fc96401.partial');
  fs.copyFileSync(new URL('../../fuzz/corpus/staging/torn', import.meta.url), staging);
  fs.utimesSync(staging, 0, 0);
  const viewer = await startView(['--demo', '--helper', helper, '--folder', folder]);
  const page = await openPage(viewer.address);
  await page.getByText('A take is unfinished or running.').waitFor();
  await page.locator('#interrupted-keep').click();
  await page.getByText(/old\.recovered-.*\.mp4: 1\.0 s/).waitFor();
  assert.equal(await page.locator('#interrupted-keep').isVisible(), false);
  assert.equal(await end(viewer), 0);
  await page.close();
});

async function statusOf({ hostname, port, pathname }, headers, target = pathname) {
  const request = http.get({ hostname, port, path: target, headers });
  const [response] = await Promise.race([once(request, 'response'), once(request, 'upgrade')]);
  request.destroy();
  return response.statusCode;
}

test('a viewer of another application\'s helper', async () => {
  const parent = await startParent(helper);
  programs.push(parent.program);
  const viewer = await startView(['--port', String(parent.port)], environment);
  programs.push(spawn(tap, [String(parent.port)],
    { stdio: ['ignore', fs.openSync(inFolder('other.h264'), 'w'), 'inherit'], env: environment }));
  const page = await openPage(viewer.address);
  await page.getByText('Only the application that started the helper').first().waitFor();
  assert.equal(await page.locator('#take-start').isDisabled(), true);

  const debug = await page.context().newCDPSession(page);
  await debug.send('Debugger.enable');
  await debug.send('Debugger.pause');
  const recorded = fs.statSync(inFolder('other.h264')).size;
  await sleep(2000);
  assert.ok(fs.statSync(inFolder('other.h264')).size > recorded + 10000, 'the other client got no frames');
  await debug.send('Debugger.resume');
  await debug.send('Debugger.disable');
  await showMore(page, 30);
  assert.ok(await figure(page, 'skipped') > 0);
  assert.equal(await figure(page, 'restarts'), 0);
  assert.deepEqual([parent.statistics.dropped_peers, parent.statistics.clients], [0, 2]);

  const url = new URL(viewer.address);
  const socket = { Connection: 'Upgrade', Upgrade: 'websocket', 'Sec-WebSocket-Version': 13,
    'Sec-WebSocket-Key': 'AAAAAAAAAAAAAAAAAAAAAA==' };
  const at = `${url.pathname}socket`;
  for (const [status, headers, target] of [[101, { ...socket, Origin: url.origin }, at], [404, socket, at],
    [404, { Host: 'evil.example' }], [404, { Origin: 'http://evil.example' }], [404, {}, '/guess/'],
    [404, {}, `${url.pathname}takes/a.mp4`]]) {
    assert.equal(await statusOf(url, headers, target), status, JSON.stringify([headers, target]));
  }

  parent.program.stdin.end();
  await page.getByText('The helper has closed the stream').first().waitFor();
  assert.equal(await end(viewer), 0);
});
