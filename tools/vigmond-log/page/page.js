'use strict';
(() => {
  // Colour-blind readers can tell blue, orange and vermilion apart. A worse state has a higher bar.
  const STATES = [['OK', '#56b4e9', 0.4], ['WARN', '#e69f00', 0.7], ['FAIL', '#d55e00', 1], ['INV', '#777777', 1]];
  const WARN_BAND = '#fff0cc', FAIL_BAND = '#fadccb', GAP = '#dddddd';
  const STATE_BAR = 9;

  const data = JSON.parse(document.getElementById('data').textContent);

  // The records of a check: times in seconds, values (NaN if unreadable) and states.
  function decode(check) {
    const bytes = atob(check.data), count = check.count;
    const times = new Float64Array(count), values = new Float64Array(count), states = new Uint8Array(count);
    let at = 0, time = check.begin, step = 0, value = 0;
    const number = () => {
      let result = 0, factor = 1, byte;
      do {
        byte = bytes.charCodeAt(at++);
        result += (byte & 127) * factor;
        factor *= 128;
      } while (byte > 127);
      return result;
    };
    const signed = (n) => (n % 2 ? -(n + 1) / 2 : n / 2);
    for (let i = 0; i < count; ++i) {
      const head = number();
      step += signed(Math.floor(head / 8));
      time += step;
      times[i] = time;
      states[i] = Math.floor(head / 2) & 3;
      values[i] = head & 1 ? NaN : (value += signed(number()));
    }
    return {times, values, states};
  }

  function firstFrom(times, time) {
    let low = 0, high = times.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (times[middle] < time) low = middle + 1; else high = middle;
    }
    return low;
  }

  // The points from `begin` to `end`: all, or the least and greatest value per pixel, so that a single outlier is
  // visible. The points without a value at both ends keep the whole range reachable.
  function points(check, begin, end, pixels) {
    const {times, values} = check;
    const first = Math.max(firstFrom(times, begin) - 1, 0), last = Math.min(firstFrom(times, end) + 1, times.length);
    const result = [[new Date(data.begin * 1000), null]];
    const add = (i) => result.push([new Date((times[i] + data.offset) * 1000), isNaN(values[i]) ? null : values[i]]);
    const isGap = (i) => i > 0 && check.interval > 0 && times[i] - times[i - 1] > 2 * check.interval;
    const cut = (i) => result.push([new Date((times[i - 1] + data.offset) * 1000 + 1), null]);
    const width = last - first <= 3 * pixels ? 0 : (end - begin) / pixels;
    for (let i = first; i < last;) {
      if (i > first && isGap(i)) cut(i);
      if (width === 0) {
        add(i++);
        continue;
      }
      const until = begin + (Math.floor((times[i] - begin) / width) + 1) * width;
      let low = i, high = i, next = i + 1;
      for (; next < last && times[next] < until && !isGap(next); ++next) {
        if (!(values[next] >= values[low])) low = next;
        if (!(values[next] <= values[high])) high = next;
      }
      add(Math.min(low, high));
      if (low !== high) add(Math.max(low, high));
      i = next;
    }
    result.push([new Date(data.end * 1000), null]);
    return result;
  }

  // A dygraphs plugin: bands for the limits, shaded gaps, lines at the starts of the daemon, and the bar of states.
  class Background {
    constructor(check, starts) { this.check = check; this.starts = starts; }
    toString() { return 'Background'; }
    activate() { return {willDrawChart: (e) => this.draw(e.drawingContext, e.dygraph)}; }
    draw(context, graph) {
      const area = graph.getArea(), check = this.check;
      const bottom = area.y + area.h;
      const x = (time) => graph.toDomXCoord((time + data.offset) * 1000);
      const y = (value) => Math.min(Math.max(graph.toDomYCoord(value), area.y), bottom);
      const band = (from, to, colour) => {
        context.fillStyle = colour;
        context.fillRect(area.x, to, area.w, from - to);
      };
      context.save();
      context.beginPath();
      context.rect(area.x, area.y, area.w, area.h);
      context.clip();
      if (check.maxwarn !== null) band(y(check.maxwarn), area.y, WARN_BAND);
      if (check.minwarn !== null) band(bottom, y(check.minwarn), WARN_BAND);
      if (check.maxfail !== null) band(y(check.maxfail), area.y, FAIL_BAND);
      if (check.minfail !== null) band(bottom, y(check.minfail), FAIL_BAND);
      const [begin, end] = graph.xAxisRange().map((ms) => ms / 1000 - data.offset);
      this.drawRecords(context, x, begin, end, area);
      for (const [time, unclean] of this.starts) {
        if (time < begin || time > end) continue;
        context.strokeStyle = unclean ? '#cc0000' : '#333333';
        context.setLineDash(unclean ? [2, 2] : [6, 3]);
        context.beginPath();
        context.moveTo(x(time), area.y);
        context.lineTo(x(time), bottom);
        context.stroke();
      }
      context.restore();
    }
    // Draws the worst state of each pixel, and the gaps.
    drawRecords(context, x, begin, end, area) {
      const {times, states, interval} = this.check;
      const bottom = area.y + area.h;
      const first = Math.max(firstFrom(times, begin) - 1, 0), last = Math.min(firstFrom(times, end) + 1, times.length);
      const bar = (from, to, state) => {
        const [, colour, height] = STATES[state];
        context.fillStyle = colour;
        context.fillRect(from, bottom - STATE_BAR * height, Math.max(to - from, 1), STATE_BAR * height);
      };
      let from = null, state = 0;
      for (let i = first; i < last; ++i) {
        const isGap = i > 0 && interval > 0 && times[i] - times[i - 1] > 2 * interval;
        if (isGap) {
          const left = x(times[i - 1]);
          context.fillStyle = GAP;
          context.fillRect(left, area.y, Math.max(x(times[i]) - left, 1), area.h);
        }
        const here = x(times[i]);
        if (from !== null && (isGap || (states[i] !== state && here - from >= 1))) {
          bar(from, isGap ? x(times[i - 1]) : here, state);
          from = null;
        }
        if (from === null) { from = here; state = states[i]; }
        state = Math.max(state, here - from < 1 ? states[i] : state);
      }
      if (from !== null) bar(from, x(times[last - 1]), state);
    }
  }

  function valueRange(check) {
    let low = Infinity, high = -Infinity;
    for (const value of check.values) {
      if (value < low) low = value;
      if (value > high) high = value;
    }
    if (low > high) return [0, 1];
    const room = Math.max(high - low, 1);
    for (const limit of [check.minfail, check.minwarn, check.maxwarn, check.maxfail]) { // include limits nearby
      if (limit !== null && limit > high && limit - high <= room) high = limit;
      if (limit !== null && limit < low && low - limit <= room) low = limit;
    }
    const edge = (high - low || 1) * 0.08;
    return [low - edge - (high - low || 1) * 0.12, high + edge];
  }

  const strips = [];
  let range = null, isUpdating = false;

  // Shows this range, in seconds on the axis, in all strips.
  function show(begin, end) {
    if (isUpdating || (range !== null && range[0] === begin && range[1] === end)) return;
    range = [begin, end];
    isUpdating = true;
    for (const {check, graph} of strips) {
      graph.updateOptions({
        file: points(check, begin - data.offset, end - data.offset, graph.getArea().w),
        dateWindow: [begin * 1000, end * 1000],
      });
    }
    isUpdating = false;
  }

  function addStrip(check, starts, element) {
    Object.assign(check, decode(check));
    check.data = null;
    const graph = new Dygraph(element, points(check, data.begin - data.offset, data.end - data.offset, element.clientWidth || 800), {
      labels: ['time', check.name],
      labelsUTC: true,
      legend: 'follow',
      legendFormatter: (legend) => legend.x === undefined ? '' : legend.xHTML + ' <b>' + legend.series[0].yHTML + '</b>',
      dateWindow: [data.begin * 1000, data.end * 1000],
      valueRange: valueRange(check),
      connectSeparatedPoints: false,
      colors: ['#003a70'],
      strokeWidth: 1.2,
      axisLabelFontSize: 12,
      axes: {y: {pixelsPerLabel: 24, axisLabelWidth: 46}},
      plugins: [new Background(check, starts)],
      drawCallback: (g, isInitial) => { if (!isInitial) show(...g.xAxisRange().map((ms) => ms / 1000)); },
    });
    strips.push({check, graph});
  }

  data.stations.forEach((station, number) => {
    station.checks.forEach((check, place) => {
      addStrip(check, station.starts, document.getElementById('strip-' + number + '-' + place));
    });
  });
  window.addEventListener('beforeprint', () => {
    for (const list of document.querySelectorAll('details')) list.open = true;
  });
  const whole = () => show(data.begin, data.end);
  document.getElementById('whole').addEventListener('click', whole);
  document.addEventListener('click', (event) => {
    const button = event.target.closest('button[data-time]');
    if (button === null) return;
    const time = Number(button.dataset.time) + data.offset;
    show(time - 1800, time + 1800);
    document.getElementById(button.dataset.strip)?.scrollIntoView({block: 'center'});
  });
  document.documentElement.dataset.drawn = String(strips.length);
  window.vigmondLog = {strips, show, whole};
})();
