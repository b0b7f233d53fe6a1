#!/usr/bin/env bash
# Stages the bundle from a build folder and runs QOR Velmora from it:
#   scripts/run.sh [BUILD]        (what `make run` does, after building)
# On a desktop the window simply opens. Without a display this starts a
# virtual one (Xvfb) and a D-Bus session, saves a screenshot of the window
# once the gateway's page is shown, and keeps running until interrupted (Ctrl+C).
set -euo pipefail

build=${1:-build}
bundle="$build/bundle/QOR Velmora"
rm -rf "$bundle"
cmake --install "$build" --prefix "$bundle" >/dev/null
app="$bundle/bin/qor-velmora"
echo "Bundle staged at $bundle"

if [ -n "${DISPLAY:-}" ] || [ -n "${WAYLAND_DISPLAY:-}" ]; then
  if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
    exec dbus-run-session -- "$app"
  fi
  exec "$app"
fi

work=$(mktemp -d)
xvfb_pid="" dbus_pid="" app_pid=""

cleanup() {
  trap - EXIT INT TERM HUP
  # The shell stops its gateway on SIGTERM; give it the time that takes.
  if [ -n "$app_pid" ] && kill -0 "$app_pid" 2>/dev/null; then
    kill -TERM "$app_pid" 2>/dev/null || true
    wait "$app_pid" 2>/dev/null || true
  fi
  [ -n "$dbus_pid" ] && kill "$dbus_pid" 2>/dev/null || true
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" 2>/dev/null && wait "$xvfb_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# Xvfb picks a free display number and writes it to fd 5 once it accepts clients.
Xvfb -displayfd 5 -screen 0 1400x900x24 -nolisten tcp 5>"$work/display" 2>"$work/xvfb.log" &
xvfb_pid=$!
for _ in $(seq 100); do
  [ -s "$work/display" ] && break
  kill -0 "$xvfb_pid" 2>/dev/null || { cat "$work/xvfb.log" >&2; exit 1; }
  sleep 0.1
done
[ -s "$work/display" ] || { echo "Xvfb did not start" >&2; exit 1; }
export DISPLAY=":$(head -n1 "$work/display")"
eval "$(dbus-launch --sh-syntax)"
dbus_pid=$DBUS_SESSION_BUS_PID
echo "No display: running on virtual display $DISPLAY"

# The shell's output also goes to a log, where the gateway notes each request.
"$app" > >(tee "$work/app.log") 2>&1 &
app_pid=$!

# Wait until the web view is shown (it stays hidden until the gateway is
# ready), the page's script has asked for the notes and the window's picture
# has settled, then save a picture of the window alone.
screenshot="$build/qor-velmora-screenshot.png"
if /usr/bin/python3 - "$app_pid" "$work/app.log" "$screenshot" <<'PY'
import subprocess, sys, time
import pyatspi

pid, log, screenshot = int(sys.argv[1]), sys.argv[2], sys.argv[3]

def web_view_shown():
    for app in pyatspi.Registry.getDesktop(0):
        if app is None or app.get_process_id() != pid:
            continue
        pending = [app]
        while pending:
            node = pending.pop()
            if node is None:
                continue
            if node.name == "WebKitWebView":
                return node.getState().contains(pyatspi.STATE_VISIBLE)
            pending.extend(node.getChildAtIndex(i) for i in range(min(node.childCount, 50)))
    return False

def notes_asked_for():
    with open(log, encoding="utf-8", errors="replace") as f:
        return '"GET /api/notes' in f.read()

def window():
    found = subprocess.run(["xdotool", "search", "--onlyvisible", "--pid", str(pid), "--name",
                            "^QOR Velmora$"], capture_output=True, text=True).stdout.split()
    return found[0] if found else None

def picture(window_id):
    return subprocess.run(["import", "-window", window_id, "png:-"], capture_output=True).stdout

deadline, last = time.monotonic() + 120, None
while time.monotonic() < deadline:
    try:
        if web_view_shown() and notes_asked_for() and (window_id := window()):
            if (shot := picture(window_id)) and shot == last:
                with open(screenshot, "wb") as f:
                    f.write(shot)
                sys.exit(0)
            last = shot
            continue
    except Exception:
        pass
    time.sleep(0.5)
sys.exit(1)
PY
then
  echo "Screenshot of the window: $screenshot"
else
  echo "The gateway's page was not shown within 120 s; see the messages above." >&2
fi
echo "QOR Velmora is running (pid $app_pid). Press Ctrl+C to stop it."
wait "$app_pid"
