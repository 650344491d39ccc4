// The page's elements, and numbers and times as its reader writes them.

import { words } from "./words.js";

export const byId = (id) => document.getElementById(id);

export function setText(element, text) {
  // A live region is read out again whenever it is written to.
  if (element.textContent !== text) {
    element.textContent = text;
  }
}

// Makes an element. What it contains is text or elements, never markup: much of it comes from outside.
export function make(name, attributes, ...content) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) {
    made.setAttribute(key, value);
  }
  made.append(...content);
  return made;
}

// Replaces the content, but only when it would be another: a reader keeps the place, and what is unfolded stays so.
export function fill(element, shown, makeContent) {
  const key = JSON.stringify(shown);
  if (element.dataset.shown !== key) {
    element.dataset.shown = key;
    element.replaceChildren(...makeContent());
  }
}

const locale = navigator.languages.find((tag) => tag.split("-")[0] === words.language) ?? words.language;
const formatDate = new Intl.DateTimeFormat(locale, { dateStyle: "medium" });
const formatTime = new Intl.DateTimeFormat(locale, { dateStyle: "medium", timeStyle: "short" });
const formatDay = new Intl.DateTimeFormat(locale, { month: "short", day: "numeric" });
const formatClock = new Intl.DateTimeFormat(locale, { timeStyle: "short" });
const formatAge = new Intl.RelativeTimeFormat(locale, { numeric: "auto" });
const formatNumber = new Intl.NumberFormat(locale, { minimumFractionDigits: 1, maximumFractionDigits: 1 });

export const dateOf = (seconds) => formatDate.format(seconds * 1000);

export const timeOf = (seconds) =>
  make("time", { datetime: new Date(seconds * 1000).toISOString() }, formatTime.format(seconds * 1000));

// As short as it is clear today: the time, the day, or the day with its year.
export function shortTimeOf(first, last) {
  const [begin, end, now] = [new Date(first * 1000), new Date(last * 1000), new Date()];
  const format =
    begin.toDateString() === now.toDateString()
      ? formatClock
      : begin.getFullYear() === now.getFullYear()
        ? formatDay
        : formatDate;
  return make("time", { datetime: end.toISOString() }, format.formatRange(begin, end));
}

// How long ago it was, in one unit: "5 minutes ago".
export function ageOf(seconds) {
  let age = Math.min(0, seconds - Date.now() / 1000);
  for (const [unit, size] of [
    ["second", 60],
    ["minute", 60],
    ["hour", 24],
  ]) {
    if (Math.abs(age) < size) {
      return formatAge.format(Math.round(age), unit);
    }
    age /= size;
  }
  return formatAge.format(Math.round(age), "day");
}

export function durationOf(milliseconds) {
  const seconds = Math.round(milliseconds / 1000);
  // A number stays beside its unit.
  return seconds < 60 ? `${seconds}\u00a0s` : `${Math.floor(seconds / 60)}\u00a0min ${seconds % 60}\u00a0s`;
}

export function sizeOf(bytes) {
  const units = ["B", "KiB", "MiB", "GiB"];
  let size = bytes;
  while (size >= 1024 && units.length > 1) {
    size /= 1024;
    units.shift();
  }
  return `${formatNumber.format(size)}\u00a0${units[0]}`;
}
