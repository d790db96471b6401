"use strict";
// Everything a body holds is put on the page as text (textContent), never parsed as HTML.

const $ = (id) => document.getElementById(id);
const kPage = 200; // rows fetched at once
const kWindow = 1000; // rows kept on the page; older ones are fetched again on demand
let source = null;
let steerEdited = false;
let countsTimer = null;

function cell(row, text) {
  const td = row.insertCell();
  td.textContent = text;
  return td;
}

function filters() {
  const params = new URLSearchParams();
  for (const name of ["type", "device", "q"]) {
    const value = $(name).value.trim();
    if (value) params.set(name, value);
  }
  return params;
}

function decoded(value) {
  try {
    return decodeURIComponent(value);
  } catch {
    return value;
  }
}

function eventRow(event) {
  const tr = document.createElement("tr");
  tr.className = "event";
  tr.dataset.id = event.id;
  cell(tr, event.received_at.replace("T", " ").replace("Z", ""));
  cell(tr, event.type === null ? "-" : `${event.type_name || "?"} (${event.type})`);
  cell(tr, decoded(event.value));
  cell(tr, event.device.slice(0, 8)).title = event.device;
  cell(tr, event.status).className = event.status === 200 ? "ok" : "refused";
  cell(tr, event.pairs.map((pair) => pair[0]).join(", "));
  tr.addEventListener("click", () => toggleBody(tr, event));
  return tr;
}

// The raw body under its row, one pair a line, with the value as sent and as it reads.
function toggleBody(tr, event) {
  const next = tr.nextElementSibling;
  if (next && next.classList.contains("body")) {
    next.remove();
    return;
  }
  const detail = document.createElement("tr");
  detail.className = "body";
  const td = detail.insertCell();
  td.colSpan = 6;
  const pairs = document.createElement("table");
  for (const [key, value] of event.pairs) {
    const row = pairs.insertRow();
    cell(row, key);
    cell(row, value === null ? "(no =)" : value);
    cell(row, value === null ? "" : decoded(value));
  }
  td.append(event.pairs.length ? pairs : "(empty body)");
  tr.after(detail);
}

function oldestShown() {
  const rows = $("rows").querySelectorAll("tr.event");
  return rows.length ? Number(rows[rows.length - 1].dataset.id) : 0;
}

async function fetchOlder(before) {
  const query = filters();
  query.set("limit", kPage);
  if (before) query.set("before", before);
  const events = await (await fetch("/api/events?" + query)).json();
  $("rows").append(...events.map(eventRow));
  $("older").hidden = events.length < kPage;
}

function trimWindow() {
  const rows = $("rows");
  while (rows.querySelectorAll("tr.event").length > kWindow) {
    const last = rows.lastElementChild;
    if (last.classList.contains("body")) last.previousElementSibling.remove();
    last.remove();
    $("older").hidden = false;
  }
}

async function load() {
  const params = filters();
  history.replaceState(null, "", params.toString() ? "?" + params : location.pathname);
  if (source) source.close();
  $("rows").replaceChildren();
  await fetchOlder(0);
  const newest = $("rows").querySelector("tr.event");
  params.set("after", newest ? newest.dataset.id : 0);
  source = new EventSource("/api/stream?" + params);
  source.addEventListener("events", (message) => {
    $("rows").prepend(...JSON.parse(message.data).reverse().map(eventRow));
    trimWindow();
    countsSoon();
  });
  source.addEventListener("state", (message) => showState(JSON.parse(message.data)));
  source.onopen = () => ($("live").textContent = "live");
  source.onerror = () => ($("live").textContent = "reconnecting");
  showCounts();
}

function countsSoon() {
  if (countsTimer === null) countsTimer = setTimeout(showCounts, 500);
}

async function showCounts() {
  countsTimer = null;
  const counts = await (await fetch("/api/counts")).json();
  const body = $("counts").tBodies[0];
  body.replaceChildren();
  const line = (label, count) => {
    const row = body.insertRow();
    cell(row, label);
    cell(row, count);
  };
  line("All events", counts.total);
  for (const type of counts.types) line(`${type.name || "?"} (${type.type})`, type.count);
  for (const status of counts.statuses) line(`Answered ${status.status}`, status.count);

  const select = $("type");
  const chosen = select.value;
  select.replaceChildren(new Option("any", ""));
  for (const type of counts.types) select.add(new Option(`${type.name || "?"} (${type.type})`, type.type));
  if (chosen && ![...select.options].some((option) => option.value === chosen)) {
    select.add(new Option(chosen, chosen));
  }
  select.value = chosen;
}

function showState(state) {
  const steering = state.steering;
  if (!steerEdited) {
    $("analytics").checked = steering.analytics_enabled;
    $("nullPayload").checked = steering.null_payload;
    $("forceNo").value = steering.force_version ? steering.force_version.no : "";
    $("forceUrl").value = steering.force_version ? steering.force_version.download_url : "";
    $("offerNo").value = steering.offer_version ? steering.offer_version.no : "";
    $("offerUrl").value = steering.offer_version ? steering.offer_version.download_url : "";
  }
  const refusal = state.refusal;
  $("pending").textContent = refusal.remaining
    ? `${refusal.remaining} refusal(s) pending, status ${refusal.status}`
    : "No refusals pending";
  $("next").textContent = `${state.next_app_open.status} ${state.next_app_open.body}`;
}

async function control(path, request) {
  const answer = await fetch(path, {
    method: "POST",
    headers: { "Content-Type": "application/json" },
    body: JSON.stringify(request),
  });
  if (!answer.ok) $("pending").textContent = `Refused: ${await answer.text()}`;
  showState(await (await fetch("/control/state")).json());
}

function version(number, url) {
  return number.trim() ? { no: number.trim(), download_url: url.trim() } : null;
}

$("steer").addEventListener("input", () => (steerEdited = true));
$("steer").addEventListener("submit", (submit) => {
  submit.preventDefault();
  steerEdited = false;
  control("/control/steer", {
    analytics_enabled: $("analytics").checked,
    null_payload: $("nullPayload").checked,
    force_version: version($("forceNo").value, $("forceUrl").value),
    offer_version: version($("offerNo").value, $("offerUrl").value),
  });
});
$("refuse").addEventListener("submit", (submit) => {
  submit.preventDefault();
  control("/control/refuse", {
    status: Number($("refuseStatus").value),
    count: Number($("refuseCount").value),
  });
});

let filterTimer = null;
$("filters").addEventListener("input", () => {
  clearTimeout(filterTimer);
  filterTimer = setTimeout(load, 300);
});
$("filters").addEventListener("submit", (submit) => submit.preventDefault());
$("older").addEventListener("click", () => fetchOlder(oldestShown()));

const initial = new URLSearchParams(location.search);
for (const name of ["device", "q"]) $(name).value = initial.get(name) || "";
if (initial.get("type")) $("type").add(new Option(initial.get("type"), initial.get("type"), true, true));
load();
