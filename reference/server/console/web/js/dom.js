// Small helpers to build the pages. Text always goes in as text nodes: names and
// titles come from devices and must never become markup.

export function h(tag, attrs = {}, ...children) {
  const el = document.createElement(tag);
  for (const [name, value] of Object.entries(attrs)) {
    if (value === false || value == null) continue;
    if (name.startsWith('on')) el.addEventListener(name.slice(2), value);
    else if (name === 'value') el.value = value;
    else if (name === 'checked') el.checked = Boolean(value);
    else el.setAttribute(name, value === true ? '' : String(value));
  }
  for (const child of children.flat()) {
    if (child == null || child === false) continue;
    el.append(child instanceof Node ? child : document.createTextNode(String(child)));
  }
  return el;
}

// A table that stacks into labelled cards on a phone. `columns` are
// [heading, (row) => cell content]; `id` names the table for tests and links.
export function table(id, columns, rows, empty = 'Nothing yet.') {
  if (rows.length === 0) return h('p', { class: 'muted', id }, empty);
  return h('table', { class: 'stack', id },
    h('thead', {}, h('tr', {}, columns.map(([heading]) => h('th', {}, heading)))),
    h('tbody', {}, rows.map((row) => h('tr', {},
      columns.map(([heading, cell]) => h('td', { 'data-label': heading, class: heading === '' ? 'actions' : null }, cell(row)))))));
}

export function field(label, input) {
  return h('label', {}, label, input);
}

export function checkbox(label, attrs) {
  return h('label', { class: 'check' }, h('input', { type: 'checkbox', ...attrs }), label);
}

export function options(values, selected) {
  return values.map(([value, text]) => h('option', { value, selected: value === selected }, text));
}

let toastTimer = 0;
export function toast(message, bad = false) {
  const el = document.getElementById('toast');
  el.textContent = message;
  el.className = bad ? 'bad' : '';
  el.hidden = false;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { el.hidden = true; }, 4000);
}

export function ago(ms) {
  if (!ms) return 'never';
  const s = Math.max(0, Math.round((Date.now() - ms) / 1000));
  if (s < 60) return `${s} s ago`;
  if (s < 3600) return `${Math.round(s / 60)} min ago`;
  if (s < 86400) return `${Math.round(s / 3600)} h ago`;
  return new Date(ms).toLocaleString();
}

export function rulesText(r) {
  return `max ${r.max_assets}, ${r.auto_delete ? 'auto-delete' : 'keep'}` +
    (r.max_bitrate ? `, ≤ ${r.max_bitrate} bit/s` : '');
}

// The values of a form's named controls; numbers and check boxes typed.
export function formValues(form) {
  const out = {};
  for (const el of form.elements) {
    if (!el.name) continue;
    if (el.type === 'checkbox') out[el.name] = el.checked;
    else if (el.type === 'number') out[el.name] = el.value === '' ? null : Number(el.value);
    else out[el.name] = el.value.trim();
  }
  return out;
}
