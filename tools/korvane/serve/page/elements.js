// Elements of the page, and what is written into them.

export function make(tag, className, text) {
  const element = document.createElement(tag);
  if (className) element.className = className;
  if (text !== undefined) element.textContent = text;
  return element;
}

/** A number with so many digits, and without a sign if it is nothing. */
export function fixed(number, digits) {
  const text = number.toFixed(digits);
  return Number(text) === 0 ? text.replace("-", "") : text;
}

/** Writes only what has changed, so that screen readers and the layout stay calm. */
export function write(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

export function tell(text) {
  const news = document.getElementById("news");
  news.append(make("span", "", text + ". "));
  while (news.childElementCount > 5) news.firstElementChild.remove();
}
