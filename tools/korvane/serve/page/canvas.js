// Drawing on canvases: in units of the page, in the colours of its style.

export const colours = {};

export function readColours() {
  const style = getComputedStyle(document.documentElement);
  for (const name of ["accent", "warm", "bad", "bone", "bone-near", "palm", "empty", "line", "text", "dim"]) {
    colours[name] = style.getPropertyValue("--" + name).trim();
  }
}

/** A canvas as large as it is shown, and what to draw on it with, in units of the page. */
export function brush(canvas) {
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
