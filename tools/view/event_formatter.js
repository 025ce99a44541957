// Turns the helper's events into lines for the event list. An event that says nothing new gives none.

export class EventFormatter {
  #stats = {};
  #lastJSON = {}; // of "ready" and "error", which the viewer sends again after a reconnect
  #take = {};

  // Returns lines: a text, and a tone that is "plain", "good" or "bad".
  format(event) {
    switch (event.type) {
      case 'ready':
        return this.#unlessRepeated(event, { tone: 'plain', text: `The helper is ready on port ${event.port}.` });
      case 'error':
        return this.#unlessRepeated(event, { tone: 'bad', text: `The helper failed: ${event.message}` });
      case 'stats':
        return this.#formatStats(event);
      case 'recording':
        return this.#formatTake(event);
      default:
        return [];
    }
  }

  #unlessRepeated(event, line) {
    const json = JSON.stringify(event);
    if (this.#lastJSON[event.type] === json) return [];
    this.#lastJSON[event.type] = json;
    return [line];
  }

  #formatStats(event) {
    const growth = (key) => event[key] - this.#stats[key];
    const lines = [];
    const add = (text, tone = 'bad') => lines.push({ tone, text });
    if (growth('clients') !== 0) add(`Clients of the stream: ${event.clients}.`, 'plain');
    const refused = growth('dropped_peers');
    if (refused > 0) add(`The helper refused or closed ${count(refused, 'connection')}.`);
    if (growth('idr_resyncs') > 0) add('A client fell behind and waited for the next key frame.');
    if (growth('record_encoder_failures') > 0) add('The encoder of the take failed.');
    Object.assign(this.#stats, event);
    return lines;
  }

  #formatTake(event) {
    const isKnown = event.id === this.#take.id && event.state === this.#take.state;
    this.#take = event;
    return isKnown ? [] : takeLines(event);
  }
}

function takeLines({ state, width, height, path, error, duration: seconds, frames }) {
  switch (state) {
    case 'starting':
      return [{ tone: 'plain', text: `A take is starting: ${path}` }];
    case 'recording':
      return [{ tone: 'plain', text: `Recording in ${width} × ${height}.` }];
    case 'finishing':
      return [{ tone: 'plain', text: 'The take is being finished.' }];
    case 'saved':
      return [{
        tone: 'good',
        text: `Saved ${duration(seconds)} min, ${count(frames, 'frame')}: ${path}${error ? `. ${error}` : ''}`,
      }];
    case 'failed':
      return [{ tone: 'bad', text: `The take failed: ${error}` }];
    default:
      return [];
  }
}

export function duration(seconds) {
  const tenths = Math.round(seconds * 10);
  const [minutes, rest] = [Math.floor(tenths / 600), ((tenths % 600) / 10).toFixed(1)];
  return `${minutes}:${rest.padStart(4, '0')}`;
}

function count(number, noun) {
  return `${number.toLocaleString('en')} ${noun}${number === 1 ? '' : 's'}`;
}
