"use strict";
// Everything a body holds is put on the page as text (textContent), never parsed as HTML.

const $ = (id) => document.getElementById(id);
const kSvg = "http://www.w3.org/2000/svg";
const kPage = 200; // rows fetched at once
const kWindow = 1000; // rows kept on the page; older ones are fetched again on demand
const kColours = ["#2f6fdf", "#17803d", "#c17c00", "#7a3fc9", "#0f8a8a", "#c2408f", "#5b6472",
  "#8a6d3b", "#3f51b5", "#6b8e23"];
// The collector's token, asked once and kept for this tab only.
const kTokenKey = "norv-collector-token";
let tokenRequired = false;
let source = null;
let steerEdited = false;
// Type id -> name, for every type the SDK sends and any other that arrived.
const typeNames = new Map();
// The counts of what the filters match, and the newest event they include.
let counts = null;
// The chart: bucket start (server time, ms) -> {types: Map(type -> count), refused}.
let rate = null;
let redrawTimer = null;

function cell(row, text, className) {
  const td = row.insertCell();
  td.textContent = text;
  if (className) td.className = className;
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

function typeLabel(type) {
  return type === null ? "(no type)" : typeNames.get(type) || `type ${type}`;
}

function eventRow(event) {
  const tr = document.createElement("tr");
  tr.className = "event";
  tr.dataset.id = event.id;
  const time = cell(tr, event.received_at.slice(11, 23));
  time.title = event.received_at;
  if (event.type !== null && event.type_name) typeNames.set(event.type, event.type_name);
  const type = cell(tr, typeLabel(event.type), "type");
  if (event.type !== null) type.append(" ", Object.assign(document.createElement("small"), { textContent: event.type }));
  cell(tr, decoded(event.summary), "summary");
  cell(tr, event.device.slice(0, 8), "device").title = event.device;
  cell(tr, event.status, event.status === 200 ? "ok" : "refused");
  tr.addEventListener("click", () => toggleBody(tr, event));
  return tr;
}

// The event's pairs under its row, each once as it reads, with the text as sent beside only
// where the two differ; then the answer it got.
function toggleBody(tr, event) {
  const next = tr.nextElementSibling;
  if (next && next.classList.contains("body")) {
    next.remove();
    return;
  }
  const detail = document.createElement("tr");
  detail.className = "body";
  const td = detail.insertCell();
  td.colSpan = 5;
  const pairs = document.createElement("table");
  for (const [key, value] of event.pairs) {
    const row = pairs.insertRow();
    cell(row, key, "key");
    const reads = value === null ? "(no =)" : decoded(value);
    cell(row, reads, "value");
    cell(row, value !== null && reads !== value ? value : "", "sent");
  }
  if (event.answer) {
    const row = pairs.insertRow();
    row.className = "answer";
    cell(row, "answer", "key");
    const repeats = event.repeats ? ` (given again to ${event.repeats} repeat(s) of its Idempotency-Key)` : "";
    cell(row, `${event.status} ${event.answer}${repeats}`, "value");
    cell(row, "", "sent");
  }
  td.append(pairs.rows.length ? pairs : "(empty body)");
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
  // Events that arrived after the counts and the chart were read, before the stream opens.
  for (const event of events) {
    count(event);
    chart(event);
  }
  redrawSoon();
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
  for (const format of ["Jsonl", "Csv"]) {
    const query = filters();
    query.set("format", format.toLowerCase());
    $("export" + format).href = "/api/export?" + query;
  }
  if (source) source.close();
  $("rows").replaceChildren();
  // The chart names and colours its types by the counts' list; the rows come after both.
  await loadCounts();
  await loadRate();
  await fetchOlder(0);
  const newest = $("rows").querySelector("tr.event");
  params.set("after", newest ? newest.dataset.id : 0);
  source = new EventSource("/api/stream?" + params);
  source.addEventListener("events", (message) => {
    const events = JSON.parse(message.data);
    $("rows").prepend(...events.slice().reverse().map(eventRow));
    trimWindow();
    for (const event of events) {
      count(event);
      chart(event);
    }
    redrawSoon();
  });
  source.addEventListener("state", (message) => showState(JSON.parse(message.data)));
  source.onopen = () => ($("live").textContent = "live");
  source.onerror = () => ($("live").textContent = "reconnecting");
}

function redrawSoon() {
  if (redrawTimer === null) {
    redrawTimer = setTimeout(() => {
      redrawTimer = null;
      showCounts();
      drawRate();
    }, 250);
  }
}

async function loadCounts() {
  const loaded = await (await fetch("/api/counts?" + filters())).json();
  counts = {
    lastId: loaded.last_id,
    total: loaded.total,
    types: new Map(loaded.types.map((type) => [type.type, type.count])),
    statuses: new Map(loaded.statuses.map((status) => [status.status, status.count])),
  };
  for (const type of loaded.types) typeNames.set(type.type, type.name || `type ${type.type}`);
  fillTypeFilter(loaded.types);
  showCounts();
}

// Events the counts already hold (those up to their last id) are not counted twice.
function count(event) {
  if (!counts || event.id <= counts.lastId) return;
  counts.total += 1;
  if (event.type !== null) counts.types.set(event.type, (counts.types.get(event.type) || 0) + 1);
  counts.statuses.set(event.status, (counts.statuses.get(event.status) || 0) + 1);
}

function showCounts() {
  const body = $("counts").tBodies[0];
  body.replaceChildren();
  const line = (label, value, always) => {
    const row = body.insertRow();
    cell(row, label);
    cell(row, value);
    if (value === 0 && !always) row.className = "zero";
  };
  line("All events", counts.total, true);
  for (const [type, value] of counts.types) line(typeLabel(type), value);
  for (const [status, value] of [...counts.statuses].sort((a, b) => a[0] - b[0])) {
    line(`Answered ${status}`, value);
  }
  $("countsScope").textContent = filters().toString() ? "(filtered)" : "";
}

function fillTypeFilter(types) {
  const select = $("type");
  const chosen = select.value;
  select.replaceChildren(new Option("any", ""));
  for (const type of types) select.add(new Option(`${typeLabel(type.type)} (${type.type})`, type.type));
  if (chosen && ![...select.options].some((option) => option.value === chosen)) {
    select.add(new Option(chosen, chosen));
  }
  select.value = chosen;
}

async function loadRate() {
  const query = filters();
  query.set("span", $("span").value);
  const loaded = await (await fetch("/api/rate?" + query)).json();
  rate = {
    span: loaded.span * 1000,
    bucket: loaded.bucket * 1000,
    lastId: loaded.last_id,
    // Server time minus ours: the buckets are in the server's clock.
    offset: Date.parse(loaded.now) - Date.now(),
    buckets: new Map(),
  };
  for (const [time, type, refused, value] of loaded.rows) {
    add(Date.parse(time + (loaded.bucket === 60 ? ":00Z" : "Z")), type, refused, value);
  }
  $("rateTitle").textContent = loaded.bucket === 60 ? "Events per minute" : "Events per second";
  drawRate();
}

function add(start, type, refused, value) {
  let bucket = rate.buckets.get(start);
  if (!bucket) rate.buckets.set(start, (bucket = { types: new Map(), refused: 0 }));
  bucket.types.set(type, (bucket.types.get(type) || 0) + value);
  if (refused) bucket.refused += value;
}

// Events the chart already holds (those up to its last id) are not drawn twice.
function chart(event) {
  if (!rate || event.id <= rate.lastId) return;
  const time = Date.parse(event.received_at);
  add(time - (time % rate.bucket), event.type === null ? "" : event.type, event.status !== 200, 1);
}

function colour(type) {
  const index = [...typeNames.keys()].indexOf(type);
  return index < 0 ? "#9aa3af" : kColours[index % kColours.length];
}

// One bar per second (or minute), its types stacked; a red mark above a bar that holds
// refused answers, as tall as their share.
function drawRate() {
  if (!rate) return;
  const svg = $("rate");
  const width = 800;
  const height = 120;
  const slots = Math.round(rate.span / rate.bucket);
  const now = Date.now() + rate.offset;
  const first = now - (now % rate.bucket) - (slots - 1) * rate.bucket;
  let peak = 1;
  for (const [start, bucket] of rate.buckets) {
    if (start < first) {
      rate.buckets.delete(start);
      continue;
    }
    let total = 0;
    for (const value of bucket.types.values()) total += value;
    peak = Math.max(peak, total);
  }
  const slotWidth = width / slots;
  const scale = (height - 8) / peak;
  const shapes = [];
  const seen = new Set();
  for (const [start, bucket] of rate.buckets) {
    const x = ((start - first) / rate.bucket) * slotWidth;
    let y = height;
    for (const [type, value] of bucket.types) {
      seen.add(type);
      const bar = document.createElementNS(kSvg, "rect");
      const barHeight = value * scale;
      y -= barHeight;
      bar.setAttribute("x", x);
      bar.setAttribute("y", y);
      bar.setAttribute("width", Math.max(slotWidth - 0.5, 0.5));
      bar.setAttribute("height", barHeight);
      bar.setAttribute("fill", colour(type));
      bar.append(title(`${new Date(start).toISOString().slice(11, 19)} ${typeLabel(type || null)}: ${value}`));
      shapes.push(bar);
    }
    if (bucket.refused) {
      const mark = document.createElementNS(kSvg, "rect");
      mark.setAttribute("class", "refused");
      mark.setAttribute("x", x);
      mark.setAttribute("y", Math.max(y - 6, 0));
      mark.setAttribute("width", Math.max(slotWidth - 0.5, 2));
      mark.setAttribute("height", 4);
      mark.append(title(`${bucket.refused} refused`));
      shapes.push(mark);
    }
  }
  svg.replaceChildren(...shapes);
  const inOrder = ["", ...typeNames.keys()].filter((type) => seen.has(type));
  $("legend").replaceChildren(...inOrder.map((type) => {
    const item = document.createElement("span");
    const swatch = document.createElement("i");
    swatch.style.background = colour(type);
    item.append(swatch, typeLabel(type || null));
    return item;
  }), ...(shapes.some((shape) => shape.getAttribute("class") === "refused")
    ? [Object.assign(document.createElement("span"), { textContent: "▬ refused", className: "refused" })] : []));
  $("axisStart").textContent = $("span").selectedOptions[0].textContent;
  $("axisPeak").textContent = `peak ${peak}`;
}

function title(text) {
  const element = document.createElementNS(kSvg, "title");
  element.textContent = text;
  return element;
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
  $("repeats").textContent = `${state.repeats_absorbed} repeat(s) absorbed: events sent again with the same Idempotency-Key, stored once`;
  tokenRequired = state.token_required;
  $("tokenAsk").hidden = !tokenRequired || sessionStorage.getItem(kTokenKey) !== null;
  $("pages").textContent = `${state.live_pages} live page(s)` +
    (state.live_pages_cut ? `, ${state.live_pages_cut} cut off for falling behind` : "");
}

async function control(path, request) {
  const headers = { "Content-Type": "application/json" };
  const token = tokenRequired ? sessionStorage.getItem(kTokenKey) || $("token").value.trim() : "";
  if (token) headers.Authorization = `Bearer ${token}`;
  const answer = await fetch(path, { method: "POST", headers, body: JSON.stringify(request) });
  if (answer.status === 401) {
    sessionStorage.removeItem(kTokenKey);
  } else if (token) {
    sessionStorage.setItem(kTokenKey, token);
    $("token").value = "";
  }
  $("controlError").textContent = answer.ok ? "" : `Refused: ${await answer.text()}`;
  // A refused change stays in the form, to be applied again.
  if (!answer.ok && path === "/control/steer") steerEdited = true;
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
$("span").addEventListener("change", loadRate);
// The chart slides with the clock even when nothing arrives.
setInterval(drawRate, 1000);

const initial = new URLSearchParams(location.search);
for (const name of ["device", "q"]) $(name).value = initial.get(name) || "";
if (initial.get("type")) $("type").add(new Option(initial.get("type"), initial.get("type"), true, true));
load();
