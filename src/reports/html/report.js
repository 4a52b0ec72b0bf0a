// Draws a Vorlund report from the JSON data element the page carries (built by
// src/reports/html_report.cc): the quality figures, the summary table, the failure rates, the
// metrics and the issues over time. Text from the data only ever enters the page as textContent.
//
// For the page's own test, every chart records on its canvas whether it drew anything
// (data-rendered) and how many points it plots (data-points); #vl-status records that the script
// ran to its end and how many errors window.vlErrors holds, listed in #vl-errors.
(function () {
  'use strict';

  const data = JSON.parse(document.getElementById('vl-report-data').textContent);
  const root = document.getElementById('vl-report');
  const charts = [];
  const palette = ['#1f77b4', '#d62728', '#2ca02c', '#ff7f0e', '#9467bd', '#8c564b', '#e377c2',
                   '#7f7f7f', '#bcbd22', '#17becf'];

  function el(tag, attributes, children) {
    const node = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes || {})) node.setAttribute(name, value);
    for (const child of [].concat(children === undefined ? [] : children)) {
      node.append(child instanceof Node ? child : document.createTextNode(String(child)));
    }
    return node;
  }

  function color(i, alpha) {
    const hex = palette[i % palette.length];
    if (alpha === undefined) return hex;
    const v = parseInt(hex.slice(1), 16);
    return 'rgba(' + (v >> 16) + ',' + ((v >> 8) & 255) + ',' + (v & 255) + ',' + alpha + ')';
  }

  // Null stands for a figure that is not a finite number (the QI of a run without failures).
  function figure(value, digits) {
    return value === null || value === undefined ? 'n/a' : Number(value).toFixed(digits);
  }
  function percent(rate) { return rate === null ? 'n/a' : (100 * rate).toFixed(2) + ' %'; }
  function duration(seconds) {
    if (seconds === null) return 'n/a';
    const s = Math.round(seconds);
    const parts = [[Math.floor(s / 86400), 'd'], [Math.floor(s / 3600) % 24, 'h'],
                   [Math.floor(s / 60) % 60, 'm'], [s % 60, 's']];
    const shown = parts.filter(function (p) { return p[0] > 0; });
    return shown.length ? shown.map(function (p) { return p[0] + p[1]; }).join(' ') : '0s';
  }
  function pad(n) { return String(n).padStart(2, '0'); }
  function time(ms) {
    const d = new Date(ms);
    return d.getFullYear() + '-' + pad(d.getMonth() + 1) + '-' + pad(d.getDate()) + ' ' +
           pad(d.getHours()) + ':' + pad(d.getMinutes()) + ':' + pad(d.getSeconds());
  }

  function table(headers, rows, className) {
    return el('table', {class: className || ''}, [
      el('thead', {}, el('tr', {}, headers.map(function (h) { return el('th', {}, h); }))),
      el('tbody', {}, rows.map(function (r) {
        return el('tr', {}, r.map(function (c) { return el('td', {}, c); }));
      }))]);
  }

  function section(title, id) {
    const s = el('section', {id: id}, el('h2', {}, title));
    root.append(s);
    return s;
  }

  // The canvas goes into the page before the chart is made: Chart.js draws only attached canvases.
  function chart(parent, name, title, config, height) {
    const box = el('div', {class: 'chart', style: 'height:' + (height || 320) + 'px'});
    const canvas = el('canvas', {'data-chart': name, 'aria-label': title, role: 'img'});
    box.append(canvas);
    parent.append(el('h3', {}, title), box);
    config.options = Object.assign({animation: false, responsive: true,
                                    maintainAspectRatio: false, normalized: true}, config.options);
    let points = 0;
    for (const set of config.data.datasets) points += set.data.length;
    canvas.setAttribute('data-points', String(points));
    try {
      charts.push({canvas: canvas, chart: new Chart(canvas, config)});
    } catch (e) {
      window.vlErrors.push(name + ': ' + e);
    }
  }

  function timeAxis() {
    return {type: 'linear', ticks: {maxTicksLimit: 8, callback: function (v) { return time(v); }}};
  }

  function drewSomething(canvas) {
    if (!canvas.width || !canvas.height) return false;
    const pixels = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data;
    for (let i = 3; i < pixels.length; i += 4) {
      if (pixels[i] !== 0) return true;
    }
    return false;
  }

  function overview() {
    root.append(el('h1', {}, 'Vorlund report: ' + data.title));
    root.append(el('p', {class: 'generated'}, 'Made ' + time(data.generated) + ' from ' +
                   data.devices.length + ' device run(s): ' + data.devices.join(', ')));
    const rows = [['Devices', data.devices.length], ['Run time', duration(data.runTime)],
                  ['Merged results', data.mergedResults], ['QI', figure(data.QI, 3)],
                  ['Estimated QI', figure(data.estimatedQI, 3)],
                  ['Test case QI', figure(data.testCaseQI, 3)]];
    for (const [area, seconds] of Object.entries(data.MTBF)) {
      rows.push(['MTBF ' + area, duration(seconds)]);
    }
    section('Quality', 'vl-quality').append(table(['Figure', 'Value'], rows, 'figures'));
    if (data.warnings.length) {
      section('Warnings', 'vl-warnings').append(
          el('ul', {}, data.warnings.map(function (w) { return el('li', {}, w); })));
    }
  }

  function buckets(map) {
    return Object.entries(map).map(function (e) { return e[0] + ': ' + e[1]; }).join(', ');
  }

  function testCases() {
    const s = section('Test cases', 'vl-test-cases');
    s.append(table(['Test case', 'Type', 'Instances', 'Failures', 'Failure rate',
                    'Failures by bucket', 'Per device'],
                   data.testCases.map(function (t) {
                     const perDevice = Object.entries(t.devices).map(function (e) {
                       return e[0] + ' ' + percent(e[1].failureRate) + ' of ' + e[1].instances;
                     }).join('; ');
                     return [t.name, t.type, t.instances, t.failures, percent(t.failureRate),
                             buckets(t.failuresByBucket), perDevice];
                   }), 'summary'));
    const metrics = [];
    for (const t of data.testCases) {
      for (const [name, m] of Object.entries(t.metrics)) {
        metrics.push([t.name, name, figure(m.mean, 3), figure(m.deviation, 3), figure(m.min, 3),
                      figure(m.max, 3)]);
      }
    }
    if (metrics.length) {
      s.append(el('h3', {}, 'Metrics of passing instances'),
               table(['Test case', 'Metric', 'Mean', 'Deviation', 'Minimum', 'Maximum'], metrics,
                     'metrics'));
    }
    chart(s, 'failure-rate', 'Failure rate per test case and device', {
      type: 'bar',
      data: {
        labels: data.testCases.map(function (t) { return t.name; }),
        datasets: data.devices.map(function (device, i) {
          return {label: device, backgroundColor: color(i),
                  data: data.testCases.map(function (t) {
                    const f = t.devices[device];
                    return f && f.failureRate !== null ? 100 * f.failureRate : 0;
                  })};
        })},
      options: {scales: {y: {beginAtZero: true, title: {display: true, text: 'failed instances (%)'}}}}
    }, Math.max(320, 24 * data.testCases.length));
  }

  function metricsOverTime() {
    if (!data.metricSeries.length) return;
    const s = section('Metrics over time', 'vl-metrics');
    const groups = new Map();
    for (const series of data.metricSeries) {
      const key = JSON.stringify([series.testCase, series.metric]);
      if (!groups.has(key)) groups.set(key, []);
      groups.get(key).push(series);
    }
    let index = 0;
    for (const [key, list] of groups) {
      const [testCase, metric] = JSON.parse(key);
      const datasets = [];
      list.forEach(function (series, i) {
        const device = data.devices.indexOf(series.device);
        const c = device < 0 ? i : device;
        const at = function (values) {
          return series.t.map(function (t, j) { return {x: t, y: values[j]}; });
        };
        // The range of each bucket is a band from its maximum down to its minimum.
        datasets.push({label: series.device + ' max', data: at(series.max), pointRadius: 0,
                       borderWidth: 0, backgroundColor: color(c, 0.15), fill: '+1', band: true});
        datasets.push({label: series.device + ' min', data: at(series.min), pointRadius: 0,
                       borderWidth: 0, fill: false, band: true});
        datasets.push({label: series.device, data: at(series.mean), borderColor: color(c),
                       backgroundColor: color(c), pointRadius: series.t.length > 60 ? 0 : 2,
                       borderWidth: 1.5, fill: false});
      });
      chart(s, 'metric-' + index++, testCase + ': ' + metric + ' (mean, min to max per bucket)', {
        type: 'line',
        data: {datasets: datasets},
        options: {scales: {x: timeAxis()},
                  plugins: {legend: {labels: {filter: function (item, chartData) {
                    return !chartData.datasets[item.datasetIndex].band;
                  }}}}}
      });
    }
  }

  function issuesOverTime() {
    const s = section('Issues', 'vl-issues');
    if (data.issueSeries.length) {
      const types = [...new Set(data.issueSeries.map(function (x) { return x.type; }))].sort();
      const devices = data.devices.slice();
      for (const x of data.issueSeries) if (!devices.includes(x.device)) devices.push(x.device);
      const datasets = types.map(function (type, i) {
        const points = [];
        for (const series of data.issueSeries) {
          if (series.type !== type) continue;
          const y = devices.indexOf(series.device);
          series.t.forEach(function (t, j) {
            points.push({x: t, y: y, r: Math.min(12, 3 + Math.log2(series.n[j])),
                         count: series.n[j], reason: series.reason[j]});
          });
        }
        // Charts are made with normalized data, which Chart.js may read as sorted by x.
        points.sort(function (p, q) { return p.x - q.x; });
        return {label: type, data: points, backgroundColor: color(i, 0.6), borderColor: color(i)};
      });
      chart(s, 'issues-timeline', 'Issues over time per device', {
        type: 'bubble',
        data: {datasets: datasets},
        options: {
          scales: {x: timeAxis(),
                   // One row a device, named; the half-steps of the range keep bubbles off the edges.
                   y: {min: -0.5, max: devices.length - 0.5,
                       afterBuildTicks: function (axis) {
                         axis.ticks = devices.map(function (d, i) { return {value: i}; });
                       },
                       ticks: {autoSkip: false, callback: function (v) { return devices[v]; }}}},
          plugins: {tooltip: {callbacks: {label: function (item) {
            const p = item.raw;
            return item.dataset.label + ' x' + p.count + ' at ' + time(p.x) + ': ' + p.reason;
          }}}}}
      }, Math.max(220, 60 * devices.length));
    }
    if (data.issues.length) {
      s.append(el('h3', {}, 'Issues by reason'),
               table(['Reason', 'Process', 'Type', 'Count', 'Per device'],
                     data.issues.map(function (x) {
                       return [x.reason, x.process, x.type, x.total, buckets(x.devices)];
                     }), 'issues'));
      if (data.issuesLeftOut > 0) {
        s.append(el('p', {}, 'and ' + data.issuesLeftOut + ' less frequent issues'));
      }
    }
  }

  function finish() {
    for (const c of charts) {
      c.canvas.setAttribute('data-rendered', drewSomething(c.canvas) ? 'true' : 'false');
    }
    const list = el('ul', {id: 'vl-errors'},
                    window.vlErrors.map(function (e) { return el('li', {}, e); }));
    root.append(el('div', {id: 'vl-status', 'data-done': 'true',
                           'data-charts': String(charts.length),
                           'data-errors': String(window.vlErrors.length)}), list);
  }

  for (const part of [overview, testCases, metricsOverTime, issuesOverTime]) {
    try {
      part();
    } catch (e) {
      window.vlErrors.push(part.name + ': ' + e);
    }
  }
  finish();
})();
