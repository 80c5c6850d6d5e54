// The overview: totals against the previous period, records per day stacked by kind, top values.
// Every figure drawn in a chart is also written out as text beside it.
'use strict';

const colours = ['#2f5fd0', '#e07b22', '#2e9e5b', '#c23b3b', '#8a4fc7', '#7a6a55', '#d45fa8', '#6f8f1f'];
const charts = {};

function change(now, before) {
  if (before === 0)
    return now === 0 ? '0%' : 'new';
  const percent = (now - before) / before * 100;
  return (percent > 0 ? '+' : '') + percent.toFixed(1) + '%';
}

function changeCell(now, before) {
  return dash.el('td', { class: now > before ? 'up' : now < before ? 'down' : '' }, change(now, before));
}

function draw(id, canvas, config) {
  if (charts[id])
    charts[id].destroy();
  if (window.Chart)  // the figures stay readable as text even without the charting library
    charts[id] = new Chart(canvas, config);
}

function showTotals(summary) {
  const kinds = Object.keys(summary.kinds).concat(
    Object.keys(summary.previous.kinds).filter((kind) => !(kind in summary.kinds)));
  const body = document.querySelector('#totals tbody');
  body.replaceChildren(...kinds.map((kind) => {
    const now = summary.kinds[kind] || 0, before = summary.previous.kinds[kind] || 0;
    return dash.el('tr', {}, dash.el('th', {}, kind),
      dash.el('td', { 'data-kind': kind }, String(now)),
      dash.el('td', {}, String(before)), changeCell(now, before));
  }));
  document.getElementById('total').textContent = String(summary.total);
  document.getElementById('previous-total').textContent = String(summary.previous.total);
  document.getElementById('total-change').replaceWith(
    Object.assign(changeCell(summary.total, summary.previous.total), { id: 'total-change' }));
  document.getElementById('period-text').textContent =
    `${summary.since} to ${summary.until}, against ${summary.previous.since} to ${summary.previous.until}`;
}

function showDays(summary) {
  const kinds = Object.keys(summary.kinds);
  const table = document.getElementById('days');
  table.tHead.replaceChildren(dash.el('tr', {}, dash.el('th', {}, 'Day'),
    ...kinds.map((kind) => dash.el('th', {}, kind)), dash.el('th', {}, 'All')));
  table.tBodies[0].replaceChildren(...summary.days.map((day) => dash.el('tr', {},
    dash.el('th', {}, day.day),
    ...kinds.map((kind) => dash.el('td', {}, String(day.kinds[kind] || 0))),
    dash.el('td', {}, String(Object.values(day.kinds).reduce((a, b) => a + b, 0))))));
  draw('days', document.getElementById('days-chart'), {
    type: 'bar',
    data: {
      labels: summary.days.map((day) => day.day),
      datasets: kinds.map((kind, i) => ({
        label: dash.label(kind),
        data: summary.days.map((day) => day.kinds[kind] || 0),
        backgroundColor: colours[i % colours.length],
      })),
    },
    options: {
      animation: false, responsive: true, maintainAspectRatio: false,
      scales: { x: { stacked: true }, y: { stacked: true, beginAtZero: true, ticks: { precision: 0 } } },
    },
  });
}

function showTops(summary) {
  for (const box of document.querySelectorAll('.top')) {
    const dimension = box.dataset.dimension, rows = summary.top[dimension] || [];
    box.querySelector('tbody').replaceChildren(...rows.map((row) => dash.el('tr', {},
      dash.el('th', {}, row.value || '(none)'), dash.el('td', {}, String(row.count)))));
    draw(dimension, box.querySelector('canvas'), {
      type: 'bar',
      data: {
        labels: rows.map((row) => dash.label(row.value)),
        datasets: [{ label: 'Records', data: rows.map((row) => row.count), backgroundColor: colours[0] }],
      },
      options: {
        indexAxis: 'y', animation: false, responsive: true, maintainAspectRatio: false,
        plugins: { legend: { display: false } }, scales: { x: { beginAtZero: true, ticks: { precision: 0 } } },
      },
    });
  }
}

async function load() {
  const form = document.getElementById('period');
  const params = dash.query(form);
  history.replaceState(null, '', '?' + params);
  dash.status('');
  try {
    const summary = await dash.json('/api/v1/summary?' + params);
    showTotals(summary);
    showDays(summary);
    showTops(summary);
    document.body.dataset.loaded = 'true';
  } catch (error) {
    dash.status(error.message);
  }
}

document.addEventListener('DOMContentLoaded', () => {
  const form = document.getElementById('period');
  form.elements.since.value = dash.day(-27);
  form.elements.until.value = dash.day(0);
  dash.restore(form);
  form.addEventListener('submit', (event) => { event.preventDefault(); load(); });
  load();
});
