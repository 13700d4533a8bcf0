// The page of `korvane serve`. It asks once which hands there are, and then follows their events; what
// it draws is always the newest of each.

import { readColours } from "./canvas.js";
import { usePageToken } from "./control.js";
import { write } from "./elements.js";
import { HandView } from "./hand.js";

const hands = new Map();

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
  usePageToken(told.page_token);
  for (const hand of told.hands) {
    const view = new HandView(hand, told.control_allowed);
    hands.set(hand.hand, view);
    document.getElementById("hands").append(view.root);
  }
  const events = new EventSource("/api/events?page=" + told.page_token);
  events.onopen = () => connected(true);
  events.onerror = () => {
    connected(false);
    // Refused, and not only out of reach: korvane serve was started anew, perhaps with other hands.
    if (events.readyState === EventSource.CLOSED) setTimeout(() => location.reload(), 1000);
  };
  events.onmessage = (event) => {
    const data = JSON.parse(event.data);
    hands.get(data.hand)?.take(data);
  };
}

window.addEventListener("blur", releaseAll);
document.addEventListener("visibilitychange", releaseAll);
window.addEventListener("pagehide", releaseAll);
start().catch(() => connected(false));
