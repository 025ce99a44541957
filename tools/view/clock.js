// Relates this page's clock to the one that frame ids are read from. Pure; all in microseconds.

const keptPings = 30;
const longestLatency = 60e6;

// The answer to a ping was written somewhere between sending and receiving it; taking the middle errs
// by half the round trip at most, so the shortest of the recent round trips knows best.
export class ClockOffset {
  #pings = [];

  // Throws an Error when this can't be the answer to a ping.
  add(sent, received, clock) {
    const roundTrip = received - sent;
    if (!(roundTrip >= 0) || !Number.isFinite(clock)) throw new Error('a ping was answered wrongly');
    this.#pings.push({ roundTrip, offset: clock - (sent + received) / 2 });
    if (this.#pings.length > keptPings) this.#pings.shift();
  }

  // What to add to this page's time to get the other's; undefined before the first answer.
  get value() {
    if (this.#pings.length === 0) return undefined;
    return this.#pings.reduce((best, ping) => (ping.roundTrip < best.roundTrip ? ping : best)).offset;
  }
}

// From capture until now; undefined when the id can't be a capture time on that clock.
export function latencyOf(frameID, now, offset) {
  const latency = now + offset - Number(frameID);
  return latency >= 0 && latency <= longestLatency ? latency : undefined;
}
