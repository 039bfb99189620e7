#!/usr/bin/env bash
# The whole program on the Processes page at the 1 s cadence, side by side with top and htop
# watching the same machine, with extra sleeping processes to watch. For each, the CPU percent of
# one core over the window (from /proc/<pid>/stat) and the resident memory at its end.
#   bench/processes_vs_top.sh [extra processes, default 2000] [seconds, default 60] [frame rate, default 60]
# htop runs inside tmux (it needs a terminal); without htop or tmux its row says so.
set -euo pipefail
extra="${1:-2000}"
seconds="${2:-60}"
fps="${3:-60}"
root="$(cd "$(dirname "$0")/.." && pwd)"
binary="${KORV_BINARY:-$root/build/bin/korv-task-manager}"
[[ -x "$binary" ]] || { echo "processes_vs_top: $binary is not built" >&2; exit 1; }

home="$(mktemp -d)"
session="korv-bench-$$"
sleepers=()
launcher=""
toppid=""
korv=""
# The program goes first: xvfb-run then ends its own X server.
cleanup() {
    [[ -n "$korv" ]] && kill "$korv" 2>/dev/null || true
    [[ -n "$launcher" ]] && wait "$launcher" 2>/dev/null || true
    [[ -n "$toppid" ]] && kill "$toppid" 2>/dev/null || true
    tmux kill-session -t "$session" 2>/dev/null || true
    # The sleepers are one process group: end them together.
    [[ ${#sleepers[@]} -gt 0 ]] && kill -- "-${sleepers[0]}" 2>/dev/null || true
    wait 2>/dev/null || true
    rm -rf "$home"
}
trap cleanup EXIT

# One leader with the extra processes as its children, all asleep.
setsid bash -c "for i in \$(seq 1 $extra); do sleep 100000 & done; wait" &
sleepers+=("$!")
for _ in $(seq 1 200); do
    [[ "$(pgrep -c -P "${sleepers[0]}" || true)" -ge "$extra" ]] && break
    sleep 0.1
done

config="$home/config/KORV/Task Manager KORV"
mkdir -p "$config" "$home/runtime"
# A file of another schema would be set aside as damaged, and the run would measure the defaults.
schema="$(sed -n 's/.*kSettingsSchemaVersion = \([0-9]*\);.*/\1/p' "$root/core/settings.h")"
chmod 700 "$home/runtime"
cat > "$config/settings.json" <<JSON
{"schemaVersion": $schema, "defaultPage": "processes", "updateSpeed": "normal", "visualFrameRate": $fps}
JSON
HOME="$home" XDG_CONFIG_HOME="$home/config" XDG_RUNTIME_DIR="$home/runtime" \
    xvfb-run -a -s "-screen 0 1400x900x24" "$binary" >/dev/null 2>&1 &
launcher=$!
korv=""
for _ in $(seq 1 100); do
    korv="$(pgrep -n -f "^$binary" || true)"
    [[ -n "$korv" ]] && break
    sleep 0.1
done
[[ -n "$korv" ]] || { echo "processes_vs_top: the program did not start" >&2; exit 1; }

top -b -d 1 >/dev/null &
toppid=$!
htop=""
if command -v htop >/dev/null && command -v tmux >/dev/null; then
    tmux new-session -d -s "$session" -x 200 -y 50 "htop -d 10"
    for _ in $(seq 1 50); do
        htop="$(pgrep -n -x htop || true)"
        [[ -n "$htop" ]] && break
        sleep 0.1
    done
fi
sleep 5  # start-up settles before the measurement
if compgen -G "$config/settings.json.corrupt.*" >/dev/null; then
    echo "${0##*/}: the program refused the bench settings and would run on its defaults" >&2
    exit 1
fi

ticks() { awk '{ s = $0; sub(/^.*\) /, "", s); split(s, f, " "); print f[12] + f[13] }' "/proc/$1/stat"; }
rss() { awk '/^VmRSS:/ { printf "%.1f", $2 / 1024 }' "/proc/$1/status"; }
declare -A before
for name in korv top htop; do
    pid="${!name:-}"
    [[ "$name" == top ]] && pid="$toppid"
    [[ -n "$pid" ]] && before[$name]="$(ticks "$pid")"
done
sleep "$seconds"
hz="$(getconf CLK_TCK)"
echo "$(( $(pgrep -c -P "${sleepers[0]}") )) extra sleeping processes, $(ls /proc | grep -c '^[0-9]') in all, ${seconds} s"
printf '%-22s %10s %12s\n' program "CPU %" "RSS MiB"
for name in korv top htop; do
    pid="${!name:-}"
    [[ "$name" == top ]] && pid="$toppid"
    label="$name"
    [[ "$name" == korv ]] && label="korv-task-manager"
    [[ "$name" == top ]] && label="top -b -d 1"
    [[ "$name" == htop ]] && label="htop -d 10"
    if [[ -z "$pid" || ! -r "/proc/$pid/stat" ]]; then
        printf '%-22s %10s %12s\n' "$label" "not run" "-"
        continue
    fi
    after="$(ticks "$pid")"
    awk -v a="${before[$name]}" -v b="$after" -v hz="$hz" -v s="$seconds" -v label="$label" -v m="$(rss "$pid")" \
        'BEGIN { printf "%-22s %10.2f %12s\n", label, (b - a) / hz / s * 100, m }'
done
