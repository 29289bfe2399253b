#!/usr/bin/env bash
# Runs a command on a private X desktop: Xvfb on a display number of its own, with trayer as the system
# tray. With --wineserver PATH, Wine's server is ended before and after, so that Wine's desktop process
# (which hosts the tray icons) belongs to this display and to no other.
set -u
wineserver=
if [ "${1:-}" = --wineserver ]; then
    wineserver=$2
    shift 2
fi

[ -n "$wineserver" ] && "$wineserver" -k 2>/dev/null && "$wineserver" -w 2>/dev/null
number_file=$(mktemp)
Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp -noreset 3>"$number_file" >/dev/null 2>&1 &
server=$!
for _ in $(seq 1 100); do
    [ -s "$number_file" ] && break
    sleep 0.05
done
export DISPLAY=":$(head -n 1 "$number_file")"
rm -f "$number_file"
unset WAYLAND_DISPLAY
trayer --edge bottom --align right --widthtype pixel --width 120 --heighttype pixel --height 32 \
    --transparent false --tint 0x808080 >/dev/null 2>&1 &
tray=$!
for _ in $(seq 1 100); do
    xwininfo -root -tree 2>/dev/null | grep -q '"panel"' && break
    sleep 0.05
done

"$@"
status=$?

[ -n "$wineserver" ] && "$wineserver" -k 2>/dev/null
kill "$tray" "$server" 2>/dev/null
wait "$tray" "$server" 2>/dev/null
exit "$status"
