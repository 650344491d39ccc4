// Follows /api/state and shows it; asks for what its visitor wants. Everything from there is put in as text, never as
// markup.

import { ageOf, byId, fill, make, setText } from "./dom.js";
import { actOf, showHero, stateOf } from "./hero.js";
import { showHistory } from "./history.js";
import { words } from "./words.js";

const kTokenKey = "packctl-token";
const kFirstWait = 1000;
const kLongestWait = 60000;
// The server answers within 50 seconds.
const kPatience = 60000;
// A download is told of more often than anybody can read.
const kBetweenLooks = 200;
// How often a page that nobody sees looks at work under way, for the tab's title.
const kBetweenHiddenLooks = 5000;
// How often "5 minutes ago" is brought up to date.
const kBetweenAges = 15000;

// `reached` is when the server answered last, in seconds.
const page = { state: null, reached: 0, isLost: false, token: sessionStorage.getItem(kTokenKey) ?? "" };
let historyTag = null;
let wakeUp = () => {};

const pauseUnlessWoken = (milliseconds) =>
  new Promise((resolve) => {
    wakeUp = resolve;
    setTimeout(resolve, milliseconds);
  });

function say(text) {
  setText(byId("outcome"), text);
}

// What came of the last action, where the rest of the page does not tell it.
function outcomeOf(action, kind) {
  if (action === null || action.command === "doctor" || action.result === kind) {
    return "";
  }
  if (action.running) {
    return page.state.under_way ? "" : (words.running[action.command] ?? words.starting);
  }
  const cause = words.reasons[action.error?.code]?.cause ?? action.error?.message;
  return cause ?? words.ends[action.result] ?? words.ended(action.exit);
}

function showActions() {
  const { state, token, isLost } = page;
  const kind = stateOf(page);
  const act = actOf(kind, state);
  const isLocked = token === "" && act !== null && act.name !== "reconnect";
  byId("acting").hidden = act === null;
  byId("unlock").hidden = !isLocked;
  const button = byId("act");
  button.hidden = act === null || isLocked;
  if (act !== null) {
    setText(button, act.label);
    button.dataset.action = act.name;
    button.setAttribute("aria-disabled", String(Boolean(state.why_not[act.name])));
  }
  byId("menu").hidden = isLocked || act === null || isLost;
  for (const item of byId("menu").querySelectorAll("[data-action]")) {
    const { action } = item.dataset;
    const isSecondReinstall = action === "reinstall" && (state.installed === null || kind !== "current");
    item.hidden = action === act?.name || isSecondReinstall || (action !== "lock" && state.why_not[action] !== null);
  }
  byId("doctor").hidden = token === "" || isLost;
  byId("doctor").setAttribute("aria-disabled", String(Boolean(state.why_not.doctor)));
}

const sentence = (clause) => clause.charAt(0).toUpperCase() + clause.slice(1);

function showDiagnosis() {
  const { diagnosis, action, problems } = page.state;
  byId("problems").hidden = problems.length === 0;
  fill(byId("problems"), problems, () => problems.map((problem) => make("li", {}, problem)));
  const isRunning = action?.command === "doctor" && action.running;
  const findings = diagnosis?.findings ?? [];
  const result = findings.length === 0 ? words.well : words.found;
  setText(
    byId("diagnosed"),
    isRunning ? words.running.doctor : diagnosis === null ? words.notDiagnosed : result(ageOf(diagnosis.time)),
  );
  fill(byId("findings"), findings, () =>
    findings.map(({ check, problem, remedy }) =>
      make(
        "li",
        {},
        make("b", {}, sentence(check)),
        make("p", {}, `${sentence(problem)}.`),
        make("p", { class: "remedy" }, `${sentence(remedy)}.`),
      ),
    ),
  );
}

function show() {
  const { state } = page;
  if (state === null) {
    return;
  }
  byId("loading").hidden = true;
  byId("content").hidden = false;
  showHero(page);
  showActions();
  const outcome = outcomeOf(state.action, stateOf(page));
  fill(byId("outcome"), [state.action, outcome], () => [outcome]);
  showDiagnosis();
  setText(byId("server"), words.server(state.server.user, state.server.port_is_held));
}

// What the server gives as its reason, in the words of the page.
const refusalOf = ({ code, message }) => words.refused(words.reasons[code]?.cause ?? words.refusals[code] ?? message);

async function fetchJson(address) {
  const response = await fetch(address, { cache: "no-store", signal: AbortSignal.timeout(kPatience) });
  const answer = await response.json();
  if (!response.ok) {
    throw new Error(refusalOf(answer.error), { cause: response.status });
  }
  return answer;
}

async function look() {
  const waits = page.state !== null && !document.hidden;
  page.state = await fetchJson(waits ? `api/state?after=${page.state.tag}` : "api/state");
  page.reached = Date.now() / 1000;
  page.isLost = false;
  show();
  if (page.state.history_tag !== historyTag) {
    const { entries } = await fetchJson("api/history");
    historyTag = page.state.history_tag;
    showHistory(entries);
  }
}

function lose(error) {
  page.isLost = true;
  if (page.state === null) {
    setText(byId("loading"), error.cause === undefined ? words.notSent : error.message);
  }
  show();
}

// A browser opens few connections to one server: a page that nobody sees takes none from another, but for the title of
// its tab while work is under way.
async function untilWanted() {
  while (document.hidden && !page.state?.under_way) {
    await new Promise((resolve) => {
      document.addEventListener("visibilitychange", resolve, { once: true });
    });
  }
}

async function follow() {
  let wait = kFirstWait;
  for (;;) {
    await untilWanted();
    try {
      await look();
      wait = kFirstWait;
      await pauseUnlessWoken(document.hidden ? kBetweenHiddenLooks : kBetweenLooks);
    } catch (error) {
      lose(error);
      await pauseUnlessWoken(wait);
      wait = Math.min(2 * wait, kLongestWait);
    }
  }
}

const post = (name, token) =>
  fetch(`api/${name}`, {
    method: "POST",
    headers: { Authorization: `Bearer ${token}`, "Content-Type": "application/json" },
    body: "{}",
  });

function keepToken(token) {
  page.token = token;
  sessionStorage.setItem(kTokenKey, token);
  show();
}

async function unlock(token) {
  try {
    const isRight = (await post("unlock", token)).ok;
    keepToken(isRight ? token : "");
    say(isRight ? "" : words.wrongToken);
    byId(isRight ? "act" : "token").focus();
    byId("token").value = "";
  } catch {
    say(words.notSent);
  }
}

async function act(name) {
  if (name === "reconnect") {
    wakeUp();
    return;
  }
  const whyNot = page.state.why_not[name];
  if (whyNot) {
    say(refusalOf(whyNot));
    return;
  }
  try {
    const response = await post(name, page.token);
    if (response.status === 401) {
      keepToken("");
      say(words.wrongToken);
    } else if (!response.ok) {
      say(refusalOf((await response.json()).error));
    }
  } catch {
    say(words.notSent);
  }
}

// Asks first where something gets lost, or is fetched for nothing.
function askAndAct(name) {
  const question = words.confirm[name];
  const { installed, requested, previous_version, why_not } = page.state;
  if (question === undefined || why_not[name]) {
    act(name);
  } else {
    const inUse = requested?.filter(({ codec }) => installed.codecs?.includes(codec)) ?? [];
    const applications = new Set(inUse.flatMap((entry) => entry.applications));
    setText(byId("question"), question(installed, [...applications], previous_version));
    setText(byId("yes"), words.acts[name]);
    byId("yes").dataset.action = name;
    byId("confirm").showModal();
  }
}

function actFromMenu(name) {
  byId("menu").open = false;
  if (name === "lock") {
    keepToken("");
  } else {
    askAndAct(name);
  }
}

function takeTokenOfAddress() {
  const token = new URLSearchParams(location.hash.slice(1)).get("token");
  if (token !== null) {
    // Neither the address bar nor the list of visited pages is a place for it.
    history.replaceState(null, "", location.pathname);
    keepToken(token);
  }
}

function fillInWords() {
  document.documentElement.lang = words.language;
  const wordsOf = (names) => names.split(".").reduce((found, name) => found[name], words);
  for (const element of document.querySelectorAll("[data-word]")) {
    element.textContent = wordsOf(element.dataset.word);
  }
  for (const element of document.querySelectorAll("[data-label]")) {
    element.setAttribute("aria-label", wordsOf(element.dataset.label));
  }
}

function listen() {
  addEventListener("hashchange", takeTokenOfAddress);
  addEventListener("online", () => wakeUp());
  document.addEventListener("visibilitychange", () => wakeUp());
  byId("unlock").addEventListener("submit", (event) => {
    event.preventDefault();
    unlock(byId("token").value.trim());
  });
  byId("act").addEventListener("click", (event) => askAndAct(event.currentTarget.dataset.action));
  byId("doctor").addEventListener("click", () => act("doctor"));
  for (const item of byId("menu").querySelectorAll("[data-action]")) {
    item.addEventListener("click", () => actFromMenu(item.dataset.action));
  }
  byId("menu").addEventListener("keydown", (event) => {
    if (event.key === "Escape") {
      byId("menu").open = false;
      byId("menu").querySelector("summary").focus();
    }
  });
  document.addEventListener("click", (event) => {
    if (!byId("menu").contains(event.target)) {
      byId("menu").open = false;
    }
  });
  byId("cancel").addEventListener("click", () => byId("confirm").close());
  byId("yes").addEventListener("click", (event) => {
    byId("confirm").close();
    act(event.currentTarget.dataset.action);
  });
}

fillInWords();
takeTokenOfAddress();
listen();
setInterval(show, kBetweenAges);
follow();
