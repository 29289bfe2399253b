#!/usr/bin/env bash
# Smoke test of the run command: starts the program through scripts/run.sh on its embedded default profile
# (in a private home), talks to it with velmar-client, closes it and checks its exit code.
set -uo pipefail
cd "$(dirname "$0")/.."

home=$(mktemp -d)
log="$home/run.log"
client=build/release/tools/velmar-client
program_pid=

cleanup() {
    [ -n "$program_pid" ] && kill "$program_pid" 2>/dev/null
    rm -rf "$home"
}
trap cleanup EXIT

fail() {
    echo "smoke test of the run command FAILED: $*"
    echo "---- program output (last 40 lines)"
    tail -n 40 "$log"
    exit 1
}

export HOME="$home" XDG_DATA_HOME="$home/data" XDG_CONFIG_HOME="$home/config" TMPDIR="$home/tmp"
export VELMAR_PIPE="$home/velmar.sock"
unset XDG_RUNTIME_DIR VELMAR_MAPI_PROFILES VELMAR_MAPI_LIBRARY
mkdir -p "$TMPDIR"

# Headless, as on a server: the activity list comes on standard output.
bash scripts/run.sh --headless >"$log" 2>&1 </dev/null &
program_pid=$!

# run.sh builds before it serves; wait until the service answers (or the program is gone).
for _ in $(seq 1 600); do
    "$client" --timeout=2 IsMAPIDllInitialized >/dev/null 2>&1 && break
    kill -0 "$program_pid" 2>/dev/null || fail "the program ended before it served"
    sleep 1
done

ask() {  # ask EXPECTED_EXIT PATTERN COMMAND [key=value...]
    local expected=$1 pattern=$2 reply status
    shift 2
    reply=$("$client" --timeout=10 "$@" 2>&1)
    status=$?
    [ "$status" -eq "$expected" ] || fail "$* exited with $status, expected $expected: $reply"
    grep -q -- "$pattern" <<<"$reply" || fail "$* replied without '$pattern': $reply"
    echo "ok: $*"
}

ask 0 '"status": "OK"' IsMAPIDllInitialized
ask 0 '"element": "Velmar"' GetProfileNames
ask 0 '"status": "OK"' Logon data_string=Velmar
ask 0 '"displayName": "Postfach"' OpenMessageStoreTable
ask 0 '"status": "OK"' IsInitialized
ask 0 '"status": "OK"' CloseVelmarTaskScheduler

for _ in $(seq 1 30); do
    kill -0 "$program_pid" 2>/dev/null || break
    sleep 1
done
kill -0 "$program_pid" 2>/dev/null && fail "the program still runs 30 s after CloseVelmarTaskScheduler"
wait "$program_pid"
exit_code=$?
program_pid=
[ "$exit_code" -eq 0 ] || fail "the program exited with $exit_code"
grep -q -- '-> CloseVelmarTaskScheduler' "$log" || fail "the activity list did not show the close"
[ -e "$VELMAR_PIPE" ] && fail "the socket was left behind"
echo "smoke test of the run command passed"
