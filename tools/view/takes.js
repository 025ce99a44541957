// Starting and stopping takes, what becomes of them, and the finished movie.

import { element, showCount, showFigure } from './dom.js';
import { duration, takeProblem } from './sentences.js';

const states = {
  none: 'No take yet',
  asked: 'Asking the helper',
  starting: 'Starting',
  recording: 'Recording',
  finishing: 'Finishing',
  saved: 'Saved',
  failed: 'Failed',
  lost: 'Unknown: nothing is heard of it',
};
const running = ['asked', 'starting', 'recording', 'finishing'];

export class Takes {
  #send;
  #isOwner = false;
  #state = 'none';
  #stateBefore = 'none'; // the one that was asked in
  #lastEnd; // "id state" of the take whose end was told

  constructor(send) {
    this.#send = send;
    element('take-form').addEventListener('submit', (submission) => {
      submission.preventDefault();
      this.#start();
    });
    element('take-stop').addEventListener('click', () => {
      if (this.#state !== 'asked') send({ type: 'stop' }); // else there is nothing to stop yet
    });
    element('take-copy').addEventListener('click', () => copyPath());
    element('take-movie').addEventListener('error', () => {
      showProblem('The movie cannot be played here. The file itself is complete.');
    });
    this.#showState('none');
  }

  sessionBegan({ mode, folder }) {
    this.#isOwner = mode === 'owner';
    if (!element('take-folder').value && folder) element('take-folder').value = folder;
    const reason = 'Only the application that started the helper can record takes and hears its events.';
    element('take-reason').textContent = this.#isOwner ? '' : reason;
    this.#enable();
  }

  sessionEnded() {
    this.#isOwner = false;
    this.#lastEnd = undefined; // whoever comes back is told everything again
    if (this.#state === 'asked') this.#showState(this.#stateBefore);
    else if (running.includes(this.#state)) this.#showState('lost');
    this.#enable();
  }

  // The "recording" event of the helper.
  eventCame(event) {
    if (!(event.state in states)) throw new Error('a take in an unknown state');
    // The last event of a take is repeated every second: nothing that was said since gives way to it.
    const end = `${event.id} ${event.state}`;
    if (end === this.#lastEnd) return;
    this.#lastEnd = end;
    if (event.state === 'recording') this.#lastEnd = undefined; // each tells more
    if (event.state === 'starting') hideMovie();
    this.#showState(event.state);
    showFigure('take-duration', event.duration, duration(event.duration));
    for (const key of ['frames', 'dropped', 'throttled']) showCount(`take-${key}`, event[key]);
    if (event.state === 'failed') showProblem(takeProblem(event.error));
    if (event.state === 'saved') showMovie(event);
  }

  refused(message) {
    if (this.#state === 'asked') this.#showState(this.#stateBefore);
    showProblem(message);
  }

  #start() {
    const folder = element('take-folder').value.trim();
    if (!folder.startsWith('/')) {
      element('take-folder').focus();
      showProblem('Give the whole path of the folder, beginning with “/”.');
      return;
    }
    const command = {
      type: 'start',
      resolution: element('take-resolution').value,
      target_fps: Number(element('take-rate').value),
      folder,
    };
    if (element('take-steady').checked) command.cadence = 'steady';
    this.#stateBefore = this.#state;
    this.#showState('asked');
    this.#send(command);
  }

  #showState(state) {
    this.#state = state;
    if (running.includes(state)) showProblem('');
    showFigure('take-state', state, states[state]);
    this.#enable();
  }

  // One of the two buttons is there, with the focus that the other one had.
  #enable() {
    const isRunning = running.includes(this.#state);
    const [start, stop] = [element('take-start'), element('take-stop')];
    const [shown, hidden] = isRunning ? [stop, start] : [start, stop];
    const focused = document.activeElement;
    const hadFocus = focused === hidden || (isRunning && element('take-fields').contains(focused));
    shown.hidden = false;
    hidden.hidden = true;
    start.disabled = !this.#isOwner;
    stop.disabled = !this.#isOwner;
    stop.ariaDisabled = this.#state === 'asked'; // and keeps the focus
    element('take-fields').disabled = !this.#isOwner || isRunning;
    if (hadFocus) shown.focus();
  }
}

function showProblem(text) {
  element('take-problem').textContent = text;
}

function showMovie({ id, path, error }) {
  const movie = element('take-movie');
  const source = `takes/${encodeURIComponent(id)}.mp4`;
  if (movie.getAttribute('src') === source) return;
  movie.src = source;
  showFigure('take-path', path);
  showProblem(error);
  element('take-result').hidden = false;
}

function hideMovie() {
  element('take-result').hidden = true;
  element('take-movie').removeAttribute('src');
  element('take-movie').load();
  element('take-copied').textContent = '';
}

async function copyPath() {
  try {
    await navigator.clipboard.writeText(element('take-path').textContent);
    element('take-copied').textContent = 'Copied';
  } catch {
    getSelection().selectAllChildren(element('take-path'));
    element('take-copied').textContent = 'Selected; copy it with Ctrl+C';
  }
}
