#!/usr/bin/env bash
# CPU cost of the whole window on the Summary page, as a percentage of one core over a window of
# seconds, read from /proc/<pid>/stat. Runs the real program under Xvfb with private settings.
#   bench/summary_cpu.sh [update speed: high|medium|normal|slow|paused] [frame rate 0|15|30|60] [seconds]
# "high" refreshes every 250 ms (values change, meters move); "paused" keeps the page at rest.
set -euo pipefail
speed="${1:-normal}"
fps="${2:-60}"
seconds="${3:-30}"
root="$(cd "$(dirname "$0")/.." && pwd)"
binary="${KORV_BINARY:-$root/build/bin/korv-task-manager}"
[[ -x "$binary" ]] || { echo "summary_cpu: $binary is not built" >&2; exit 1; }

home="$(mktemp -d)"
pid=""
launcher=""
# The program goes first: xvfb-run then ends its own X server. Killing xvfb-run first would leave
# the server (and the program) behind.
cleanup() {
    [[ -n "$pid" ]] && kill "$pid" 2>/dev/null || true
    [[ -n "$launcher" ]] && wait "$launcher" 2>/dev/null || true
    rm -rf "$home"
}
trap cleanup EXIT
config="$home/config/KORV/Task Manager KORV"  # the organisation and application names
mkdir -p "$config" "$home/runtime"
# A file of another schema would be set aside as damaged, and the run would measure the defaults.
schema="$(sed -n 's/.*kSettingsSchemaVersion = \([0-9]*\);.*/\1/p' "$root/core/settings.h")"
chmod 700 "$home/runtime"
cat > "$config/settings.json" <<JSON
{"schemaVersion": $schema, "defaultPage": "summary", "updateSpeed": "$speed", "visualFrameRate": $fps, "visualBloomLevel": 7}
JSON

HOME="$home" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home/runtime" \
    xvfb-run -a "$binary" >/dev/null 2>&1 &
launcher=$!
# xvfb-run forks the program; find it among the launcher's descendants.
pid=""
for _ in $(seq 1 100); do
    pid="$(pgrep -f -n -P "$(pgrep -d, -P "$launcher" || echo "$launcher")" korv-task-manager || true)"
    [[ -z "$pid" ]] && pid="$(pgrep -n -P "$launcher" -f korv-task-manager || true)"
    [[ -n "$pid" ]] && break
    sleep 0.1
done
[[ -n "$pid" ]] || { echo "summary_cpu: the program did not start" >&2; exit 1; }
sleep 5  # let start-up settle before measuring
if compgen -G "$config/settings.json.corrupt.*" >/dev/null; then
    echo "${0##*/}: the program refused the bench settings and would run on its defaults" >&2
    exit 1
fi

ticks() { awk '{ s = $0; sub(/^.*\) /, "", s); split(s, f, " "); print f[12] + f[13] }' "/proc/$pid/stat"; }
hz="$(getconf CLK_TCK)"
before="$(ticks)"
sleep "$seconds"
after="$(ticks)"
awk -v a="$before" -v b="$after" -v hz="$hz" -v s="$seconds" -v speed="$speed" -v fps="$fps" \
    'BEGIN { printf "summary page, update %s, %s fps: %.2f%% of one core over %d s\n", speed, fps, (b - a) / hz / s * 100, s }'
