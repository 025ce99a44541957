// Finds elements by their ids and shows figures in them.

export const element = (id) => document.getElementById(id);

// `data-value` has the exact value, for scripts. It is missing while the value is unknown.
export function showFigure(id, value, text = String(value)) {
  const figure = element(id);
  if (value === undefined) delete figure.dataset.value;
  else figure.dataset.value = value;
  const shown = value === undefined ? '—' : text;
  if (figure.textContent !== shown) figure.textContent = shown; // screen readers announce a change
}

export function showCount(id, value) {
  showFigure(id, value, value?.toLocaleString('en'));
}
