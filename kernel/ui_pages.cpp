// The node's browser pages: the landing page, the login page and the
// dashboard pages. A dashboard page is read from the dashboard directory
// when an operator put one there, else the built-in one is served; either
// way the session script goes in before "</head>".
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/reply.h"
#include "kernel/kernel.h"

namespace ostrel::kernel {
namespace {

constexpr const char* kStyle = R"(<style>
body{font-family:system-ui,sans-serif;margin:0;background:#f4f5f7;color:#1d2330}
header{background:#1d2330;color:#fff;padding:12px 24px;display:flex;gap:18px;align-items:center}
header a{color:#cfd6e6;text-decoration:none}header b{margin-right:auto}
main{max-width:960px;margin:24px auto;padding:0 16px}
.card{background:#fff;border-radius:8px;padding:20px;box-shadow:0 1px 3px #0002;margin-bottom:16px}
table{border-collapse:collapse;width:100%}td,th{text-align:left;padding:6px 8px;border-bottom:1px solid #e3e6ec}
input,button{font:inherit;padding:8px 10px;border-radius:6px;border:1px solid #c6ccd8}
button{background:#2f6fed;color:#fff;border:0;cursor:pointer}.err{color:#b3261e}
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

std::string nav() {
  return "<header><b>Ostrel ULVO</b><a href=\"/dashboard/inference\">Inference</a>"
         "<a href=\"/dashboard/storage\">Storage</a><a href=\"/dashboard/cluster\">Cluster</a>"
         "<a href=\"/dashboard/extensions\">Extensions</a><a href=\"/dashboard/help\">Help</a>"
         "<a href=\"#\" id=\"logout\" onclick=\"ostrelLogout()\">Log out</a></header>";
}

// A dashboard page that shows what one API route answers.
std::string dashboard_page(const std::string& title, const std::string& api,
                           const std::string& render) {
  return "<!doctype html><html><head><meta charset=\"utf-8\"><title>Ostrel — " + title +
         "</title>" + kStyle + "</head><body>" + nav() + "<main><div class=\"card\"><h1>" + title +
         "</h1><div id=\"who\"></div><div id=\"content\">Loading…</div></div></main><script>\n"
         "fetch('/api/v1/auth/me').then(r => r.json()).then(me => {\n"
         "  if (me.username) document.getElementById('who').textContent = 'Signed in as ' + "
         "me.username + ' (' + me.role + ')';\n"
         "});\n"
         "fetch('" +
         api +
         "').then(r => r.json()).then(data => {\n"
         "  const el = document.getElementById('content');\n" +
         render +
         "\n}).catch(e => { document.getElementById('content').innerHTML = '<p class=err>' + e + "
         "'</p>'; });\n"
         "</script></body></html>";
}

const std::string kJsonRender =
    "  el.innerHTML = ''; const pre = document.createElement('pre');\n"
    "  pre.textContent = JSON.stringify(data, null, 2); el.appendChild(pre);";

std::string builtin_dashboard(const std::string& file) {
  if (file == "help.html") {
    return dashboard_page(
        "Help", "/api/v1/help/topics",
        "  const rows = (data.topics || []).map(t => '<tr><td><a href=\"#\" data-id=\"' + t.id + "
        "'\">' + t.title +\n"
        "    '</a></td><td>' + t.module + '</td><td>' + t.summary + '</td></tr>');\n"
        "  el.innerHTML = '<table><tr><th>Topic</th><th>Module</th><th>Summary</th></tr>' + "
        "rows.join('') + '</table><pre id=topic></pre>';\n"
        "  el.querySelectorAll('a[data-id]').forEach(a => a.onclick = ev => { "
        "ev.preventDefault();\n"
        "    fetch('/api/v1/help/topic?id=' + encodeURIComponent(a.dataset.id)).then(r => "
        "r.json())\n"
        "      .then(t => document.getElementById('topic').textContent = t.markdown || t.error); "
        "});");
  }
  if (file == "inference.html") return dashboard_page("Inference", "/v1/models", kJsonRender);
  if (file == "storage.html")
    return dashboard_page("Storage", "/api/v1/storage/stats", kJsonRender);
  if (file == "cluster.html")
    return dashboard_page("Cluster", "/api/v1/kernel/modules", kJsonRender);
  if (file == "extensions.html")
    return dashboard_page("Extensions", "/api/v1/extensions", kJsonRender);
  return "";
}

constexpr const char* kLoginPage = R"(<!doctype html>
<html><head><meta charset="utf-8"><title>Ostrel Login</title>
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

constexpr const char* kLandingPage = R"(<!doctype html>
<html><head><meta charset="utf-8"><title>Ostrel ULVO</title></head>
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

  std::filesystem::path dir;
  if (const char* d = std::getenv("OSTREL_DASHBOARD_DIR"); d && *d) {
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
                       base::reply(res, {{"error", "dashboard_not_found"}, {"path", file}}, 404);
                       return;
                     }
                     const std::size_t head = page.find("</head>");
                     page.insert(head == std::string::npos ? 0 : head, kSessionScript);
                     html(res, std::move(page));
                   });
  }
}

}  // namespace ostrel::kernel
