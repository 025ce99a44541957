// Starts and stops takes, and shows their progress and the finished movie. Offers to recover
// interrupted takes.

import { element, showCount, showFigure } from './dom.js';
import { duration, failure } from './event_formatter.js';

const states = {
  none: 'No take yet',
  asked: 'Asking the helper',
  starting: 'Starting',
  recording: 'Recording',
  finishing: 'Finishing',
  saved: 'Saved',
  failed: 'Failed',
  lost: 'Unknown: no connection to the helper',
};
const running = ['asked', 'starting', 'recording', 'finishing'];

export class Takes {
  #send;
  #isOwner = false;
  #state = 'none';
  #stateBefore = 'none'; // the state before `asked`; shown again if the take is not started
  #lastStates = new Map(); // of takes by their ids

  constructor(send) {
    this.#send = send;
    element('take-form').addEventListener('submit', (submission) => {
      submission.preventDefault();
      this.#start();
    });
    element('take-stop').addEventListener('click', () => {
      if (this.#state !== 'asked') send({ type: 'stop' }); // while `asked`, there is no take yet
    });
    element('interrupted-keep').addEventListener('click', () => {
      element('interrupted-keep').disabled = true; // until the viewer has answered
      send({ type: 'recover' });
    });
    element('take-copy').addEventListener('click', async () => {
      await navigator.clipboard.writeText(element('take-path').textContent);
      element('take-copied').textContent = 'Copied';
    });
    element('take-movie').addEventListener('error', () => {
      showProblem('The movie cannot be played here.');
    });
  }

  sessionStarted({ mode, folder, sound = false }) {
    this.#isOwner = mode === 'owner';
    element('take-sound-label').hidden = !sound;
    if (!element('take-folder').value && folder) element('take-folder').value = folder;
    element('take-reason').hidden = this.#isOwner;
    element('interrupted').hidden = true; // until `showInterrupted` shows it
    this.#enable();
  }

  soundEnded() {
    element('take-sound-label').hidden = true;
  }

  sessionEnded() {
    this.#isOwner = false;
    this.#lastStates.clear(); // the next session sends the last event again, and it must be shown
    if (this.#state === 'asked') this.#showState(this.#stateBefore);
    else if (running.includes(this.#state)) this.#showState('lost');
    this.#enable();
  }

  // Shows a "recording" event of the helper.
  handleEvent(event) {
    // The helper repeats the last event of a take. Showing it again would replace a newer message.
    // Events with the state "recording" are no repeats: each has new figures.
    const isRepeated = event.state === this.#lastStates.get(event.id);
    if (isRepeated && event.state !== 'recording') return;
    this.#lastStates.set(event.id, event.state);
    if (event.state === 'starting') hideMovie();
    this.#showState(event.state);
    showFigure('take-duration', event.duration, duration(event.duration));
    for (const key of ['frames', 'dropped', 'throttled']) showCount(`take-${key}`, event[key]);
    if (event.state === 'failed') showProblem(failure(event));
    if (event.state === 'saved') showMovie(event);
  }

  // `count` is the number of unfinished takes, including running ones. `lines` are the results of a
  // recovery.
  showInterrupted({ count, lines }) {
    element('interrupted').hidden = count === 0 && lines.length === 0;
    element('interrupted-keep').hidden = count === 0;
    element('interrupted-keep').disabled = false;
    const takes = count === 1 ? 'A take is' : `${count} takes are`;
    element('interrupted-count').textContent = count === 0 ? '' : `${takes} unfinished or running.`;
    element('interrupted-lines').replaceChildren(...lines.map((line) => {
      const item = document.createElement('li');
      item.textContent = line;
      return item;
    }));
  }

  refused(message) {
    if (this.#state === 'asked') this.#showState(this.#stateBefore);
    showProblem(message);
  }

  #start() {
    const folder = element('take-folder').value.trim();
    if (!folder.startsWith('/')) {
      element('take-folder').focus();
      showProblem('Enter the absolute path of the folder. It begins with “/”.');
      return;
    }
    const command = {
      type: 'start',
      resolution: element('take-resolution').value,
      target_fps: Number(element('take-rate').value),
      folder,
    };
    if (element('take-steady').checked) command.cadence = 'steady';
    command.sound = element('take-sound').checked && !element('take-sound-label').hidden;
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

  // Shows the start or the stop button, and hides the other. If the hidden button or, while a take
  // runs, a field of the form had the focus, the shown button gets it.
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
    stop.ariaDisabled = this.#state === 'asked'; // `disabled` would lose the focus
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
