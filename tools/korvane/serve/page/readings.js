// Pictures of readings: the last minute of a value, and touch.

import { brush, colours } from "./canvas.js";

const HISTORY_MS = 60000;
const HEAT = [[68, 1, 84], [59, 82, 139], [33, 145, 140], [94, 201, 98], [253, 231, 37]];

/** Values with the time when they came; old ones go. */
export class History {
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

export function drawTouch(canvas, cells, greatest) {
  const { pen, width, height } = brush(canvas);
  const columns = Math.ceil(Math.sqrt(cells.length)), size = Math.min(width, height) / columns;
  cells.forEach((cell, i) => {
    pen.fillStyle = cell === 0 ? colours.empty : heat(cell / greatest);
    pen.fillRect((i % columns) * size, Math.floor(i / columns) * size, size - 1, size - 1);
  });
}

export function drawScale(canvas) {
  const { pen, width, height } = brush(canvas);
  for (let x = 0; x < width; ++x) {
    pen.fillStyle = heat(x / width);
    pen.fillRect(x, 0, 1, height);
  }
}
