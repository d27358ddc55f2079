// Tarry's window helper inside KWin. It tells Tarry (on the session bus, org.tarry.Tarry.KWin)
// about the normal windows, front to back, and the active one whenever they change, and carries
// out Tarry's requests: close a window or every window of a process, move, size and (un)minimize
// a window. Requests come as answers to "next", which Tarry holds open until it has one.
// KWin 5.27 names: activeClient, clientActivated, clientAdded, clientRemoved, clientList();
// Plasma 6: activeWindow, windowActivated, windowAdded, windowRemoved, windowList().

var SERVICE = "org.tarry.Tarry.KWin";
var PATH = "/KWin";
var IFACE = "org.tarry.KWin";
var plasma6 = typeof workspace.windowList === "function";

function allWindows() {
  return plasma6 ? workspace.windowList() : workspace.clientList();
}

function activeWindow() {
  return plasma6 ? workspace.activeWindow : workspace.activeClient;
}

function frontToBack() {
  var stack = workspace.stackingOrder;
  if (!stack) return allWindows();
  var out = [];
  for (var i = stack.length - 1; i >= 0; --i) out.push(stack[i]);
  return out;
}

function idOf(w) {
  return String(w.internalId);
}

function describe(w) {
  var g = w.frameGeometry;
  return {
    id: idOf(w),
    pid: w.pid,
    resourceClass: String(w.resourceClass || ""),
    desktopFile: String(w.desktopFileName || ""),
    caption: String(w.caption || ""),
    x: g.x,
    y: g.y,
    width: g.width,
    height: g.height,
    minimized: !!w.minimized
  };
}

// `gone`: a window being removed, which KWin may still list.
function report(gone) {
  var list = [];
  var windows = frontToBack();
  for (var i = 0; i < windows.length; ++i) {
    var w = windows[i];
    if (w && w !== gone && w.normalWindow && !w.skipTaskbar) list.push(describe(w));
  }
  var active = activeWindow();
  if (active === gone) active = null;
  // The active window may be a dialog, which is not in the list: it is described on its own.
  callDBus(SERVICE, PATH, IFACE, "report", JSON.stringify({
    active: active ? idOf(active) : "",
    activePid: active ? active.pid : 0,
    activeWindow: active ? describe(active) : null,
    windows: list
  }));
}

function find(id) {
  var windows = allWindows();
  for (var i = 0; i < windows.length; ++i) {
    if (idOf(windows[i]) === id) return windows[i];
  }
  return null;
}

function perform(request) {
  var windows, i, w;
  if (request.op === "close") {
    w = find(request.id);
    if (w) w.closeWindow();
  } else if (request.op === "closePid") {
    windows = allWindows();
    for (i = 0; i < windows.length; ++i) {
      if (windows[i].pid === request.pid && windows[i].normalWindow) windows[i].closeWindow();
    }
  } else if (request.op === "frame") {
    w = find(request.id);
    if (!w) return;
    if (w.minimized !== request.minimized) w.minimized = request.minimized;
    if (!request.minimized) {
      w.frameGeometry = {x: request.x, y: request.y, width: request.width, height: request.height};
    }
  }
}

function next() {
  callDBus(SERVICE, PATH, IFACE, "next", function (text) {
    var requests = [];
    try {
      requests = JSON.parse(text);
    } catch (e) {
      requests = [];
    }
    for (var i = 0; i < requests.length; ++i) perform(requests[i]);
    next();
  });
}

function reportAll() {
  report(null);
}

function follow(w) {
  if (!w) return;
  w.captionChanged.connect(reportAll);
  w.minimizedChanged.connect(reportAll);
  w.frameGeometryChanged.connect(reportAll);
}

var existing = allWindows();
for (var k = 0; k < existing.length; ++k) follow(existing[k]);
(plasma6 ? workspace.windowAdded : workspace.clientAdded).connect(function (w) {
  follow(w);
  report(null);
});
(plasma6 ? workspace.windowRemoved : workspace.clientRemoved).connect(function (w) {
  report(w);
});
(plasma6 ? workspace.windowActivated : workspace.clientActivated).connect(function () {
  report(null);
});
report(null);
next();
