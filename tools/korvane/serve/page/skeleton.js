// The skeleton of a hand: plain, and the same for all models whose joints are known.

import { brush, colours } from "./canvas.js";

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

export function drawSkeleton(canvas, angles, side) {
  const { pen, width, height } = brush(canvas);
  const mirror = side === "left" ? -1 : 1;
  const scale = Math.min(width / 17, height / 24);
  const place = (point) => {
    const at = projected(point, mirror);
    return { x: width / 2 + (at.x - mirror * 0.6) * scale, y: height * 0.625 - at.y * scale, z: at.z };
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
export function drawBars(canvas, positions, greatest) {
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
