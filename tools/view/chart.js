// Charts of the last minute: the frame rate above, the latency below.

const shownSeconds = 60;
const maximumGap = 2.5; // seconds; no line is drawn across a longer one
const padding = { left: 40, right: 8, top: 30, bottom: 8 }; // of each chart, in CSS pixels

export class Chart {
  #canvas;
  #points = []; // { at: seconds, fps, latency: milliseconds or undefined }

  constructor(canvas) {
    this.#canvas = canvas;
    new ResizeObserver(() => this.#draw()).observe(canvas);
    matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => this.#draw());
  }

  add(point) {
    this.#points.push(point);
    this.#points = this.#points.filter(({ at }) => at >= point.at - shownSeconds);
    this.#canvas.setAttribute('aria-label', this.#summary());
    this.#draw();
  }

  #summary() {
    const range = (key, unit) => {
      const values = this.#points.map((point) => point[key]).filter((value) => value !== undefined);
      if (values.length === 0) return `no ${key === 'fps' ? 'frames' : 'latency'}`;
      return `${Math.min(...values).toFixed(0)} to ${Math.max(...values).toFixed(0)} ${unit}`;
    };
    return `The last minute: ${range('fps', 'frames a second')}; ${range('latency', 'milliseconds of latency')}.`;
  }

  #draw() {
    const { clientWidth: width, clientHeight: height } = this.#canvas;
    const scale = devicePixelRatio;
    Object.assign(this.#canvas, { width: Math.round(width * scale), height: Math.round(height * scale) });
    const context = this.#canvas.getContext('2d');
    context.scale(scale, scale);
    const style = getComputedStyle(this.#canvas);
    context.font = `12px ${style.fontFamily}`;
    const colour = (name) => style.getPropertyValue(name);
    const half = height / 2;
    const curves = [
      ['fps', 'Frames a second', '--curve-1', 30],
      ['latency', 'Latency, ms', '--curve-2', 20],
    ];
    curves.forEach(([key, label, stroke, leastMaximum], row) => {
      const field = {
        left: padding.left, right: width - padding.right,
        top: row * half + padding.top, bottom: (row + 1) * half - padding.bottom,
      };
      const maximum = niceMaximum(Math.max(leastMaximum, ...this.#points.map((point) => point[key] ?? 0)));
      drawScale(context, field, label, maximum, { text: style.color, line: colour('--line') });
      this.#drawCurve(context, field, key, maximum, colour(stroke));
    });
  }

  #drawCurve(context, field, key, maximum, stroke) {
    const newest = this.#points.at(-1)?.at;
    context.beginPath();
    let previous;
    for (const { at, [key]: value } of this.#points) {
      if (value !== undefined) {
        const x = field.right - ((newest - at) / shownSeconds) * (field.right - field.left);
        const y = field.bottom - (value / maximum) * (field.bottom - field.top);
        if (previous !== undefined && at - previous <= maximumGap) context.lineTo(x, y);
        else context.moveTo(x, y);
        previous = at;
      }
    }
    Object.assign(context, { strokeStyle: stroke, lineWidth: 2, lineJoin: 'round', lineCap: 'round' });
    context.stroke();
  }
}

function drawScale(context, { left, right, top, bottom }, label, maximum, { text, line }) {
  Object.assign(context, { fillStyle: text, strokeStyle: line, lineWidth: 1 });
  context.textAlign = 'left';
  context.fillText(label, 0, top - 13);
  context.textAlign = 'right';
  context.textBaseline = 'middle';
  for (const fraction of [0, 0.5, 1]) {
    const y = Math.round(bottom - fraction * (bottom - top)) + 0.5;
    context.beginPath();
    context.moveTo(left, y);
    context.lineTo(right, y);
    context.stroke();
    if (fraction !== 0.5) context.fillText(String(maximum * fraction), left - 8, y);
  }
  context.textBaseline = 'alphabetic';
}

function niceMaximum(value) {
  const power = 10 ** Math.floor(Math.log10(value));
  return [1, 2, 3, 4, 6, 8, 10].find((step) => step * power >= value) * power;
}
