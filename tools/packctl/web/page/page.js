"use strict";

// Shows what /api/state tells. Everything from there is put in as text, never as markup.

const byId = (id) => document.getElementById(id);
const pause = (milliseconds) => new Promise((resolve) => setTimeout(resolve, milliseconds));

const kTokenKey = "packctl-token";
const kFirstWait = 1000;
const kLongestWait = 60000;
// The server answers within 50 seconds.
const kPatience = 60000;
// A download is told of more often than anybody can read.
const kBetweenLooks = 200;

const kResultWords = {
  new_pack: "a new pack is available",
  nothing_new: "nothing new",
  no_address: "no update server is named",
  done: "done",
  failed: "failed",
  not_permitted: "not permitted now",
  busy: "another program is at work",
};

let state = null;
let isLost = false;
let isFirstInstall = false;
let wakeUp = () => {};

function setText(element, text) {
  // A live region is read out again whenever it is written to.
  if (element.textContent !== text) {
    element.textContent = text;
  }
}

function element(name, text, attributes = {}) {
  const made = document.createElement(name);
  made.textContent = text;
  for (const [key, value] of Object.entries(attributes)) {
    made.setAttribute(key, value);
  }
  return made;
}

const capitalized = (text) => text.charAt(0).toUpperCase() + text.slice(1);

function packWords(pack) {
  if (pack === null) {
    return "no pack";
  }
  return !pack.version
    ? `${pack.package ?? "a pack"} of unknown version`
    : `${pack.package ?? "version"} ${pack.version}`;
}

const listWords = (codecs) => (codecs === null ? "not known" : codecs.join(", ") || "none");

const resultWords = (result) => kResultWords[result] ?? result.replaceAll("_", " ");

// Why something failed: what its code means, and then all that was said. Old entries of the history have no code.
const causes = (error, said) => {
  const sentence = error === null ? undefined : window.reasonSentences[error.code];
  return sentence === undefined ? said : [sentence, ...said];
};

function timeElement(seconds) {
  const date = new Date(seconds * 1000);
  return element("time", date.toLocaleString(undefined, { dateStyle: "medium", timeStyle: "short" }), {
    datetime: date.toISOString(),
  });
}

function durationWords(milliseconds) {
  const seconds = Math.round(milliseconds / 1000);
  // A number stays beside its unit.
  return seconds < 60 ? `${seconds}\u00a0s` : `${Math.floor(seconds / 60)}\u00a0min ${seconds % 60}\u00a0s`;
}

function showHeadline() {
  const step = state.steps.find((known) => known.step === state.step);
  const version = state.offer === null ? "" : `: ${packWords(state.offer)}`;
  const record = `${capitalized(state.meaning)}${step ? `: ${step.words}` : version}.`;
  // While nothing is to be done, what is installed counts; the record only tells how the last work on it went.
  const isSettled = state.status === "up_to_date" || state.status === "lost";
  const installed =
    state.installed === null ? "No codec pack is installed." : `Installed: ${packWords(state.installed)}. ${record}`;
  setText(byId("headline"), isSettled ? installed : record);
}

function showDownload() {
  const bar = byId("progress");
  byId("download").hidden = state.status === "installing";
  if (state.step !== null) {
    bar.value = 100;
    setText(byId("progress-text"), "Complete");
  } else if (state.progress === null || state.progress.percent === null) {
    bar.removeAttribute("value");
    setText(byId("progress-text"), state.progress === null ? "Waiting for the server …" : state.progress.text);
  } else {
    bar.value = state.progress.percent;
    setText(byId("progress-text"), state.progress.text);
  }
}

function showSteps() {
  // Nothing has to give way to the first pack.
  if (state.step === null) {
    isFirstInstall = state.installed === null;
  }
  const steps = state.steps.filter((known) => !(isFirstInstall && known.step.endsWith("uninstall")));
  const current = steps.findIndex((known) => known.step === state.step);
  const list = byId("steps");
  byId("install").hidden = state.status === "downloading";
  if (list.dataset.shown === `${current} of ${steps.length}`) {
    return;
  }
  list.dataset.shown = `${current} of ${steps.length}`;
  list.replaceChildren(
    ...steps.map((known, index) => {
      const isPast = index < current;
      const item = element("li", capitalized(known.words) + (isPast ? " – done" : ""), { class: isPast ? "past" : "" });
      if (index === current) {
        item.setAttribute("aria-current", "step");
      }
      return item;
    }),
  );
}

function showWork() {
  byId("work").hidden = !state.under_way;
  if (state.under_way) {
    showDownload();
    showSteps();
  }
}

function showPack() {
  const pack = state.installed;
  setText(byId("installed"), pack === null ? "No pack" : packWords(pack));
  byId("updated").replaceChildren(pack === null ? "–" : timeElement(pack.updated));
  setText(byId("codecs"), pack === null ? "none" : listWords(pack.codecs));
  setText(byId("requested"), listWords(state.requested));
  setText(byId("offer"), state.offer === null ? "Nothing" : packWords(state.offer));
  setText(byId("recorded"), state.status === null ? "not known" : `${state.status} (${state.meaning})`);
  byId("problems").hidden = state.problems.length === 0;
  byId("problems").replaceChildren(...state.problems.map((problem) => element("li", capitalized(problem))));
}

function showAction(name, whyNot, explanation) {
  const reason =
    (isLost && "the connection is lost") || whyNot || (byId("token").value === "" && "this takes the token");
  byId(name).setAttribute("aria-disabled", String(Boolean(reason)));
  setText(byId(`${name}-why`), reason ? `Not now: ${reason}.` : explanation);
}

function showActions() {
  showAction("check", state.why_no_check, "Asks the maker's server whether there is a newer pack.");
  showAction(
    "update",
    state.why_no_update,
    state.offer === null
      ? "Fetches the pack of the maker's server and puts it in place."
      : `Fetches version ${state.offer.version} and puts it in place.`,
  );
}

function say(text, problems = []) {
  const region = byId("outcome");
  if (region.dataset.said === text + problems.join()) {
    return;
  }
  region.dataset.said = text + problems.join();
  const list = element("ul", "", { class: "errors" });
  list.replaceChildren(...problems.map((problem) => element("li", problem)));
  region.replaceChildren(element("p", text), ...(problems.length > 0 ? [list] : []));
}

function showOutcome() {
  const action = state.action;
  if (action === null) {
    return;
  }
  const name = action.command === "check" ? "Check" : "Update";
  if (action.running) {
    say(`${name}: at work …`);
  } else {
    const end = action.result === null ? `ended with status ${action.exit}` : resultWords(action.result);
    say(`${name}: ${end}.`, causes(action.error, action.problems));
  }
}

function historyRow(entry) {
  const row = element("tr", "", { role: "row" });
  const cell = (label, content, name = "td") => {
    const made = element(name, "", name === "th" ? { scope: "row", role: "rowheader" } : { role: "cell" });
    made.dataset.label = label;
    made.append(content);
    row.append(made);
    return made;
  };
  cell("Time", timeElement(entry.time), "th");
  cell("Command", entry.command);
  const result = cell("Result", resultWords(entry.result));
  if (entry.exit !== 0) {
    result.className = "failed";
  }
  const sentences = causes(entry.error, entry.errors);
  if (sentences.length > 0) {
    const list = element("ul", "", { class: "errors" });
    list.append(...sentences.map((sentence) => element("li", sentence)));
    result.append(list);
  }
  cell("Pack before", packWords(entry.from));
  cell("Pack after", packWords(entry.to));
  cell("Took", durationWords(entry.duration_ms));
  return row;
}

function showServer() {
  const port = state.server.port_is_held ? "a port that systemd keeps for it" : "a port that any user could have taken";
  setText(byId("server"), `Served by the account ${state.server.user} at ${port}.`);
}

function showHistory() {
  const text = JSON.stringify(state.history);
  const table = byId("history");
  // Whoever reads in it should not lose the place.
  if (table.dataset.shown !== text) {
    table.dataset.shown = text;
    table.tBodies[0].replaceChildren(...state.history.map(historyRow).reverse());
  }
  table.hidden = state.history.length === 0;
  byId("no-history").hidden = state.history.length > 0;
}

function show() {
  if (state === null) {
    return;
  }
  byId("content").hidden = false;
  showHeadline();
  showWork();
  showPack();
  showActions();
  showOutcome();
  showHistory();
  showServer();
}

function showConnection(problem) {
  isLost = problem !== null;
  byId("connection").hidden = !isLost;
  if (isLost) {
    const since = state === null ? "" : ` What is shown is of ${new Date(state.time * 1000).toLocaleTimeString()}.`;
    setText(byId("connection"), `${problem}${since} Trying again …`);
  }
  show();
}

async function fetchState() {
  const address = state === null ? "api/state" : `api/state?after=${state.tag}`;
  const response = await fetch(address, { cache: "no-store", signal: AbortSignal.timeout(kPatience) });
  const answer = await response.json();
  if (!response.ok) {
    throw new Error(`The appliance refuses: ${answer.error}.`, { cause: response.status });
  }
  return answer;
}

async function untilVisible() {
  while (document.hidden) {
    await new Promise((resolve) => {
      document.addEventListener("visibilitychange", resolve, { once: true });
    });
  }
}

async function follow() {
  let wait = kFirstWait;
  for (;;) {
    // A browser opens few connections to one server: a page that nobody sees takes none from another.
    await untilVisible();
    try {
      state = await fetchState();
      wait = kFirstWait;
      showConnection(null);
      await pause(kBetweenLooks);
    } catch (error) {
      showConnection(error.cause === undefined ? "The connection to the appliance is lost." : error.message);
      await Promise.race([
        pause(wait),
        new Promise((resolve) => {
          wakeUp = resolve;
        }),
      ]);
      wait = Math.min(2 * wait, kLongestWait);
    }
  }
}

async function act(name) {
  const button = byId(name);
  if (button.getAttribute("aria-disabled") === "true") {
    say(byId(`${name}-why`).textContent);
    return;
  }
  try {
    const response = await fetch(`api/${name}`, {
      method: "POST",
      headers: { Authorization: `Bearer ${byId("token").value}`, "Content-Type": "application/json" },
      body: "{}",
    });
    if (!response.ok) {
      say(`Refused: ${(await response.json()).error}.`);
    }
  } catch {
    say("This could not be sent. Is the token right, and the appliance reachable?");
  }
}

function takeToken() {
  const field = byId("token");
  const fragment = new URLSearchParams(location.hash.slice(1));
  if (fragment.has("token")) {
    sessionStorage.setItem(kTokenKey, fragment.get("token"));
    // Neither the address bar nor the list of visited pages is a place for it.
    history.replaceState(null, "", location.pathname);
  }
  field.value = sessionStorage.getItem(kTokenKey) ?? "";
}

takeToken();
addEventListener("hashchange", () => {
  takeToken();
  show();
});
byId("token").addEventListener("input", (event) => {
  sessionStorage.setItem(kTokenKey, event.target.value);
  show();
});
for (const name of ["check", "update"]) {
  byId(name).addEventListener("click", () => act(name));
}
addEventListener("online", () => wakeUp());
document.addEventListener("visibilitychange", () => wakeUp());
follow();
