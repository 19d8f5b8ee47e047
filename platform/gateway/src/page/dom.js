// Elements and texts. Everything that came from the host is set as text, never as HTML.

const svgTags = new Set(["svg", "g", "rect", "line", "path", "text", "title"]);

const steering = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u2028-\u202e\u2066-\u2069]/g;

/** Control characters and what turns the reading direction, written out: a name looks like what it is. */
export const visible = (text) => String(text).replace(steering, (character) => `\\u${character.charCodeAt(0).toString(16).padStart(4, "0")}`);

/** Makes an element. Functions become listeners, false and undefined leave an attribute out. */
export function element(tag, attributes = {}, ...children) {
  const made = svgTags.has(tag) ? document.createElementNS("http://www.w3.org/2000/svg", tag) : document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) setAttribute(made, name, value);
  const shown = children.filter((child) => child !== null && child !== undefined && child !== false);
  made.append(...shown.map((child) => (child instanceof Node ? child : visible(child))));
  return made;
}

/** Changes what differs, so that a redrawing disturbs neither the focus nor a reader. */
export function setAttribute(node, name, value) {
  if (typeof value === "function") node.addEventListener(name, value);
  else if (value === false || value === undefined || value === null) node.removeAttribute(name);
  else {
    const text = value === true ? "" : name === "title" || name === "aria-label" ? visible(value) : String(value);
    if (node.getAttribute(name) !== text) node.setAttribute(name, text);
  }
}

export function setText(node, text) {
  const shown = visible(text);
  if (node.textContent !== shown) node.textContent = shown;
}

export const byId = (id) => document.getElementById(id);

/** Puts the nodes into the parent in this order, moving only what is elsewhere: a move would take the focus away. */
export function arrange(parent, nodes) {
  const kept = new Set(nodes);
  for (const child of [...parent.children]) if (!kept.has(child)) child.remove();
  nodes.forEach((node, index) => {
    if (parent.children[index] !== node) parent.insertBefore(node, parent.children[index] ?? null);
  });
}

/** "0:42", "1:05:09": for a time that ticks. */
export function clock(milliseconds) {
  const seconds = Math.max(0, Math.floor(milliseconds / 1000));
  const pad = (number) => String(number).padStart(2, "0");
  const [h, m, s] = [Math.floor(seconds / 3600), Math.floor(seconds / 60) % 60, seconds % 60];
  return h ? `${h}:${pad(m)}:${pad(s)}` : `${m}:${pad(s)}`;
}

const gap = "\u00a0"; // a number and its unit stay on one line

/** "40 ms", "0.6 s", "12 s", "4:05 min": for a time that is over. */
export function duration(milliseconds) {
  if (milliseconds < 95) return `${Math.max(0, milliseconds)}${gap}ms`;
  if (milliseconds < 9950) return `${(milliseconds / 1000).toFixed(1)}${gap}s`;
  if (milliseconds < 60_000) return `${Math.round(milliseconds / 1000)}${gap}s`;
  return `${clock(milliseconds)}${gap}${milliseconds < 3_600_000 ? "min" : "h"}`;
}

/** The time of day, with the date when that is not today's. */
export function timeOfDay(milliseconds, parts = { hour: "2-digit", minute: "2-digit", second: "2-digit" }) {
  const date = new Date(milliseconds);
  const time = date.toLocaleTimeString([], { hourCycle: "h23", ...parts });
  return date.toDateString() === new Date().toDateString() ? time : `${date.toLocaleDateString()} ${time}`;
}

/** Behaviors have a full name, "clock/."; a package that is a behavior itself is shown by its uuid. */
export const shownName = (name) => (name.endsWith("/.") ? name.slice(0, -2) : name);
