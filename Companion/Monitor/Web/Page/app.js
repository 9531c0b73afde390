// The live page: takes the state once, then its changes, and draws them at most once a frame.
'use strict';
(() => {
  const token = new URLSearchParams(location.search).get('token') || '';
  const api = (path, more = '') => `${path}?token=${encodeURIComponent(token)}${more}`;
  const $ = (id) => document.getElementById(id);
  const MOST_FLOWS = 20000;
  const MOST_SAMPLES = 3600;
  const BAD = new Set(['refused', 'invalid answer', 'timed out', 'backlog', 'failed', 'reset',
    'abandoned']);
  const TONES = {open: 'good', closed: 'soft', connecting: 'warn', direct: 'soft',
    'UDP refused': 'soft', 'timed out': 'warn', backlog: 'warn'};

  // ---- Texts

  const pad = (number) => String(number).padStart(2, '0');
  const clock = (seconds) => {
    const date = new Date(seconds * 1000);
    return `${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}`;
  };
  // With the date unless it is today's.
  const moment = (seconds) => {
    const day = (time) => new Date(time * 1000).toDateString();
    return day(seconds) === day(now()) ? clock(seconds)
      : `${new Date(seconds * 1000).toLocaleDateString('en-GB', {day: 'numeric', month: 'short'})} ${clock(seconds)}`;
  };
  // With date and zone, as the programs write it with --time local.
  const exact = (seconds) => {
    const date = new Date(seconds * 1000);
    const minutes = -date.getTimezoneOffset();
    const zone = `${minutes < 0 ? '-' : '+'}${pad(Math.floor(Math.abs(minutes) / 60))}:${pad(Math.abs(minutes) % 60)}`;
    return `${date.getFullYear()}-${pad(date.getMonth() + 1)}-${pad(date.getDate())}T${clock(seconds)}.${String(date.getMilliseconds()).padStart(3, '0')}${zone}`;
  };
  const digits = (number) => number.toFixed(number < 9.995 ? 2 : number < 99.95 ? 1 : 0);
  const duration = (seconds) => {
    if (!(seconds >= 0)) return '';
    if (seconds < 0.9995) return `${digits(seconds * 1000)} ms`;
    if (seconds < 120) return `${digits(seconds)} s`;
    return seconds < 7200 ? `${digits(seconds / 60)} min` : `${digits(seconds / 3600)} h`;
  };
  const bytes = (number) => {
    if (number === undefined || number === null) return '';
    let unit = 0;
    for (; number >= 999.5 && unit < 4; ++unit) number /= 1000;
    return `${unit ? digits(number) : Math.round(number)} ${['B', 'kB', 'MB', 'GB', 'TB'][unit]}`;
  };
  const counted = (count, noun) => `${count.toLocaleString('en')} ${noun}${count === 1 ? '' : 's'}`;
  const shortName = (application) => {
    const slash = application.lastIndexOf('/');
    return slash >= 0 && slash + 1 < application.length ? application.slice(slash + 1)
      : application || 'unknown';
  };
  const element = (name, text, className) => {
    const made = document.createElement(name);
    if (text !== undefined) made.textContent = text;
    if (className) made.className = className;
    return made;
  };

  // ---- What is known

  let flows = new Map();
  let samples = [];
  let latest = null;
  let seconds = 600;
  let isRangeChosen = false;
  let shown = [];
  let chosen = null;
  let cursor = '';

  // The monitor's clock, which all times are of.
  const now = () => (latest ? latest.now : Date.now() / 1000);

  const take = (update) => {
    latest = update;
    cursor = update.cursor.join(',');
    for (const row of update.flows) {
      const known = flows.get(row.id);
      // Decisions and events of one flow complete each other.
      const flow = known ? Object.assign(known, row) : row;
      flow.text = `${flow.application}\n${flow.destination}\n${flow.host || ''}`.toLowerCase();
      if (!known) flows.set(row.id, row);
    }
    if (flows.size > MOST_FLOWS) {
      const kept = [...flows.values()].sort((a, b) => a.time - b.time).slice(-MOST_FLOWS * 0.9);
      flows = new Map(kept.map((flow) => [flow.id, flow]));
    }
    samples.push(...update.samples);
    if (samples.length > MOST_SAMPLES) samples.splice(0, samples.length - MOST_SAMPLES);
    draw({table: update.flows.length > 0});
  };

  // ---- The state in one sentence, and what went wrong

  const drawState = () => {
    const {sentence, counts, outages} = latest;
    document.body.classList.toggle('fleet', Boolean(latest.machines));
    $('state').dataset.state = sentence.state;
    $('sentence').textContent = sentence.text;
    $('since').textContent = sentence.since ? `since ${moment(sentence.since)}` : '';
    document.title = `${sentence.state === 'proxied' ? '' : '⚠ '}Ostravel: ${sentence.state}`;
    const {refused = 0, timed_out = 0, backlog = 0, failed = 0, invalid_answer = 0, reset = 0} = counts.failures;
    const direct = timed_out + backlog + failed;
    const what = [
      direct && `${direct.toLocaleString('en')} went direct because the proxy did not serve ${direct === 1 ? 'it' : 'them'}`,
      refused && `${refused.toLocaleString('en')} refused by the proxy`,
      (invalid_answer + reset) && `${(invalid_answer + reset).toLocaleString('en')} ended with an error`,
    ].filter(Boolean);
    const parts = [`${counted(counts.flows, 'flow')} to the proxy${what.length ? `: ${what.join(', ')}` : ', none failed'}.`];
    if (outages.length) parts.push(counts.lost ? `Outages cost ${counted(counts.lost, 'connection')}.` : 'No connection was lost by an outage.');
    const events = counts.lost_events + counts.malformed;
    parts.push(events ? `${counted(events, 'event')} lost: not everything is shown.`
      : latest.status ? 'No event was lost.' : 'No event is known to be lost.');
    $('loss').textContent = parts.join(' ');
  };

  const KINDS = {hung: 'hangs', unreachable: 'is unreachable', faulty: 'is faulty',
    'hung and unreachable': 'hung or was unreachable, and still does not answer'};
  const PAST = {unreachable: 'was unreachable', faulty: 'was faulty',
    'hung and unreachable': 'hung, and was unreachable at times'};
  let outagesDrawn = '';
  const drawOutages = () => {
    const key = JSON.stringify(latest.outages);
    if (key === outagesDrawn) return;
    outagesDrawn = key;
    $('outages-section').hidden = latest.outages.length === 0;
    $('outages').replaceChildren(...[...latest.outages].reverse().map((outage) => {
      const item = element('li', undefined, outage.end ? 'over' : '');
      const when = outage.end
        ? `${moment(outage.begin)} – ${clock(outage.end)} (${duration(outage.end - outage.begin)})`
        : `since ${moment(outage.begin)}`;
      const who = Object.entries(outage.applications).sort((a, b) => b[1] - a[1])
        .map(([name, count]) => `${shortName(name)} (${count})`).join(', ');
      item.append(element('time', when),
        element('span', `Proxy ${(outage.end ? PAST : KINDS)[outage.kind] || outage.kind}${outage.host ? ` on ${outage.host}` : ''}`, 'kind'),
        element('span', outage.text, 'text'));
      if (who) item.append(element('span', `Applications hit: ${who}`, 'who'));
      return item;
    }));
  };

  const drawExtension = () => {
    const status = latest.status;
    $('extension-section').hidden = !status;
    if (!status) return;
    // These were to be proxied and then went direct.
    const afterWaiting = status.flows?.direct_in_the_end ?? 0;
    const facts = [
      ['Version', status.program?.version], ['Process', status.program?.pid],
      ['Proxy', status.proxy?.process], ['Trusted', status.proxy?.reason],
      ['Flows offered', status.flows?.offered],
      ['Direct', status.flows ? status.flows.direct + afterWaiting : undefined],
      ['Proxied', status.flows ? Math.max(status.flows.proxied - afterWaiting, 0) : undefined],
      ['Held now', status.flows?.held_now],
      ['Verdict p50, p99', status.verdicts?.time?.p50_us !== undefined
        ? `${duration(status.verdicts.time.p50_us / 1e6)}, ${duration(status.verdicts.time.p99_us / 1e6)}`
        : undefined],
      ['Queue', status.queue ? `${status.queue.waiting ?? 0} waiting, ${status.queue.dropped ?? 0} dropped` : undefined],
      ['Descriptors', status.descriptors ? `${status.descriptors.open} of ${status.descriptors.limit}` : undefined],
      ['Guardian', status.guardian], ['Log lines lost', status.log?.dropped_lines],
    ];
    $('extension').replaceChildren(...facts.filter(([, value]) => value !== undefined)
      .map(([name, value]) => {
        const fact = element('div');
        fact.append(element('dt', name), element('dd', String(value)));
        return fact;
      }));
  };

  // ---- Time lines

  const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
  const CHARTS = [
    {title: 'Gate', columns: [1], names: [''], text: (value) => (value === null || value === undefined ? 'unknown' : value ? 'open' : 'closed'), steps: true, isOptional: true},
    {title: 'Tunnels', columns: [2, 3], names: ['open', 'pending'], text: (value) => (value ?? 0)},
    {title: 'Throughput', columns: [6, 7], names: ['sent', 'received'], text: (value) => (value === null || value === undefined ? '–' : `${bytes(value)}/s`), axis: (value) => bytes(value), least: 1000, isOptional: true},
    {title: 'Slowest answer of the proxy', columns: [5], names: [''], text: (value) => (value === null || value === undefined ? '–' : duration(value / 1000)), axis: (value) => (value < 1000 ? `${value} ms` : `${value / 1000} s`), points: true},
  ];
  let plots = [];

  const shadeOutages = (plot) => {
    const context = plot.ctx;
    context.save();
    context.fillStyle = colour('--bad-back');
    for (const outage of latest ? latest.outages : []) {
      const from = plot.valToPos(Math.max(outage.begin, plot.scales.x.min), 'x', true);
      const to = plot.valToPos(Math.min(outage.end || now(), plot.scales.x.max), 'x', true);
      if (to > from) context.fillRect(from, plot.bbox.top, Math.max(to - from, 2), plot.bbox.height);
    }
    context.restore();
  };

  const dataOf = (chart, visible) =>
    [visible.map((sample) => sample[0]),
      ...chart.columns.map((column) => visible.map((sample) => sample[column]))];

  const buildCharts = () => {
    plots.forEach(({plot, observer}) => { observer.disconnect(); plot.destroy(); });
    $('charts').replaceChildren();
    const axis = {stroke: colour('--soft'), grid: {stroke: colour('--line'), width: 1}, ticks: {show: false}, font: '11px system-ui'};
    const strokes = [colour('--one'), colour('--two')];
    plots = CHARTS.map((chart) => {
      const box = element('div', undefined, 'chart');
      const header = element('header');
      header.append(element('b', chart.title));
      const keys = chart.names.map((name, index) => element('span', name, index ? 'key two' : 'key'));
      header.append(...keys);
      const place = element('div');
      box.append(header, place);
      box.setAttribute('role', 'img');
      $('charts').append(box);
      const say = (self, index) => {
        const values = self.data.slice(1).map((column) => column[index ?? column.length - 1]);
        keys.forEach((key, at) => { key.textContent = `${chart.names[at]} ${chart.text(values[at])}`.trim(); });
        box.setAttribute('aria-label', `${chart.title}: ${keys.map((key) => key.textContent).join(', ')}`);
      };
      const plot = new uPlot({
        width: Math.max(place.clientWidth, 100), height: 120, padding: [6, 26, 0, 0],
        legend: {show: false},
        cursor: {sync: {key: 'time'}, drag: {x: false, y: false}, points: {size: 5}, y: false},
        scales: {
          x: {time: true, range: () => [now() - seconds, now()]},
          y: {range: chart.steps ? [-0.1, 1.1] : (_, least, most) => [0, Math.max(most || 0, chart.least || 1) * 1.1]},
        },
        axes: [
          {...axis, size: 24, space: 72, values: (_, ticks) => ticks.map((tick) => clock(tick).slice(0, seconds > 300 ? 5 : 8))},
          {...axis, size: 56, splits: chart.steps ? () => [0, 1] : undefined,
            values: (_, ticks) => ticks.map((tick) => (chart.steps ? (tick ? 'open' : 'closed') : chart.axis ? chart.axis(tick) : Number.isInteger(tick) ? tick : ''))},
        ],
        series: [{}, ...chart.columns.map((_, index) => ({
          stroke: strokes[index], width: 1.5, spanGaps: false, points: {show: Boolean(chart.points), size: 4, fill: strokes[index]},
          paths: chart.steps ? uPlot.paths.stepped({align: 1}) : undefined,
          fill: chart.steps ? `${strokes[index]}22` : undefined,
        }))],
        hooks: {drawClear: [shadeOutages], setCursor: [(self) => say(self, self.cursor.idx)]},
      }, dataOf(chart, []), place);
      const observer = new ResizeObserver(() => {
        if (place.clientWidth > 0) plot.setSize({width: place.clientWidth, height: 120});
      });
      observer.observe(place);
      return {chart, plot, box, observer, say};
    });
  };

  const drawCharts = () => {
    const first = latest.now - seconds;
    let from = samples.length;
    while (from > 0 && samples[from - 1][0] >= first) --from;
    const visible = samples.slice(from);
    for (const {chart, plot, box, say} of plots) {
      // Events do not tell it; without the extension's own answers there is nothing to draw.
      box.hidden = Boolean(chart.isOptional) && !latest.status
        && visible.every((sample) => sample[chart.columns[0]] === null);
      plot.setData(dataOf(chart, visible));
      if (plot.cursor.idx === null || plot.cursor.left < 0) say(plot, null);
    }
    $('charts').classList.toggle('three', plots.filter(({box}) => !box.hidden).length === 3);
  };

  // ---- Flows

  const matches = {
    '': () => true,
    live: (flow) => flow.outcome === 'open' || flow.outcome === 'connecting',
    bad: (flow) => BAD.has(flow.outcome),
  };

  const filter = () => {
    const words = $('search').value.toLowerCase().split(/\s+/).filter(Boolean);
    const wanted = $('outcome').value;
    const isWanted = matches[wanted] || ((flow) => flow.outcome === wanted);
    shown = [];
    for (const flow of flows.values()) {
      if (isWanted(flow) && words.every((word) => flow.text.includes(word))) shown.push(flow);
    }
    shown.sort((a, b) => b.time - a.time);
  };

  const pool = [];
  const REASONS = {on_trial: 'the proxy hung', gate_closed: 'the proxy is down',
    proxy_not_trusted: 'the proxy is not trusted', to_the_proxy: 'to the proxy itself',
    handshake_share: 'too many wait', proxied: 'to be proxied'};
  const reasonText = (word) => REASONS[word] || word.replaceAll('_', ' ');

  const makeRow = () => {
    const row = element('div', undefined, 'row');
    row.setAttribute('role', 'option');
    for (const name of ['time', 'machine', '', '', 'result', 'number', 'number', 'number']) {
      row.append(element('span', '', name));
    }
    row.children[4].append(element('span'), element('span', '', 'why'));
    row.addEventListener('click', () => { if (row.flow) open(row.flow); });
    $('table').append(row);
    pool.push(row);
    return row;
  };

  const setText = (node, text) => { if (node.textContent !== text) node.textContent = text; };

  const fill = (row, flow) => {
    row.flow = flow;
    const [time, machine, application, destination, result, answer, lasted, size] = row.children;
    setText(time, clock(flow.time));
    setText(machine, flow.host || '');
    machine.title = flow.host || '';
    setText(application, shortName(flow.application));
    application.title = flow.application;
    setText(destination, flow.destination || '–');
    destination.title = flow.destination;
    setText(result.firstChild, flow.outcome);
    setText(result.lastChild, flow.outcome === 'direct' && flow.why ? `: ${reasonText(flow.why)}` : '');
    result.className = `result ${TONES[flow.outcome] || (BAD.has(flow.outcome) ? 'bad' : 'soft')}`;
    result.title = flow.reason || flow.why || '';
    setText(answer, duration(flow.answer));
    setText(lasted, flow.end ? duration(flow.end - flow.time) : '');
    setText(size, flow.sent === undefined ? '' : bytes(flow.sent + flow.received));
    row.classList.toggle('chosen', flow.id === chosen);
    row.setAttribute('aria-selected', String(flow.id === chosen));
    row.id = `flow-${flow.id}`;
  };

  const rowHeight = () => (matchMedia('(max-width: 760px)').matches ? 46 : 28);

  const drawRows = () => {
    const table = $('table');
    const height = rowHeight();
    $('space').style.height = `${shown.length * height}px`;
    const first = Math.max(0, Math.floor(table.scrollTop / height) - 4);
    const last = Math.min(shown.length, first + Math.ceil(table.clientHeight / height) + 8);
    for (let index = first; index < last; ++index) {
      const row = pool[index - first] || makeRow();
      row.hidden = false;
      row.style.transform = `translateY(${index * height}px)`;
      row.style.top = '0';
      fill(row, shown[index]);
    }
    for (let index = last - first; index < pool.length; ++index) {
      pool[index].hidden = true;
      pool[index].flow = null;
    }
  };

  const drawTable = () => {
    const before = shown;
    const table = $('table');
    filter();
    // What a person looks at stays where it is when newer flows come above it.
    if (table.scrollTop > 0 && before.length) {
      const height = rowHeight();
      const top = before[Math.min(Math.floor(table.scrollTop / height), before.length - 1)];
      const place = shown.indexOf(top);
      if (place >= 0) {
        $('space').style.height = `${shown.length * height}px`;
        table.scrollTop = place * height + table.scrollTop % height;
      }
    }
    $('count').textContent = shown.length === flows.size
      ? counted(flows.size, 'flow') : `${shown.length.toLocaleString('en')} of ${counted(flows.size, 'flow')}`;
    drawRows();
  };

  const choose = (index) => {
    if (!shown.length) return;
    const place = Math.max(0, Math.min(index, shown.length - 1));
    chosen = shown[place].id;
    const height = rowHeight();
    const table = $('table');
    if (place * height < table.scrollTop) table.scrollTop = place * height;
    if ((place + 1) * height > table.scrollTop + table.clientHeight) {
      table.scrollTop = (place + 1) * height - table.clientHeight;
    }
    table.setAttribute('aria-activedescendant', `flow-${chosen}`);
    drawRows();
  };

  // ---- One flow

  const facts = (list, pairs) => {
    list.replaceChildren(...pairs.filter(([, value]) => value !== undefined && value !== '')
      .flatMap(([name, value]) => [element('dt', name), element('dd', String(value))]));
  };

  const SIGNALS = {
    connect_handshake_started: 'The connection to the proxy is established; it is asked for a tunnel',
    connect_handshake_succeeded: 'The proxy agrees: the tunnel is open',
    connect_handshake_rejected: 'The proxy refuses, or too many others wait',
    connect_handshake_invalid: 'The proxy answers nonsense',
    connect_handshake_timed_out: 'The proxy has not answered in time: the connection goes direct',
    connect_handshake_write_failed: 'The request could not be written',
    connect_handshake_read_failed: 'The answer could not be read',
    connect_handshake_leftover_write_failed: 'The first bytes could not be passed on',
    tunnel_closed: 'The end',
  };

  const STEPS = {
    decided: 'The decision', connected: 'The proxy is asked for a tunnel',
    established: 'The tunnel is open', ended: 'The end',
  };

  // What the facts above and the steps do not say already.
  const detailText = (detail) => (/^(remote|elapsed_ms|timeout_seconds) |^detail eof$/.test(detail) ? ''
    : detail.replace(/^(detail|reason|status_line) /, '').replaceAll('_', ' '));

  const open = async (flow) => {
    chosen = flow.id;
    drawRows();
    $('flow-title').textContent = `${shortName(flow.application)} → ${flow.destination || 'unknown'}`;
    facts($('flow-facts'), [
      ['Machine', flow.host], ['Application', flow.application], ['Result', flow.outcome], ['Reason', flow.reason],
      ['Decision', flow.why && reasonText(flow.why)], ['Detail', flow.detail], ['User', flow.user], ['Process', flow.pid],
      ['Began', exact(flow.time)], ['Waited for the proxy', duration(flow.answer)],
      ['Lasted', flow.end ? duration(flow.end - flow.time) : ''],
      ['Sent', bytes(flow.sent)], ['Received', bytes(flow.received)],
      ['Flow', flow.id.startsWith('#') ? '' : flow.id],
    ]);
    const begin = flow.decided ?? flow.time;
    // Nothing happens before the decision, whose clock is another one.
    const decidedAfter = (flow.steps?.decided ?? 0) / 1e6;
    let steps = [];
    try {
      if (!flow.id.startsWith('#')) {
        const answer = await fetch(api('/api/flow', `&id=${encodeURIComponent(flow.id)}`));
        if (answer.ok) {
          const whole = await answer.json();
          for (const event of whole.events) {
            steps.push({after: Math.max(event.time - begin, decidedAfter), text: SIGNALS[event.signal] || event.signal,
              detail: detailText(event.detail)});
          }
        }
      }
    } catch { /* The page says elsewhere that the monitor is gone. */ }
    // Of the decision, only what the events do not tell.
    const decided = Object.entries(flow.steps || {})
      .filter(([name]) => name === 'decided' || !steps.length)
      .map(([name, micros]) => ({after: micros / 1e6, text: STEPS[name] || name,
        detail: name === 'decided' && flow.why ? reasonText(flow.why) : ''}));
    steps.sort((a, b) => a.after - b.after);
    steps = decided.sort((a, b) => a.after - b.after).concat(steps);
    $('flow-steps').replaceChildren(...steps.map((step) => {
        const item = element('li');
        item.append(element('time', `+${duration(Math.max(step.after, 0))}`), element('span', step.text));
        if (step.detail) item.append(element('small', step.detail));
        return item;
      }));
    if (!$('flow').open) $('flow').showModal();
  };

  // ---- Drawing, at most once a frame

  let wanted = null;
  const paint = () => {
    if (wanted === null) return;
    const parts = wanted;
    wanted = null;
    if (!latest) return;
    drawState();
    drawOutages();
    drawExtension();
    drawCharts();
    if (parts.table) drawTable();
  };

  const draw = (what = {}) => {
    const isScheduled = wanted !== null;
    wanted = {...wanted, ...Object.fromEntries(Object.entries(what).filter(([, on]) => on))};
    if (isScheduled) return;
    requestAnimationFrame(paint);
    // A page in the background gets no frames, but its title has to tell of an outage.
    setTimeout(paint, 1000);
  };

  // ---- Input

  $('search').addEventListener('input', () => { $('table').scrollTop = 0; drawTable(); });
  $('outcome').addEventListener('change', () => { $('table').scrollTop = 0; drawTable(); });
  $('table').addEventListener('scroll', () => requestAnimationFrame(drawRows), {passive: true});
  addEventListener('resize', () => requestAnimationFrame(drawRows));
  $('table').addEventListener('keydown', (event) => {
    const at = shown.findIndex((flow) => flow.id === chosen);
    const page = Math.max(1, Math.floor($('table').clientHeight / rowHeight()) - 1);
    const moves = {ArrowDown: at + 1, ArrowUp: at - 1, PageDown: at + page, PageUp: at - page,
      Home: 0, End: shown.length - 1};
    if (event.key in moves) {
      choose(moves[event.key]);
      event.preventDefault();
    } else if (event.key === 'Enter' && at >= 0) {
      open(shown[at]);
    }
  });
  addEventListener('keydown', (event) => {
    if (event.key === '/' && !event.target.closest('input, select') && !$('flow').open) {
      $('search').focus();
      event.preventDefault();
    } else if (event.key === 'Escape' && event.target === $('search')) {
      $('search').value = '';
      drawTable();
    }
  });
  $('flow').addEventListener('click', (event) => { if (event.target === $('flow')) $('flow').close(); });
  const setRange = (button) => {
    for (const other of $('ranges').children) {
      other.setAttribute('aria-checked', String(other === button));
      other.tabIndex = other === button ? 0 : -1;
    }
    seconds = Number(button.dataset.seconds);
    draw();
  };
  // Of what there is, most.
  const chooseRange = () => {
    if (isRangeChosen || !samples.length) return;
    const known = samples[samples.length - 1][0] - samples[0][0];
    const button = [...$('ranges').children].find((each) => Number(each.dataset.seconds) >= Math.min(known, 600));
    if (Number(button.dataset.seconds) !== seconds) setRange(button);
  };
  $('ranges').addEventListener('click', (event) => {
    const button = event.target.closest('button');
    isRangeChosen = isRangeChosen || Boolean(button);
    if (button) setRange(button);
  });
  $('ranges').addEventListener('keydown', (event) => {
    const step = {ArrowRight: 1, ArrowDown: 1, ArrowLeft: -1, ArrowUp: -1}[event.key];
    if (!step) return;
    const all = [...$('ranges').children];
    const next = all[(all.indexOf(event.target) + step + all.length) % all.length];
    isRangeChosen = true;
    setRange(next);
    next.focus();
    event.preventDefault();
  });
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', () => {
    buildCharts();
    draw();
  });

  // ---- From the monitor

  // In milliseconds. It sends something every second; a connection may be lost without a notice.
  const LONGEST_SILENCE = 15000;

  const complain = (text) => {
    $('connection').textContent = text;
    $('connection').hidden = !text;
  };

  const start = async () => {
    try {
      const answer = await fetch(api('/api/state'), {signal: AbortSignal.timeout(LONGEST_SILENCE)});
      if (answer.status === 401) {
        complain('This address has no valid token. Open the one that ostravel-monitor has printed.');
        return;
      }
      if (!answer.ok) throw new Error(String(answer.status));
      flows = new Map();
      samples = [];
      take(await answer.json());
      chooseRange();
      complain('');
      follow();
    } catch {
      complain('The monitor does not answer; trying again.');
      setTimeout(start, 2000);
    }
  };

  const follow = () => {
    const stream = new EventSource(api('/api/updates', `&after=${cursor}`));
    let silence;
    const restart = () => {
      clearTimeout(silence);
      stream.close();
      complain('The monitor has gone; trying again.');
      setTimeout(start, 2000);
    };
    const heard = () => {
      clearTimeout(silence);
      silence = setTimeout(restart, LONGEST_SILENCE);
    };
    heard();
    stream.onmessage = (event) => { heard(); complain(''); take(JSON.parse(event.data)); };
    stream.onerror = restart;
  };

  buildCharts();
  start();
})();
