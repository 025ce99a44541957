// The list of the last events, the newest first.

import { element } from './dom.js';

const kept = 50;

export class EventList {
  #list = element('events');
  #newest = { text: '', times: 0 };

  // If the newest line already has this text, it is replaced by one that adds a count: "(2 times)".
  add(text, tone = 'plain', at = Date.now()) {
    const isSame = text === this.#newest.text;
    const times = isSame ? this.#newest.times + 1 : 1;
    this.#newest = { text, times };
    if (isSame) this.#list.firstElementChild.remove();
    this.#list.prepend(makeLine(times > 1 ? `${text} (${times} times)` : text, tone, new Date(at)));
    while (this.#list.childElementCount > kept) this.#list.lastElementChild.remove();
  }
}

function makeLine(text, tone, when) {
  const [line, time, words] = ['li', 'time', 'span'].map((tag) => document.createElement(tag));
  time.dateTime = when.toISOString();
  time.textContent = when.toLocaleTimeString('en-GB');
  words.textContent = text;
  line.dataset.tone = tone;
  line.append(time, words);
  return line;
}
