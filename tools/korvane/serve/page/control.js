// Control: only while the switch is held, and only for one browser at a time.

import { fixed, make, write } from "./elements.js";

const HOLD_MS = 100; // between two requests that move the hand, while the switch is held

let pageToken = "";

/** Before the first request that changes anything. */
export function usePageToken(token) { pageToken = token; }

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

export class Control {
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
