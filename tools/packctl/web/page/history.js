// What happened: a square for each of the last days, and a line for each run, of which those alike are folded into one.

import { byId, dateOf, durationOf, fill, make, shortTimeOf, timeOf } from "./dom.js";
import { words } from "./words.js";

const kDays = 90;
const kFirstLines = 12;

let showsAll = false;

const isCancelled = (entry) => entry.result === "cancelled";
const hasFailed = (entry) =>
  entry.exit !== 0 && !["nothing_new", "waits"].includes(entry.result) && !isCancelled(entry);

const markOf = (entry) => (hasFailed(entry) ? "failed" : isCancelled(entry) ? "cancelled" : "done");

const packWords = (pack) => (pack === null ? words.noPack : [pack.package, pack.version].filter(Boolean).join(" "));

const causeOf = ({ error, result }) =>
  result === "cancelled" ? "" : (words.reasons[error?.code]?.cause ?? error?.message ?? "");

function sentenceOf(entry) {
  if (hasFailed(entry)) {
    return words.failedTo[entry.command] ?? entry.command;
  }
  if (isCancelled(entry)) {
    return words.cancelledTo[entry.command] ?? entry.command;
  }
  if (entry.result === "waits") {
    return words.waits;
  }
  const done = words.done[entry.result === "downloaded" ? "download" : entry.command];
  return entry.result === "nothing_new" ? words.nothing : (done?.(entry) ?? entry.command);
}

// Runs of one after the other that are told in the same words, newest first.
function foldAlike(entries) {
  const groups = [];
  for (const entry of entries.toReversed()) {
    const sentence = sentenceOf(entry);
    const cause = causeOf(entry);
    const group = groups.at(-1);
    if (group?.sentence === sentence && group.cause === cause) {
      group.entries.push(entry);
    } else {
      groups.push({ sentence, cause, entries: [entry] });
    }
  }
  return groups;
}

function detailsOf(entries) {
  const [newest] = entries;
  const list = make("dl", { class: "facts" });
  const add = (name, ...value) => list.append(make("div", {}, make("dt", {}, name), make("dd", {}, ...value)));
  add(words.entry.before, packWords(newest.from));
  add(words.entry.after, packWords(newest.to));
  add(words.entry.took, durationOf(newest.duration_ms));
  if (newest.exit !== 0) {
    add(words.entry.exit, String(newest.exit));
  }
  if (newest.error) {
    add(words.entry.code, make("code", {}, newest.error.code));
  }
  add(words.entry.at, ...entries.slice(0, 10).map((entry) => make("span", {}, timeOf(entry.time))));
  const said = newest.errors.map((error) => make("li", {}, error));
  return said.length === 0 ? [list] : [list, make("ul", { class: "said" }, ...said)];
}

function lineOf({ sentence, cause, entries }) {
  const [newest] = entries;
  const count = entries.length === 1 ? [] : [make("span", { class: "count" }, words.times(entries.length)), " "];
  const causes = cause === "" ? [] : [make("span", { class: "cause" }, cause)];
  const summary = make(
    "summary",
    {},
    make("span", { class: `mark ${markOf(newest)}`, "aria-hidden": "true" }),
    make("span", { class: "sentence" }, make("span", {}, sentence), " ", ...count, ...causes),
    make("span", { class: "when" }, shortTimeOf(entries.at(-1).time, newest.time)),
  );
  return make("li", {}, make("details", {}, summary, ...detailsOf(entries)));
}

// Each of the last days at noon, in seconds, so that no change of the clocks makes a day two or none.
function lastDays() {
  const noon = new Date();
  noon.setHours(12, 0, 0, 0);
  return Array.from({ length: kDays }, (_, index) => {
    const day = new Date(noon);
    day.setDate(noon.getDate() - (kDays - 1 - index));
    return day;
  });
}

function showStrip(entries) {
  const days = new Map();
  for (const entry of entries) {
    const day = new Date(entry.time * 1000).toDateString();
    const counts = days.get(day) ?? { done: 0, failed: 0, cancelled: 0 };
    counts[markOf(entry)] += 1;
    days.set(day, counts);
  }
  const shown = lastDays().map((day) => ({ day, ...(days.get(day.toDateString()) ?? { done: 0, failed: 0 }) }));
  const strip = byId("strip");
  const failed = shown.filter((day) => day.failed > 0).length;
  strip.setAttribute("aria-label", words.strip(kDays, failed));
  fill(strip, shown, () =>
    shown.map((day) =>
      make("span", {
        class: day.failed > 0 ? "day failed" : day.done > 0 ? "day done" : "day",
        title: words.day(dateOf(day.day / 1000), day.done, day.failed),
      }),
    ),
  );
}

export function showHistory(entries) {
  const groups = foldAlike(entries);
  const lines = showsAll ? groups : groups.slice(0, kFirstLines);
  fill(byId("lines"), lines, () => lines.map(lineOf));
  const all = byId("all");
  all.hidden = lines.length === groups.length;
  all.textContent = words.acts.all(groups.length);
  all.onclick = () => {
    showsAll = true;
    showHistory(entries);
    byId("lines").children[kFirstLines]?.querySelector("summary").focus();
  };
  byId("no-history").hidden = entries.length > 0;
  byId("history").hidden = entries.length === 0;
  showStrip(entries);
}
