// Connects the parts of the page: passes packets to the picture and messages to their handlers, and
// updates the figures twice a second.

import { Chart } from './chart.js';
import { ClockOffset, latencyOf } from './clock.js';
import { Connection } from './connection.js';
import { element, showCount, showFigure } from './dom.js';
import { EventFormatter } from './event_formatter.js';
import { EventList } from './events.js';
import { MovingWindow, percentile } from './figures.js';
import { parsePacket } from './packets.js';
import { Picture } from './picture.js';
import { PlaybackStatus } from './playback_status.js';
import { Takes } from './takes.js';

const counters = [
  'dropped_raw', 'credit_drops', 'send_drops', 'resync_wait_drops', 'max_pending_acks',
];
const events = new EventList();
const chart = new Chart();
const formatter = new EventFormatter();
const playback = new PlaybackStatus();
const frames = new MovingWindow(2000);
const bits = new MovingWindow(2000);
const latencies = new MovingWindow(5000);
let clock = new ClockOffset();
let skipped = 0;
let nextPing;

const report = (text) => events.add(text, 'bad');
const send = (message) => connection.send(JSON.stringify(message));

const picture = new Picture({
  shown(frameId) {
    const now = performance.now();
    connection.send(`{"type":"shown","frame_id":${frameId}}`); // JSON.stringify rejects a BigInt
    frames.add(now);
    playback.pictureShown(now);
    if (clock.value === undefined) return;
    const latency = latencyOf(frameId, now * 1000, clock.value);
    element('latency-note').hidden = latency !== undefined;
    if (latency !== undefined) latencies.add(now, latency / 1000);
  },
  failed(error) {
    report(`The decoder failed: ${error.message} It starts again at the next key frame.`);
    playback.decoderFailed(error);
    send({ type: 'restart' });
  },
});

const connection = new Connection({
  packet(buffer) {
    bits.add(performance.now(), buffer.byteLength * 8);
    if (playback.canDecode) picture.take(parsePacket(new Uint8Array(buffer)));
  },
  message(message) {
    if (Object.hasOwn(messages, message.type)) messages[message.type](message);
  },
  state(name) {
    clearTimeout(nextPing);
    if (name === 'open') {
      clock = new ClockOffset();
      tellVisibility();
      keepPinging(5);
    } else {
      takes.sessionEnded();
    }
    playback.connectionChanged(name);
  },
  fault: report,
});
const takes = new Takes(send);

const messages = {
  session(session) {
    connection.accepted();
    picture.reset();
    playback.sessionStarted(session);
    takes.sessionStarted(session);
  },
  event({ event, at }) {
    for (const { text, tone } of formatter.format(event)) events.add(text, tone, at);
    if (event.type === 'stats') showStats(event);
    if (event.type === 'recording') takes.handleEvent(event);
  },
  pong({ sent, clock: viewerTime }) {
    clock.add(sent, performance.now() * 1000, viewerTime);
  },
  skipped({ frames: count }) {
    skipped += count;
    events.add('Frames were skipped because this page was slow, or had just become visible again.');
  },
  silent({ message }) {
    report(message);
    takes.soundEnded();
  },
  interrupted(takesLeft) {
    takes.showInterrupted(takesLeft);
  },
  refused({ message }) {
    report(message);
    takes.refused(message);
  },
  busy({ message }) {
    connection.giveUp();
    playback.ended('Another page is viewing', message);
  },
  lost({ message }) {
    report(message);
    playback.streamLost(message);
  },
  ended({ message, status }) {
    connection.giveUp();
    events.add(message, status ? 'bad' : 'plain');
    playback.ended('The helper is gone', message);
    takes.sessionEnded();
  },
};

// The first pings are sent in quick succession, so that the offset of the clocks is known soon.
function keepPinging(quickOnes) {
  send({ type: 'ping', sent: Math.floor(performance.now() * 1000) });
  nextPing = setTimeout(() => keepPinging(quickOnes - 1), quickOnes > 1 ? 100 : 1000);
}

function tellVisibility() {
  playback.visibilityChanged(performance.now());
  send({ type: 'visible', visible: playback.canDecode && !document.hidden });
}

// Some "stats" events lack some of the `counters`.
function showStats(event) {
  for (const key of counters) {
    if (key in event) showCount(key.replaceAll('_', '-'), event[key]);
  }
  showFigure('encode-ms', event.encode_ms, `${event.encode_ms.toFixed(1)} ms`);
}

function showFigures() {
  const now = performance.now();
  const oneDecimal = (id, value) => showFigure(id, value, value?.toFixed(1));
  const recent = latencies.values(now);
  oneDecimal('fps', frames.rate(now));
  oneDecimal('latency-median', percentile(recent, 0.5));
  oneDecimal('latency-p99', percentile(recent, 0.99));
  const rate = bits.rate(now);
  showFigure('bit-rate', rate, (rate / 1e6).toFixed(2));
  const counts = { ...picture.figures, 'decoder-queue': picture.inDecoder, skipped };
  for (const [id, value] of Object.entries(counts)) showCount(id, value);
  playback.show(now);
}

function addToChart() {
  const now = performance.now();
  const latency = percentile(latencies.values(now, 1000), 0.5);
  chart.add({ at: now / 1000, fps: frames.rate(now, 1000), latency });
}

addEventListener('error', ({ message }) => report(`Error in this page: ${message}`));
addEventListener('unhandledrejection', ({ reason }) => report(`Error in this page: ${reason}`));
document.addEventListener('visibilitychange', tellVisibility);
element('retry').addEventListener('click', () => connection.open());
setInterval(showFigures, 500);
setInterval(addToChart, 1000);
connection.open();
showFigures();
