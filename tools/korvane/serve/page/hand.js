// One hand on the page: what it tells, drawn with the next picture of the screen.

import { colours } from "./canvas.js";
import { Control } from "./control.js";
import { fixed, make, tell, write } from "./elements.js";
import { drawScale, drawTouch, History } from "./readings.js";
import { drawBars, drawSkeleton } from "./skeleton.js";

const SLOW_MS = 500; // between two drawings of what changes slowly

function whyGone({ kind, text, advice }) {
  return (kind === "REFUSED" ? "" : "No answer: ") + text + (advice ? ". " + advice : "");
}

export class HandView {
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
