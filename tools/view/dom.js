// The elements of the page by their ids, and figures in them.

export const element = (id) => document.getElementById(id);

// `data-value` has the number as it is, for scripts; it is missing while the figure is unknown.
export function showFigure(id, value, text = String(value)) {
  const figure = element(id);
  if (value === undefined) delete figure.dataset.value;
  else figure.dataset.value = value;
  const shown = value === undefined ? '—' : text;
  if (figure.textContent !== shown) figure.textContent = shown; // a reader says what changes
}

export function showCount(id, value) {
  showFigure(id, value, value?.toLocaleString('en'));
}
