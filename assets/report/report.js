// Draws a Kestrix report page from the JSON block "kx-data" that the engine writes into it.
// The page marks itself for automated checks: body[data-ready] once drawn, data-plots (number
// of plots), data-plots-with-data (plots with at least one finite point) and data-errors
// (script errors and console errors seen).
(function () {
  "use strict";

  var MODES = {1: "steady-state simulation", 2: "parameter estimation", 3: "steady-state optimisation",
    4: "dynamic simulation", 5: "moving-horizon estimation", 6: "model predictive control",
    7: "sequential simulation", 8: "sequential estimation", 9: "sequential control"};
  var COLOURS = ["#1f6fb4", "#d9541e", "#2b9a3b", "#8a3fb8", "#b8860b", "#17a2b8", "#c2185b"];
  var TABLE_KEYS = ["STATUS", "FSTATUS", "PSTATUS", "MEAS", "NEWVAL", "MODEL", "LOWER", "UPPER",
    "SP", "SPHI", "SPLO", "DMAX", "BIAS", "COST"];
  var errors = 0;
  var plots = [];

  function countError() {
    errors += 1;
    document.body.setAttribute("data-errors", String(errors));
  }
  window.addEventListener("error", countError);
  window.addEventListener("unhandledrejection", countError);
  var consoleError = console.error;
  console.error = function () {
    countError();
    return consoleError.apply(console, arguments);
  };

  function el(tag, attrs, text) {
    var e = document.createElement(tag);
    for (var k in attrs || {}) e.setAttribute(k, attrs[k]);
    if (text !== undefined) e.textContent = text;
    return e;
  }

  function fmt(v) {
    if (v === null || v === undefined) return "";
    if (typeof v !== "number") return String(v);
    if (v !== 0 && (Math.abs(v) >= 1e6 || Math.abs(v) < 1e-4)) return v.toExponential(4);
    return String(Math.round(v * 1e6) / 1e6);
  }

  function finite(a) {
    for (var i = 0; i < a.length; i++) if (typeof a[i] === "number" && isFinite(a[i])) return true;
    return false;
  }

  // Tick labels with as many decimals as the tick spacing needs, so close ticks differ.
  function ticks(u, splits, axis, space, incr) {
    if (!(incr > 0)) return splits.map(fmt);
    var big = splits.some(function (v) { return Math.abs(v) >= 1e6; });
    if (big || incr < 1e-6) return splits.map(function (v) { return v.toExponential(2); });
    var frac = incr.toFixed(12).replace(/0+$/, "").split(".")[1] || "";
    return splits.map(function (v) { return v.toFixed(Math.min(frac.length, 12)); });
  }

  function constant(x, v) {
    return x.map(function () { return v; });
  }

  // One chart: `series` is a list of {label, values, colour, dash, points, stepped}.
  function chart(parent, title, xLabel, x, series) {
    var box = el("div", {"class": "plot"});
    box.appendChild(el("div", {"class": "plot-title"}, title));
    parent.appendChild(box);
    var has = series.some(function (s) { return finite(s.values); });
    box.setAttribute("data-has-data", has ? "1" : "0");
    var single = x.length < 2;
    var opts = {
      width: 440, height: 220,
      scales: {x: {time: false}},
      axes: [{label: xLabel, size: 40, values: ticks}, {size: 70, values: ticks}],
      legend: {show: true},
      series: [{label: xLabel}].concat(series.map(function (s, i) {
        var out = {label: s.label, stroke: s.colour || COLOURS[i % COLOURS.length], width: 2,
          spanGaps: true, points: {show: single || !!s.points, size: 6}};
        if (s.dash) out.dash = s.dash;
        if (s.points) out.paths = function () { return null; };
        if (s.stepped && window.uPlot.paths && uPlot.paths.stepped)
          out.paths = uPlot.paths.stepped({align: -1});
        return out;
      }))
    };
    var data = [x].concat(series.map(function (s) { return s.values; }));
    plots.push(new uPlot(opts, data, box));
    return box;
  }

  function section(page, id, title) {
    var s = el("section", {id: id});
    s.appendChild(el("h2", {}, title));
    page.appendChild(s);
    return s;
  }

  function nav(page, D) {
    var n = el("nav", {});
    [["outcome", "Outcome"], ["variables", "Variables"], ["horizon", "Horizon"],
      ["history", "History"]].forEach(function (p) {
      n.appendChild(el("a", {href: "#" + p[0]}, p[1]));
    });
    D.pages.forEach(function (p) {
      n.appendChild(el("a", {href: p, "class": "page"}, p.replace(/_report\.html$/, "")));
    });
    page.appendChild(n);
  }

  function outcome(page, D) {
    var o = D.outcome, s = section(page, "outcome", "Outcome");
    var good = o.appstatus === 1;
    var t = el("table", {"class": "outcome"});
    [["Status", good ? "successful" : "failed (solver code " + o.appinfo + ")"],
      ["Objective", fmt(o.objective)], ["Iterations", fmt(o.iterations)],
      ["Solve time (s)", fmt(o.solvetime)], ["Cycle", fmt(o.cycle)]].forEach(function (r) {
      var tr = el("tr", {});
      tr.appendChild(el("th", {}, r[0]));
      tr.appendChild(el("td", r[0] === "Status" ? {"class": good ? "good" : "bad"} : {}, r[1]));
      t.appendChild(tr);
    });
    s.appendChild(t);
  }

  function variables(page, D) {
    var s = section(page, "variables", "Variables");
    if (!D.variables.length) {
      s.appendChild(el("p", {}, "No classified variables (APP.info)."));
      return;
    }
    var keys = TABLE_KEYS.filter(function (k) {
      return D.variables.some(function (v) { return k in v.props; });
    });
    var t = el("table", {"class": "vars"}), head = el("tr", {});
    ["Name", "Class"].concat(keys).forEach(function (k) { head.appendChild(el("th", {}, k)); });
    t.appendChild(head);
    D.variables.forEach(function (v) {
      var tr = el("tr", {"class": v.class.toLowerCase()});
      tr.appendChild(el("td", {}, v.name + (v.units ? " (" + v.units + ")" : "")));
      tr.appendChild(el("td", {}, v.class));
      keys.forEach(function (k) { tr.appendChild(el("td", {}, k in v.props ? fmt(v.props[k]) : "")); });
      t.appendChild(tr);
    });
    s.appendChild(t);
  }

  function column(D, name) {
    var i = D.results.names.indexOf(name);
    return i < 0 ? null : D.results.values[i];
  }

  function isEstimation(D) { return D.imode === 2 || D.imode === 5 || D.imode === 8; }

  // MVs with their limits, CVs with their set points (control) or measurements (estimation).
  function classPlots(grid, D) {
    var x = D.results.time;
    D.variables.forEach(function (v) {
      var y = column(D, v.name), p = v.props;
      if (!y) return;
      var series = [{label: v.name, values: y, stepped: v.class === "MV"}];
      if (v.class === "MV" || v.class === "FV") {
        if (p.LOWER !== undefined && p.LOWER !== null)
          series.push({label: "lower", values: constant(x, p.LOWER), colour: "#888", dash: [6, 4]});
        if (p.UPPER !== undefined && p.UPPER !== null)
          series.push({label: "upper", values: constant(x, p.UPPER), colour: "#888", dash: [6, 4]});
      }
      if (v.class === "CV" && isEstimation(D)) {
        var m = D.measurements[v.name];
        if (m) series.push({label: "measured", values: m.slice(0, x.length), colour: "#d9541e", points: true});
      } else if (v.class === "CV") {
        var sq = D.cv_type === 2;  // squared error: a set point; otherwise a band
        if (sq && p.SP !== null && p.SP !== undefined)
          series.push({label: "SP", values: constant(x, p.SP), colour: "#2b9a3b", dash: [6, 4]});
        if (!sq && p.SPHI !== null && p.SPHI !== undefined)
          series.push({label: "SPHI", values: constant(x, p.SPHI), colour: "#2b9a3b", dash: [6, 4]});
        if (!sq && p.SPLO !== null && p.SPLO !== undefined)
          series.push({label: "SPLO", values: constant(x, p.SPLO), colour: "#2b9a3b", dash: [6, 4]});
      }
      chart(grid, v.class + " " + v.name, "time", x, series);
    });
  }

  function horizon(page, D) {
    var s = section(page, "horizon", "Results over the horizon");
    if (D.results.time.length < 2) {
      s.appendChild(el("p", {}, "Steady state: one point; the values are in the table above " +
        "and their course over the cycles under History."));
      return;
    }
    var classed = el("div", {"class": "grid"});
    s.appendChild(classed);
    classPlots(classed, D);
    s.appendChild(el("h3", {}, "Every variable"));
    var all = el("div", {"class": "grid"});
    s.appendChild(all);
    D.results.names.forEach(function (n, i) {
      chart(all, n, "time", D.results.time, [{label: n, values: D.results.values[i]}]);
    });
  }

  function history(page, D) {
    var h = D.history, s = section(page, "history", "History (last " + h.rows.length + " cycles)");
    if (!h.rows.length) return;
    var col = function (name) {
      var i = h.columns.indexOf(name);
      return h.rows.map(function (r) { return r[i]; });
    };
    var x = col("cycle"), grid = el("div", {"class": "grid"});
    s.appendChild(grid);
    chart(grid, "objective", "cycle", x, [{label: "objective", values: col("objective")}]);
    chart(grid, "solve time (s)", "cycle", x, [{label: "solve time", values: col("solvetime")}]);
    D.variables.forEach(function (v) {
      var series = [{label: v.name, values: col(v.name)}];
      if (h.columns.indexOf(v.name + ".meas") >= 0) {
        var m = col(v.name + ".meas");
        if (finite(m)) series.push({label: "measured", values: m, colour: "#d9541e", points: true});
      }
      chart(grid, v.class + " " + v.name, "cycle", x, series);
    });
  }

  function render(D) {
    plots.forEach(function (p) { p.destroy(); });
    plots = [];
    var page = document.getElementById("page");
    page.textContent = "";
    if (D.menu) nav(page, D);
    var mode = MODES[D.imode] || ("IMODE " + D.imode);
    page.appendChild(el("h1", {}, D.app + ": " + mode));
    outcome(page, D);
    variables(page, D);
    horizon(page, D);
    history(page, D);
    var withData = document.querySelectorAll('.plot[data-has-data="1"]').length;
    document.body.setAttribute("data-plots", String(plots.length));
    document.body.setAttribute("data-plots-with-data", String(withData));
    document.body.setAttribute("data-errors", String(errors));
    document.body.setAttribute("data-ready", "1");
  }

  function readData(doc) {
    return JSON.parse(doc.getElementById("kx-data").textContent);
  }

  // Served over http the page fetches itself every WEB_PLOT_FREQ seconds and redraws when
  // a new cycle has written it; opened from disk it relies on the page refresh alone.
  function follow(D) {
    if (!/^https?:/.test(location.protocol) || !(D.plot_seconds > 0) || !window.fetch) return;
    var last = document.getElementById("kx-data").textContent;
    setInterval(function () {
      fetch(location.href, {cache: "no-store"}).then(function (r) { return r.text(); })
        .then(function (text) {
          var doc = new DOMParser().parseFromString(text, "text/html");
          var block = doc.getElementById("kx-data");
          if (!block || block.textContent === last) return;
          last = block.textContent;
          render(readData(doc));
        }).catch(function () {});
    }, D.plot_seconds * 1000);
  }

  var data = readData(document);
  render(data);
  follow(data);
})();
