// Shared by the pages. Record fields are untrusted: they reach the page only through
// textContent and setAttribute, never as markup.
'use strict';

const dash = {
  // A new element with attributes and children (strings become text nodes).
  el(tag, attributes, ...children) {
    const node = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes || {}))
      node.setAttribute(name, value);
    for (const child of children)
      node.append(typeof child === 'string' ? document.createTextNode(child) : child);
    return node;
  },

  async json(url) {
    const answer = await fetch(url, { credentials: 'same-origin' });
    if (answer.status === 401) {
      window.location.assign('/login');
      throw new Error('signed out');
    }
    const body = await answer.json();
    if (!answer.ok)
      throw new Error(body.error || answer.statusText);
    return body;
  },

  // The UTC date `days` from today, as YYYY-MM-DD.
  day(days) {
    const date = new Date();
    date.setUTCDate(date.getUTCDate() + days);
    return date.toISOString().slice(0, 10);
  },

  // The form's non-empty fields as a query string.
  query(form, extra) {
    const params = new URLSearchParams();
    for (const [name, value] of new FormData(form))
      if (value !== '')
        params.set(name, value);
    for (const [name, value] of Object.entries(extra || {}))
      params.set(name, value);
    return params;
  },

  // Fills the form's fields from the page's address.
  restore(form) {
    const params = new URLSearchParams(window.location.search);
    for (const field of form.elements)
      if (field.name && params.has(field.name))
        field.value = params.get(field.name);
  },

  status(text) {
    document.getElementById('status').textContent = text;
  },

  // Chart labels are drawn on a canvas, never parsed, but a huge one would squeeze the chart.
  label(text) {
    return text.length > 24 ? text.slice(0, 23) + '\u2026' : text || '(none)';
  },
};
