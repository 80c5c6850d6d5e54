// The records page: the filtered records, a page at a time, each record's JSON as text, a feedback
// record's attachments linked, and the filtered set's export.
'use strict';

const pageSize = 50;
let offset = 0;

function recordCell(record) {
  let text = record.body;
  let parsed = null;
  try {
    parsed = JSON.parse(record.body);
    text = JSON.stringify(parsed, null, 2);
  } catch (error) {
    // shown as received
  }
  const cell = dash.el('td', {}, dash.el('details', {}, dash.el('summary', {}, 'JSON'), dash.el('pre', {}, text)));
  const attachments = parsed && parsed.content && Array.isArray(parsed.content.attachs) ? parsed.content.attachs : [];
  if (record.kind === 'feedback' && attachments.length)
    cell.append(dash.el('ul', { class: 'attachments' }, ...attachments.map((id) => dash.el('li', {},
      dash.el('a', { href: '/api/v1/attachments/' + encodeURIComponent(String(id)), download: '' }, String(id))))));
  return cell;
}

function valueCell(text) {
  return dash.el('td', {}, dash.el('span', { class: 'value', dir: 'auto' }, text));
}

async function load() {
  const form = document.getElementById('filter');
  const params = dash.query(form);
  history.replaceState(null, '', '?' + params);
  for (const format of ['csv', 'jsonl'])
    document.getElementById('export-' + format).href = '/api/v1/export?' + dash.query(form, { format });
  dash.status('');
  try {
    const page = await dash.json('/api/v1/records?' + dash.query(form, { limit: pageSize, offset }));
    document.querySelector('#records tbody').replaceChildren(...page.records.map((record) => dash.el('tr', {},
      dash.el('td', {}, String(record.id)), dash.el('td', {}, record.received_at),
      valueCell(record.kind), valueCell(record.software_ver), valueCell(record.model_name),
      valueCell(record.serial), valueCell(record.os_name), recordCell(record))));
    const count = document.getElementById('count');
    count.dataset.total = String(page.total);
    count.textContent = `${page.total} record${page.total === 1 ? "" : "s"}`;
    const last = Math.min(offset + page.records.length, page.total);
    document.getElementById('page').textContent = page.total ? `${offset + 1} to ${last} of ${page.total}` : '';
    document.getElementById('previous').disabled = offset === 0;
    document.getElementById('next').disabled = last >= page.total;
    document.body.dataset.loaded = 'true';
  } catch (error) {
    dash.status(error.message);
  }
}

document.addEventListener('DOMContentLoaded', () => {
  const form = document.getElementById('filter');
  dash.restore(form);
  form.addEventListener('submit', (event) => { event.preventDefault(); offset = 0; load(); });
  document.getElementById('previous').addEventListener('click', () => { offset = Math.max(0, offset - pageSize); load(); });
  document.getElementById('next').addEventListener('click', () => { offset += pageSize; load(); });
  load();
});
