// Charts of the last minute: the frame rate above, the latency below.

import { element } from './dom.js';

const shownSeconds = 60; // the width of each chart's `viewBox` in index.html
const maximumGap = 2.5; // seconds; no line is drawn across a longer one

export class Chart {
  #points = []; // { at: seconds, fps, latency: milliseconds }; a value may be undefined

  add(point) {
    this.#points.push(point);
    this.#points = this.#points.filter(({ at }) => at >= point.at - shownSeconds);
    const [rates, latencies] = [this.#draw('fps', 30), this.#draw('latency', 20)];
    element('chart').ariaLabel =
      `The last minute. Frames a second: ${rates}. Latency in milliseconds: ${latencies}.`;
  }

  // Draws one curve. Returns the range of its values in words.
  #draw(key, leastMaximum) {
    const start = this.#points.at(-1).at - shownSeconds;
    const points = this.#points.filter((point) => point[key] !== undefined);
    const values = points.map((point) => point[key]);
    const maximum = niceMaximum(Math.max(leastMaximum, ...values));
    const steps = points.map(({ at }, i) => {
      const isJoined = i > 0 && at - points[i - 1].at <= maximumGap;
      return `${isJoined ? 'L' : 'M'} ${at - start} ${1 - values[i] / maximum}`;
    });
    element(`${key}-curve`).setAttribute('d', steps.join(' '));
    element(`${key}-maximum`).textContent = maximum;
    if (values.length === 0) return 'unknown';
    return `${Math.min(...values).toFixed(0)} to ${Math.max(...values).toFixed(0)}`;
  }
}

function niceMaximum(value) {
  const power = 10 ** Math.floor(Math.log10(value));
  return [1, 2, 3, 4, 6, 8, 10].find((step) => step * power >= value) * power;
}
