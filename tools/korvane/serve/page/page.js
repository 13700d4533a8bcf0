"use strict";

// The page of `korvane serve`. It asks once which hands there are, and then follows their events; what
// it draws is always the newest of each.

const HISTORY_MS = 60000;
const SLOW_MS = 500; // between two drawings of what changes slowly
const HOLD_MS = 100; // between two requests that move the hand, while the switch is held
const HEAT = [[68, 1, 84], [59, 82, 139], [33, 145, 140], [94, 201, 98], [253, 231, 37]];

const hands = new Map();
let pageToken = "";
let colours = {};

function readColours() {
  const style = getComputedStyle(document.documentElement);
  for (const name of ["accent", "warm", "bad", "bone", "bone-near", "palm", "empty", "line", "text", "dim"]) {
    colours[name] = style.getPropertyValue("--" + name).trim();
  }
}

/** A canvas as large as it is shown, and what to draw on it with, in units of the page. */
function brush(canvas) {
  const ratio = window.devicePixelRatio || 1;
  const width = canvas.clientWidth, height = canvas.clientHeight;
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  const pen = canvas.getContext("2d");
  pen.setTransform(ratio, 0, 0, ratio, 0, 0);
  pen.clearRect(0, 0, width, height);
  return { pen, width, height };
}

function make(tag, className, text) {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}

/** A number with so many digits, and without a sign if it is nothing. */
function fixed(number, digits) {
  const text = number.toFixed(digits);
  return Number(text) === 0 ? text.replace("-", "") : text;
}

/** Writes only what has changed, so that screen readers and the layout stay calm. */
function write(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

function tell(text) {
  const news = document.getElementById("news");
  news.append(make("span", "", text + ". "));
  while (news.childElementCount > 5) news.firstElementChild.remove();
}

// ---- the skeleton: plain, and the same for all models whose joints are known

const FINGERS = {
  index: { base: [2.7, 4.4, 0], length: 8.4 },
  middle: { base: [0.9, 4.8, 0], length: 9.2 },
  ring: { base: [-0.9, 4.5, 0], length: 8.6 },
  little: { base: [-2.6, 3.8, 0], length: 6.8 },
};
const PHALANGES = { 2: [0.56, 0.44], 3: [0.45, 0.31, 0.24] };
const PALM = [[2.2, -4.4, 0], [-2.3, -4.4, 0], [-3.2, 3.6, 0], [-0.9, 4.7, 0], [0.9, 5.0, 0], [3.3, 4.2, 0], [3.2, -1.6, 0]];
// Seen from the palm, a little from above and from the thumb's side.
const TURN = 0.5, TILT = 0.25;

function projected([x, y, z], mirror) {
  const across = x * Math.cos(TURN) - z * Math.sin(TURN);
  const near = x * Math.sin(TURN) + z * Math.cos(TURN);
  return { x: mirror * across, y: y * Math.cos(TILT) - near * Math.sin(TILT), z: near * Math.cos(TILT) + y * Math.sin(TILT) };
}

const sum = (a, b, times) => a.map((value, i) => value + b[i] * times);
const dot = (a, b) => a.reduce((all, value, i) => all + value * b[i], 0);
function unit(a) {
  const length = Math.hypot(...a) || 1;
  return a.map((value) => value / length);
}

/** The points of a chain of bones: it begins in a direction, and each bend turns it towards another one. */
function chain(base, direction, towards, lengths, bends) {
  const side = unit(sum(towards, direction, -dot(towards, direction)));
  const points = [base];
  let angle = 0;
  lengths.forEach((length, i) => {
    angle += bends[i];
    const bone = sum(direction.map((value) => value * Math.cos(angle)), side, Math.sin(angle));
    points.push(sum(points[i], bone, length));
  });
  return points;
}

function fingerPoints(name, angleOf, sign) {
  const { base, length } = FINGERS[name];
  const sideways = sign * (angleOf(name + "_sideways") || 0);
  const bends = ["flexion", "middle", "distal"].map((part) => angleOf(name + "_" + part)).filter((a) => a !== undefined);
  const lengths = (PHALANGES[bends.length] || [1]).map((part) => part * length);
  return chain(base, [-Math.sin(sideways), Math.cos(sideways), 0], [0, 0, 1], lengths, bends);
}

/** The first two joints set the thumb beside the palm or in front of it, the others bend it. */
function thumbPoints(angleOf) {
  const joint = (i) => Math.abs(angleOf("thumb_" + i) || 0);
  const aside = Math.cos(joint(2)), before = Math.sin(joint(2));
  const direction = unit([0.85 * aside, 0.55 * aside - 0.45 * before + 0.4 * joint(1), 0.85 * before]);
  return chain([2.6, -2.4, 0.4], direction, [-0.4, 0.9, 0.1], [3.4, 2.7, 2.1], [joint(3), joint(4), joint(5)]);
}

function drawSkeleton(canvas, angles, side) {
  const { pen, width, height } = brush(canvas);
  const mirror = side === "left" ? -1 : 1;
  const scale = Math.min(width / 17, height / 23);
  const place = (point) => {
    const at = projected(point, mirror);
    return { x: width / 2 + (at.x - mirror * 0.6) * scale, y: height * 0.7 - at.y * scale, z: at.z };
  };
  const angleOf = (name) => angles.get(name);
  pen.lineCap = pen.lineJoin = "round";
  pen.fillStyle = pen.strokeStyle = colours.palm;
  pen.lineWidth = scale;
  pen.beginPath();
  for (const point of PALM.map(place)) pen.lineTo(point.x, point.y);
  pen.closePath();
  pen.stroke();
  pen.fill();
  const fingers = Object.keys(FINGERS).map((name) => fingerPoints(name, angleOf, mirror));
  const bones = [];
  for (const points of [...fingers, thumbPoints(angleOf)].map((line) => line.map(place))) {
    for (let i = 1; i < points.length; ++i) bones.push([points[i - 1], points[i], i]);
  }
  bones.sort((a, b) => a[0].z + a[1].z - b[0].z - b[1].z);
  for (const [from, to, order] of bones) drawBone(pen, from, to, scale, order);
}

function drawBone(pen, from, to, scale, order) {
  const line = (colour, part) => {
    pen.strokeStyle = colour;
    pen.lineWidth = scale * (1.35 - 0.13 * order) * part;
    pen.beginPath();
    pen.moveTo(from.x, from.y);
    pen.lineTo(to.x, to.y);
    pen.stroke();
  };
  line(colours.palm, 1.25);
  line(colours.bone, 1);
  pen.globalAlpha = Math.max(0, Math.min(1, (from.z + to.z) / 12));
  line(colours["bone-near"], 1);
  pen.globalAlpha = 1;
  pen.fillStyle = colours.accent;
  pen.beginPath();
  pen.arc(from.x, from.y, scale * 0.3, 0, 7);
  pen.fill();
}

/** For models whose joints aren't known: how far each position is. */
function drawBars(canvas, positions, greatest) {
  const { pen, width, height } = brush(canvas);
  const step = width / positions.length, bottom = height - 20;
  pen.textAlign = "center";
  pen.font = "11px system-ui, sans-serif";
  positions.forEach((position, i) => {
    const part = Math.max(0, Math.min(1, position / greatest));
    pen.fillStyle = colours.empty;
    pen.fillRect(i * step + step * 0.15, 4, step * 0.7, bottom - 4);
    pen.fillStyle = colours.accent;
    pen.fillRect(i * step + step * 0.15, bottom - part * (bottom - 4), step * 0.7, part * (bottom - 4));
    pen.fillStyle = colours.dim;
    pen.fillText(String(i + 1), (i + 0.5) * step, height - 5);
  });
}

// ---- the last minute, and touch

/** Values with the time when they came; old ones go. */
class History {
  constructor() { this.points = []; }
  add(now, value, bad) {
    this.points.push({ now, value, bad });
    while (this.points[0].now < now - HISTORY_MS) this.points.shift();
  }
  draw(canvas, colour, leastSpan) {
    const { pen, width, height } = brush(canvas);
    if (width === 0 || this.points.length === 0) return;
    const values = this.points.map((point) => point.value);
    const low = Math.min(...values), span = Math.max(Math.max(...values) - low, leastSpan);
    const end = this.points[this.points.length - 1].now;
    const x = (point) => width * (1 - (end - point.now) / HISTORY_MS);
    pen.fillStyle = colours.bad;
    for (const point of this.points) if (point.bad) pen.fillRect(x(point) - 1, 0, 2, height);
    pen.strokeStyle = colours.line;
    pen.lineWidth = 1;
    pen.strokeRect(0, height - 0.5, width, 0);
    pen.strokeStyle = colour;
    pen.lineWidth = 1.5;
    pen.beginPath();
    for (const point of this.points) pen.lineTo(x(point), height - 2 - (height - 4) * (point.value - low) / span);
    pen.stroke();
  }
}

function heat(part) {
  const at = Math.max(0, Math.min(0.9999, part)) * (HEAT.length - 1);
  const from = HEAT[Math.floor(at)], to = HEAT[Math.floor(at) + 1], rest = at % 1;
  return `rgb(${from.map((value, i) => Math.round(value + (to[i] - value) * rest)).join(" ")})`;
}

function drawTouch(canvas, cells, greatest) {
  const { pen, width, height } = brush(canvas);
  const columns = Math.ceil(Math.sqrt(cells.length)), size = Math.min(width, height) / columns;
  cells.forEach((cell, i) => {
    pen.fillStyle = cell === 0 ? colours.empty : heat(cell / greatest);
    pen.fillRect((i % columns) * size, Math.floor(i / columns) * size, size - 1, size - 1);
  });
}

function drawScale(canvas) {
  const { pen, width, height } = brush(canvas);
  for (let x = 0; x < width; ++x) {
    pen.fillStyle = heat(x / width);
    pen.fillRect(x, 0, 1, height);
  }
}

// ---- one hand

function whyGone({ kind, text, advice }) {
  return (kind === "REFUSED" ? "" : "No answer: ") + text + (advice ? ". " + advice : "");
}

class HandView {
  constructor(hand, controlAllowed) {
    this.hand = hand;
    this.root = document.getElementById("hand").content.cloneNode(true).firstElementChild;
    this.drawnSlowly = 0;
    this.histories = { currents: [], temperatures: [] };
    this.greatestTouch = 16;
    this.sensors = new Map();
    const title = this.find("h2");
    title.id = "hand-" + hand.hand;
    title.textContent = `${hand.class} ${hand.address}`;
    this.root.setAttribute("aria-labelledby", title.id);
    this.find("section.joints").hidden = hand.joints.length === 0;
    this.find("section.touch").hidden = true;
    this.find("section.motors h3").firstChild.textContent = hand.motors ? "Motors " : "Readings ";
    this.makeJoints();
    this.drawIdentity(hand);
    this.control = null;
    this.find("section.control").hidden = !(controlAllowed && hand.motors);
    if (controlAllowed && hand.motors) this.control = new Control(this);
  }

  find(selector) { return this.root.querySelector(selector); }

  drawIdentity(hand) {
    this.fill("identity", [
      ["product", hand.product_model], ["serial number", hand.serial_number], ["firmware", hand.firmware],
      ["hardware", hand.hardware], ["id", hand.id], ["side", hand.side],
    ]);
  }

  fill(section, rows) {
    const list = this.find(`section.${section} dl`);
    while (list.childElementCount < 2 * rows.length) list.append(make("dt"), make("dd"));
    rows.forEach(([name, value], i) => {
      write(list.children[2 * i], name);
      write(list.children[2 * i + 1], String(value));
    });
  }

  makeJoints() {
    const body = this.find("section.joints tbody");
    this.joints = this.hand.joints.map((joint) => {
      const row = make("tr");
      const name = make("th", "", joint.name.replace("_", " "));
      name.scope = "row";
      const bar = make("span", "bar");
      const part = make("td"), number = make("td", "number");
      bar.append(make("i"));
      part.append(bar);
      row.append(name, part, number);
      body.append(row);
      return { joint, bar: bar.firstChild, number };
    });
  }

  /** Columns only for what the model tells; they don't change any more. */
  makeMotors(data) {
    const head = this.find("section.motors thead tr");
    const titles = { currents: "current", temperatures: "temperature" };
    const told = Object.keys(titles).filter((key) => data[key]);
    for (const [text, span] of [["#", 1], ["position", 2], ...told.map((key) => [titles[key], 2])]) {
      const cell = make("th", span === 1 ? "count" : "", text);
      cell.scope = "col";
      cell.colSpan = span;
      head.append(cell);
    }
    const columns = make("colgroup");
    for (const name of ["count", "", "number", ...told.flatMap(() => ["number", ""])]) columns.append(make("col", name));
    this.find("section.motors table").prepend(columns);
    this.find("section.motors .errors").hidden = !data.errors;
    this.motors = data.positions.map((_, i) => {
      const row = make("tr");
      const name = make("th", "", String(i + 1));
      name.scope = "row";
      const bar = make("span", "bar"), part = make("td"), position = make("td", "number");
      bar.append(make("i"));
      part.append(bar);
      row.append(name, part, position);
      const cells = {};
      for (const key of told) {
        const number = make("td", "number"), cell = make("td"), canvas = make("canvas", "history");
        canvas.setAttribute("role", "img");
        canvas.setAttribute("aria-label", `${titles[key]} of motor ${i + 1} in the last minute`);
        cell.append(canvas);
        row.append(number, cell);
        this.histories[key][i] = new History();
        cells[key] = { number, canvas };
      }
      this.find("section.motors tbody").append(row);
      return { row, bar: bar.firstChild, position, cells };
    });
  }

  /** Takes an event; it is drawn with the next picture of the screen. */
  take(data) {
    const now = performance.now();
    if (data.state === "live") {
      if (!this.motors) this.makeMotors(data);
      this.remember(data, now);
      this.latest = data;
    }
    if (!this.waits) requestAnimationFrame(() => { this.waits = false; this.draw(); });
    this.waits = true;
    this.newest = data;
  }

  remember(data, now) {
    if (now - (this.remembered || 0) < SLOW_MS) return;
    this.remembered = now;
    for (const key of ["currents", "temperatures"]) {
      (data[key] || []).forEach((value, i) => {
        this.histories[key][i]?.add(now, value, Boolean(data.errors && data.errors[i]));
      });
    }
  }

  draw() {
    const data = this.newest;
    this.drawState(data);
    this.control?.show(data);
    if (data.state !== "live") return;
    this.drawPose(data);
    this.drawMotors(data);
    if (data.touch) this.drawTouch(data.touch);
    if (performance.now() - this.drawnSlowly < SLOW_MS) return;
    this.drawnSlowly = performance.now();
    this.drawHistories();
    const link = data.link;
    this.fill("link", [
      ["readings", `${link.rate_hz.toFixed(1)} of ${this.hand.rate_hz} a second`],
      ["lost", `${link.lost} of ${link.readings}`],
      ["round trip", `${(link.p50_us / 1000).toFixed(2)} ms, p99 ${(link.p99_us / 1000).toFixed(2)} ms`],
      ["requests", `${link.requests}, ${link.timeouts} without an answer, ${link.bad_replies} with a bad one`],
      ["not sent", link.send_failures],
      ["frames for others", link.unmatched_frames],
    ]);
  }

  drawState(data) {
    const state = this.find(".state");
    const before = state.textContent;
    if (before !== "…" && before !== data.state) {
      tell(`${this.hand.address} ${{ gone: "is gone", updating: "is updated", live: "is back" }[data.state]}`);
      if (data.state === "live") this.learnIdentity();
    }
    this.root.classList.toggle("gone", data.state !== "live");
    write(state, data.state);
    write(this.find(".trouble"), data.state === "gone" ? whyGone(data.failure) : this.control?.trouble || "");
    this.drawUpdate(data.update);
  }

  /** An update changes the firmware. Where the server has gone, or has other hands now, nothing is learned. */
  async learnIdentity() {
    const told = await fetch("/api/hands").then((answer) => answer.json()).catch(() => ({}));
    const hand = told.hands?.find((other) => other.hand === this.hand.hand);
    if (hand) this.drawIdentity(hand);
  }

  drawUpdate(update) {
    const view = this.find(".update");
    view.hidden = !update;
    if (!update) return;
    const bar = view.querySelector("progress");
    bar.max = update.total || 1;
    if (update.total) bar.value = update.done;
    else bar.removeAttribute("value");
    write(view.querySelector("output"), update.total ? `${update.done} of ${update.total} packets` : "begins");
  }

  drawPose(data) {
    const figure = this.find(".figure");
    if (!data.angles || !this.joints.length) {
      figure.setAttribute("aria-label", "Positions as bars; the table of motors has the numbers");
      drawBars(figure, data.positions, this.hand.position_max);
      return;
    }
    const angles = new Map(this.hand.joints.map((joint, i) => [joint.name, data.angles[i]]));
    figure.setAttribute("aria-label", `A ${this.hand.side} hand; the table of joints has the angles`);
    drawSkeleton(figure, angles, this.hand.side);
    this.joints.forEach(({ joint, bar, number }, i) => {
      const part = (data.angles[i] - joint.lower) / (joint.upper - joint.lower || 1);
      bar.style.transform = `scaleX(${Math.max(0, Math.min(1, part))})`;
      write(number, fixed(data.angles[i], 3));
    });
  }

  drawMotors(data) {
    const bad = [];
    this.motors.forEach(({ row, bar, position, cells }, i) => {
      bar.style.transform = `scaleX(${Math.max(0, Math.min(1, data.positions[i] / this.hand.position_max))})`;
      write(position, String(data.positions[i]));
      for (const [key, cell] of Object.entries(cells)) write(cell.number, String(data[key]?.[i] ?? ""));
      const error = data.error_names?.[i] || "";
      row.classList.toggle("bad", Boolean(error));
      if (error) bad.push(`motor ${i + 1}: ${error}`);
    });
    const errors = this.find("section.motors .errors"), text = bad.join("; ") || "No errors";
    if (bad.length && errors.textContent !== text) tell(`${this.hand.address} ${text}`);
    write(errors, text);
    errors.classList.toggle("bad", bad.length > 0);
  }

  drawHistories() {
    this.motors.forEach(({ cells }, i) => {
      for (const [key, cell] of Object.entries(cells)) {
        this.histories[key][i].draw(cell.canvas, key === "currents" ? colours.accent : colours.warm, 10);
      }
    });
  }

  drawTouch(touch) {
    this.find("section.touch").hidden = false;
    for (const cells of Object.values(touch)) {
      for (const cell of cells) while (cell > this.greatestTouch) this.greatestTouch = Math.min(255, this.greatestTouch * 2);
    }
    for (const [name, cells] of Object.entries(touch)) {
      if (!this.sensors.has(name)) this.sensors.set(name, this.makeSensor(name));
      const { canvas, total } = this.sensors.get(name);
      const all = cells.reduce((sum, cell) => sum + cell, 0);
      write(total, String(all));
      canvas.setAttribute("aria-label", `${name}: ${cells.length} cells, sum ${all}`);
      drawTouch(canvas, cells, this.greatestTouch);
    }
    const scale = this.find(".scale");
    write(scale.querySelector("output"), String(this.greatestTouch));
    drawScale(scale.querySelector("canvas"));
  }

  makeSensor(name) {
    const figure = make("figure"), canvas = make("canvas"), caption = make("figcaption", "", name), total = make("span");
    canvas.setAttribute("role", "img");
    caption.append(total);
    figure.append(canvas, caption);
    this.find(".sensors").append(figure);
    return { canvas, total };
  }
}

// ---- control: only while the switch is held, and only for one browser at a time

async function post(path, body, secret) {
  const answer = await fetch(path, {
    method: "POST",
    headers: { "Content-Type": "application/json", "X-Korvane-Page": pageToken, ...(secret ? { "X-Korvane-Control": secret } : {}) },
    body: JSON.stringify(body),
    signal: AbortSignal.timeout(1000),
  });
  const told = await answer.json();
  if (!answer.ok) throw Object.assign(new Error(told.error.text), { status: answer.status });
  return told;
}

class Control {
  constructor(view) {
    this.view = view;
    this.path = `/api/hands/${view.hand.hand}/`;
    this.secret = "";
    this.trouble = "";
    this.held = null; // the press of the switch that holds now
    this.moving = Promise.resolve(); // until the last press has sent its stop
    this.sliders = [];
    this.take = view.find(".take");
    this.hold = view.find(".hold");
    this.mode = view.find(".mode");
    for (let i = 0; i < view.hand.gestures; ++i) this.mode.append(new Option("gesture " + i, String(i)));
    this.take.addEventListener("click", () => (this.secret ? this.giveUp() : this.takeOver()));
    this.hold.addEventListener("pointerdown", (event) => {
      this.hold.setPointerCapture(event.pointerId);
      this.press();
    });
    for (const end of ["pointerup", "pointercancel", "lostpointercapture", "blur", "keyup"]) {
      this.hold.addEventListener(end, () => this.release());
    }
    this.hold.addEventListener("keydown", (event) => {
      if (event.key !== " " && event.key !== "Enter") return;
      event.preventDefault();
      this.press();
    });
    this.hold.addEventListener("contextmenu", (event) => event.preventDefault());
    setInterval(() => { if (this.secret && !this.held) this.send("control", { action: "keep" }); }, 1000);
  }

  makeSliders(data) {
    const { hand } = this.view;
    const joints = hand.joints.filter((joint) => joint.can_be_commanded);
    const rows = joints.length
      ? joints.map((joint) => ({ kind: "joints", name: joint.name, text: joint.name.replace("_", " "), from: joint.lower, to: joint.upper,
                                 step: 0.001, now: () => this.view.latest.angles[hand.joints.indexOf(joint)] }))
      : data.positions.map((_, i) => ({ kind: "motors", name: String(i + 1), text: `motor ${i + 1}`, from: 0, to: hand.position_max,
                                        step: 1, now: () => this.view.latest.positions[i] }));
    this.sliders = rows.map((row) => this.makeSlider(row));
  }

  makeSlider(row) {
    const label = make("label"), input = make("input"), output = make("output");
    const digits = row.step < 1 ? 2 : 0;
    Object.assign(input, { type: "range", min: row.from, max: row.to, step: row.step, disabled: true });
    const slider = { row, input, moved: false };
    input.addEventListener("input", () => {
      slider.moved = true;
      this.mode.value = "";
      slider.show();
    });
    slider.show = () => write(output, fixed(Number(input.value), digits));
    label.append(make("span", "", row.text), input, output);
    this.view.find(".sliders").append(label);
    return slider;
  }

  /** What the sliders stand at where nobody moves them: the hand as it is. */
  follow() {
    for (const slider of this.sliders) {
      if (slider.moved && this.secret) continue;
      slider.input.value = slider.row.now();
      slider.show();
    }
  }

  target() {
    if (this.mode.value !== "") return { gesture: Number(this.mode.value) };
    const moved = this.sliders.filter((slider) => slider.moved);
    if (!moved.length) return null;
    const values = moved.map(({ row, input }) => [row.name, Math.max(row.from, Math.min(row.to, Number(input.value)))]);
    return { [moved[0].row.kind]: Object.fromEntries(values) };
  }

  async send(what, body) {
    try {
      await post(this.path + what, body, this.secret);
      if (what === "move") this.trouble = ""; // a stop leaves standing why the hand stopped
      return true;
    } catch (error) {
      this.trouble = error.status ? error.message : "korvane serve doesn't answer";
      if (error.status === 409) this.lose();
      return false;
    }
  }

  async takeOver() {
    try {
      const told = await post(this.path + "control", { action: "take" });
      this.secret = told.control;
      this.owner = told.owner;
      this.trouble = "";
      for (const slider of this.sliders) slider.moved = false;
    } catch (error) {
      this.trouble = error.message;
    }
    this.enable();
  }

  async giveUp() {
    this.release();
    await this.moving;
    await this.send("control", { action: "give_up" });
    this.lose();
  }

  lose() {
    this.secret = "";
    this.release();
    this.enable();
  }

  enable() {
    write(this.take, this.secret ? "Give up control" : "Take control");
    this.hold.disabled = !this.secret;
    for (const { input } of this.sliders) input.disabled = !this.secret;
  }

  press() {
    if (this.held || !this.secret) return;
    const press = {};
    press.ended = new Promise((end) => { press.end = end; });
    this.held = press;
    this.hold.setAttribute("aria-pressed", "true");
    this.moving = this.moving.then(() => this.move(press));
  }

  release() {
    this.held?.end();
    this.held = null;
    this.hold.setAttribute("aria-pressed", "false");
  }

  /** Moves the hand as long as one press holds. One request after the other, as they could overtake each other: the stop comes
      last, and before the first of the next press. */
  async move(press) {
    while (this.held === press) {
      const target = this.target();
      if (!target) this.trouble = "Move a slider first, or choose a gesture";
      if (!target || !(await this.send("move", target))) break;
      await Promise.race([press.ended, new Promise((done) => setTimeout(done, HOLD_MS))]);
    }
    if (this.held === press) this.release();
    if (this.secret) await this.send("stop", {});
  }

  show(data) {
    if (!this.sliders.length && data.positions) {
      this.makeSliders(data);
      this.enable();
    }
    if (data.state === "live") this.follow();
    const { owner } = data.control;
    if (this.secret && owner !== null && owner !== this.owner) this.lose();
    if (this.secret && data.state !== "live") this.lose();
    const mine = this.secret !== "";
    this.take.disabled = data.state !== "live" || (!mine && owner !== null);
    write(this.view.find(".owner"), mine ? `You control this hand, as browser ${this.owner}.`
      : owner === null ? "Nobody controls this hand." : `Browser ${owner} controls this hand.`);
  }
}

// ---- all of it

function connected(is) {
  const state = document.getElementById("connection");
  write(state, is ? "Connected" : "The connection to korvane serve is lost; trying again …");
  state.classList.toggle("bad", !is);
  if (!is) releaseAll();
}

function releaseAll() {
  for (const view of hands.values()) view.control?.release();
}

async function start() {
  readColours();
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", readColours);
  const told = await (await fetch("/api/hands")).json();
  pageToken = told.page_token;
  for (const hand of told.hands) {
    const view = new HandView(hand, told.control_allowed);
    hands.set(hand.hand, view);
    document.getElementById("hands").append(view.root);
  }
  const events = new EventSource("/api/events");
  events.onopen = () => connected(true);
  events.onerror = () => connected(false);
  events.onmessage = (event) => {
    const data = JSON.parse(event.data);
    hands.get(data.hand)?.take(data);
  };
}

window.addEventListener("blur", releaseAll);
document.addEventListener("visibilitychange", releaseAll);
window.addEventListener("pagehide", releaseAll);
start().catch(() => connected(false));
