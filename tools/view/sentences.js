// What the helper reports, in sentences for people. Pure.

const takeProblems = [
  [/^recording destination or state is invalid$/,
    'The helper did not begin the take: another one is still running, the path is too long, or the helper ' +
    'is ending. Stop the running take, or choose a folder with a shorter path.'],
  [/^invalid or existing recording destination$/,
    'Something with the name of the take exists already. Start again; the take gets a new name.'],
  [/^recording resolution or target frame rate is invalid$/,
    'The helper does not know this size and rate. Choose others.'],
  [/^recording (start|stop) time is invalid$/,
    'The command took too long to reach the helper. Start again.'],
  [/^recording disk cannot keep up$/,
    'The disk is too slow for this take. Choose a faster disk, a smaller size or a lower rate.'],
  [/^(no camera frames were received for recording|no video lies before the end of the recording)$/,
    'No picture came during the take. Check that the camera runs, and record a little longer.'],
  [/^camera recording dimensions changed/, 'The encoder changed the size of the picture during the take.'],
  [/^No space left on device$|^Disk quota exceeded$/, 'The disk is full. Make room or choose another folder.'],
  [/^Permission denied$|^Read-only file system$|^Operation not permitted$/,
    'The helper may not write into this folder. Choose another one.'],
  [/^No such file or directory$|^Not a directory$/, 'The folder does not exist. Create it or choose another one.'],
  [/^Cannot allocate memory$|^Too many open files/, 'The machine has run short of memory or of open files.'],
];

const helperProblems = [
  [/^invalid helper configuration$/, 'The helper was started with options or a token that it does not accept.'],
  [/^video listener( initialization)? failed$|^listener has no port$/,
    'The helper cannot listen for viewers: its address is in use, unknown, or not of this machine.'],
  [/^invalid raw frame header$/, 'The camera application sent a frame of a size that the helper does not take.'],
  [/^truncated raw frame$/, 'The camera application ended in the middle of a frame.'],
  [/recording command/, 'The camera application sent a command that the helper does not understand.'],
  [/^encoder (preparation|property)|^hardware encoder creation/, 'The helper could not open its encoder.'],
  [/^frame (encoding|submission) failed/, 'The encoder of the preview failed.'],
];

// The helper's own words stay in sight, for whoever looks into it.
export function takeProblem(error) {
  return translate(takeProblems, error, 'The take failed.');
}

export function helperProblem(message) {
  return translate(helperProblems, message, 'The helper failed.');
}

function translate(problems, words, otherwise) {
  const found = problems.find(([pattern]) => pattern.test(words));
  return words ? `${found ? found[1] : otherwise} (“${words}”)` : otherwise;
}

export function duration(seconds) {
  const tenths = Math.round(seconds * 10);
  const [minutes, rest] = [Math.floor(tenths / 600), ((tenths % 600) / 10).toFixed(1)];
  return `${minutes}:${rest.padStart(4, '0')}`;
}

function count(number, noun) {
  return `${number.toLocaleString('en')} ${noun}${number === 1 ? '' : 's'}`;
}

// Tells what is new in each event: the helper repeats the last one of a take every second.
export class Chronicle {
  #stats = {};
  #once = {}; // "ready" and "error", as text: a viewer that comes back repeats them
  #take = {};

  // Sentences, each with a tone: "plain", "good" or "bad".
  read(event) {
    const words = JSON.stringify(event);
    if (this.#once[event.type] === words) return [];
    if (event.type === 'ready' || event.type === 'error') this.#once[event.type] = words;
    switch (event.type) {
      case 'ready':
        return [{ tone: 'plain', text: `The helper is ready on port ${event.port}.` }];
      case 'error':
        return [{ tone: 'bad', text: helperProblem(event.message) }];
      case 'stats':
        return this.#readStats(event);
      case 'recording':
        return this.#readTake(event);
      default:
        return [];
    }
  }

  #readStats(event) {
    const grown = (key) => event[key] - this.#stats[key];
    const news = [];
    const tell = (text, tone = 'bad') => news.push({ tone, text });
    if (grown('clients') !== 0 && event.clients >= 0) {
      tell(`Clients of the stream: ${event.clients}.`, 'plain');
    }
    const refused = grown('dropped_peers');
    if (refused > 0) tell(`The helper refused or ended ${count(refused, 'connection')}.`);
    if (grown('idr_resyncs') > 0) tell('A client fell behind and waited for the next key frame.');
    if (grown('record_encoder_failures') > 0) tell('The encoder of the take failed.');
    Object.assign(this.#stats, event);
    return news;
  }

  #readTake(event) {
    const isKnown = event.id === this.#take.id && event.state === this.#take.state;
    this.#take = event;
    return isKnown ? [] : takeNews(event);
  }
}

function takeNews({ state, width, height, path, error, duration: seconds, frames }) {
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
      return [{ tone: 'bad', text: takeProblem(error) }];
    default:
      return [];
  }
}
