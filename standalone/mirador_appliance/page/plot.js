// A plot of bytes a second over time. Samples are steps: a rate is an average over the time from one report to the next,
// and between reports that did not come nothing is drawn.

const UNITS = ["B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];
const EDGE = {left: 74, right: 10, top: 8, bottom: 20};
const SVG = "http://www.w3.org/2000/svg";
const TIGHT = 0.5; // seconds between two samples that count as one after the other

export function size(count) {
  let value = count, unit = 0;
  while (value >= 1024 && unit < UNITS.length - 1) { value /= 1024; unit++; }
  const digits = unit === 0 || value >= 100 ? 0 : value >= 10 ? 1 : 2;
  return `${value.toFixed(digits)} ${UNITS[unit]}`;
}

export function clock(seconds, withSeconds = true) {
  const time = new Date(seconds * 1000).toTimeString();
  return time.slice(0, withSeconds ? 8 : 5);
}

// A line's value, which is a whole number of its unit.
function tick(rate) {
  const unit = Math.min(UNITS.length - 1, Math.floor(Math.log2(rate) / 10));
  const value = rate / 1024 ** unit;
  return `${Number.isInteger(value) ? value : value.toFixed(1)} ${UNITS[unit]}`;
}

// The step between two lines of the grid: the least power of two with at most four lines.
function grid(most) {
  let step = 1;
  while (step * 4 < most) step *= 2;
  return step;
}

function timeStep(seconds, width) {
  const lines = Math.max(2, Math.floor(width / 80));
  return [60, 120, 300, 600, 900, 1800, 3600, 7200].find(step => seconds / step <= lines) || 14400;
}

function element(name, attributes, parent, text) {
  const made = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  if (text !== undefined) made.textContent = text;
  parent.append(made);
  return made;
}

// Runs of samples without a gap between them.
function runs(samples) {
  const found = [];
  for (const sample of samples) {
    const last = found.at(-1);
    if (last && sample.start - last.at(-1).end <= TIGHT) last.push(sample); else found.push([sample]);
  }
  return found;
}

export class Plot {
  // figure: an empty <figure>; kind: class and title are made of it.
  constructor(figure, kind, title) {
    figure.className = kind;
    this.title = title;
    this.samples = [];
    this.window = 900;
    this.chosen = null; // start of the sample under the pointer
    const caption = document.createElement("figcaption");
    caption.append(Object.assign(document.createElement("b"), {textContent: title}));
    this.output = caption.appendChild(document.createElement("output"));
    figure.append(caption);
    this.svg = element("svg", {role: "img", tabindex: "0"}, figure);
    this.svg.addEventListener("pointermove", event => this.#choose(this.#under(event)));
    this.svg.addEventListener("pointerleave", () => this.#choose(null));
    this.svg.addEventListener("blur", () => this.#choose(null));
    this.svg.addEventListener("keydown", event => this.#walk(event));
    new ResizeObserver(() => this.draw()).observe(this.svg);
  }

  // samples: [{start, end (seconds since 1970), bytes}], oldest first; now, since: the end of the time shown, and the
  // time before which nothing can be known; isSilent: whether the daemon is gone.
  show(samples, now, since, window, isSilent) {
    Object.assign(this, {samples, now, since, window, isSilent});
    this.draw();
  }

  #visible() {
    return this.samples.filter(sample => sample.end > this.now - this.window);
  }

  #x(time) {
    const room = this.width - EDGE.left - EDGE.right;
    return EDGE.left + Math.max(0, Math.min(1, (time - this.now + this.window) / this.window)) * room;
  }

  #y(rate) {
    return this.height - EDGE.bottom - rate / this.top * (this.height - EDGE.bottom - EDGE.top);
  }

  draw() {
    this.width = this.svg.clientWidth, this.height = this.svg.clientHeight;
    if (this.now === undefined || !this.width) return;
    this.svg.setAttribute("viewBox", `0 0 ${this.width} ${this.height}`);
    this.svg.replaceChildren();
    const samples = this.#visible();
    const most = Math.max(0, ...samples.map(sample => sample.rate));
    const step = most > 0 ? grid(most) : 1024;
    this.top = step * Math.max(1, Math.ceil(most / step));
    this.#drawGaps(samples);
    this.#drawAxes(step);
    for (const run of runs(samples)) this.#drawRun(run);
    if (!samples.length) {
      element("text", {x: (this.width + EDGE.left) / 2, y: this.height / 2, "text-anchor": "middle"}, this.svg,
              "nothing has been reported in this time");
    }
    this.#drawChosen(samples);
    this.svg.setAttribute("aria-label", `${this.title}, at most ${size(most)}/s. ${this.output.textContent}`);
  }

  #drawGaps(samples) {
    let from = Math.max(this.since, this.now - this.window);
    const until = this.isSilent ? [{start: this.now, end: this.now}] : [];
    for (const sample of [...samples, ...until]) {
      if (sample.start - from > TIGHT) {
        const x = this.#x(from);
        element("rect", {class: "gap", x, y: EDGE.top, width: Math.max(0, this.#x(sample.start) - x),
                         height: this.height - EDGE.bottom - EDGE.top}, this.svg);
      }
      from = Math.max(from, sample.end);
    }
  }

  #drawAxes(step) {
    for (let rate = 0; rate <= this.top; rate += step) {
      const y = this.#y(rate);
      element("line", {class: "grid", x1: EDGE.left, x2: this.width - EDGE.right, y1: y, y2: y}, this.svg);
      element("text", {x: EDGE.left - 6, y: y + 4, "text-anchor": "end"}, this.svg, rate ? `${tick(rate)}/s` : "0");
    }
    const every = timeStep(this.window, this.width - EDGE.left);
    const zone = new Date(this.now * 1000).getTimezoneOffset() * 60;
    const first = Math.ceil((this.now - this.window - zone) / every) * every + zone;
    for (let time = first; time <= this.now; time += every) {
      const x = this.#x(time), bottom = this.height - EDGE.bottom;
      element("line", {class: "grid", x1: x, x2: x, y1: bottom, y2: bottom + 4}, this.svg);
      if (x > EDGE.left + 14 && x < this.width - 16)
        element("text", {x, y: this.height - 5, "text-anchor": "middle"}, this.svg, clock(time, false));
    }
  }

  #drawRun(run) {
    const bottom = this.#y(0);
    const points = run.flatMap(sample =>
      [[this.#x(sample.start), this.#y(sample.rate)], [this.#x(sample.end), this.#y(sample.rate)]])
      .map(([x, y]) => `${x.toFixed(1)},${y.toFixed(1)}`);
    const first = this.#x(run[0].start).toFixed(1), last = this.#x(run.at(-1).end).toFixed(1);
    element("path", {class: "area", d: `M${first},${bottom} L${points.join(" ")} L${last},${bottom} Z`}, this.svg);
    element("path", {class: "curve", d: `M${points.join(" ")}`}, this.svg);
  }

  // The sample that is pointed at, else the latest.
  #drawChosen(samples) {
    const chosen = samples.find(sample => sample.start === this.chosen);
    const sample = chosen || samples.at(-1);
    this.output.textContent = sample
      ? `${clock(sample.start)} to ${clock(sample.end)}: ${size(sample.rate)}/s, ${size(sample.bytes)}` : "";
    if (chosen) {
      const x = (this.#x(chosen.start) + this.#x(chosen.end)) / 2;
      element("line", {class: "cursor", x1: x, x2: x, y1: EDGE.top, y2: this.height - EDGE.bottom}, this.svg);
    }
  }

  #under(event) {
    const box = this.svg.getBoundingClientRect();
    const share = (event.clientX - box.left - EDGE.left) / (box.width - EDGE.left - EDGE.right);
    const time = this.now - this.window + share * this.window;
    return this.#visible().find(sample => sample.start <= time && time < sample.end) || null;
  }

  #choose(sample) {
    const start = sample ? sample.start : null;
    if (start === this.chosen) return;
    this.chosen = start;
    this.draw();
  }

  #walk(event) {
    const way = {ArrowLeft: -1, ArrowRight: 1}[event.key];
    const samples = this.#visible();
    if (!way || !samples.length) return;
    event.preventDefault();
    const at = samples.findIndex(sample => sample.start === this.chosen);
    const next = at < 0 ? samples.length - 1 : Math.max(0, Math.min(samples.length - 1, at + way));
    this.#choose(samples[next]);
  }
}
