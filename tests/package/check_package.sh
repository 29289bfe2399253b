#!/usr/bin/env bash
# Checks the Debian package as a user's machine would take it: lintian without errors; installed into and
# purged from a root of its own by dpkg, leaving nothing behind; its desktop entries valid; its systemd user
# unit verified where systemd-analyze is there; and the program unpacked there started headless on a private
# home, answering velmar-client and closing on request.
#   check_package.sh <package.deb>
set -uo pipefail
deb=$(realpath "$1")
work=$(mktemp -d)
trap 'kill "$service" 2>/dev/null; rm -rf "$work"' EXIT
failures=0
fail() {
    echo "FAILED: $*"
    failures=$((failures + 1))
}

echo "-- lintian"
lintian --allow-root --fail-on error --suppress-tags-from-file /dev/null "$deb" || fail "lintian reports errors"

echo "-- dpkg installs it into a root of its own and purges it again"
root=$work/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
: >"$root/var/lib/dpkg/status"
before=$(cd "$root" && find . | sort)
if dpkg --root="$root" --force-depends --force-not-root -i "$deb" >"$work/dpkg.log" 2>&1; then
    [ -x "$root/usr/bin/VelmarTaskScheduler" ] || fail "the program is not in /usr/bin"
    for entry in usr/share/applications/velmartaskscheduler.desktop etc/xdg/autostart/velmartaskscheduler.desktop; do
        desktop-file-validate "$root/$entry" || fail "desktop-file-validate: $entry"
    done
    if command -v systemd-analyze >/dev/null; then
        # Verified where it was installed to: its program is looked for there.
        sed "s|^ExecStart=/usr/|ExecStart=$root/usr/|" "$root/usr/lib/systemd/user/velmartaskscheduler.service" \
            >"$work/velmartaskscheduler.service"
        systemd-analyze verify --man=no "$work/velmartaskscheduler.service" || fail "systemd-analyze verify: the user unit"
    else
        echo "skipped: systemd-analyze is not there to verify the user unit"
    fi
    dpkg --root="$root" --force-depends --force-not-root --purge velmartaskscheduler >>"$work/dpkg.log" 2>&1 ||
        fail "dpkg --purge"
    # What dpkg keeps of its own (its database, logs) aside, the root is as it was.
    after=$(cd "$root" && find . | grep -v '^\./var' | sort)
    expected=$(printf '%s\n' "$before" | grep -v '^\./var' | sort)
    [ "$after" = "$expected" ] || fail "left behind after purge: $(comm -13 <(echo "$expected") <(echo "$after") | tr '\n' ' ')"
else
    cat "$work/dpkg.log"
    fail "dpkg -i"
fi

echo "-- the unpacked program serves on a private home"
unpacked=$work/unpacked
dpkg-deb -x "$deb" "$unpacked"
home=$work/home
mkdir -p "$home"
export HOME=$home XDG_CONFIG_HOME=$home/.config XDG_DATA_HOME=$home/.local/share XDG_CACHE_HOME=$home/.cache
export VELMAR_PIPE=$work/service.sock
unset DISPLAY WAYLAND_DISPLAY VELMAR_MAPI_LIBRARY VELMAR_MAPI_PROFILES
"$unpacked/usr/bin/VelmarTaskScheduler" --headless >"$work/service.log" 2>&1 &
service=$!
for _ in $(seq 100); do [ -S "$VELMAR_PIPE" ] && break; sleep 0.1; done
client=$unpacked/usr/bin/velmar-client
"$client" --timeout=20 IsMAPIDllInitialized || fail "velmar-client IsMAPIDllInitialized"
"$client" --timeout=20 CloseVelmarTaskScheduler >/dev/null || fail "velmar-client CloseVelmarTaskScheduler"
for _ in $(seq 100); do kill -0 "$service" 2>/dev/null || break; sleep 0.1; done
kill -0 "$service" 2>/dev/null && fail "the program did not end on request"
wait "$service" 2>/dev/null
grep -q -- '-> IsMAPIDllInitialized' "$work/service.log" || fail "the request is not in the activity list"

if [ "$failures" -ne 0 ]; then
    echo "the package failed $failures check(s)"
    exit 1
fi
echo "the package passed every check"
