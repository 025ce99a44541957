// Shows the state of connection and picture: a label in the header, and a notice over the picture
// unless it is live.

import { element, showText } from './dom.js';

const stallTime = 2000; // milliseconds without a new picture

export class PlaybackStatus {
  canDecode = 'VideoDecoder' in globalThis;
  #wasOpen = false;
  #connection = 'connecting';
  #end; // title and text, when the viewer has closed the connection for good
  #loss; // the viewer's message while it reconnects to the helper
  #fault; // the decoder's error, until it decodes again
  #shownAt;

  connectionChanged(state) {
    this.#connection = state;
    if (state === 'connecting') this.#end = this.#loss = undefined;
    if (state === 'open') this.#wasOpen = true;
    if (state !== 'closed') this.#shownAt = undefined;
    this.show();
  }

  sessionStarted({ mode, helper }) {
    this.#end = this.#loss = this.#shownAt = undefined;
    element('session').textContent = `${mode === 'owner' ? 'Started' : 'Joined'} ${helper}`;
    this.show();
  }

  streamLost(text) {
    this.#loss = text;
    this.show();
  }

  ended(title, text) {
    this.#end = [title, text];
    this.show();
  }

  decoderFailed(error) {
    this.#fault = error;
    this.#shownAt = undefined;
    this.show();
  }

  pictureShown(now) {
    const isFirst = this.#shownAt === undefined;
    this.#shownAt = now;
    this.#fault = undefined;
    if (isFirst) this.show(now);
  }

  // A hidden page gets no pictures. The time while it is hidden must not count as a stall.
  visibilityChanged(now) {
    if (this.#shownAt !== undefined) this.#shownAt = now;
  }

  show(now = performance.now()) {
    const [state, title, text = ''] = this.#current(now);
    element('connection').dataset.state = state;
    showText('connection', title);
    element('notice').hidden = state === 'live';
    showText('notice-title', title);
    showText('notice-text', text);
    element('retry').hidden = this.#connection !== 'closed';
  }

  // Returns the state ("live", "waiting" or "failed"), a title, and perhaps a text.
  #current(now) {
    if (!this.canDecode) {
      return ['failed', 'This browser cannot decode the picture', decoderAdvice()];
    }
    if (this.#end) return ['failed', ...this.#end];
    switch (this.#connection) {
      case 'closed':
        return ['failed', 'The connection is closed'];
      case 'waiting':
      case 'connecting': // the same words as while waiting: a screen reader announces every change
        return this.#wasOpen
          ? ['waiting', 'The connection is lost', 'Trying again.']
          : ['waiting', 'Connecting'];
      default:
        return this.#currentPicture(now);
    }
  }

  #currentPicture(now) {
    if (this.#loss) return ['waiting', 'The stream is lost', this.#loss];
    if (this.#fault) return ['failed', 'The picture cannot be decoded', faultAdvice(this.#fault)];
    if (this.#shownAt === undefined) return ['waiting', 'Waiting for the first picture'];
    if (now - this.#shownAt > stallTime) {
      return ['waiting', 'The picture stands still', 'No new picture has come for two seconds.'];
    }
    return ['live', 'Live'];
  }
}

function decoderAdvice() {
  return isSecureContext
    ? 'It lacks WebCodecs. Use a current Chrome, Edge, Firefox or Safari.'
    : 'Browsers decode only on pages that they trust. Open this page under 127.0.0.1.';
}

function faultAdvice(error) {
  return error.name === 'NotSupportedError'
    ? 'This browser has no decoder for this kind of H.264. Use Chrome, Edge or Safari.'
    : 'The decoder starts again at the next key frame.';
}
