// Figures over a moving window. Pure; times are milliseconds of any one clock.

export class MovingWindow {
  #entries = [];
  #begun;

  constructor(span) {
    this.span = span;
  }

  add(at, value = 1) {
    this.#begun ??= at;
    this.#entries.push({ at, value });
    this.#forget(at);
  }

  // Of the last `span` milliseconds.
  values(now, span = this.span) {
    this.#forget(now);
    return this.#entries.filter((entry) => entry.at > now - span).map((entry) => entry.value);
  }

  // The sum of values a second; undefined before half a second has been seen.
  rate(now, span = this.span) {
    const seen = Math.min(span, now - (this.#begun ?? now));
    if (seen < 500) return undefined;
    return (this.values(now, span).reduce((sum, value) => sum + value, 0) * 1000) / seen;
  }

  #forget(now) {
    const kept = this.#entries.findIndex((entry) => entry.at > now - this.span);
    this.#entries.splice(0, kept < 0 ? this.#entries.length : kept);
  }
}

// The smallest value that at least this fraction of all does not exceed; undefined without any.
export function percentile(values, fraction) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.max(Math.ceil(fraction * sorted.length), 1) - 1];
}
