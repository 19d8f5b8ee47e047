// The last runs, drawn over time and listed.

import { arrange, byId, duration, element, setAttribute, setText, shownName, timeOfDay } from "./dom.js";
import { outcomes, reason } from "./history.js";

const spans = [["1 minute", 60_000], ["5 minutes", 300_000], ["30 minutes", 1_800_000], ["3 hours", 10_800_000], ["1 day", 86_400_000], ["1 week", 604_800_000]];
const lanes = 8;
const laneHeight = 31;
const axisHeight = 20;
const right = 18; // room for the last run's mark
const listed = 60;

export class TimeLine {
  #span = 0; // chosen by hand, or 0
  #marks = new Map(); // run's id -> {group, ...}
  #rows = new Map();
  #current = 0; // id of the run that the tab key reaches
  #shown = []; // runs in the drawing, oldest first
  #svg = element("svg", { role: "group", "aria-label": "Time line of the runs: the arrow keys go from run to run" });
  #axis = element("g", { class: "axis", "aria-hidden": "true" });
  #names = element("g", { "aria-hidden": "true" });
  #runs = element("g");

  constructor(history) {
    this.history = history;
    this.#svg.append(this.#axis, this.#names, this.#runs);
    byId("timeline").append(this.#svg);
    byId("span").append(...spans.map(([text, span]) => element("option", { value: span }, text)));
    byId("span").addEventListener("change", ({ target }) => {
      this.#span = Number(target.value);
      this.draw();
    });
    this.#svg.addEventListener("keydown", (event) => this.#move(event));
    history.addEventListener("change", () => this.draw());
    new ResizeObserver(() => this.draw()).observe(byId("timeline"));
    setInterval(() => document.visibilityState === "visible" && this.#drawLine(), 1000);
  }

  draw() {
    const { runs, available, known, error } = this.history;
    const empty = byId("runs-empty");
    setText(byId("runs-error"), error);
    empty.hidden = !known || runs.length > 0;
    setText(empty, available ? "Nothing has run yet." : "This host keeps no history of runs.");
    for (const id of ["timeline", "run-list", "run-detail", "span"]) byId(id).hidden = runs.length === 0;
    this.#drawLine();
    this.#drawList();
  }

  #drawList() {
    const kept = this.history.runs.slice(0, listed);
    const rows = kept.map((run) => {
      const row = this.#rows.get(run.id) ?? this.#makeRow(run);
      setAttribute(row.node, "data-outcome", run.outcome);
      setText(row.glyph, outcomes[run.outcome]?.glyph ?? "");
      setText(row.text, run.outcome === "running" ? "running" : `${reason(run)}, ${duration(run.end - run.begin)}`);
      return row.node;
    });
    const ids = new Set(kept.map(({ id }) => id));
    for (const id of this.#rows.keys()) if (!ids.has(id)) this.#rows.delete(id);
    arrange(byId("run-list"), rows);
  }

  #makeRow(run) {
    const row = { glyph: element("span", { class: "glyph", "aria-hidden": "true" }), text: element("span", { class: "reason" }) };
    row.node = element("li", { "data-run": run.id }, element("time", {}, timeOfDay(run.begin)), row.glyph,
      element("span", { class: "entry" }, element("b", {}, shownName(run.behavior)), " ", row.text, run.startedBy ? element("span", { class: "muted" }, ` · by ${run.startedBy}`) : null));
    this.#rows.set(run.id, row);
    return row;
  }

  #drawLine() {
    const width = byId("timeline").clientWidth;
    if (!width || !this.history.runs.length) return;
    const now = this.history.now();
    const span = this.#span || this.#fittingSpan(now);
    if (!this.#span) byId("span").value = String(span);
    const x = (time) => ((time - now + span) / span) * (width - right);
    const inside = this.history.runs.filter(({ end }) => (end ?? now) >= now - span);
    const running = inside.filter(({ outcome }) => outcome === "running");
    const names = [...new Set([...running, ...inside].map(({ behavior }) => behavior))].slice(0, lanes);
    this.#shown = inside.filter(({ behavior }) => names.includes(behavior)).reverse();
    const height = Math.max(1, names.length) * laneHeight + axisHeight;
    setAttribute(this.#svg, "width", width);
    setAttribute(this.#svg, "height", height);
    setAttribute(this.#svg, "viewBox", `0 0 ${width} ${height}`);
    this.#drawAxis(width, height, now, span, x);
    this.#names.replaceChildren(...names.map((name, lane) => element("text", { x: 0, y: lane * laneHeight + 12 }, shownName(name))));
    if (!names.length) this.#names.append(element("text", { x: 0, y: 20 }, "Nothing ran in this time."));
    if (!this.#shown.some(({ id }) => id === this.#current)) this.#current = this.#shown.at(-1)?.id ?? 0;
    arrange(this.#runs, this.#shown.map((run) => {
      const begin = Math.max(0, x(run.begin));
      return this.#mark(run, begin, Math.max(begin + 4, x(run.end ?? now)), names.indexOf(run.behavior) * laneHeight + 17);
    }));
    const ids = new Set(this.#shown.map(({ id }) => id));
    for (const id of this.#marks.keys()) if (!ids.has(id)) this.#marks.delete(id);
  }

  /** The shortest that holds the last ten runs. */
  #fittingSpan(now) {
    const oldest = this.history.runs[Math.min(10, this.history.runs.length) - 1];
    return (spans.find(([, span]) => oldest.begin >= now - span) ?? spans.at(-1))[1];
  }

  #drawAxis(width, height, now, span, x) {
    const steps = width > 420 ? 6 : 3;
    const parts = [element("line", { x1: 0, x2: width, y1: height - axisHeight, y2: height - axisHeight })];
    for (let step = 0; step <= steps; ++step) {
      const at = x(now - span + (span * step) / steps);
      const time = now - span + (span * step) / steps;
      const text = step === steps ? "now" : span > 86_400_000 ? new Date(time).toLocaleDateString([], { day: "numeric", month: "short" })
        : timeOfDay(time, { hour: "2-digit", minute: "2-digit", second: span < 600_000 ? "2-digit" : undefined }).split(" ").at(-1);
      parts.push(element("line", { x1: at, x2: at, y1: 0, y2: height - axisHeight }),
        element("text", { x: at, y: height - 6, "text-anchor": step === 0 ? "start" : step === steps ? "end" : "middle" }, text));
    }
    this.#axis.replaceChildren(...parts);
  }

  #mark(run, begin, end, y) {
    let mark = this.#marks.get(run.id);
    if (!mark) {
      const tell = () => this.#select(run.id);
      mark = { bar: element("rect", { height: 10, rx: 3 }), glyph: element("text"), group: element("g", { role: "img", class: "run", focus: tell, pointerenter: tell, click: tell }) };
      mark.area = element("rect", { class: "area", height: 20 }); // what a finger can hit
      mark.group.append(mark.area, mark.bar, mark.glyph);
      this.#marks.set(run.id, mark);
    }
    setAttribute(mark.group, "data-outcome", run.outcome);
    setAttribute(mark.group, "aria-label", sentence(run));
    setAttribute(mark.group, "tabindex", run.id === this.#current ? "0" : "-1");
    for (const [name, value] of Object.entries({ x: begin.toFixed(1), y, width: (end - begin).toFixed(1) })) setAttribute(mark.bar, name, value);
    for (const [name, value] of Object.entries({ x: (begin - 4).toFixed(1), y: y - 5, width: (end - begin + 20).toFixed(1) })) setAttribute(mark.area, name, value);
    setAttribute(mark.glyph, "x", (end + 3).toFixed(1));
    setAttribute(mark.glyph, "y", y + 9.5);
    setText(mark.glyph, outcomes[run.outcome]?.glyph ?? "");
    return mark.group;
  }

  #select(id) {
    const run = this.#shown.find((each) => each.id === id);
    if (!run) return;
    this.#marks.get(this.#current)?.group.setAttribute("tabindex", "-1");
    this.#current = id;
    this.#marks.get(id).group.setAttribute("tabindex", "0");
    setText(byId("run-detail"), sentence(run));
    setAttribute(byId("run-detail"), "data-outcome", run.outcome);
  }

  #move(event) {
    const at = this.#shown.findIndex(({ id }) => id === this.#current);
    const to = { ArrowLeft: at - 1, ArrowRight: at + 1, Home: 0, End: this.#shown.length - 1 }[event.key];
    if (to === undefined || !this.#shown[to]) return;
    event.preventDefault();
    this.#marks.get(this.#shown[to].id).group.focus();
  }
}

function sentence(run) {
  const start = `${shownName(run.behavior)}, started ${timeOfDay(run.begin)}${run.startedBy ? ` by ${run.startedBy}` : ""}: `;
  return run.outcome === "running" ? `${start}running` : `${start}${reason(run)}, after ${duration(run.end - run.begin)}`;
}
