// Figures over a moving window. Times are in milliseconds.

export class MovingWindow {
  #entries = [];
  #span;
  #firstAt;

  constructor(span) {
    this.#span = span;
  }

  add(at, value = 1) {
    this.#firstAt ??= at;
    this.#entries.push({ at, value });
    this.#entries.splice(0, this.#entries.findIndex((entry) => entry.at > at - this.#span));
  }

  // The values of the last `span` milliseconds.
  values(now, span = this.#span) {
    return this.#entries.filter((entry) => entry.at > now - span).map((entry) => entry.value);
  }

  // The sum of the values per second; undefined until half a second after the first value.
  rate(now, span = this.#span) {
    const seen = Math.min(span, now - (this.#firstAt ?? now));
    if (seen < 500) return undefined;
    return (this.values(now, span).reduce((sum, value) => sum + value, 0) * 1000) / seen;
  }
}

// The nearest-rank percentile; undefined without values.
export function percentile(values, fraction) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.max(Math.ceil(fraction * sorted.length), 1) - 1];
}
