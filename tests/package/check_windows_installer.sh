#!/usr/bin/env bash
# Checks the Windows installer under Wine, each time in a fresh prefix: shown on a private X desktop, page by
# page, with a screenshot of each; then silent (/S): the programs, the Start-menu entry and the start at
# login are there, the installed program answers on its named pipe, and the silent uninstaller removes all
# of it again.
#   check_windows_installer.sh <installer.exe> <screenshot folder>
set -uo pipefail
installer=$(realpath "$1")
shots=$(realpath -m "$2")
here=$(cd "$(dirname "$0")" && pwd)
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
wineserver=$(dirname "$wine")/wineserver
[ -x "$wineserver" ] || wineserver=$(command -v wineserver)
export WINEDEBUG=-all
# The fresh prefixes live in the build folder, beside the screenshots, and go when the check is done.
work=$(dirname "$shots")/installer-check
rm -rf "$work"
mkdir -p "$work"
trap '"$wineserver" -k 2>/dev/null; rm -rf "$work"' EXIT
failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

fresh_prefix() {
    export WINEPREFIX=$work/$1
    "$wine" wineboot --init >/dev/null 2>&1
    "$wineserver" -w
}

# The Windows path of a folder of the prefix's user, as a Linux path.
user_folder() {
    local folder
    folder=$("$wine" cmd /c echo "%$1%" 2>/dev/null | tr -d '\r')
    "$wine" winepath -u "$folder" 2>/dev/null
}

echo "-- the installer's pages, on a private X desktop"
mkdir -p "$shots"
fresh_prefix shown
bash "$here/../x_desktop.sh" --wineserver "$wineserver" bash -c '
    "$0" "$1" &
    for page in 1-willkommen 2-komponenten 3-zielordner 4-installation 5-fertig; do
        window=
        for _ in $(seq 300); do
            window=$(xdotool search --name "VelmarTaskScheduler" 2>/dev/null | head -n 1)
            [ -n "$window" ] && break
            sleep 0.1
        done
        [ -n "$window" ] || exit 1
        sleep 1.5
        import -window root "$2/installer-$page.png" || exit 1
        xdotool windowactivate --sync "$window" key --clearmodifiers Return 2>/dev/null || xdotool key Return
        [ "$page" = 3-zielordner ] && sleep 5
    done
    sleep 2
' "$wine" "$installer" "$shots" || fail "the installer's pages could not be shown"
for page in 1-willkommen 2-komponenten 3-zielordner 4-installation 5-fertig; do
    [ -s "$shots/installer-$page.png" ] || fail "no screenshot of the page $page"
done

echo "-- silent installation, the program, silent removal"
fresh_prefix silent
"$wine" "$installer" /S
"$wineserver" -w
programs=$(user_folder LOCALAPPDATA)/Programs/VelmarTaskScheduler
menu=$(user_folder APPDATA)/Microsoft/Windows/Start\ Menu/Programs/VelmarTaskScheduler.lnk
for file in VelmarTaskScheduler.exe velmar-client.exe Uninstall.exe; do
    [ -f "$programs/$file" ] || fail "not installed: $file"
done
[ -f "$menu" ] || fail "no Start-menu entry"
run_key='HKCU\Software\Microsoft\Windows\CurrentVersion\Run'
"$wine" reg query "$run_key" /v VelmarTaskScheduler 2>/dev/null | grep -q VelmarTaskScheduler.exe ||
    fail "no start at login"

"$wine" "$programs/VelmarTaskScheduler.exe" --headless >"$work/service.log" 2>&1 &
answered=no
for _ in $(seq 60); do
    # 0 and 1 are answers ("OK", "FAILED": Wine has no MAPI); 3 means nobody listens yet.
    "$wine" "$programs/velmar-client.exe" --timeout=10 IsMAPIDllInitialized >"$work/reply" 2>/dev/null
    status=$?
    if [ "$status" -le 1 ] && grep -q '"status"' "$work/reply"; then
        answered=yes
        break
    fi
    sleep 0.5
done
[ "$answered" = yes ] || fail "the installed program did not answer on its named pipe"
"$wine" "$programs/velmar-client.exe" --timeout=10 CloseVelmarTaskScheduler >/dev/null 2>&1
"$wineserver" -w

"$wine" "$programs/Uninstall.exe" /S
"$wineserver" -w
[ -e "$programs" ] && fail "left behind: $(ls "$programs")"
[ -e "$menu" ] && fail "the Start-menu entry is still there"
"$wine" reg query "$run_key" /v VelmarTaskScheduler >/dev/null 2>&1 && fail "the start at login is still there"
"$wine" reg query 'HKCU\Software\Microsoft\Windows\CurrentVersion\Uninstall\VelmarTaskScheduler' >/dev/null 2>&1 &&
    fail "the uninstall entry is still there"

if [ "$failures" -ne 0 ]; then
    echo "the Windows installer failed $failures check(s)"
    exit 1
fi
echo "the Windows installer passed every check"
