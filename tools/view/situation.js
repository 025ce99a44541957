// What stands in the way of a live picture, in words over the picture and beside the title.

import { element } from './dom.js';

const patience = 2000; // milliseconds without a new picture

export class Situation {
  canDecode = 'VideoDecoder' in globalThis;
  #wasOpen = false;
  #connection = 'connecting';
  #end; // what the viewer said when it would not go on
  #loss; // what it says of a stream that it tries to get back
  #fault; // of the decoder, until it shows a picture again
  #shownAt;
  #key;

  connectionChanged(name) {
    this.#connection = name;
    if (name === 'connecting') this.#end = this.#loss = undefined;
    if (name === 'open') this.#wasOpen = true;
    if (name !== 'closed') this.#shownAt = undefined;
    this.show();
  }

  sessionBegan({ mode, helper }) {
    this.#end = this.#loss = undefined;
    this.#shownAt = undefined;
    element('session').textContent = `${mode === 'owner' ? 'Started' : 'Joined'} ${helper}`;
    this.show();
  }

  busy(text) {
    this.#end = ['Another page is viewing', text];
    this.show();
  }

  streamLost(text) {
    this.#loss = text;
    this.show();
  }

  ended(text) {
    this.#end = ['The helper is gone', text];
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

  // A hidden page is sent nothing; that is no standstill.
  visibilityChanged(now) {
    if (this.#shownAt !== undefined) this.#shownAt = now;
  }

  show(now = performance.now()) {
    const [state, title, text = ''] = this.#judge(now);
    const canRetry = this.#connection === 'closed';
    const key = [state, title, text, canRetry].join();
    if (key === this.#key) return;
    this.#key = key;
    element('connection').dataset.state = state;
    element('connection').textContent = title;
    element('notice').hidden = state === 'live';
    element('notice-title').textContent = title;
    element('notice-text').textContent = text;
    element('retry').hidden = !canRetry;
  }

  // The state "live", "waiting" or "failed", a title, and what is to be done.
  #judge(now) {
    const name = this.#connection;
    if (!this.canDecode) return ['failed', 'This browser cannot decode the picture', decoderAdvice()];
    if (this.#end) return ['failed', ...this.#end];
    if (name === 'closed') return ['failed', 'The connection is closed'];
    if (name === 'waiting') return ['waiting', 'The connection is lost', 'Trying again.'];
    // While it tries, it says one thing and no other: a screen reader reads each change.
    if (name === 'connecting') return ['waiting', this.#wasOpen ? 'The connection is lost' : 'Connecting'];
    if (this.#loss) return ['waiting', 'The stream is lost', this.#loss];
    if (this.#fault) return ['failed', 'The picture cannot be decoded', faultAdvice(this.#fault)];
    if (this.#shownAt === undefined) return ['waiting', 'Waiting for the first picture'];
    if (now - this.#shownAt > patience) {
      return ['waiting', 'The picture stands still', 'No new picture has come for two seconds.'];
    }
    return ['live', 'Live'];
  }
}

function decoderAdvice() {
  return isSecureContext
    ? 'It lacks WebCodecs. Use a current Chrome, Edge, Firefox or Safari.'
    : 'Browsers decode only on pages that they trust: open this one under 127.0.0.1 or localhost.';
}

function faultAdvice(error) {
  return error.name === 'NotSupportedError'
    ? 'This browser has no decoder for H.264 of this kind. Use Chrome, Edge or Safari.'
    : 'It is tried again with the next key frame.';
}
