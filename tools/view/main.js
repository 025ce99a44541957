// Wires the page: packets into the picture, messages to whom they concern, figures twice a second.

import { Chart } from './chart.js';
import { ClockOffset, latencyOf } from './clock.js';
import { Connection } from './connection.js';
import { element, showCount, showFigure } from './dom.js';
import { EventList } from './events.js';
import { MovingWindow, percentile } from './figures.js';
import { parsePacket } from './packets.js';
import { Picture } from './picture.js';
import { Chronicle } from './sentences.js';
import { Situation } from './situation.js';
import { Takes } from './takes.js';

const figureInterval = 500;
const pingInterval = 1000;
const quickPings = { count: 5, interval: 100 };

const events = new EventList(element('events'));
const chart = new Chart(element('chart'));
const chronicle = new Chronicle();
const situation = new Situation();
const frames = new MovingWindow(2000);
const bits = new MovingWindow(2000);
const latencies = new MovingWindow(5000);
let clock = new ClockOffset();
let hasForeignIDs = false;
let skipped = 0;
let nextPing;

const report = (text) => events.add(text, 'bad');

const picture = new Picture(element('picture'), {
  shown(frameID) {
    const now = performance.now();
    connection.send(`{"type":"shown","frame_id":${frameID}}`); // JSON.stringify knows no BigInt
    frames.add(now);
    situation.pictureShown(now);
    if (clock.value === undefined) return;
    const latency = latencyOf(frameID, now * 1000, clock.value);
    hasForeignIDs = latency === undefined;
    if (!hasForeignIDs) latencies.add(now, latency / 1000);
  },
  failed(error) {
    report(`The decoder failed and begins anew with the next key frame: ${error.message}`);
    situation.decoderFailed(error);
    connection.send({ type: 'restart' });
  },
});

const connection = new Connection({
  packet(buffer) {
    bits.add(performance.now(), buffer.byteLength * 8);
    if (situation.canDecode) picture.take(parsePacket(buffer));
  },
  message(message) {
    if (Object.hasOwn(messages, message.type)) messages[message.type](message);
  },
  state(name) {
    if (name === 'open') connectionOpened();
    else connectionLost();
    situation.connectionChanged(name);
  },
  fault: report,
});
const takes = new Takes((message) => connection.send(message));

const messages = {
  session(session) {
    connection.accepted();
    picture.reset();
    situation.sessionBegan(session);
    takes.sessionBegan(session);
  },
  event({ event, at }) {
    if (typeof event?.type !== 'string') throw new Error('an event without a type');
    for (const { text, tone } of chronicle.read(event)) events.add(text, tone, at);
    if (event.type === 'stats') showStats(event);
    if (event.type === 'recording') takes.eventCame(event);
  },
  pong({ sent, clock: theirs }) {
    clock.add(sent, performance.now() * 1000, theirs);
  },
  skipped({ frames: left }) {
    if (!Number.isInteger(left)) throw new Error('frames that cannot be counted');
    skipped += left;
    events.add('Frames were left out, since this page was slow or hidden.');
  },
  refused({ message }) {
    report(message);
    takes.refused(message);
  },
  busy({ message }) {
    connection.giveUp();
    situation.busy(message);
  },
  lost({ message }) {
    events.add(message, 'bad');
    situation.streamLost(message);
  },
  ended({ message, status }) {
    connection.giveUp();
    events.add(message, status ? 'bad' : 'plain');
    situation.ended(message);
    takes.sessionEnded();
  },
};

function connectionOpened() {
  clock = new ClockOffset();
  tellVisibility();
  keepPinging(quickPings.count);
}

function connectionLost() {
  clearTimeout(nextPing);
  takes.sessionEnded();
}

function keepPinging(quickOnes) {
  connection.send({ type: 'ping', sent: Math.floor(performance.now() * 1000) });
  const wait = quickOnes > 1 ? quickPings.interval : pingInterval;
  nextPing = setTimeout(() => keepPinging(quickOnes - 1), wait);
}

function tellVisibility() {
  situation.visibilityChanged(performance.now());
  connection.send({ type: 'visible', visible: situation.canDecode && !document.hidden });
}

// Not every report has every key.
function showStats(event) {
  const show = (id, key, showValue) => {
    if (Number.isFinite(event[key])) showValue(id, event[key]);
  };
  show('dropped-raw', 'dropped_raw', showCount);
  show('credit-drops', 'credit_drops', showCount);
  show('send-drops', 'send_drops', showCount);
  show('resync-drops', 'resync_wait_drops', showCount);
  show('pending-acks', 'max_pending_acks', showCount);
  show('encode-ms', 'encode_ms', (id, value) => showFigure(id, value, `${value.toFixed(1)} ms`));
}

function showFigures() {
  const now = performance.now();
  const oneDecimal = (id, value) => showFigure(id, value, value?.toFixed(1));
  oneDecimal('fps', frames.rate(now));
  const recent = latencies.values(now);
  oneDecimal('latency-median', percentile(recent, 0.5));
  oneDecimal('latency-p99', percentile(recent, 0.99));
  const rate = bits.rate(now);
  showFigure('bit-rate', rate, rate === undefined ? '' : (rate / 1e6).toFixed(2));
  element('latency-note').hidden = !hasForeignIDs;
  const { shown, superseded, keyFrames, restarts } = picture.figures;
  const counts = {
    shown, superseded, skipped, restarts, 'key-frames': keyFrames, 'decoder-queue': picture.inDecoder,
  };
  for (const [id, value] of Object.entries(counts)) showCount(id, value);
  situation.show(now);
}

function addToChart() {
  const now = performance.now();
  chart.add({
    at: now / 1000, fps: frames.rate(now, 1000), latency: percentile(latencies.values(now, 1000), 0.5),
  });
}

addEventListener('error', ({ message }) => report(`This page has a fault: ${message}`));
addEventListener('unhandledrejection', ({ reason }) => report(`This page has a fault: ${reason}`));
document.addEventListener('visibilitychange', tellVisibility);
element('retry').addEventListener('click', () => connection.open());
setInterval(showFigures, figureInterval);
setInterval(addToChart, 1000);
connection.open();
showFigures();
