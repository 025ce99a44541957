// Finds elements by their ids and shows texts and figures in them.

export const element = (id) => document.getElementById(id);

// Sets a text only if it differs, since screen readers announce every change.
export function showText(id, text) {
  if (element(id).textContent !== text) element(id).textContent = text;
}

// `data-value` has the exact value, for scripts. It is missing while the value is unknown.
export function showFigure(id, value, text = String(value)) {
  if (value === undefined) delete element(id).dataset.value;
  else element(id).dataset.value = value;
  showText(id, value === undefined ? '—' : text);
}

export function showCount(id, value) {
  showFigure(id, value, value?.toLocaleString('en'));
}
