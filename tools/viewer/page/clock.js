// Estimates the offset between this page's clock and the viewer's. A frame's id is usually its
// capture time on the viewer's clock. All times are in microseconds.

const keptPings = 30;
const maximumLatency = 60e6;

// The viewer reads its clock after the page sends a ping and before the page receives the answer.
// The middle of these two times differs from the time of that reading by at most half the round
// trip. So the ping with the shortest round trip is used.
export class ClockOffset {
  #pings = [];

  add(sent, received, clock) {
    this.#pings.push({ roundTrip: received - sent, offset: clock - (sent + received) / 2 });
    if (this.#pings.length > keptPings) this.#pings.shift();
  }

  // Viewer's time minus page's time; undefined before the first answer.
  get value() {
    const shortest = Math.min(...this.#pings.map(({ roundTrip }) => roundTrip));
    return this.#pings.find(({ roundTrip }) => roundTrip === shortest)?.offset;
  }
}

// The time since capture; undefined when the id is not a capture time of the viewer's clock.
export function latencyOf(frameId, now, offset) {
  const latency = now + offset - Number(frameId);
  return latency >= 0 && latency <= maximumLatency ? latency : undefined;
}
