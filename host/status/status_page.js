// Asks qmhost for its status and its history every two seconds and shows both. Texts go in as text, never as markup.

const PERIOD_MS = 2000;
const PATIENCE_MS = 4000;      // for one answer
const SILENCE_MS = 6000;       // without an answer until the page says so
const DAY_PERIOD_MS = 60000;   // the day's history has a sample a minute
const PRIORITIES = ['real', 'high', 'normal', 'low', 'other'];
const PRIORITY_NAMES = {real: 'Real-time', high: 'High', normal: 'Normal', low: 'Low', other: 'Other'};
const SMOOTHING = 5;           // samples that a rate is taken over
const TABLE_ROWS = 10;

const byId = (id) => document.getElementById(id);
const counts = new Intl.NumberFormat('en');

let status = null;             // the newest answer
let past = null;
let historySpan = '';
let historyAsked = 0;
let lastAnswer = performance.now();
let lastSpoken = '';

function countText(value) {
  return value === null || value === undefined ? 'unknown' : counts.format(value);
}

function rateText(value) {
  return value < 10 ? value.toFixed(1).replace(/\.0$/, '') : counts.format(Math.round(value));
}

function byteText(value) {
  if (value === null || value === undefined) return 'unknown';
  const units = ['bytes', 'KiB', 'MiB', 'GiB', 'TiB'];
  let unit = 0;
  while (value >= 1024 && unit + 1 < units.length) {
    value /= 1024;
    ++unit;
  }
  return `${unit > 0 && value < 10 ? value.toFixed(1).replace(/\.0$/, '') : Math.round(value)} ${units[unit]}`;
}

function spanText(seconds) {
  if (seconds < 60) return `${Math.floor(seconds)} s`;
  if (seconds < 5400) return `${Math.floor(seconds / 60)} min`;
  return `${Math.floor(seconds / 3600)} h`;
}

function clockText(epoch) {
  return new Date(epoch * 1000).toLocaleTimeString('en-GB');
}

function sum(object) {
  return Object.values(object).reduce((all, value) => all + value, 0);
}

function setText(id, text) {
  const element = byId(id);
  if (element.textContent !== text) element.textContent = text;
}

// Makes an element with text or children.
function make(name, content, attributes = {}) {
  const element = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  if (Array.isArray(content)) element.append(...content);
  else element.textContent = content;
  return element;
}

function row(header, cells) {
  return make('tr', [make('th', header, {scope: 'row'}), ...cells.map((cell) => make('td', cell))]);
}

// ---- the moment

function showStatus() {
  setText('where', `${status.version} · ${status.link.destination}`);
  setText('summary-text', status.summary);
  byId('light').className = `light ${status.link.up ? 'up' : 'down'}`;
  document.title = `${status.link.up ? '' : 'Link down · '}qmhost`;
  speak();

  const sentences = [...status.details];
  if (sum(status.records.accepted) === 0 && status.link.sends === 0) {
    sentences.push('No records have come in since the start. Try one: echo hello | qmsend');
  }
  const details = byId('details');
  const shown = [...details.children].map((item) => item.textContent);
  if (shown.join('\n') !== sentences.join('\n')) {
    details.replaceChildren(...sentences.map((sentence) => make('li', sentence)));
  }

  showFigures();
  showPriorities();
  showFiles();
  setText('time', clockText(status.time));
}

// A screen reader hears of what has changed, not of every second that passes.
function speak() {
  const state = status.link.up ? 'up' : 'down';
  if (state !== lastSpoken) {
    lastSpoken = state;
    setText('spoken', status.summary);
  }
}

// What the count of held records is worth.
function boundText(held) {
  return held.about ? ', about' : held.at_most ? ', at most' : '';
}

function showFigures() {
  const held = status.held;
  setText('figure-held', held ? countText(held.total ?? held.of_this_run) : 'unknown');
  setText('note-held', !held ? 'the clock was set back'
    : held.total === null ? `of this run${boundText(held)}`
    : `records${boundText(held)}${held.oldest_seconds === null ? '' : `, oldest ${spanText(held.oldest_seconds)}`}`);
  setText('figure-accepted', status.rates ? rateText(status.rates.accepted_per_second) : '–');
  setText('figure-delivered', status.rates ? rateText(status.rates.delivered_per_second) : '–');
  setText('figure-cache', status.cache ? byteText(status.cache.bytes) : 'unknown');
  setText('note-cache', status.cache ? `of ${byteText(status.cache.limit_bytes)}` : 'there is no cache directory');
}

function showPriorities() {
  const {accepted, delivered, rejected} = status.records;
  const held = status.held ? status.held.by_priority : null;
  const line = (name, of) => row(name, [accepted, delivered, rejected, held].map((column) => countText(column && of(column))));
  // What is no priority of the four is rare.
  const rows = PRIORITIES.filter((key) => key !== 'other' || accepted.other + delivered.other + rejected.other > 0);
  byId('priorities').replaceChildren(...rows.map((key) => line(PRIORITY_NAMES[key], (column) => column[key])));
  byId('priorities-sum').replaceChildren(line('All', sum));
  const earlier = status.held ? status.held.of_earlier_runs : 0;
  setText('since', `Since ${new Date(status.started * 1000).toLocaleString('en-GB', {dateStyle: 'medium', timeStyle: 'short'})}.` +
    (earlier ? ` ${countText(earlier)} records of earlier runs are held beside.` : ''));
}

function showFiles() {
  const files = status.cache ? status.cache.files : [];
  const shown = files.slice(0, 20);
  const more = status.cache ? status.cache.file_count - shown.length : 0;
  setText('files-note', !status.cache ? 'There is no cache directory.'
    : files.length === 0 ? 'There are none: nothing has been written yet.'
    : `One for each sender, the largest first${more > 0 ? `; ${counts.format(more)} more are not shown` : ''}.`);
  byId('files').replaceChildren(...shown.map((file) =>
    row(file.sender, [file.rows === null ? 'not counted' : countText(file.rows), byteText(file.bytes)])));
}

// ---- charts

const SVG = 'http://www.w3.org/2000/svg';

function draw(name, attributes, text) {
  const element = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  if (text !== undefined) element.textContent = text;
  return element;
}

// Where an axis ends: a round number, of bytes a power of two.
function niceCeiling(value, isBytes) {
  if (isBytes) return 2 ** Math.ceil(Math.log2(value));
  const power = 10 ** Math.floor(Math.log10(value));
  return [1, 2, 3, 4, 6, 8, 10].find((step) => value <= step * power * 1.0001) * power;
}

// chart: {series: [{key, name, values}], stacked, text, isBytes, least}. A value may be null: unknown.
function drawChart(figure, chart) {
  const plot = figure.querySelector('.plot');
  const width = Math.max(plot.clientWidth, 200);
  const height = Math.max(plot.clientHeight, 120);
  const margin = {left: 4, right: 4, top: 14, bottom: 20};
  const span = past.span_seconds;
  const x = (age) => margin.left + (1 - age / span) * (width - margin.left - margin.right);
  const ages = past.age_seconds;

  // Stacked: what each series stands on.
  const tops = [];
  let below = ages.map(() => 0);
  for (const series of chart.series) {
    const bottom = chart.stacked ? below : ages.map(() => 0);
    const top = series.values.map((value, i) => value === null ? null : bottom[i] + value);
    tops.push({...series, bottom, top});
    if (chart.stacked) below = top.map((value, i) => value === null ? below[i] : value);
  }
  const most = Math.max(chart.least, ...tops.flatMap((series) => series.top.filter((value) => value !== null)));
  const ceiling = niceCeiling(most, chart.isBytes);
  const y = (value) => height - margin.bottom - value / ceiling * (height - margin.top - margin.bottom);

  const svg = draw('svg', {viewBox: `0 0 ${width} ${height}`, role: 'img', 'aria-label': chartWords(figure, chart)});
  for (const [from, to] of outages()) {
    svg.append(draw('rect', {class: 'band', x: x(Math.min(from, span)), y: margin.top,
      width: Math.max(x(to) - x(Math.min(from, span)), 2), height: height - margin.top - margin.bottom}));
  }
  for (const part of [0, 0.5, 1]) {
    const at = Math.round(y(ceiling * part)) + 0.5;
    svg.append(draw('line', {class: 'grid', x1: margin.left, x2: width - margin.right, y1: at, y2: at}));
  }
  for (const series of tops) {
    if (series.filled) svg.append(draw('path', {class: `area pale s-${series.key}`, d: areaPath(series, ages, x, y)}));
    if (chart.stacked) svg.append(draw('path', {class: `area s-${series.key}`, d: areaPath(series, ages, x, y)}));
    else svg.append(draw('path', {class: `line s-${series.key}`, d: linePath(series.top, ages, x, y)}));
  }
  for (const part of [0.5, 1]) {
    svg.append(draw('text', {x: margin.left, y: y(ceiling * part) - 3}, chart.text(ceiling * part)));
  }
  svg.append(draw('text', {x: margin.left, y: height - 5}, `${spanText(span)} ago`));
  svg.append(draw('text', {x: width / 2, y: height - 5, 'text-anchor': 'middle'}, `${spanText(span / 2)} ago`));
  svg.append(draw('text', {x: width - margin.right, y: height - 5, 'text-anchor': 'end'}, 'now'));
  if (!ages.length || chart.series.every((series) => series.values.every((value) => value === null))) {
    svg.append(draw('text', {class: 'empty', x: width / 2, y: height / 2 - 8, 'text-anchor': 'middle'}, 'Nothing to draw yet'));
  }
  plot.replaceChildren(svg);

  figure.querySelector('.legend').replaceChildren(...chart.series.map((series) => {
    const now = series.values.at(-1);
    return make('li', [make('i', '', {class: `s-${series.key}`, 'aria-hidden': 'true'}),
      `${series.name} ${now === null || now === undefined ? '–' : chart.text(now)}`]);
  }));
  const details = figure.querySelector('details');
  if (details.open || !details.querySelector('tbody')) fillTable(details.querySelector('table'), chart);
}

function linePath(values, ages, x, y) {
  let path = '';
  let pen = 'M';
  values.forEach((value, i) => {
    if (value === null) {
      pen = 'M';
      return;
    }
    path += `${pen}${x(ages[i]).toFixed(1)} ${y(value).toFixed(1)}`;
    pen = 'L';
  });
  return path;
}

function areaPath(series, ages, x, y) {
  let path = '';
  let from = -1;
  for (let i = 0; i <= ages.length; ++i) {
    const known = i < ages.length && series.top[i] !== null;
    if (known && from < 0) from = i;
    if (known || from < 0) continue;
    const stretch = [...Array(i - from).keys()].map((step) => from + step);
    path += 'M' + stretch.map((at) => `${x(ages[at]).toFixed(1)} ${y(series.top[at]).toFixed(1)}`).join('L') +
      'L' + stretch.reverse().map((at) => `${x(ages[at]).toFixed(1)} ${y(series.bottom[at]).toFixed(1)}`).join('L') + 'Z';
    from = -1;
  }
  return path;
}

// Stretches in which the link was down, as ages.
function outages() {
  const found = [];
  past.link_up.forEach((up, i) => {
    if (up) return;
    const age = past.age_seconds[i];
    const next = i + 1 < past.age_seconds.length ? past.age_seconds[i + 1] : 0;
    if (found.length && !past.link_up[i - 1]) found.at(-1)[1] = next;
    else found.push([age, next]);
  });
  return found;
}

// What the picture shows, for who does not see it.
function chartWords(figure, chart) {
  const parts = chart.series.map((series) => {
    const known = series.values.filter((value) => value !== null);
    return known.length === 0 ? `${series.name} unknown`
      : `${series.name} now ${chart.text(known.at(-1))}, at most ${chart.text(Math.max(...known))}`;
  });
  return `${figure.querySelector('h3').textContent} over the last ${spanText(past.span_seconds)}: ${parts.join('; ')}.`;
}

function fillTable(table, chart) {
  const last = past.age_seconds.length - 1;
  const step = Math.max(1, Math.ceil((last + 1) / TABLE_ROWS));
  const rows = [];
  for (let i = last; i >= 0; i -= step) {
    rows.push(row(i === last ? 'now' : `${spanText(past.age_seconds[i])} ago`, chart.series.map((series) =>
      series.values[i] === null ? 'unknown' : chart.text(series.values[i]))));
  }
  table.replaceChildren(
    make('thead', [make('tr', ['When', ...chart.series.map((series) => series.name)].map((name) => make('th', name, {scope: 'col'})))]),
    make('tbody', rows));
}

// Records a second from a counter's samples.
function rates(counter) {
  const width = historySpan === '' ? SMOOTHING : 1;
  return counter.map((value, i) => {
    const from = Math.max(0, i - width);
    const seconds = past.age_seconds[from] - past.age_seconds[i];
    return seconds > 0 ? (value - counter[from]) / seconds : null;
  });
}

function showHistory() {
  drawChart(byId('chart-rates'), {
    series: [{key: 'accepted', name: 'Coming in', values: rates(past.accepted), filled: true},
      {key: 'delivered', name: 'Delivered', values: rates(past.delivered)}],
    text: rateText, least: 1});
  const heldKeys = ['low', 'normal', 'high', 'real', 'other'].filter((key) =>
    key !== 'other' || past.held.other.some((value) => value > 0));
  drawChart(byId('chart-held'), {
    series: heldKeys.map((key) => ({key, name: PRIORITY_NAMES[key], values: past.held[key]})),
    stacked: true, text: (value) => counts.format(Math.round(value)), least: 10});
  byId('shaded').classList.toggle('away', past.link_up.every((up) => up));
  drawChart(byId('chart-sizes'), {series: sizeSeries(), stacked: true, isBytes: true, text: byteText, least: 4096});
}

// The largest files one by one, the others together.
function sizeSeries() {
  const files = past.cache_files.map((file, i) =>
    ({key: `file-${i}`, name: file.sender.slice(0, 8) + '…', values: file.bytes.map((value) => value ?? 0)}));
  const rest = past.cache_bytes.map((value, i) =>
    value === null ? null : Math.max(0, value - files.reduce((all, file) => all + file.values[i], 0)));
  return [...files, {key: 'file-rest', name: files.length ? 'Everything else' : 'All files', values: rest}];
}

// ---- asking

async function ask(path) {
  const answer = await fetch(path, {cache: 'no-store', signal: AbortSignal.timeout(PATIENCE_MS)});
  if (!answer.ok) throw new Error(`status ${answer.status}`);
  return answer.json();
}

async function refresh() {
  try {
    status = await ask('/api/status');
    lastAnswer = performance.now();
    showStatus();
    const due = historySpan === '' || performance.now() - historyAsked >= DAY_PERIOD_MS;
    if (due) {
      const asked = historySpan;
      const answer = await ask(`/api/history${asked}`);
      if (asked === historySpan) {
        past = answer;
        historyAsked = performance.now();
        showHistory();
      }
    }
  } catch (error) {
    // Told by tellSilence when it lasts.
  }
}

function tellSilence() {
  const silent = performance.now() - lastAnswer;
  const isSilent = silent > SILENCE_MS;
  const silence = byId('silence');
  if (isSilent) {
    const from = status ? `; figures are from ${clockText(status.time)}` : '';
    silence.textContent = `No answer from qmhost for ${spanText(silent / 1000)}${from}.`;
    if (lastSpoken !== 'silent') {
      lastSpoken = 'silent';
      setText('spoken', silence.textContent);
    }
  }
  silence.hidden = !isSilent;
  document.body.classList.toggle('stale', isSilent);
}

async function keepAsking() {
  for (;;) {
    if (!document.hidden) await refresh();
    await new Promise((resolve) => setTimeout(resolve, PERIOD_MS));
  }
}

for (const input of document.querySelectorAll('input[name="span"]')) {
  input.addEventListener('change', () => {
    historySpan = input.value;
    historyAsked = -DAY_PERIOD_MS;
    refresh();
  });
}
for (const details of document.querySelectorAll('.chart details')) {
  details.addEventListener('toggle', () => { if (past) showHistory(); });
}
document.addEventListener('visibilitychange', () => { if (!document.hidden) refresh(); });
window.addEventListener('resize', () => { if (past) showHistory(); });
setInterval(tellSilence, 1000);
keepAsking();
