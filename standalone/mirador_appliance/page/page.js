// Asks the controller every two seconds and shows the answer. Whatever comes from outside becomes text, never markup.
import {Plot, clock, size} from "./plot.js";

const EVERY = 2000; // milliseconds between two questions
const FEW = 100, MOST = 1000; // VMs in the table
const at = id => document.getElementById(id);
const plots = {read: new Plot(at("plot-read"), "read", "Read"),
               skipped: new Plot(at("plot-skipped"), "skipped", "Skipped")};
let rows = FEW, latest = null, answered = performance.now(), asking = null, timer = 0;

const count = number => number.toLocaleString("en");
const rate = number => number >= 1 ? `${size(number)}/s` : "–";

// Characters that show nothing, or change how those around them are shown, are spelled out.
function plain(text) {
  return String(text ?? "").replace(/[\p{Cc}\p{Cf}\p{Co}\p{Zl}\p{Zp}]/gu,
    character => `\\u{${character.codePointAt(0).toString(16)}}`);
}

function duration(seconds) {
  if (seconds === null || seconds === undefined) return "of unknown age";
  const minutes = Math.floor(seconds / 60), hours = Math.floor(seconds / 3600);
  if (hours >= 48) return `${Math.floor(hours / 24)} days`;
  if (hours) return `${hours} h ${minutes % 60} min`;
  return minutes ? `${minutes} min ${Math.floor(seconds % 60)} s` : `${Math.floor(seconds)} s`;
}

function moment(seconds) {
  const time = new Date(seconds * 1000), today = new Date(latest.time * 1000);
  const day = [time.getFullYear(), time.getMonth() + 1, time.getDate()].map(part => String(part).padStart(2, "0"));
  return time.toDateString() === today.toDateString() ? clock(seconds) : `${day.join("-")} ${clock(seconds)}`;
}

function say(id, text) {
  const element = at(id);
  if (element.textContent !== text) element.textContent = text;
}

function newCell(row, title) {
  const cell = row.insertCell();
  cell.dataset.title = title;
  return cell;
}

// Fills a table: each row is a list of [text, class]. What has not changed is left alone, so that a selection stays.
function fill(id, lines) {
  const body = at(id).tBodies[0], titles = at(id).tHead.rows[0].cells;
  while (body.rows.length > lines.length) body.deleteRow(-1);
  lines.forEach((cells, number) => {
    const row = body.rows[number] || body.insertRow();
    cells.forEach(([text, kind], column) => {
      const cell = row.cells[column] || newCell(row, titles[column].textContent);
      if (cell.textContent !== text) cell.textContent = text;
      if (cell.className !== kind) cell.className = kind;
    });
  });
}

function showHead(told) {
  const {daemon} = told, cycle = daemon.cycle;
  const reading = told.datastores.filter(store => store.accessible && !store.complete);
  say("daemon", daemon.words + (reading.length ? `; ${reading.length === 1 ? "a datastore is" : "datastores are"} being read` : ""));
  at("daemon").className = daemon.state !== "there" ? "bad" : daemon.is_current ? "good" : "";
  say("age", `as of ${clock(told.time)}`);
  const progress = at("progress");
  progress.hidden = !(cycle && cycle.first);
  if (cycle) Object.assign(progress, {max: Math.max(1, cycle.of), value: cycle.taken});
  document.title = told.counts.alerts ? `(${told.counts.alerts}) mirador` : "mirador";
}

function showTiles({counts, reads, vms, since, daemon}) {
  const now = reads.rate;
  const average = now ? `average of ${duration(now.seconds)}, ${duration(now.age)} ago` : "no report";
  for (const kind of ["read", "skipped"]) {
    say(`tile-${kind}`, now ? `${size(now[kind])}/s` : "–");
    say(`tile-${kind}-more`, `${average}; ${size(reads[kind])} since ${moment(since)}`);
  }
  say("tile-open", count(counts.open));
  say("tile-open-more", daemon.state === "there" ? `${count(counts.reading)} being read`
    : daemon.state === "silent" ? "as last reported" : "no report yet");
  say("tile-snapshots", count(counts.snapshots));
  const oldest = counts.oldest;
  say("tile-snapshots-more", oldest === null ? "" : `the oldest ${duration(oldest)} old`);
  say("tile-vms", count(vms.total));
  say("tile-vms-more", `${count(counts.disks)} disks, ${size(counts.capacity)}`);
  say("tile-alerts", count(counts.alerts));
  say("tile-alerts-more", counts.alerts ? "see below" : "none stands");
  at("tile-of-alerts").className = counts.alerts ? "bad" : "";
}

function showPlots({reads, time, since, daemon}) {
  for (const [kind, column] of [["read", 2], ["skipped", 3]]) {
    const samples = reads.samples.map(sample => ({start: sample[0], end: sample[1], bytes: sample[column],
                                                  rate: sample[column] / (sample[1] - sample[0])}));
    plots[kind].show(samples, time, since, Number(at("window").value), daemon.state !== "there");
  }
}

function showAlerts({alerts}) {
  at("alerts-section").hidden = !alerts.total;
  fill("alerts", alerts.rows.map(alert => [
    [moment(alert.first_time), "fixed"], [plain(alert.severity), "fixed"], [plain(alert.alert_id), "wide fixed"],
    [plain(alert.message) || plain(alert.vhost), "text"]]));
  say("alerts-note", alerts.total > alerts.rows.length ? `${count(alerts.total - alerts.rows.length)} older ones are not shown.` : "");
}

function state(file, isStale) {
  if (isStale) return "unknown";
  if (file.idle === null) return "just opened";
  return file.reading ? "being read" : `idle for ${duration(file.idle)}`;
}

function showFiles({files, daemon}) {
  const isStale = daemon.state !== "there";
  fill("files", files.rows.map(file => [
    [plain(file.path), "path"], [size(file.read), "number"], [rate(file.read_rate), "number"],
    [size(file.skipped), "number"], [rate(file.skipped_rate), "number wide"],
    [file.size === null ? "–" : size(file.size), "number wide"], [state(file, isStale), "fixed"]]));
  at("files").hidden = !files.total;
  const rest = files.total - files.rows.length;
  const none = !isStale ? "No disk is open." : daemon.state === "silent" ? "None in the daemon's last report." : "No report yet.";
  say("files-note", !files.total ? none : rest ? `${count(rest)} more are not shown.` :
      isStale ? "As the daemon last reported them." : "");
}

function snapshots(vm) {
  if (!vm.snapshots.length) return "";
  const ages = vm.snapshots.map(({age, whose}) => `${duration(age)}, ${whose === "foreign" ? "a user's own" : whose}`);
  return ages.length > 2 ? `${ages[0]}; ${ages.length - 1} more` : ages.join("; ");
}

function notes(vm) {
  const words = [];
  if (vm.problem) words.push(plain(vm.problem).replace(/\.$/, ""));
  if (vm.alerts) words.push(`${vm.alerts} alert${vm.alerts > 1 ? "s" : ""}`);
  if (!vm.exported) words.push("not exported");
  if (vm.template) words.push("template");
  if (vm.tracked) words.push("tracked");
  return words.join("; ");
}

function showVms({vms}) {
  fill("vms", vms.rows.map(vm => [
    [plain(vm.name), "name"], [plain(vm.place), ""], [count(vm.disks), "number wide"],
    [size(vm.capacity), "number wide"], [vm.open ? count(vm.open) : "", "number"],
    [vm.open ? rate(vm.read_rate) : "", "number"], [vm.open ? rate(vm.skipped_rate) : "", "number wide"],
    [vm.open ? size(vm.read) : "", "number wide"], [snapshots(vm), "few-words"],
    [notes(vm), `few-words ${vm.problem || vm.alerts ? "bad-text" : "soft-text"}`]]));
  const {rows: shown, matching, total} = vms;
  const found = matching < total ? `${count(matching)} of ${count(total)} VMs match` : `${count(total)} VMs`;
  say("vms-note", shown.length < matching ? `${found}; ${count(shown.length)} are shown.` : `${found}.`);
  at("more").hidden = shown.length >= matching || rows >= MOST;
}

function showStores({datastores}) {
  fill("stores", datastores.map(store => [
    [plain(store.name), "name"], [plain(store.hypervisor), ""],
    [!store.accessible ? "lost" : store.complete ? "readable" : "being read", store.accessible ? "" : "bad-text"],
    [count(store.vms), "number"], [size(store.free), "number"], [size(store.capacity), "number wide"],
    [plain(store.directory), "wide"]]));
}

function show(told) {
  latest = told;
  at("content").hidden = false;
  at("content").className = "";
  for (const part of [showHead, showTiles, showPlots, showAlerts, showFiles, showVms, showStores]) part(told);
}

function showNoAnswer() {
  const seconds = (performance.now() - answered) / 1000;
  say("daemon", `The controller has not answered for ${duration(seconds)}`);
  at("daemon").className = "bad";
  at("content").className = "old";
}

async function ask() {
  clearTimeout(timer);
  if (asking) asking.abort();
  const mine = asking = new AbortController();
  const given = setTimeout(() => mine.abort(), 10000);
  try {
    const query = new URLSearchParams({find: at("find").value, sort: at("sort").value, rows});
    const answer = await fetch(`/overview?${query}`, {signal: mine.signal, cache: "no-store"});
    if (!answer.ok) throw new Error(`status ${answer.status}`);
    const told = await answer.json();
    if (mine !== asking) return;
    answered = performance.now();
    show(told);
  } catch (error) {
    if (mine !== asking) return;
    if (!(error instanceof TypeError || error.name === "AbortError")) console.error(error);
    showNoAnswer();
  } finally {
    clearTimeout(given);
    if (mine === asking) {
      clearTimeout(timer);
      timer = setTimeout(ask, EVERY);
    }
  }
}

at("find").addEventListener("input", () => { rows = FEW; ask(); });
at("sort").addEventListener("change", () => { rows = FEW; ask(); });
at("window").addEventListener("change", () => latest && showPlots(latest));
at("more").addEventListener("click", () => { rows = Math.min(MOST, rows + 300); ask(); });
document.addEventListener("visibilitychange", () => document.hidden ? clearTimeout(timer) : ask());
ask();
