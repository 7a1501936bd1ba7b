'use strict';

// Polls one weir every second and draws its figures. It contacts nobody else.

const kPort = 7744;
const kPeriodMs = 1000;
const kPatienceMs = 1500; // per request; the next one waits for it, so that none pile up
const kWindowS = 15 * 60; // what the charts keep
const kShortestWindowS = 60;
const kStillS = 15; // weir itself ends a stream that has had no data for longer
const kNames = ['last_chunk_speed', 'avg_speed', 'selected_profile', 'cbuff_size'];

const element = (id) => document.getElementById(id);
const number = new Intl.NumberFormat('en');
const compact = new Intl.NumberFormat('en', { notation: 'compact', maximumFractionDigits: 2 });
const shown = (value) => (value == null ? '–' : number.format(value));
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Seconds since 1970 that never step back, as the charts need them.
const now = () => (performance.timeOrigin + performance.now()) / 1000;

function clock(time) {
  const date = new Date(time * 1000);
  const today = date.toDateString() === new Date().toDateString();
  return (today ? '' : `${date.toLocaleDateString('en-CA')} `) + date.toTimeString().slice(0, 8);
}

// ---- the address

// "host" or "host:port", with or without "http://"; undefined for anything else.
function parseHost(text) {
  try {
    const url = new URL(`http://${text.trim().replace(/^http:\/\//, '').replace(/\/$/, '')}`);
    if (!url.hostname || url.pathname !== '/' || url.search || url.hash || url.username) return undefined;
    const port = url.port || (/:80$/.test(text) ? 80 : kPort); // URL drops its default port
    return `${url.hostname}:${port}`;
  } catch {
    return undefined;
  }
}

function hostOfPage() {
  const wanted = location.hash.slice(1) || new URLSearchParams(location.search).get('host');
  return parseHost(wanted || '') || parseHost(`${location.hostname || '127.0.0.1'}:${kPort}`);
}

// ---- asking

const kNotWeir = 'something other than weir answers';

async function ask(host) {
  try {
    const options = { cache: 'no-store', signal: AbortSignal.timeout(kPatienceMs) };
    const answer = await fetch(`http://${host}/stats.json`, options);
    const figures = await answer.json();
    if (kNames.every((name) => Number.isFinite(figures[name]))) return { figures };
    return { problem: kNotWeir };
  } catch (error) {
    return { problem: explain(error) };
  }
}

function explain(error) {
  if (error.name === 'TimeoutError') return `no answer within ${kPatienceMs / 1000} s`;
  if (error.name === 'SyntaxError') return kNotWeir;
  if (location.protocol === 'https:') return 'a page loaded over https cannot poll over http';
  return 'the connection failed';
}

// ---- what the charts keep: the times, and a column per figure, null where unknown

const emptyHistory = () => [[], ...kNames.map(() => [])];
let kept = emptyHistory();

function remember(time, figures) {
  const row = [time, ...kNames.map((name) => (figures ? figures[name] : null))];
  row.forEach((value, index) => kept[index].push(value));
  while (kept[0][0] < time - kWindowS) kept.forEach((column) => column.shift());
}

// ---- the state

let watched; // what is known about the one being watched

function startOver() {
  kept = emptyHistory();
  watched = { firstAt: 0, changedAt: 0, lostAt: 0, back: '', figures: undefined };
}

// Notes an answer, or its absence, and returns what to say about it.
function judge(time, { figures, problem }) {
  if (problem) {
    watched.lostAt ||= time;
    return ['lost', 'Not reachable', `Since ${clock(watched.lostAt)}: ${problem}. Retrying every second.`];
  }
  if (watched.lostAt) {
    watched.back = `Back since ${clock(time)}, after a gap of ${Math.round(time - watched.lostAt)} s.`;
    watched.lostAt = 0;
  }
  const before = watched.figures;
  if (before && kNames.some((name) => figures[name] !== before[name])) watched.changedAt = time;
  watched.firstAt ||= time;
  watched.figures = figures;
  return describe(time);
}

function describe(time) {
  const { firstAt, changedAt, figures, back } = watched;
  if (kNames.every((name) => figures[name] === 0)) {
    return ['still', 'No stream yet', `Nothing has been streamed since weir started. ${back}`];
  }
  if (time - (changedAt || firstAt) > kStillS) {
    const since = changedAt ? clock(changedAt) : `${clock(firstAt)} or earlier`;
    return ['still', 'Unchanged', `Since ${since}. ${back || 'When a stream ends, its last figures remain.'}`];
  }
  if (!changedAt) return ['live', 'Reachable', 'Waiting for a figure to change.'];
  return ['live', 'Streaming', back || 'The figures are changing.'];
}

// Texts are only written when they differ, because screen readers read out each change.
function write(id, text) {
  if (element(id).textContent !== text) element(id).textContent = text;
}

function say([kind, summary, detail]) {
  element('state').dataset.kind = kind;
  write('summary', summary);
  write('detail', detail);
  document.title = `${summary} · weir`;
}

// ---- the charts

const css = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();

const axis = {
  stroke: () => css('--muted'),
  font: '12px system-ui, sans-serif',
  labelFont: '12px system-ui, sans-serif',
  grid: { stroke: () => css('--grid'), width: 1 },
  ticks: { show: false },
};

// From the first answer on, then the last 15 minutes.
function timeRange() {
  const last = kept[0].at(-1) ?? now();
  const first = kept[0][0] ?? last;
  return [Math.min(first, last - kShortestWindowS), last];
}

function timeLabels(plot, times, index, space, step) {
  return times.map((time) => new Date(time * 1000).toTimeString().slice(0, step < 60 ? 8 : 5));
}

// One format for all labels of an axis, short enough to fit beside it.
function amountLabels(plot, values) {
  const format = values.at(-1) < 1e5 ? number : compact;
  return values.map((value) => format.format(value));
}

function line(label, colour, more) {
  return {
    label,
    stroke: () => css(colour),
    colour: `var(${colour})`, // for the legend, which is HTML
    width: 2,
    points: { show: false },
    value: (plot, value) => shown(value),
    ...more,
  };
}

function makeChart(root, unit, height, lines) {
  const plot = new uPlot({
    width: root.clientWidth,
    height,
    padding: [12, 16, 0, 0],
    cursor: { sync: { key: 'time' }, drag: { x: false, y: false }, y: false },
    legend: {
      markers: {
        stroke: (self, index) => self.series[index].colour,
        dash: (self, index) => (self.series[index].dash ? 'dashed' : 'solid'),
        fill: () => 'transparent',
      },
    },
    scales: {
      x: { range: timeRange },
      y: { range: (self, min, max) => [0, uPlot.rangeNum(0, max || 100, 0.1, true)[1]] },
    },
    axes: [
      { ...axis, values: timeLabels, incrs: [1, 2, 5, 10, 15, 30, 60, 120, 180, 300], space: 68, size: 30 },
      { ...axis, label: unit, labelSize: 18, size: 54, space: 36, values: amountLabels },
    ],
    series: [{ label: 'Time', value: (self, time) => (time == null ? '–' : clock(time)) }, ...lines],
  }, [[], ...lines.map(() => [])], root);

  const canvas = root.querySelector('canvas');
  canvas.setAttribute('role', 'img');
  canvas.setAttribute('aria-label', `${lines.map((each) => each.label).join(', ')} over time in ${unit}`);
  makeLegendButtons(root);
  new ResizeObserver(() => plot.setSize({ width: root.clientWidth, height })).observe(root);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => plot.redraw());
  return plot;
}

// The legend shows and hides lines; this makes it do so from the keyboard too.
function makeLegendButtons(root) {
  for (const label of root.querySelectorAll('.u-series:not(:first-child) th')) {
    label.tabIndex = 0;
    label.setAttribute('role', 'button');
    label.title = 'Show or hide this line';
    label.addEventListener('keydown', (event) => {
      if (event.key !== 'Enter' && event.key !== ' ') return;
      event.preventDefault();
      label.click();
    });
  }
}

const speedChart = makeChart(element('speed'), 'kbps', 260, [
  line('Last', '--last', { width: 1.5 }),
  line('Average', '--average', { width: 2.5 }),
  line('Variant', '--variant', { dash: [7, 4], paths: uPlot.paths.stepped({ align: 1 }) }),
]);
const bufferChart = makeChart(element('buffer'), 'KiB', 170, [
  line('Buffer', '--fill', { fill: () => css('--area') }),
]);

function draw(figures) {
  const [times, last, average, variant, buffer] = kept;
  kNames.forEach((name) => write(name, shown(figures?.[name])));
  speedChart.setData([times, last, average, variant]);
  bufferChart.setData([times, buffer]);
}

// ---- the loop: one at a time; the next call ends it

let calls = 0;

async function watch() {
  const call = ++calls;
  const host = hostOfPage();
  startOver();
  element('host').value = host;
  say(['waiting', 'Connecting', `Asking ${host}.`]);
  draw(undefined);
  while (call === calls) {
    const started = now();
    const answer = await ask(host);
    if (call !== calls) return;
    const time = now();
    remember(time, answer.figures);
    say(judge(time, answer));
    draw(answer.figures);
    await sleep(Math.max(0, kPeriodMs - (now() - started) * 1000));
  }
}

element('host').addEventListener('input', (event) => event.target.setCustomValidity(''));
element('address').addEventListener('submit', (event) => {
  event.preventDefault();
  const field = element('host');
  const host = parseHost(field.value);
  field.setCustomValidity(host ? '' : 'Enter a host, or host:port');
  if (!field.reportValidity()) return;
  if (location.hash === `#${host}`) watch();
  else location.hash = host;
});
addEventListener('hashchange', watch);
watch();
