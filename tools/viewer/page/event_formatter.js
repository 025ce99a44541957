// Turns the helper's events into lines for the event list. An event without news gives no line.

const line = (text, tone = 'plain') => ({ text, tone });

// Each entry is named for a state of a take, or for the type of an event without a state.
const lines = {
  ready: ({ port }) => line(`The helper is ready on port ${port}.`),
  error: ({ message }) => line(`The helper failed: ${message}`, 'bad'),
  starting: ({ path }) => line(`A take is starting: ${path}`),
  recording: ({ width, height }) => line(`Recording in ${width} × ${height}.`),
  finishing: () => line('The take is being finished.'),
  saved: (event) => {
    const { duration: seconds, path, error, sound_missing: missing = 0 } = event;
    const { frames: written, frames_in_movie: frames = written } = event;
    const silence = missing < 0.1 ? '' : `, ${missing.toFixed(1)} s without sound`;
    const figures = `${duration(seconds)} min, ${count(frames, 'frame')}${silence}`;
    return line(`Saved ${figures}: ${path}${error ? `. ${error}` : ''}`, 'good');
  },
  failed: (event) => line(`The take failed: ${failure(event)}`, 'bad'),
};

export class EventFormatter {
  #stats = {};
  // What the last line of each kind said. For a take, the key is its id and the value its state. For
  // any other event, the key is its type and the value the event as JSON.
  #last = {};

  // Returns lines: a text, and a tone that is "plain", "good" or "bad".
  format(event) {
    const { type, id, state } = event;
    if (type === 'stats') return this.#formatStats(event);
    // A repeated event gives no line. The helper may repeat the last state of a take. If this page
    // reconnects, the viewer sends the last event of each type again.
    const [of, said] = type === 'recording' ? [id, state] : [type, JSON.stringify(event)];
    const make = lines[state ?? type];
    if (said === this.#last[of] || !make) return [];
    this.#last[of] = said;
    return [make(event)];
  }

  #formatStats(event) {
    const growth = (key) => event[key] - this.#stats[key];
    const found = [];
    const add = (text, tone = 'bad') => found.push(line(text, tone));
    if (growth('clients') !== 0) add(`Clients of the stream: ${event.clients}.`, 'plain');
    const refused = growth('dropped_peers');
    if (refused > 0) add(`The helper has refused or closed ${count(refused, 'more connection')}.`);
    if (growth('idr_resyncs') > 0) add('A client fell behind and waited for the next key frame.');
    if (growth('record_encoder_failures') > 0) add('The encoder of the take failed.');
    Object.assign(this.#stats, event);
    return found;
  }
}

// Why a take failed, and what is left of it.
export function failure({ error, kept_path: name, kept_frames: frames, kept_duration: seconds }) {
  return name ? `${error}. Kept ${duration(seconds)} min, ${count(frames, 'frame')}: ${name}` : error;
}

export function duration(seconds) {
  const tenths = Math.round(seconds * 10);
  const [minutes, rest] = [Math.floor(tenths / 600), ((tenths % 600) / 10).toFixed(1)];
  return `${minutes}:${rest.padStart(4, '0')}`;
}

function count(number, noun) {
  return `${number.toLocaleString('en')} ${noun}${number === 1 ? '' : 's'}`;
}
