// The node's browser pages: the landing page, the login page and the
// dashboard pages. A dashboard page is read from the dashboard directory
// when an operator put one there, else the built-in one is served; either
// way the session script goes in before "</head>".
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/env.h"
#include "base/reply.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
namespace {

constexpr const char* kStyle = R"(<style>
body{font-family:system-ui,sans-serif;margin:0;background:#f4f5f7;color:#1d2330}
header{background:#1d2330;color:#fff;padding:12px 24px;display:flex;gap:18px;align-items:center}
header a{color:#cfd6e6;text-decoration:none}header a.on{color:#fff;font-weight:600}header b{margin-right:auto}
main{max-width:1080px;margin:20px auto;padding:0 16px}
.card{background:#fff;border-radius:8px;padding:18px 20px;box-shadow:0 1px 3px #0002;margin-bottom:16px}
.card h1,.card h2{margin:0 0 12px;font-size:18px}
.figures{display:grid;grid-template-columns:repeat(auto-fit,minmax(140px,1fr));gap:12px;margin-bottom:16px}
.figure{background:#fff;border-radius:8px;padding:12px 14px;box-shadow:0 1px 3px #0002}
.figure span{display:block;font-size:12px;color:#5b6475;text-transform:uppercase;letter-spacing:.04em}
.figure b{display:block;font-size:20px;margin-top:4px;overflow:hidden;text-overflow:ellipsis;white-space:nowrap}
.chips{display:flex;flex-wrap:wrap;gap:8px}
.chip{padding:4px 10px;border-radius:999px;font-size:13px;background:#e3e6ec}
.chip.healthy,.chip.ok,.chip.alive,.chip.yes{background:#d7f2df;color:#14532d}
.chip.degraded,.chip.suspect{background:#fdf0c8;color:#713f12}
.chip.failed,.chip.dead,.chip.unhealthy,.chip.no{background:#fbd9d6;color:#7f1d1d}
.charts{display:grid;grid-template-columns:1fr 1fr;gap:16px}
.chart svg{width:100%;height:120px;background:#f7f8fa;border-radius:6px}
.chart p{margin:6px 0 0;font-size:13px;color:#5b6475}
table{border-collapse:collapse;width:100%}td,th{text-align:left;padding:6px 8px;border-bottom:1px solid #e3e6ec;font-size:14px}
th{color:#5b6475;font-weight:600}
input,button{font:inherit;padding:8px 10px;border-radius:6px;border:1px solid #c6ccd8}
button{background:#2f6fed;color:#fff;border:0;cursor:pointer}.err{color:#b3261e}.muted{color:#5b6475}
pre{white-space:pre-wrap;background:#f7f8fa;padding:12px;border-radius:6px}
</style>)";

// Sends a visitor without a key to /login and adds the key to every request
// the page makes.
constexpr const char* kSessionScript = R"(<script>
(function () {
  var key = localStorage.getItem("ostrel_api_key");
  if (!key) { location.replace("/login?next=" + encodeURIComponent(location.pathname)); return; }
  var plain = window.fetch.bind(window);
  window.fetch = function (input, init) {
    init = init || {};
    var h = new Headers(init.headers || {});
    if (!h.has("X-API-Key")) h.set("X-API-Key", key);
    init.headers = h;
    return plain(input, init);
  };
  window.ostrelLogout = function () { localStorage.removeItem("ostrel_api_key"); location.replace("/login"); };
})();
</script>)";

// What every dashboard page shows above its own part: the node's key
// figures, the state of each module, and the request rate and latency drawn
// from the node's own /metrics, sampled every two seconds while the page is
// open. Everything is drawn here (inline SVG): the page loads nothing from
// elsewhere.
constexpr const char* kDashboardScript = R"JS(<script>
const $ = (id) => document.getElementById(id);
const esc = (v) => String(v ?? "").replace(/[&<>"']/g, (c) => ({"&":"&amp;","<":"&lt;",">":"&gt;","\"":"&quot;","'":"&#39;"}[c]));
const getJSON = (path) => fetch(path).then((r) => r.json());
function table(cols, rows) {
  if (!rows.length) return '<p class="muted">Nothing yet.</p>';
  return '<table><tr>' + cols.map((c) => '<th>' + esc(c[0]) + '</th>').join('') + '</tr>' +
    rows.map((r) => '<tr>' + cols.map((c) => '<td>' + c[1](r) + '</td>').join('') + '</tr>').join('') + '</table>';
}
const chip = (text, state) => '<span class="chip ' + esc(state) + '">' + esc(text) + '</span>';
function duration(s) {
  if (s < 120) return s + " s";
  if (s < 7200) return Math.round(s / 60) + " min";
  if (s < 172800) return (s / 3600).toFixed(1) + " h";
  return (s / 86400).toFixed(1) + " d";
}
function metricValues(text) {
  const out = {};
  for (const line of text.split("\n")) {
    if (!line || line[0] === "#") continue;
    const m = line.match(/^([a-zA-Z_:][a-zA-Z0-9_:]*)(\{[^}]*\})?\s+(\S+)/);
    if (m && !m[2]) out[m[1]] = Number(m[3]);
  }
  return out;
}
function spark(svg, values, colour) {
  const w = 300, h = 100, max = Math.max(1e-9, ...values);
  const pts = values.map((v, i) => (values.length < 2 ? 0 : (i * w) / (values.length - 1)).toFixed(1) + ',' + (h - (v / max) * (h - 8) - 4).toFixed(1));
  svg.setAttribute("viewBox", "0 0 " + w + " " + h);
  svg.setAttribute("preserveAspectRatio", "none");
  svg.innerHTML = '<polyline fill="none" stroke="' + colour + '" stroke-width="2" points="' + pts.join(' ') + '"/>';
}
const samples = [];
async function sample() {
  const t = performance.now() / 1000;
  const m = metricValues(await fetch("/metrics").then((r) => r.text()));
  samples.push({ t, total: m.ostrel_requests_total || 0, sum: m.ostrel_requests_duration_ms_sum || 0,
                 count: m.ostrel_requests_duration_ms_count || 0, rss: m.process_resident_memory_bytes || 0 });
  if (samples.length > 61) samples.shift();
  const rate = [], latency = [];
  for (let i = 1; i < samples.length; i++) {
    const a = samples[i - 1], b = samples[i], dt = Math.max(1e-3, b.t - a.t), n = b.count - a.count;
    rate.push((b.total - a.total) / dt);
    latency.push(n > 0 ? (b.sum - a.sum) / n : 0);
  }
  if (rate.length) {
    spark($("rate"), rate, "#2f6fed");
    spark($("latency"), latency, "#c2410c");
    $("rate-now").textContent = rate[rate.length - 1].toFixed(1) + " requests/s now, at most " + Math.max(...rate).toFixed(1);
    $("latency-now").textContent = latency[latency.length - 1].toFixed(2) + " ms per request now, at most " + Math.max(...latency).toFixed(2);
  }
  $("f-rss").textContent = (samples[samples.length - 1].rss / 1048576).toFixed(1) + " MB";
  $("f-requests").textContent = samples[samples.length - 1].total;
}
async function overview() {
  const h = await getJSON("/health");
  $("f-node").textContent = h.node_id;
  $("f-version").textContent = h.version;
  $("f-uptime").textContent = duration(h.uptime_s);
  $("f-auth").textContent = h.auth;
  const mods = h.modules || [];
  const up = mods.filter((m) => m.state === "healthy").length;
  $("f-modules").textContent = up + " of " + mods.length;
  $("modules").innerHTML = mods.length ? mods.map((m) => chip(m.name + ": " + m.state, m.state)).join("")
                                       : '<span class="muted">No modules loaded.</span>';
}
fetch("/api/v1/auth/me").then((r) => r.json()).then((me) => {
  if (me.username) $("who").textContent = "Signed in as " + me.username + " (" + me.role + ")";
});
overview().catch(() => {});
sample().catch(() => {});
setInterval(() => { overview().catch(() => {}); sample().catch(() => {}); }, 2000);
</script>)JS";

std::string nav(const std::string& current) {
  std::string out = "<header><b>Ostrel ULVO</b>";
  for (const char* name : {"inference", "storage", "cluster", "extensions", "help"}) {
    std::string label = name;
    label[0] = static_cast<char>(label[0] - 'a' + 'A');
    out += std::string("<a href=\"/dashboard/") + name + "\"" +
           (current == name ? " class=\"on\"" : "") + ">" + label + "</a>";
  }
  return out + "<a href=\"#\" id=\"logout\" onclick=\"ostrelLogout()\">Log out</a></header>";
}

// A dashboard page: the shared overview, then `render` filling #content
// from what `api` answers (`data`).
std::string dashboard_page(const std::string& name, const std::string& title,
                           const std::string& api, const std::string& render) {
  return "<!doctype html><html><head><meta charset=\"utf-8\"><title>Ostrel — " + title +
         "</title><link rel=\"icon\" href=\"/favicon.ico\">" + kStyle + "</head><body>" +
         nav(name) +
         "<main>"
         "<div class=\"figures\">"
         "<div class=\"figure\"><span>Node</span><b id=\"f-node\">…</b></div>"
         "<div class=\"figure\"><span>Version</span><b id=\"f-version\">…</b></div>"
         "<div class=\"figure\"><span>Up for</span><b id=\"f-uptime\">…</b></div>"
         "<div class=\"figure\"><span>Modules healthy</span><b id=\"f-modules\">…</b></div>"
         "<div class=\"figure\"><span>Memory</span><b id=\"f-rss\">…</b></div>"
         "<div class=\"figure\"><span>Requests</span><b id=\"f-requests\">…</b></div>"
         "<div class=\"figure\"><span>Auth</span><b id=\"f-auth\">…</b></div>"
         "</div>"
         "<div class=\"card\"><h2>Modules</h2><div class=\"chips\" id=\"modules\"></div></div>"
         "<div class=\"card charts\">"
         "<div class=\"chart\"><h2>Request rate</h2><svg id=\"rate\"></svg><p "
         "id=\"rate-now\">Measuring…</p></div>"
         "<div class=\"chart\"><h2>Latency</h2><svg id=\"latency\"></svg><p "
         "id=\"latency-now\">Measuring…</p></div>"
         "</div>"
         "<div class=\"card\"><h1>" +
         title +
         "</h1><div id=\"who\" class=\"muted\"></div>"
         "<div id=\"content\">Loading…</div></div></main>" +
         kDashboardScript + "<script>\ngetJSON('" + api +
         "').then(data => {\n  const el = document.getElementById('content');\n" + render +
         "\n}).catch(e => { document.getElementById('content').innerHTML = '<p class=err>' + "
         "esc(e) + "
         "'</p>'; });\n</script></body></html>";
}

std::string builtin_dashboard(const std::string& file) {
  if (file == "help.html") {
    return dashboard_page(
        "help", "Help", "/api/v1/help/topics",
        "  const rows = (data.topics || []).map(t => '<tr><td><a href=\"#\" data-id=\"' + "
        "esc(t.id) + "
        "'\">' + esc(t.title) +\n"
        "    '</a></td><td>' + esc(t.module) + '</td><td>' + esc(t.summary) + '</td></tr>');\n"
        "  el.innerHTML = '<table><tr><th>Topic</th><th>Module</th><th>Summary</th></tr>' + "
        "rows.join('') + '</table><pre id=topic></pre>';\n"
        "  el.querySelectorAll('a[data-id]').forEach(a => a.onclick = ev => { "
        "ev.preventDefault();\n"
        "    fetch('/api/v1/help/topic?id=' + encodeURIComponent(a.dataset.id)).then(r => "
        "r.json())\n"
        "      .then(t => document.getElementById('topic').textContent = t.markdown || t.error); "
        "});");
  }
  if (file == "inference.html") {
    return dashboard_page(
        "inference", "Inference", "/api/v1/inference/engine",
        "  const q = data.queue || {};\n"
        "  el.innerHTML = '<h2>Backends</h2>' + table([\n"
        "    ['Backend', b => esc(b.id)], ['Kind', b => esc(b.kind)],\n"
        "    ['State', b => chip(b.healthy ? 'healthy' : 'unreachable', b.healthy ? 'healthy' : "
        "'failed')],\n"
        "    ['Models', b => esc((b.models || []).join(', ') || '—')],\n"
        "    ['Requests', b => esc(b.requests_total)], ['Errors', b => esc(b.errors)],\n"
        "    ['In flight', b => esc(b.in_flight)],\n"
        "    ['Average latency', b => esc(Number(b.avg_latency_ms || 0).toFixed(1)) + ' ms']],\n"
        "    data.backends || []) +\n"
        "    '<h2>Queue</h2><p>' + esc(q.queued || 0) + ' waiting, ' + esc(q.accepted || 0) + ' "
        "accepted, ' + esc(q.rejected || 0) + ' rejected</p>';");
  }
  if (file == "storage.html") {
    return dashboard_page(
        "storage", "Storage", "/api/v1/vector/namespaces",
        "  el.innerHTML = '<h2>Vector namespaces</h2>' + table([\n"
        "    ['Tenant', n => esc(n.tenant)], ['Namespace', n => esc(n.name || n.namespace)],\n"
        "    ['Chunks', n => esc(n.document_count)], ['Dimensions', n => esc(n.embedding_dim)],\n"
        "    ['Size', n => esc(((n.size_bytes || 0) / 1024).toFixed(1)) + ' KB']],\n"
        "    data.namespaces || []) + '<h2>Object store</h2><div id=objects class=muted>…</div>';\n"
        "  getJSON('/api/v1/storage/stats').then(o => { document.getElementById('objects')"
        ".innerHTML = o.error ? esc(o.error) : esc(o.objects) + ' objects, ' + "
        "esc(((o.bytes || 0) / 1048576).toFixed(1)) + ' MB in ' + esc(o.chunk_rows) + ' chunks (' "
        "+ "
        "esc(o.dedup_hits) + ' deduplicated)'; });");
  }
  if (file == "cluster.html") {
    return dashboard_page(
        "cluster", "Cluster", "/api/v1/cluster/members",
        "  const rows = data.members || [];\n"
        "  el.innerHTML = data.enabled ? '<h2>Members</h2>' + table([\n"
        "    ['Node', m => esc(m.id) + (m.self ? ' (this node)' : '')], ['State', m => "
        "chip(m.state, "
        "m.state)],\n"
        "    ['API', m => esc(m.url)], ['Modules', m => esc((m.modules || []).join(', '))]], "
        "rows)\n"
        "    : '<p class=muted>Gossip is off on this node (OSTREL_GOSSIP_ENABLED=1 turns it on): "
        "it "
        "knows no other members.</p>';\n"
        "  getJSON('/api/v1/kernel/modules').then(m => { el.insertAdjacentHTML('beforeend', "
        "'<h2>Modules of this node</h2>' + table([\n"
        "    ['Module', x => esc(x.name)], ['Version', x => esc(x.version)], ['State', x => "
        "chip(x.state || '', x.state || '')]], m.modules || [])); });");
  }
  if (file == "extensions.html") {
    return dashboard_page("extensions", "Extensions", "/api/v1/extensions",
                          "  el.innerHTML = '<p class=muted>' + esc(data.note || '') + '</p>' + "
                          "table([['Extension', x => esc(x.id || x.name)]], data.extensions || "
                          "[]);");
  }
  return "";
}

constexpr const char* kLoginPage = R"(<!doctype html>
<html><head><meta charset="utf-8"><title>Ostrel Login</title><link rel="icon" href="/favicon.ico">
<meta name="viewport" content="width=device-width,initial-scale=1">
<style>
body{font-family:system-ui,sans-serif;background:#1d2330;margin:0;min-height:100vh;display:flex;align-items:center;justify-content:center}
.box{background:#fff;border-radius:10px;padding:28px 32px;width:320px;box-shadow:0 4px 18px #0006}
h1{margin:0 0 16px;font-size:22px}label{display:block;margin:10px 0 4px;font-size:14px;color:#444}
input{width:100%;box-sizing:border-box;padding:9px 10px;border:1px solid #c6ccd8;border-radius:6px;font:inherit}
button{margin-top:16px;width:100%;padding:10px;border:0;border-radius:6px;background:#2f6fed;color:#fff;font:inherit;cursor:pointer}
.alt{margin-top:12px;font-size:14px;text-align:center}.alt a{color:#2f6fed;cursor:pointer}
#msg{margin-top:12px;font-size:14px;color:#b3261e;min-height:1em}
</style></head><body>
<div class="box">
  <h1 id="heading">Sign in to Ostrel</h1>
  <form id="form">
    <label for="username">User name</label><input id="username" name="username" autocomplete="username" required>
    <label for="password">Password</label><input id="password" name="password" type="password" autocomplete="current-password" required minlength="8">
    <button id="submit" type="submit">Sign in</button>
  </form>
  <div class="alt"><a id="toggle">Create an account</a></div>
  <div id="msg" role="alert"></div>
</div>
<script>
(function () {
  var registering = false;
  var params = new URLSearchParams(location.search);
  // Only a path of this node: no scheme, no other host, and nothing a browser
  // would read as one (backslashes, control characters); the parsed origin
  // must be this page's.
  var next = (function (n) {
    var fallback = "/dashboard/help";
    if (!n || n.charAt(0) !== "/" || /[\\\u0000-\u001f\u007f]/.test(n)) return fallback;
    try {
      var u = new URL(n, location.origin);
      return u.origin === location.origin ? u.pathname + u.search + u.hash : fallback;
    } catch (e) {
      return fallback;
    }
  })(params.get("next"));
  function mode(reg) {
    registering = reg;
    document.getElementById("heading").textContent = reg ? "Create an Ostrel account" : "Sign in to Ostrel";
    document.getElementById("submit").textContent = reg ? "Create account" : "Sign in";
    document.getElementById("toggle").textContent = reg ? "I have an account" : "Create an account";
    document.getElementById("msg").textContent = "";
  }
  document.getElementById("toggle").onclick = function () { mode(!registering); };
  document.getElementById("form").onsubmit = function (ev) {
    ev.preventDefault();
    var body = JSON.stringify({ username: document.getElementById("username").value,
                                password: document.getElementById("password").value });
    fetch(registering ? "/api/v1/auth/register" : "/api/v1/auth/login",
          { method: "POST", headers: { "Content-Type": "application/json" }, body: body })
      .then(function (r) { return r.json(); })
      .then(function (a) {
        if (!a.api_key) { document.getElementById("msg").textContent = a.error || "failed"; return; }
        localStorage.setItem("ostrel_api_key", a.api_key);
        location.assign(next);
      })
      .catch(function (e) { document.getElementById("msg").textContent = String(e); });
  };
})();
</script>
</body></html>
)";

// The node's icon: a 32×32 PNG in an ICO container, so that a browser's
// request for /favicon.ico finds one.
constexpr unsigned char kFavicon[] = {
    0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x20, 0x20, 0x00, 0x00, 0x01, 0x00, 0x20, 0x00, 0xcf, 0x00,
    0x00, 0x00, 0x16, 0x00, 0x00, 0x00, 0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00,
    0x00, 0x0d, 0x49, 0x48, 0x44, 0x52, 0x00, 0x00, 0x00, 0x20, 0x00, 0x00, 0x00, 0x20, 0x08, 0x06,
    0x00, 0x00, 0x00, 0x73, 0x7a, 0x7a, 0xf4, 0x00, 0x00, 0x00, 0x96, 0x49, 0x44, 0x41, 0x54, 0x78,
    0xda, 0xed, 0x97, 0x4b, 0x0e, 0x80, 0x20, 0x0c, 0x44, 0x7b, 0x11, 0x57, 0x1e, 0x40, 0x6f, 0xe6,
    0xc9, 0x3d, 0x83, 0xee, 0x4c, 0x44, 0x4a, 0xe8, 0x8f, 0x69, 0x88, 0x93, 0x74, 0x07, 0x9d, 0x17,
    0xbe, 0x2d, 0x51, 0xa1, 0x65, 0xdd, 0xaf, 0xc8, 0x20, 0x4e, 0xd1, 0xc6, 0x4d, 0x90, 0xd1, 0xe6,
    0x1f, 0x08, 0x28, 0x00, 0xca, 0xfc, 0x81, 0x90, 0x0c, 0xee, 0x55, 0x08, 0x80, 0x54, 0x6e, 0x00,
    0x56, 0x99, 0x00, 0xbc, 0xe4, 0x0a, 0xa0, 0x59, 0x31, 0x15, 0x80, 0x65, 0x5f, 0x25, 0x73, 0xc9,
    0xdb, 0x5c, 0x9a, 0xa3, 0x0b, 0xa0, 0x36, 0x66, 0x3b, 0xce, 0x57, 0x68, 0xf3, 0xa8, 0x00, 0x4a,
    0x73, 0x0e, 0x22, 0x04, 0x80, 0x33, 0xaf, 0x41, 0xfc, 0x00, 0x73, 0x02, 0xc0, 0x0f, 0x21, 0xe4,
    0x1a, 0x0e, 0x7f, 0x88, 0xe0, 0x4f, 0x71, 0x8a, 0xcf, 0x28, 0xc5, 0x77, 0x0c, 0x2f, 0x48, 0x52,
    0x94, 0x64, 0x69, 0x8a, 0xd2, 0x29, 0x7b, 0x83, 0x3c, 0xad, 0x19, 0xbc, 0x39, 0x45, 0xb6, 0xe7,
    0x37, 0xbe, 0xa6, 0x22, 0x11, 0x6b, 0x01, 0xec, 0xdb, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4e,
    0x44, 0xae, 0x42, 0x60, 0x82,
};

constexpr const char* kLandingPage = R"(<!doctype html>
<html><head><meta charset="utf-8"><title>Ostrel ULVO</title><link rel="icon" href="/favicon.ico"></head>
<body style="font-family:system-ui,sans-serif;max-width:720px;margin:60px auto;padding:0 16px">
<h1>Ostrel ULVO</h1>
<p>This node serves a JSON API on this port: OpenAI-compatible <code>/v1/</code> routes and <code>/api/v1/</code>.</p>
<p><a href="/login">Sign in</a> · <a href="/dashboard/help">Dashboard</a> · <a href="/health">Health</a> · <a href="/metrics">Metrics</a></p>
</body></html>
)";

}  // namespace

void Kernel::register_page_routes_() {
  auto html = [](Response& res, std::string body) {
    res.content_type = "text/html; charset=utf-8";
    res.body = std::move(body);
  };
  gateway_.route("GET", "/", [html](const Request&, Response& res) { html(res, kLandingPage); });
  gateway_.route("GET", "/login", [html](const Request&, Response& res) { html(res, kLoginPage); });
  gateway_.route("GET", "/favicon.ico", [](const Request&, Response& res) {
    res.content_type = "image/x-icon";
    res.headers["Cache-Control"] = "public, max-age=86400";
    res.body.assign(reinterpret_cast<const char*>(kFavicon), sizeof kFavicon);
  });

  std::filesystem::path dir;
  if (std::string d = base::env::text("OSTREL_DASHBOARD_DIR"); !d.empty()) {
    dir = d;
  } else {
    dir = std::filesystem::path(config_.data_dir) / "dashboard";
  }
  for (const char* name : {"extensions", "help", "cluster", "inference", "storage"}) {
    const std::string file = std::string(name) + ".html";
    gateway_.route("GET", std::string("/dashboard/") + name,
                   [html, dir, file](const Request&, Response& res) {
                     std::string page;
                     if (std::ifstream in(dir / file, std::ios::binary); in) {
                       std::stringstream ss;
                       ss << in.rdbuf();
                       page = ss.str();
                     } else {
                       page = builtin_dashboard(file);
                     }
                     if (page.empty()) {
                       base::fail(res, 404, "dashboard_not_found", {{"path", file}});
                       return;
                     }
                     const std::size_t head = page.find("</head>");
                     page.insert(head == std::string::npos ? 0 : head, kSessionScript);
                     html(res, std::move(page));
                   });
  }
}

}  // namespace ostrel::kernel
