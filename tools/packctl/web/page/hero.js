// The first thing that a visitor sees: how it is, what happens, and the one button that fits.

import { ageOf, byId, dateOf, durationOf, fill, make, setText, sizeOf, timeOf } from "./dom.js";
import { words } from "./words.js";

// What is tried again after each recorded failure.
const kRetries = { download_failed: "download", install_failed: "install", download_install_failed: "update" };

// Why there is nothing to try again: the pack to remove, or to go back to, has gone.
const kGone = ["not_installed", "no_previous_pack"];

// The parts of an update that a person follows, and the recorded steps in each.
const kStages = [
  { name: "download", steps: [] },
  { name: "aside", steps: ["pre_uninstall", "uninstall", "post_uninstall"] },
  { name: "unpack", steps: ["pre_install", "install"] },
  { name: "finish", steps: ["post_install"] },
];

// The pack that gives way, which is gone for a while during an install; undefined when that began before the page.
let packBefore;

// The page is always in one of these states, named in words.js.
export function stateOf({ state, isLost }) {
  if (isLost) {
    return "offline";
  }
  if (state.interrupted) {
    return "interrupted";
  }
  if (state.under_way) {
    return state.step === null && state.status !== "installing" ? "downloading" : "installing";
  }
  if (isOffered(state)) {
    return "offered";
  }
  if (state.status === null || state.status in kRetries || state.failure !== null) {
    return state.failure?.error?.code === "cancelled" ? "cancelled" : "failed";
  }
  return state.installed === null ? "absent" : "current";
}

const isOffered = (state) => state.status === "need_download" || state.status === "need_install";

const reasonOf = (error) => words.reasons[error?.code];

// What the button does: the action of the server, and the words on it.
export function actOf(kind, state) {
  switch (kind) {
    case "offline":
      return { name: "reconnect", label: words.acts.retry };
    case "interrupted":
      return { name: "recover", label: words.acts.recover };
    case "offered":
      return state.status === "need_install" || state.installed === null
        ? { name: state.status === "need_install" ? "install" : "update", label: words.acts.install }
        : { name: "update", label: words.acts.update };
    case "failed":
    case "cancelled":
      return retryOf(state);
    case "absent":
      return { name: "update", label: words.acts.install };
    case "current":
      return { name: "check", label: words.acts.check };
    default:
      return null;
  }
}

function retryOf(state) {
  if (state.status === null || reasonOf(state.failure?.error)?.recover) {
    return { name: "recover", label: words.acts.recover };
  }
  const name = kRetries[state.status] ?? state.failure.command;
  const isGone = kGone.includes(state.why_not[name]?.code);
  return { name: name in state.why_not && !isGone ? name : "check", label: words.acts.retry };
}

function headlineOf(kind, state) {
  switch (kind) {
    case "offline":
      return words.offline(state.name);
    case "offered":
      return state.status === "need_install" ? words.downloaded(state.offer) : words.offered(state.offer);
    case "downloading":
      return words.downloading(state.offer);
    case "installing":
      return words.installing(state.offer);
    case "failed":
      return state.status === null ? words.unreadable : words.failed(kRetries[state.status] ?? state.failure.command);
    case "cancelled":
      return words.cancelled(state.failure.command);
    case "current":
      return state.status === "up_to_date" ? words.current : words.installed;
    default:
      return words[kind];
  }
}

function detailOf(kind, { state, reached }) {
  switch (kind) {
    case "offline":
      return words.age(ageOf(reached));
    case "interrupted":
      return words.recovery;
    case "failed":
    case "cancelled":
      return words.stays(state.installed);
    case "downloading":
      return state.installed === null ? "" : words.until(state.installed);
    case "installing":
      return "";
    case "offered":
      return `${state.wait === null ? words.soon : waitWords(state.wait)} ${checkOf(state)}`;
    default:
      return [checkOf(state), ...releasesOf(state), ...supportOf(state)].join(" ");
  }
}

function checkOf(state) {
  return state.checked === null ? words.neverChecked : words.checked(ageOf(state.checked));
}

// What the last check said of releases beside the one on offer.
function releasesOf(state) {
  return [
    ...(state.withdrawn ? [words.withdrawn(state.installed)] : []),
    ...(state.staged === null ? [] : [words.staged(state.staged)]),
  ];
}

// How long the maker supports the appliance, where that is set.
function supportOf(state) {
  const day = state.support_until;
  if (day === null) {
    return [];
  }
  return [day < new Date().toISOString().slice(0, day.length) ? words.supportEnded(day) : words.supported(day)];
}

// Why the pack on offer is not installed, and until when.
function waitWords({ code, until }) {
  const cause = words.reasons[code]?.cause ?? code;
  return until === null ? cause : `${cause} ${words.latest(timeOf(until))}`;
}

function showFailure(kind, state) {
  const failure = kind === "failed" ? state.failure : null;
  const reason = reasonOf(failure?.error);
  byId("failure").hidden = failure === null;
  if (failure !== null) {
    setText(byId("cause"), reason?.cause ?? failure.error?.message ?? "");
    setText(byId("remedy"), reason?.remedy ?? failure.error?.remedy ?? "");
    byId("said").hidden = failure.errors.length === 0;
    fill(byId("said-lines"), failure.errors, () => failure.errors.map((error) => make("li", {}, error)));
  }
}

const tile = (kind, label, version, ...notes) =>
  make(
    "div",
    { class: `tile ${kind}` },
    make("span", { class: "label" }, label),
    make("span", { class: "version" }, version),
    ...notes.map((note) => make("span", { class: "label" }, note)),
  );

// From the installed pack to the one that comes, where there is one.
function showPicture(kind, state) {
  const pack = packBefore ?? state.installed;
  fill(byId("picture"), [kind, pack, state.offer], () => {
    const from =
      pack === null
        ? tile("none", words.tile.installed, words.tile.none)
        : tile(
            "installed",
            words.tile.installed,
            pack.version || words.tile.unknown,
            words.tile.since(dateOf(pack.updated)),
          );
    if (state.offer === null) {
      return [from];
    }
    const label = { downloading: "coming", installing: "coming", failed: "failed" }[kind] ?? "offered";
    return [
      from,
      make("span", { class: "arrow", "aria-hidden": "true" }),
      tile(label, words.tile[label], state.offer.version),
    ];
  });
}

// The codecs that are installed and those that applications ask for.
function showCodecs(state) {
  const installed = state.installed?.codecs ?? [];
  const requested = new Map((state.requested ?? []).map(({ codec, applications }) => [codec, applications]));
  const all = [...new Set([...installed, ...requested.keys()])];
  byId("codecs").hidden = all.length === 0;
  fill(byId("codecs"), [installed, state.requested], () =>
    all.map((codec) => {
      const applications = requested.get(codec) ?? [];
      const use = !installed.includes(codec) ? "missing" : applications.length > 0 ? "used" : "unused";
      const note = use === "unused" ? "" : words.codec[use](applications);
      return make(
        "li",
        { class: `chip ${use}` },
        make("b", {}, codec.toUpperCase()),
        ...(note === "" ? [] : [" ", make("span", {}, note)]),
      );
    }),
  );
}

function progressWords({ progress, step }) {
  if (step !== null) {
    return words.steps[step] ?? step;
  }
  if (progress === null) {
    return words.waiting;
  }
  const { now, total, rate } = progress;
  const parts = [words.bytes(sizeOf(now), total === null ? null : sizeOf(total))];
  if (rate !== null && rate > 0) {
    parts.push(words.rate(sizeOf(rate)));
    if (total !== null) {
      parts.push(words.left(durationOf((1000 * (total - now)) / rate)));
    }
  }
  return parts.join(" · ");
}

// Nothing has to give way to a first pack, and a pack that is there already is not fetched.
function stagesOf(state) {
  return kStages.filter(
    ({ name }) =>
      !(name === "aside" && packBefore === null) &&
      !(name === "download" && state.status === "installing") &&
      !(name !== "download" && state.status === "downloading"),
  );
}

function showWork(kind, state) {
  const isHidden = kind !== "downloading" && kind !== "installing";
  byId("work").hidden = isHidden;
  if (isHidden) {
    return;
  }
  const stages = stagesOf(state);
  const at = Math.max(
    stages.findIndex(({ steps }) => steps.includes(state.step)),
    0,
  );
  const list = byId("stages");
  fill(list, [stages, at], () =>
    stages.map(({ name }, index) => {
      const bar = make("span", { class: "bar" }, make("span", { class: "part" }));
      const item = make(
        "li",
        { class: index < at ? "past" : index === at ? "now" : "ahead" },
        bar,
        make("span", { class: "name" }, words.stage[name]),
      );
      if (index === at) {
        item.setAttribute("aria-current", "step");
      }
      return item;
    }),
  );
  const isDownloading = stages[at].name === "download";
  const percent = isDownloading ? (state.progress?.percent ?? null) : null;
  const progress = byId("progress");
  progress.hidden = !isDownloading;
  if (percent === null) {
    progress.removeAttribute("value");
  } else {
    progress.value = percent;
  }
  const part = list.children[at].querySelector(".part");
  part.classList.toggle("endless", percent === null);
  part.style.inlineSize = percent === null ? "" : `${percent}%`;
  setText(byId("progress-text"), progressWords(state));
}

function showRejected({ rejected }) {
  fill(byId("rejected"), rejected, () => rejected.map((one) => make("li", {}, words.rejected[one.code](one))));
}

export function showHero(page) {
  const { state } = page;
  const kind = stateOf(page);
  byId("hero").dataset.state = kind;
  packBefore = kind === "installing" ? packBefore : state.installed;
  setText(byId("name"), state.name);
  setText(byId("state"), words.states[kind]);
  const percent = kind === "downloading" ? state.progress?.percent : undefined;
  document.title = `${percent === undefined || percent === null ? words.states[kind] : `${percent} %`} · ${state.name}`;
  setText(byId("headline"), headlineOf(kind, state));
  setText(byId("detail"), detailOf(kind, page));
  showRejected(state);
  showFailure(kind, state);
  showPicture(kind, state);
  showCodecs(state);
  showWork(kind, state);
}
