// The list of the last events, the newest first.

const kept = 50;

export class EventList {
  #list;
  #newest = { text: '', times: 0 };

  constructor(list) {
    this.#list = list;
  }

  // A text that equals the newest one is counted in the same line.
  add(text, tone = 'plain', at = Date.now()) {
    const isSame = text === this.#newest.text;
    this.#newest = { text, times: isSame ? this.#newest.times + 1 : 1 };
    if (isSame) this.#list.firstElementChild.remove();
    this.#list.prepend(this.#line(tone, at));
    while (this.#list.childElementCount > kept) this.#list.lastElementChild.remove();
  }

  #line(tone, at) {
    const when = new Date(at);
    const time = document.createElement('time');
    time.dateTime = when.toISOString();
    time.textContent = when.toLocaleTimeString('en-GB');
    const words = document.createElement('span');
    const { text, times } = this.#newest;
    words.textContent = times > 1 ? `${text} (${times} times)` : text;
    const line = document.createElement('li');
    line.dataset.tone = tone;
    line.append(time, words);
    return line;
  }
}
